// Qz_DebugAssert and Qz_DebugTrace.
#include <stdlib.h>

#include <qzbase/QzDebug.h>

#include "StringTestUtil.h"

namespace {

// Answers message boxes and remembers what they showed.
struct BoxAnswer {
  int answer;
  std::string text, caption;
  unsigned type = 0;
  int calls = 0;
  explicit BoxAnswer(int a) : answer(a) { qzsys::QzSetMessageBoxHook(&Hook, this); }
  ~BoxAnswer() { qzsys::QzSetMessageBoxHook(nullptr, nullptr); }
  static int Hook(void* self, const char* text, const char* caption, unsigned type) {
    BoxAnswer* me = static_cast<BoxAnswer*>(self);
    me->text = text;
    me->caption = caption;
    me->type = type;
    ++me->calls;
    return me->answer;
  }
};

}  // namespace

TEST(DebugAssert, DialogAnswersAndDebugOutput) {
  char program[260];
  ASSERT_GT(qzsys::GetModuleFileNameA(nullptr, program, sizeof program), 0u);
  qztest::DebugCapture debug;
  {
    BoxAnswer retry(qzsys::IDRETRY);
    EXPECT_EQ(Qz_DebugAssert("file.cpp", 42, "x > 0", nullptr), 1);
    EXPECT_EQ(retry.calls, 1);
    EXPECT_EQ(retry.caption, "Debug Message");
    EXPECT_EQ(retry.type, 0x11012u);
    EXPECT_EQ(retry.text, std::string("Assert Failure!\n\nProgram: ") + program +
                              "\nFile: file.cpp\nLine: 42\nExpression: x > 0\n\n"
                              "Press Retry to debug the application!");
  }
  { BoxAnswer cancel(qzsys::IDCANCEL); EXPECT_EQ(Qz_DebugAssert("f", 1, "e", ""), 0); }
  EXPECT_TRUE(debug.texts().empty());  // null and empty messages write nothing
  BoxAnswer ignore(qzsys::IDIGNORE);
  const std::string long_(3000, 'x');
  EXPECT_EQ(Qz_DebugAssert("f", 1, long_.c_str(), "abc"), 0);
  EXPECT_NE(ignore.text.find("Expression: " + long_ + "\n\n"), std::string::npos);  // not cut
  Qz_DebugAssert("f", 1, "e", "def\n");
  Qz_DebugAssert("f", 1, "e", long_.c_str());
  EXPECT_EQ(debug.joined(), "abc\ndef\n" + long_ + "\n");
  EXPECT_EQ(ignore.calls, 3);
}

TEST(DebugAssertDeathTest, AbortEndsTheProcessWithCode3) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  BoxAnswer abort(qzsys::IDABORT);
  EXPECT_EXIT(Qz_DebugAssert("f", 1, "e", nullptr), ::testing::ExitedWithCode(3), "");
}

TEST(DebugAssert, EnvironmentAnswersWhenNoHookIsSet) {
  setenv("QZ_ASSERT_ANSWER", "Retry", 1);
  EXPECT_EQ(Qz_DebugAssert("f", 1, "e", nullptr), 1);
  unsetenv("QZ_ASSERT_ANSWER");
}

TEST(DebugTrace, OneLineFeedAtTheEndAndNothingWithoutMemory) {
  qztest::DebugCapture debug;
  Qz_DebugTrace("x=%d %s", 5, "five");
  Qz_DebugTrace("line\n");
  EXPECT_EQ(debug.texts(), std::vector<std::string>({"x=5 five\n", "line\n"}));
  qztest::FaultScope none(qzsys::QZ_FAULT_POOL_ALLOC);
  Qz_DebugTrace("lost %d", 1);
  EXPECT_EQ(debug.texts().size(), 2u);
}
