// Share modes between handles of this process, and against delete and move.
#include "FileTestSupport.h"

#include <atomic>
#include <thread>

using namespace qzfiletest;
using namespace qztest;

namespace {

constexpr DWORD R = FILE_SHARE_READ, W = FILE_SHARE_WRITE, D = FILE_SHARE_DELETE;

struct ShareRow {
  DWORD access1, share1, access2, share2;
  bool second;  // does the second open succeed
};

TEST(PlatformFileShare, SecondOpenMustFitTheFirstBothWays) {
  const ShareRow rows[] = {
      // the first open's share mode limits the second's access
      {kRead, 0, kRead, R | W, false},
      {kRead, R, kRead, R | W, true},
      {kRead, R, kWrite, R | W, false},
      {kRead, W, kWrite, R | W, true},
      {kRead, W, kRead, R | W, false},
      {kWrite, R | W, kBoth, R | W, true},
      {kWrite, R, kBoth, R | W, false},
      // the second's share mode must allow the first's access
      {kRead, R | W, kRead, 0, false},
      {kRead, R | W, kRead, W, false},
      {kWrite, R | W, kRead, R, false},
      {kWrite, R | W, kRead, W, true},
      {kBoth, R | W, kBoth, R | W, true},
      // opens that only look (access 0) never take part
      {0, 0, kBoth, 0, true},
      {kBoth, 0, 0, 0, true},
      // delete access needs delete sharing
      {kRead, R, kRead | DELETE, R, false},
      {kRead, R | D, kRead | DELETE, R, true},
  };
  TempFolder dir;
  std::string path = dir / "f";
  WriteAll(path, "data");
  for (const auto& r : rows) {
    SCOPED_TRACE(testing::Message() << std::hex << r.access1 << "/" << r.share1 << " then " << r.access2 << "/"
                                    << r.share2);
    Handle first(Open(path, r.access1, r.share1));
    ASSERT_TRUE(first.valid());
    SetLastError(0);
    Handle second(Open(path, r.access2, r.share2));
    EXPECT_EQ(second.valid(), r.second);
    if (!r.second) {
      EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
    }
  }
  EXPECT_EQ(ReadAll(path), "data");
}

TEST(PlatformFileShare, RefusedCreateCutsNothingAndClosingLiftsTheBan) {
  TempFolder dir;
  std::string path = dir / "f";
  WriteAll(path, "keep");
  HANDLE first = Open(path, kRead, 0);
  ASSERT_TRUE(Valid(first));
  EXPECT_EQ(Open(path, kWrite, kShareAll, CREATE_ALWAYS), QZ_INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
  EXPECT_EQ(ReadAll(path), "keep");
  ASSERT_TRUE(CloseHandle(first));
  Handle again(Open(path, kWrite, 0, CREATE_ALWAYS));
  EXPECT_TRUE(again.valid());
  EXPECT_EQ(ReadAll(path), "");
}

TEST(PlatformFileShare, OtherNamesOfTheSameFileShareItsMode) {
  TempFolder dir;
  WriteAll(dir / "f", "x");
  ASSERT_EQ(link((dir / "f").c_str(), (dir / "g").c_str()), 0);
  Handle first(Open(dir / "f", kWrite, 0));
  EXPECT_EQ(Open(dir / "g", kRead, kShareAll), QZ_INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
}

TEST(PlatformFileShare, DeleteAndMoveNeedDeleteSharingFromEveryOpen) {
  TempFolder dir;
  std::string path = dir / "f";
  WriteAll(path, "x");
  {
    Handle open(Open(path, kRead, R | W));
    EXPECT_FALSE(DeleteFileA(path.c_str()));
    EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
    EXPECT_FALSE(MoveFileA(path.c_str(), (dir / "g").c_str()));
    EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
    EXPECT_TRUE(Exists(path));
    EXPECT_FALSE(Exists(dir / "g"));
  }
  {
    Handle open(Open(path, kRead, R | D));
    EXPECT_TRUE(MoveFileA(path.c_str(), (dir / "g").c_str()));
    // The handle follows the file to its new name.
    EXPECT_EQ(ReadHandle(open.get()), "x");
    EXPECT_TRUE(DeleteFileA((dir / "g").c_str()));
  }
  EXPECT_FALSE(Exists(dir / "g"));
}

TEST(PlatformFileShare, ExclusiveOpensExcludeEachOtherAcrossThreads) {
  // Two threads race to hold the file alone; whoever holds it must be alone,
  // and whoever is refused must be told so.
  TempFolder dir;
  std::string path = dir / "f";
  WriteAll(path, "");
  std::atomic<int> holders{0}, overlaps{0}, wins{0}, refusals{0}, otherErrors{0};
  auto race = [&] {
    for (int i = 0; i < 200; ++i) {
      HANDLE h = Open(path, kBoth, 0);
      if (!Valid(h)) {
        (GetLastError() == ERROR_SHARING_VIOLATION ? refusals : otherErrors)++;
        continue;
      }
      if (holders.fetch_add(1) != 0) overlaps++;
      wins++;
      WriteHandle(h, "x");
      holders.fetch_sub(1);
      CloseHandle(h);
    }
  };
  std::thread other(race);
  race();
  other.join();
  EXPECT_EQ(overlaps.load(), 0);
  EXPECT_EQ(otherErrors.load(), 0);
  EXPECT_EQ(wins.load() + refusals.load(), 400);
  EXPECT_EQ(ReadAll(path), "x");
}

}  // namespace
