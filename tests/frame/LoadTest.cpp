// The load sequence, the load entry's reasons and Qz_TerminateLibrary.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

#include <string>
#include <vector>

#include "QzFrame.h"
#include "QzPrimitives.h"

namespace {

// What the slots held before any of the library's load code ran: this
// constructor has a lower priority number than the library's, so it runs first.
struct BeforeLoad {
  bool copyWasPlain = false, partialWasPlain = false, endWasNone = false;
  bool mathsWereNull = false;
  bool copied = false;
  size_t traceLength = 99;
} g_beforeLoad;

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
  g_beforeLoad.copyWasPlain = Qz_FastMemcpy == &QzMemcpyPlain;
  g_beforeLoad.partialWasPlain = Qz_FastMemcpyPartial == &QzMemcpyPlain;
  g_beforeLoad.endWasNone = Qz_FastMemcpyEnd == &QzMemcpyEndNone;
  g_beforeLoad.mathsWereNull = Qz_Sqrt == nullptr && Qz_Truncate == nullptr && Qz_CosF == nullptr;
  char from[] = "copied before load", to[sizeof from] = {};
  g_beforeLoad.copied = Qz_FastMemcpy(to, from, sizeof from) == sizeof from && strcmp(to, from) == 0;
  Qz_FastMemcpyEnd();
  g_beforeLoad.traceLength = QzFrameTrace(nullptr, 0);
}

std::vector<std::string> Trace() {
  const char* entries[64];
  size_t n = QzFrameTrace(entries, 64);
  return std::vector<std::string>(entries, entries + std::min<size_t>(n, 64));
}

// The steps of the families above the frame appear only when those families
// are linked in; the order is fixed either way.
std::vector<std::string> ExpectedAttach(bool withStaticInitialisers) {
  std::vector<std::string> steps;
  if (withStaticInitialisers) {
    if (&QzLoadStepLogSink != nullptr) steps.push_back("static initialiser: log sink");
    if (&QzLoadStepEmptyStrings != nullptr) steps.push_back("static initialiser: empty strings");
  }
  for (const char* s : {"load entry: attach", "DisableThreadLibraryCalls", "GetSystemInfo",
                        "processor identification", "maths slots", "copy slots"})
    steps.push_back(s);
  return steps;
}

TEST(FrameLoad, CopySlotsArePlainBeforeLoadCodeRuns) {
  EXPECT_TRUE(g_beforeLoad.copyWasPlain);
  EXPECT_TRUE(g_beforeLoad.partialWasPlain);
  EXPECT_TRUE(g_beforeLoad.endWasNone);
  EXPECT_TRUE(g_beforeLoad.mathsWereNull);
  EXPECT_TRUE(g_beforeLoad.copied);
  EXPECT_EQ(g_beforeLoad.traceLength, 0u);
}

TEST(FrameLoad, AttachRanItsStepsInOrder) {
  std::vector<std::string> expected = ExpectedAttach(true);
  std::vector<std::string> trace = Trace();
  ASSERT_GE(trace.size(), expected.size());
  EXPECT_EQ(std::vector<std::string>(trace.begin(), trace.begin() + expected.size()), expected);
  EXPECT_EQ(QzSystemInfo().dwPageSize & (QzSystemInfo().dwPageSize - 1), 0u);
  EXPECT_GE(QzSystemInfo().dwPageSize, 4096u);
  EXPECT_NE(Qz_Sqrt, nullptr);
}

TEST(FrameLoad, OtherReasonsDoNothing) {
  size_t before = Trace().size();
  auto sqrtSlot = Qz_Sqrt;
  for (qzsys::DWORD reason : {2u, 3u, 4u, 0xFFFFFFFFu}) EXPECT_EQ(QzLoadEntry(nullptr, reason, nullptr), 1);
  EXPECT_EQ(Trace().size(), before);
  EXPECT_EQ(Qz_Sqrt, sqrtSlot);
}

TEST(FrameLoad, AttachAgainGivesTheSameSlotsAndDetachClosesTheLog) {
  auto copy = Qz_FastMemcpy;
  auto trunc = Qz_Truncate;
  size_t before = Trace().size();
  EXPECT_EQ(QzLoadEntry(nullptr, QZ_PROCESS_ATTACH, nullptr), 1);
  std::vector<std::string> trace = Trace();
  std::vector<std::string> expected = ExpectedAttach(false);
  ASSERT_EQ(trace.size(), before + expected.size());
  EXPECT_EQ(std::vector<std::string>(trace.begin() + before, trace.end()), expected);
  EXPECT_EQ(Qz_FastMemcpy, copy);
  EXPECT_EQ(Qz_Truncate, trunc);

  before = trace.size();
  EXPECT_EQ(QzLoadEntry(nullptr, QZ_PROCESS_DETACH, nullptr), 1);
  trace = Trace();
  std::vector<std::string> detach = {"load entry: detach"};
  if (&QzUnloadStepDisableLog != nullptr) detach.push_back("disable log");
  EXPECT_EQ(std::vector<std::string>(trace.begin() + before, trace.end()), detach);
  // Detach leaves the primitives alone: the library stays usable to the end.
  EXPECT_EQ(Qz_Truncate(-2.5), -2);
}

TEST(FrameLoad, TerminateReleasesConvertersThenClosesTheLogAndCanRunTwice) {
  std::vector<std::string> once = {"terminate"};
  if (&QzReleaseConverters != nullptr) once.push_back("release converters");
  if (&QzUnloadStepDisableLog != nullptr) once.push_back("disable log");
  for (int round = 0; round < 2; ++round) {
    size_t before = Trace().size();
    Qz_TerminateLibrary();
    std::vector<std::string> trace = Trace();
    EXPECT_EQ(std::vector<std::string>(trace.begin() + before, trace.end()), once) << round;
  }
  EXPECT_EQ(Qz_Sqrt(16.0), 4.0);  // still usable afterwards
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
