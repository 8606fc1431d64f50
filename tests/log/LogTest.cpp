// The process log on debug output: levels, message forms, dumps, the API-error line.
#include <gtest/gtest.h>

#include <qzbase/qzbase.h>

#include <string>
#include <vector>

#include "LogTestSupport.h"
#include "QzTestSupport.h"
#include "log/QzLog.h"

namespace {

using namespace qztest;

TEST(Log, LevelsPrintTheirWordAndAnyOtherValuePrintsNA) {
  const struct { int level; const char* word; } rows[] = {
      {0, "FatalError"}, {1, "Error"}, {2, "Warning"}, {3, "Status"}, {4, "Info"}, {5, "NA"}, {-1, "NA"}};
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
      {"wide format", [] { QZ_LOG_WRITE_W(QZ_LOG_STATUS, wf, 7); }, "w7 \xC3\xA9"},
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

TEST(Log, DumpsGiveHeaderRowsOf32AndTrailer) {
  unsigned char data[100];
  for (unsigned i = 0; i < sizeof data; ++i) data[i] = static_cast<unsigned char>(i * 37 + 0xA0);
  const struct { unsigned size; size_t rows; } cases[] = {{1, 1}, {32, 1}, {33, 2}, {100, 4}};
  for (const auto& c : cases) {
    DebugCapture capture;
    QZ_LOG_WRITE_B(QZ_LOG_WARNING, data, c.size);
    const std::vector<std::string> texts = capture.texts();
    ASSERT_EQ(texts.size(), c.rows + 2) << c.size;
    EXPECT_EQ(MessageOf(texts[0]) + "\n", ExpectedDumpHeader(data, c.size));
    std::string rows;
    for (size_t i = 1; i < texts.size(); ++i) rows += texts[i];
    EXPECT_EQ(rows, ExpectedRows(data, c.size) + kTrailer) << c.size;
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
}

}  // namespace
