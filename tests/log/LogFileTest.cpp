// The process log's file sink: exact bytes, re-creation, failures, the ring,
// lines from many threads, and the local-time prefix.
#include <gtest/gtest.h>

#include <qzbase/qzbase.h>

#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "LogTestSupport.h"
#include "QzTestSupport.h"
#include "log/QzLog.h"
#include "platform/posix/Handles.h"

namespace {

using qztest::DebugCapture;
using qztest::FaultScope;
using namespace qztest;

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}



// A fresh folder for the log files of one test, removed afterwards.
class LogFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/qzlogXXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    QZ_DISABLE_LOG();
    std::string cmd = "rm -rf '" + dir_ + "'";
    (void)std::system(cmd.c_str());
  }
  std::string Path(const char* name) const { return dir_ + "/" + name; }
  std::string dir_;
};

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
  const std::string content = ReadFile(path);
  EXPECT_EQ(QzLogCurrentFile()->bytesWritten, content.size());
  std::istringstream in(content);
  std::string l1, header, row1, row2, trailer, l3;
  std::getline(in, l1);
  std::getline(in, header);
  std::getline(in, row1);
  std::getline(in, row2);
  std::getline(in, trailer);
  std::getline(in, l3);
  EXPECT_EQ(MessageOf(l1 + "\n"), "first 1");
  EXPECT_EQ(MessageOf(header + "\n") + "\n", ExpectedDumpHeader(bytes, sizeof bytes));
  EXPECT_EQ(row1 + "\n" + row2 + "\n", ExpectedRows(bytes, sizeof bytes));
  EXPECT_EQ(trailer + "\n", kTrailer);
  EXPECT_EQ(MessageOf(l3 + "\n"), "last");
  EXPECT_EQ(content.find('\r'), std::string::npos);
}

TEST_F(LogFiles, CreatingAgainDropsTheOldContentAndNullGoesBackToDebugOutput) {
  const std::string path = Path("b.log");
  ASSERT_EQ(QZ_CREATE_FILE_LOG(path.c_str()), 1);
  QZ_LOG_WRITE_A(QZ_LOG_INFO, "old text");
  ASSERT_EQ(QZ_CREATE_FILE_LOG(path.c_str()), 1);
  QZ_LOG_WRITE_A(QZ_LOG_INFO, "new");
  EXPECT_EQ(ReadFile(path).find("old text"), std::string::npos);
  EXPECT_EQ(MessageOf(ReadFile(path)), "new");

  EXPECT_EQ(QZ_CREATE_FILE_LOG(nullptr), 0);
  EXPECT_EQ(QzLogCurrentFile(), nullptr);
  DebugCapture capture;
  QZ_LOG_WRITE_A(QZ_LOG_INFO, "to the debugger");
  EXPECT_EQ(MessageOf(capture.joined()), "to the debugger");
  EXPECT_EQ(MessageOf(ReadFile(path)), "new");
}

TEST_F(LogFiles, PathsThatCannotBeOpenedLeaveTheLogOnDebugOutputWithTheOldFileClosed) {
  const std::string good = Path("c.log");
  const std::string rows[] = {dir_, Path("missing/dir/x.log"), ""};
  for (const std::string& bad : rows) {
    ASSERT_EQ(QZ_CREATE_FILE_LOG(good.c_str()), 1);
    DebugCapture capture;
    EXPECT_EQ(QZ_CREATE_FILE_LOG(bad.c_str()), 0) << bad;
    EXPECT_EQ(QzLogCurrentFile(), nullptr);
    EXPECT_EQ(capture.joined(), "") << "the log never logs its own failures";
    QZ_LOG_WRITE_A(QZ_LOG_INFO, "after");
    EXPECT_EQ(MessageOf(capture.joined()), "after");
  }
  struct stat st;
  EXPECT_EQ(stat(Path("missing").c_str(), &st), -1);
}

TEST_F(LogFiles, EveryFailureWhileCreatingEndsWithNoFileAndNothingHeld) {
  const std::string path = Path("d.log");
  const struct { qzsys::QzFault fault; unsigned skip; const char* what; } rows[] = {
      {qzsys::QZ_FAULT_CREATE_FILE, 0, "open"},
      {qzsys::QZ_FAULT_POOL_ALLOC, 0, "QzFile block"},
      {qzsys::QZ_FAULT_POOL_ALLOC, 1, "record block"},
      {qzsys::QZ_FAULT_CRITICAL_SECTION, 0, "lock"},
  };
  const size_t handles = qzsys::QzHandleCount();
  for (const auto& r : rows) {
    DebugCapture capture;
    {
      FaultScope fault(r.fault, r.skip, 1);
      EXPECT_EQ(QZ_CREATE_FILE_LOG(path.c_str()), 0) << r.what;
      EXPECT_EQ(fault.hits(), 1u) << r.what;
    }
    EXPECT_EQ(QzLogCurrentFile(), nullptr) << r.what;
    EXPECT_EQ(qzsys::QzHandleCount(), handles) << r.what << ": the file's handle is closed again";
    EXPECT_EQ(capture.joined(), "") << r.what;
  }
}

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
  EXPECT_EQ(QzLogCurrentFile()->bytesWritten, ReadFile(path).size());
  EXPECT_EQ(ReadFile(path).find("lost"), std::string::npos);
}

// The ring: bytes written reaching exactly the limit do not rewind; the line
// that passes it is written whole and the next one starts at offset 0.
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
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(uint64_t(st.st_size), uint64_t(limit));

  QZ_LOG_WRITE_A(QZ_LOG_INFO, "passes the limit");
  EXPECT_EQ(QzLogCurrentFile()->bytesWritten, 0u);
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  const off_t size = st.st_size;
  EXPECT_GT(uint64_t(size), uint64_t(limit));
  QZ_LOG_WRITE_A(QZ_LOG_INFO, "wraps to the start");
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_size, size) << "the file is never truncated";
  std::ifstream in(path, std::ios::binary);
  std::string first;
  std::getline(in, first);
  EXPECT_EQ(MessageOf(first + "\n"), "wraps to the start");
  std::string rest;
  std::getline(in, rest);  // what is left of the oldest line, cut where the new text ends
  EXPECT_NE(rest.find("] Info: "), std::string::npos);
  const std::string tail = ReadFile(path).substr(limit);
  EXPECT_EQ(MessageOf(tail), "passes the limit");
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
  std::istringstream in(ReadFile(path));
  std::vector<int> next(kThreads, 0);
  int dumps = 0;
  std::string text;
  while (std::getline(in, text)) {
    Line l;
    ASSERT_TRUE(ParseLine(text + "\n", &l)) << text;
    if (l.message.compare(0, 11, "DUMP BINARY") == 0) {
      std::string rows, row;
      for (int r = 0; r < 3; ++r) {
        ASSERT_TRUE(std::getline(in, row));
        rows += row + "\n";
      }
      const int t = std::stoi(rows.substr(0, 2), nullptr, 16) / 16;
      unsigned char data[70];
      for (unsigned i = 0; i < sizeof data; ++i) data[i] = static_cast<unsigned char>(t * 16 + i);
      EXPECT_EQ(rows, ExpectedRows(data, sizeof data));
      ASSERT_TRUE(std::getline(in, row));
      EXPECT_EQ(row + "\n", kTrailer);
      ++dumps;
      continue;
    }
    int t = -1, i = -1;
    ASSERT_EQ(sscanf(l.message.c_str(), "thread %d line %d", &t, &i), 2) << l.message;
    EXPECT_EQ(l.message, "thread " + std::to_string(t) + " line " + std::to_string(i) + " payload payload payload");
    ASSERT_GE(t, 0);
    ASSERT_LT(t, kThreads);
    EXPECT_EQ(i, next[t]) << "lines of one thread keep their order";
    next[t] = i + 1;
  }
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(next[t], kLines);
  EXPECT_EQ(dumps, kThreads * kDumps);
}

TEST_F(LogFiles, TerminatingTheLibraryClosesTheFileAndLoggingGoesOn) {
  const std::string path = Path("t.log");
  ASSERT_EQ(QZ_CREATE_FILE_LOG(path.c_str()), 1);
  Qz_TerminateLibrary();
  EXPECT_EQ(QzLogCurrentFile(), nullptr);
  Qz_TerminateLibrary();
  DebugCapture capture;
  QZ_LOG_WRITE_A(QZ_LOG_INFO, "still here");
  EXPECT_EQ(MessageOf(capture.joined()), "still here");
}

}  // namespace
