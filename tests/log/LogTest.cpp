// The process log: line format, levels, dumps, the API-error line, the file
// sink with its ring, and lines from many threads.
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

TEST(Log, LevelsPrintTheirWordAndAnyOtherValuePrintsNA) {
  const struct { int level; const char* word; } rows[] = {
      {0, "FatalError"}, {1, "Error"}, {2, "Warning"}, {3, "Status"}, {4, "Info"},
      {5, "NA"}, {7, "NA"}, {-1, "NA"}, {0x7FFFFFFF, "NA"}};
  for (const auto& r : rows) {
    DebugCapture capture;
    QZ_LOG_WRITE_A(static_cast<QzLogLevelValues>(r.level), "v=%d", r.level);
    ASSERT_EQ(capture.texts().size(), 1u) << r.level;
    Line l;
    ASSERT_TRUE(ParseLine(capture.joined(), &l)) << capture.joined();
    EXPECT_EQ(l.level, r.word) << r.level;
    EXPECT_EQ(l.message, "v=" + std::to_string(r.level));
  }
}

TEST(Log, EveryMessageFormReachesTheSinkAsOneNarrowLine) {
  const unsigned short wideFormat[] = {'w', '%', 'd', ' ', 0xE9, 0};
  const unsigned short wideText[] = {'s', 't', 'r', 0x20AC, 0};
  struct Row {
    const char* name;
    void (*write)();
    const char* message;
  };
  static const unsigned short* wf = wideFormat;
  static const unsigned short* wt = wideText;
  const Row rows[] = {
      {"narrow format", [] { QZ_LOG_WRITE_A(QZ_LOG_STATUS, "a%sb%04d", "-", 42); }, "a-b0042"},
      {"null narrow format", [] { QZ_LOG_WRITE_A(QZ_LOG_STATUS, nullptr); }, ""},
      {"wide format", [] { QZ_LOG_WRITE_W(QZ_LOG_STATUS, wf, 7); }, "w7 \xC3\xA9"},
      {"null wide format", [] { QZ_LOG_WRITE_W(QZ_LOG_STATUS, nullptr); }, ""},
      {"narrow string", [] { QZ_LOG_WRITE_STRING(QZ_LOG_STATUS, QzStringT<char>("plain %s text")); },
       "plain %s text"},
      {"wide string", [] { QZ_LOG_WRITE_STRING(QZ_LOG_STATUS, QzStringT<unsigned short>(wt)); },
       "str\xE2\x82\xAC"},
  };
  for (const Row& r : rows) {
    DebugCapture capture;
    r.write();
    ASSERT_EQ(capture.texts().size(), 1u) << r.name;
    EXPECT_EQ(MessageOf(capture.joined()), r.message) << r.name;
  }
}

TEST(Log, OutOfMemoryWhileBuildingALinePassesToTheCallerAndWritesNothing) {
  DebugCapture capture;
  FaultScope noMemory(qzsys::QZ_FAULT_POOL_ALLOC);
  EXPECT_THROW(QZ_LOG_WRITE_A(QZ_LOG_ERROR, "%s", "text"), QzException);
  EXPECT_THROW(QZ_LOG_WRITE_STRING(QZ_LOG_ERROR, QzStringT<char>()), QzException);
  EXPECT_EQ(capture.joined(), "");
}

TEST(Log, DumpsGiveHeaderRowsOf32AndTrailer) {
  unsigned char data[100];
  for (unsigned i = 0; i < sizeof data; ++i) data[i] = static_cast<unsigned char>(i * 37 + 0xA0);
  const struct { unsigned size; size_t rows; } cases[] = {{1, 1}, {31, 1}, {32, 1}, {33, 2}, {64, 2}, {65, 3}, {100, 4}};
  for (const auto& c : cases) {
    DebugCapture capture;
    QZ_LOG_WRITE_B(QZ_LOG_WARNING, data, c.size);
    const std::vector<std::string> texts = capture.texts();
    ASSERT_EQ(texts.size(), c.rows + 2) << c.size;
    Line l;
    ASSERT_TRUE(ParseLine(texts[0], &l)) << texts[0];
    EXPECT_EQ(l.level, "Warning");
    EXPECT_EQ(l.message + "\n", ExpectedDumpHeader(data, c.size));
    std::string rows;
    for (size_t i = 1; i + 1 < texts.size(); ++i) rows += texts[i];
    EXPECT_EQ(rows, ExpectedRows(data, c.size)) << c.size;
    EXPECT_EQ(texts.back(), kTrailer);
  }
  DebugCapture nothing;
  QZ_LOG_WRITE_B(QZ_LOG_WARNING, data, 0);
  QZ_LOG_WRITE_B(QZ_LOG_WARNING, nullptr, 16);
  EXPECT_TRUE(nothing.texts().empty());
}

TEST(Log, ApiErrorLineCutsThePathAfterItsLastBackslashOnly) {
  const HRESULT code = static_cast<HRESULT>(0x80070002u);
  const std::string text = QzStringT<char>::GetWin32Error(code).c_str();
  ASSERT_FALSE(text.empty());
  const struct { const char* file; const char* shown; } rows[] = {
      {"d:\\src\\threads\\QzSyncObject.cpp", "QzSyncObject.cpp"},
      {"QzSyncObject", "QzSyncObject"},
      {"Source/threads/QzSyncObject.cpp", "Source/threads/QzSyncObject.cpp"},
      {"ends\\", ""},
  };
  for (const auto& r : rows) {
    DebugCapture capture;
    QZ_DBGLOG_WRITE_API_ERROR_IMPL(r.file, 12, "QzThing::Call", code);
    Line l;
    ASSERT_TRUE(ParseLine(capture.joined(), &l)) << capture.joined();
    EXPECT_EQ(l.level, "Error");
    EXPECT_EQ(l.message, std::string("In file ") + r.shown + " at line 12: 'QzThing::Call' failed with error 0x80070002 (" +
                             text + ").");
  }
  // Error 0 prints as eight zeros.
  DebugCapture zero;
  QZ_DBGLOG_WRITE_API_ERROR_IMPL("f", 1, "e", 0);
  EXPECT_NE(zero.joined().find("failed with error 0x00000000 ("), std::string::npos) << zero.joined();
}

TEST(Log, ApiErrorPathIsScannedByCharactersOfTheActivePage) {
  ASSERT_TRUE(qzsys::QzSetActiveCodePage(932));
  DebugCapture capture;
  // 0x95 0x5C is one character in 932; only the lone backslash before it cuts.
  QZ_DBGLOG_WRITE_API_ERROR_IMPL("dir\\\x95\x5C" "a.cpp", 3, "e", 0);
  qzsys::QzSetActiveCodePage(65001);
  EXPECT_NE(capture.joined().find("In file \x95\x5C" "a.cpp at line 3"), std::string::npos) << capture.joined();
}

}  // namespace
