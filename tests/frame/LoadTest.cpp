// The load sequence, the load entry's reasons and Qz_TerminateLibrary.
#include <atomic>
#include <string>

#include "FrameTestSupport.h"

namespace {

// What was wrong before any of the library's load code ran, if anything: this
// constructor has a lower priority number than the library's, so it runs first.
const char* g_beforeLoad = "not checked";

// An at-exit entry registered before the library's constructors, as the
// empty strings' entries are: at exit it must find detach already done.
std::atomic<bool> g_checkExitOrder{false};
void CheckDetachRanBeforeMe() {
  if (!g_checkExitOrder) return;
  const char* entries[64];
  size_t n = std::min<size_t>(QzFrameTrace(entries, 64), 64);
  bool detached = false;
  for (size_t i = n >= 2 ? n - 2 : 0; i < n; ++i) detached |= strcmp(entries[i], "load entry: detach") == 0;
  _exit(detached ? 42 : 1);
}

__attribute__((constructor(150))) void RecordBeforeLoad() {
  atexit(&CheckDetachRanBeforeMe);
  char from[] = "copied before load", to[sizeof from] = {};
  g_beforeLoad = Qz_FastMemcpy != &QzMemcpyPlain || Qz_FastMemcpyPartial != &QzMemcpyPlain ||
                         Qz_FastMemcpyEnd != &QzMemcpyEndNone ? "copy slots not plain"
                 : Qz_Sqrt || Qz_Truncate || Qz_CosF ? "maths slots already filled"
                 : Qz_FastMemcpy(to, from, sizeof from) != sizeof from || strcmp(to, from) ? "copy failed"
                 : QzFrameTrace(nullptr, 0) != 0 ? "load code ran first" : "";
  Qz_FastMemcpyEnd();
}

// The steps that `step` adds to the trace.
template <class F>
std::vector<std::string> StepsOf(F step) {
  const char* entries[64];
  size_t before = std::min<size_t>(QzFrameTrace(entries, 64), 64);
  step();
  size_t after = std::min<size_t>(QzFrameTrace(entries, 64), 64);
  return std::vector<std::string>(entries + before, entries + after);
}

// The steps of the families above the frame appear only when those families
// are linked in; the order is fixed either way.
std::vector<std::string> Expected(std::vector<std::string> steps, void (*weak)(), const char* step) {
  if (weak != nullptr) steps.push_back(step);
  return steps;
}
const std::vector<std::string> kAttach = {"load entry: attach", "DisableThreadLibraryCalls", "GetSystemInfo",
                                          "processor identification", "maths slots", "copy slots"};

TEST(FrameLoad, PlainCopiesBeforeLoadThenEachEntryReasonAndTerminateInOrder) {
  EXPECT_STREQ(g_beforeLoad, "");
  std::vector<std::string> expected = Expected({}, &QzLoadStepLogSink, "static initialiser: log sink");
  expected = Expected(expected, &QzLoadStepEmptyStrings, "static initialiser: empty strings");
  expected.insert(expected.end(), kAttach.begin(), kAttach.end());
  const char* entries[64];
  ASSERT_GE(std::min<size_t>(QzFrameTrace(entries, 64), 64), expected.size());
  EXPECT_EQ(std::vector<std::string>(entries, entries + expected.size()), expected);

  // Then the entry's other reasons, attach again, detach, and terminate.
  auto copy = Qz_FastMemcpy;
  auto trunc = Qz_Truncate;
  EXPECT_EQ(StepsOf([] { EXPECT_EQ(QzLoadEntry(nullptr, QZ_PROCESS_ATTACH, nullptr), 1); }), kAttach);
  EXPECT_TRUE(Qz_FastMemcpy == copy && Qz_Truncate == trunc);
  EXPECT_EQ(StepsOf([] { EXPECT_EQ(QzLoadEntry(nullptr, QZ_PROCESS_DETACH, nullptr), 1); }),
            Expected({"load entry: detach"}, &QzUnloadStepDisableLog, "disable log"));
  // Terminate releases the converters, then closes the log, and may run twice.
  std::vector<std::string> once = Expected({"terminate"}, &QzReleaseConverters, "release converters");
  once = Expected(once, &QzUnloadStepDisableLog, "disable log");
  for (int round = 0; round < 2; ++round) EXPECT_EQ(StepsOf(&Qz_TerminateLibrary), once) << round;
  // Neither detach nor terminate touches the primitives: the library stays usable.
  EXPECT_TRUE(Qz_Truncate(-2.5) == -2 && Qz_Sqrt(16.0) == 4.0);
}

TEST(FrameLoadDeathTest, DetachRunsAtExitBeforeEarlierAtExitEntries) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        g_checkExitOrder = true;
        exit(0);
      },
      testing::ExitedWithCode(42), "");
}

}  // namespace
