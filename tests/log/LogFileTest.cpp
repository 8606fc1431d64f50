// The process log's file sink: exact bytes, failures, the ring, many threads.
#include <gtest/gtest.h>

#include <qzbase/qzbase.h>

#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "LogTestSupport.h"
#include "QzTestSupport.h"
#include "log/QzLog.h"
#include "platform/posix/Handles.h"

namespace {

using namespace qztest;

class LogFiles : public ::testing::Test {
 protected:
  void TearDown() override { QZ_DISABLE_LOG(); }
  std::string Path(const char* name) const { return dir_ / name; }
  TempFolder dir_;
};

TEST_F(LogFiles, FileLinesAreTheDebugLinesByteForByte) {
  const std::string path = Path("a.log");
  ASSERT_EQ(QZ_CREATE_FILE_LOG(path.c_str()), 1);
  DebugCapture capture;
  unsigned char bytes[40];
  for (unsigned i = 0; i < sizeof bytes; ++i) bytes[i] = static_cast<unsigned char>(i);
  QZ_LOG_WRITE_A(QZ_LOG_INFO, "first %d", 1);
  QZ_LOG_WRITE_B(QZ_LOG_STATUS, bytes, sizeof bytes);
  QZ_LOG_WRITE_STRING(QZ_LOG_ERROR, QzStringT<char>("last"));
  EXPECT_EQ(capture.joined(), "");  // nothing goes to the debugger while a file is open
  ASSERT_NE(QzLogCurrentFile(), nullptr);
  const std::string content = ReadAll(path);
  EXPECT_EQ(QzLogCurrentFile()->bytesWritten, content.size());
  // Dump rows and trailer follow their header line unprefixed, with no carriage returns.
  const size_t header = content.find('\n') + 1, rows = content.find('\n', header) + 1;
  const std::string dump = ExpectedRows(bytes, sizeof bytes) + kTrailer;
  EXPECT_EQ(MessageOf(content.substr(0, header)), "first 1");
  EXPECT_EQ(MessageOf(content.substr(header, rows - header)) + "\n", ExpectedDumpHeader(bytes, sizeof bytes));
  EXPECT_EQ(content.substr(rows, dump.size()), dump);
  EXPECT_EQ(MessageOf(content.substr(rows + dump.size())), "last");
}

// Whatever makes a creation fail, the old file is closed, nothing stays held,
// and lines go to debug output again without the log reporting itself.
TEST_F(LogFiles, EveryFailureWhileCreatingEndsOnDebugOutputWithNothingHeld) {
  constexpr qzsys::QzFault kNone = qzsys::QZ_FAULT_COUNT;
  const struct { std::string path; qzsys::QzFault fault; unsigned skip; } rows[] = {
      {dir_.path(), kNone, 0}, {Path("missing/dir/x.log"), kNone, 0}, {"", kNone, 0},
      {Path("d.log"), qzsys::QZ_FAULT_CREATE_FILE, 0},
      {Path("d.log"), qzsys::QZ_FAULT_POOL_ALLOC, 0},  // the QzFile block
      {Path("d.log"), qzsys::QZ_FAULT_POOL_ALLOC, 1},  // the record block
      {Path("d.log"), qzsys::QZ_FAULT_CRITICAL_SECTION, 0},
  };
  const size_t handles = qzsys::QzHandleCount();
  for (const auto& r : rows) {
    SCOPED_TRACE(testing::Message() << r.path << " fault " << r.fault << "/" << r.skip);
    ASSERT_EQ(QZ_CREATE_FILE_LOG(Path("c.log").c_str()), 1);
    DebugCapture capture;
    {
      std::optional<FaultScope> fault;
      if (r.fault != kNone) fault.emplace(r.fault, r.skip, 1);
      EXPECT_EQ(QZ_CREATE_FILE_LOG(r.path.c_str()), 0);
    }
    EXPECT_EQ(QzLogCurrentFile(), nullptr);
    EXPECT_EQ(qzsys::QzHandleCount(), handles);
    EXPECT_EQ(capture.joined(), "");
    QZ_LOG_WRITE_A(QZ_LOG_INFO, "after");
    EXPECT_EQ(MessageOf(capture.joined()), "after");
  }
}

// The ring: bytes written reaching exactly the limit do not rewind; the line
// that passes it is written whole and the next one starts at offset 0.
TEST_F(LogFiles, AFailedWriteLosesItsLineAndAShortOneCountsWhatWasWritten) {
  const std::string path = Path("e.log");
  ASSERT_EQ(QZ_CREATE_FILE_LOG(path.c_str()), 1);
  {
    FaultScope fail(qzsys::QZ_FAULT_WRITE_FILE, 0, 1);
    QZ_LOG_WRITE_A(QZ_LOG_INFO, "lost");
  }
  EXPECT_EQ(QzLogCurrentFile()->bytesWritten, 0u);
  {
    FaultScope shortWrite(qzsys::QZ_FAULT_WRITE_FILE_SHORT, 0, 1);
    QZ_LOG_WRITE_A(QZ_LOG_INFO, "short");
  }
  EXPECT_EQ(QzLogCurrentFile()->bytesWritten, ReadAll(path).size());
  EXPECT_EQ(ReadAll(path).find("lost"), std::string::npos);
}

TEST(Log, PrefixCarriesLocalTimeProcessAndThread) {
  DebugCapture capture;
  const time_t before = time(nullptr);
  QZ_LOG_WRITE_A(QZ_LOG_INFO, "x");
  const time_t after = time(nullptr);
  Line l;
  ASSERT_TRUE(ParseLine(capture.joined(), &l)) << capture.joined();
  EXPECT_EQ(l.pid, static_cast<long>(getpid()));
  EXPECT_EQ(l.tid, static_cast<long>(qzsys::GetCurrentThreadId()));
  struct tm t = {};
  t.tm_year = l.year - 1900;  // month first: the date reads month/day/year
  t.tm_mon = l.month - 1;
  t.tm_mday = l.day;
  t.tm_hour = l.hour;
  t.tm_min = l.minute;
  t.tm_sec = l.second;
  t.tm_isdst = -1;
  const time_t stamped = mktime(&t);
  EXPECT_GE(stamped, before - 1);
  EXPECT_LE(stamped, after + 1);
  EXPECT_LT(l.ms, 1000);
}


TEST_F(LogFiles, TheFileRewindsOnlyPastTheLimitAndKeepsItsSize) {
  const std::string path = Path("ring.log");
  ASSERT_EQ(QZ_CREATE_FILE_LOG(path.c_str()), 1);
  QZ_LOG_WRITE_A(QZ_LOG_INFO, "%s", "");
  const uint32_t prefix = QzLogCurrentFile()->bytesWritten - 1;  // the line of an empty message, less its line feed
  const uint32_t limit = QZ_LOG_SIZE_LIMIT;
  std::string chunk(1 << 20, 'x');
  // Lines of about 1 MiB, then one that lands exactly on the limit.
  while (limit - QzLogCurrentFile()->bytesWritten > chunk.size() + 2 * (prefix + 1)) {
    QZ_LOG_WRITE_STRING(QZ_LOG_INFO, QzStringT<char>(chunk.c_str()));
  }
  const uint32_t left = limit - QzLogCurrentFile()->bytesWritten;
  QZ_LOG_WRITE_STRING(QZ_LOG_INFO, QzStringT<char>(std::string(left - prefix - 1, 'y').c_str()));
  ASSERT_EQ(QzLogCurrentFile()->bytesWritten, limit);
  QZ_LOG_WRITE_A(QZ_LOG_INFO, "passes the limit");
  EXPECT_EQ(QzLogCurrentFile()->bytesWritten, 0u);
  const size_t size = ReadAll(path).size();
  EXPECT_GT(size, size_t(limit));
  QZ_LOG_WRITE_A(QZ_LOG_INFO, "wraps to the start");
  const std::string content = ReadAll(path);
  EXPECT_EQ(content.size(), size) << "the file is never truncated";
  EXPECT_EQ(MessageOf(content.substr(0, content.find('\n') + 1)), "wraps to the start");
  EXPECT_EQ(MessageOf(content.substr(limit)), "passes the limit");
}

TEST_F(LogFiles, LinesAndDumpsFromEightThreadsStayWholeAndApart) {
  const std::string path = Path("threads.log");
  ASSERT_EQ(QZ_CREATE_FILE_LOG(path.c_str()), 1);
  constexpr int kThreads = 8, kLines = 200, kDumps = 20;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      unsigned char data[70];
      for (unsigned i = 0; i < sizeof data; ++i) data[i] = static_cast<unsigned char>(t * 16 + i);
      for (int i = 0; i < kLines; ++i) {
        QZ_LOG_WRITE_A(QZ_LOG_INFO, "thread %d line %d %s", t, i, "payload payload payload");
        if (i % (kLines / kDumps) == 0) QZ_LOG_WRITE_B(QZ_LOG_STATUS, data, sizeof data);
      }
      Qz_MempoolDisableThreadCache(0);
    });
  }
  for (auto& th : threads) th.join();
  std::istringstream in(ReadAll(path));
  std::vector<int> next(kThreads, 0);
  int dumps = 0;
  std::string text;
  while (std::getline(in, text)) {
    Line l;
    ASSERT_TRUE(ParseLine(text + "\n", &l)) << text;
    if (l.message.compare(0, 11, "DUMP BINARY") == 0) {
      std::string rows, row;
      for (int r = 0; r < 4 && std::getline(in, row); ++r) rows += row + "\n";
      unsigned char data[70];
      for (unsigned i = 0; i < sizeof data; ++i) data[i] = static_cast<unsigned char>((rows[0] - '0') * 16 + i);
      EXPECT_EQ(rows, ExpectedRows(data, sizeof data) + kTrailer);
      ++dumps;
      continue;
    }
    int t = -1, i = -1;
    ASSERT_EQ(sscanf(l.message.c_str(), "thread %d line %d", &t, &i), 2) << l.message;
    ASSERT_TRUE(t >= 0 && t < kThreads);
    EXPECT_EQ(l.message, "thread " + std::to_string(t) + " line " + std::to_string(i) + " payload payload payload");
    EXPECT_EQ(i, next[t]) << "lines of one thread keep their order";
    next[t] = i + 1;
  }
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(next[t], kLines);
  EXPECT_EQ(dumps, kThreads * kDumps);
}

}  // namespace
