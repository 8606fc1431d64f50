// Calls on a name: attributes, delete, move; the temporary folder and names.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <set>
#include <thread>

#include "QzTestFiles.h"

using namespace qzsys;
using namespace qztest;

namespace {

TEST(PlatformFileNames, AttributesComeFromTheModeAndReadOnlyCanBeTakenBack) {
  TempFolder dir;
  const std::string f = dir / "f", d = dir / "d";
  WriteAll(f, "x");
  mkdir(d.c_str(), 0755);
  const struct {
    std::string path;
    DWORD attributes, error;
  } rows[] = {
      {f, FILE_ATTRIBUTE_NORMAL, 0},
      {d, FILE_ATTRIBUTE_DIRECTORY, 0},
      {dir / "none", INVALID_FILE_ATTRIBUTES, ERROR_FILE_NOT_FOUND},
      {dir / "none/f", INVALID_FILE_ATTRIBUTES, ERROR_PATH_NOT_FOUND},
      {"", INVALID_FILE_ATTRIBUTES, ERROR_PATH_NOT_FOUND},
  };
  for (const auto& r : rows) {
    SetLastError(0);
    EXPECT_EQ(GetFileAttributesA(r.path.c_str()), r.attributes) << r.path;
    EXPECT_EQ(GetLastError(), r.error) << r.path;
  }
  // Read-only comes and goes (its refusals are the open's and delete's tests).
  ASSERT_TRUE(SetFileAttributesA(f.c_str(), FILE_ATTRIBUTE_READONLY));
  EXPECT_EQ(GetFileAttributesA(f.c_str()), FILE_ATTRIBUTE_READONLY);
  ASSERT_TRUE(SetFileAttributesA(f.c_str(), FILE_ATTRIBUTE_NORMAL));
  EXPECT_TRUE(Handle(Open(f, kWrite)).valid());
  EXPECT_FALSE(SetFileAttributesA((dir / "none").c_str(), FILE_ATTRIBUTE_NORMAL));
  EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
  FaultScope fault(QZ_FAULT_FILE_ATTRIBUTES);
  EXPECT_EQ(GetFileAttributesA(d.c_str()), INVALID_FILE_ATTRIBUTES);
  EXPECT_FALSE(SetFileAttributesA(f.c_str(), FILE_ATTRIBUTE_READONLY));
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
  EXPECT_TRUE(Handle(Open(f, kWrite)).valid());
}

TEST(PlatformFileNames, DeleteAndMoveRefuseWhatWindowsRefusesAndNeverReplace) {
  TempFolder dir;
  WriteAll(dir / "a", "A");
  WriteAll(dir / "b", "B");
  WriteAll(dir / "ro", "R");
  ASSERT_TRUE(SetFileAttributesA((dir / "ro").c_str(), FILE_ATTRIBUTE_READONLY));
  mkdir((dir / "d").c_str(), 0755);
  const struct {
    const char* from;
    const char* to;  // nullptr: a delete of `from`
    DWORD error;
    QzFault fault = QZ_FAULT_COUNT;
  } rows[] = {
      {"d", nullptr, ERROR_ACCESS_DENIED},
      {"ro", nullptr, ERROR_ACCESS_DENIED},  // for root too
      {"none", nullptr, ERROR_FILE_NOT_FOUND},
      {"none/f", nullptr, ERROR_PATH_NOT_FOUND},
      {"a", nullptr, ERROR_ACCESS_DENIED, QZ_FAULT_DELETE_FILE},
      {"a", "b", ERROR_ALREADY_EXISTS},
      {"a", "d", ERROR_ALREADY_EXISTS},
      {"a", "a", ERROR_ALREADY_EXISTS},
      {"none", "c", ERROR_FILE_NOT_FOUND},
      {"a", "none/c", ERROR_PATH_NOT_FOUND},
      {"a", "c", ERROR_ACCESS_DENIED, QZ_FAULT_MOVE_FILE},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(testing::Message() << r.from << " -> " << (r.to ? r.to : "(delete)"));
    std::optional<FaultScope> fault;
    if (r.fault != QZ_FAULT_COUNT) fault.emplace(r.fault);
    EXPECT_FALSE(r.to ? MoveFileA((dir / r.from).c_str(), (dir / r.to).c_str()) : DeleteFileA((dir / r.from).c_str()));
    EXPECT_EQ(GetLastError(), r.error);
  }
  EXPECT_FALSE(DeleteFileA(nullptr));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(MoveFileA((dir / "a").c_str(), ""));
  EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(ReadAll(dir / "a") + ReadAll(dir / "b") + ReadAll(dir / "ro"), "ABR");
  EXPECT_FALSE(Exists(dir / "c"));
  EXPECT_TRUE(MoveFileA((dir / "a").c_str(), (dir / "d/c").c_str()));
  EXPECT_TRUE(MoveFileA((dir / "d").c_str(), (dir / "e").c_str()));  // folders move too
  EXPECT_EQ(ReadAll(dir / "e/c"), "A");
  EXPECT_TRUE(DeleteFileA((dir / "e/c").c_str()));
  EXPECT_FALSE(Exists(dir / "a") || Exists(dir / "e/c"));
}

TEST(PlatformFileNames, MoveAcrossFileSystemsCopiesThenRemoves) {
  TempFolder dir;
  struct stat here, shm;
  if (stat("/dev/shm", &shm) != 0 || stat(dir.path().c_str(), &here) != 0 || shm.st_dev == here.st_dev)
    GTEST_SKIP() << "no second file system at /dev/shm";
  const std::string other = "/dev/shm/qz-move-" + std::to_string(getpid()), content(200000, 'm');
  WriteAll(dir / "a", content);
  chmod((dir / "a").c_str(), 0640);
  ASSERT_TRUE(MoveFileA((dir / "a").c_str(), other.c_str()));
  EXPECT_FALSE(Exists(dir / "a"));
  EXPECT_EQ(ReadAll(other), content);
  struct stat moved;
  ASSERT_EQ(stat(other.c_str(), &moved), 0);
  EXPECT_EQ(moved.st_mode & 0777, 0640u);
  WriteAll(dir / "b", "B");  // back onto a name that exists: refused, both stay
  EXPECT_FALSE(MoveFileA(other.c_str(), (dir / "b").c_str()));
  EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
  EXPECT_EQ(ReadAll(dir / "b"), "B");
  EXPECT_TRUE(DeleteFileA(other.c_str()));
}

TEST(PlatformFileTemp, TempPathEndsInOneSeparatorAndReportsTheSizeItNeeds) {
  const struct {
    const char *tmpdir, *expected;
  } rows[] = {{nullptr, "/tmp/"}, {"", "/tmp/"}, {"/var/x", "/var/x/"}, {"/var/x/", "/var/x/"}, {"/", "/"}};
  char buffer[MAX_PATH];
  for (const auto& r : rows) {
    EnvScope scope("TMPDIR", r.tmpdir);
    const DWORD n = GetTempPathA(MAX_PATH, buffer);
    EXPECT_EQ(n, strlen(r.expected));
    EXPECT_STREQ(buffer, r.expected);
    buffer[0] = '#';  // too small by the terminator: the size needed, nothing written
    EXPECT_EQ(GetTempPathA(n, buffer), n + 1);
    EXPECT_EQ(buffer[0], '#');
  }
  FaultScope fault(QZ_FAULT_TEMP_PATH);
  EXPECT_EQ(GetTempPathA(MAX_PATH, buffer), 0u);
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
}

TEST(PlatformFileTemp, NamesAreMadeExclusivelyAndNeverRepeatOrReplaceAFile) {
  TempFolder dir;
  // Numbers come one after another within the process: plant the next two.
  char name[MAX_PATH], planted[2][MAX_PATH];
  const UINT first = GetTempFileNameA(dir.path().c_str(), "TFR", 0, name);
  ASSERT_NE(first, 0u);
  for (UINT i = 0; i < 2; ++i) {
    GetTempFileNameA(dir.path().c_str(), "TFR", ((first + 1 + i) & 0xFFFF) == 0 ? 1 : first + 1 + i, planted[i]);
    WriteAll(planted[i], "keep");
  }
  constexpr int kPerThread = 150;
  std::vector<std::pair<std::string, UINT>> made[2];
  auto make = [&](int t) {
    char name[MAX_PATH];
    for (int i = 0; i < kPerThread; ++i) {
      UINT n = GetTempFileNameA(dir.path().c_str(), "TFR", 0, name);
      if (n != 0) made[t].emplace_back(name, n);
    }
  };
  std::thread other(make, 1);
  make(0);
  other.join();
  std::set<std::string> all{name, planted[0], planted[1]};
  for (const auto& list : made) {
    EXPECT_EQ(list.size(), size_t(kPerThread));
    for (const auto& [path, number] : list) {
      char expected[16];
      snprintf(expected, sizeof expected, "/TFR%04X.tmp", number);
      EXPECT_EQ(path, dir.path() + expected);
      EXPECT_TRUE(Exists(path)) << path;
      all.insert(path);
    }
  }
  EXPECT_EQ(all.size(), size_t(2 * kPerThread + 3));
  for (const char* p : planted) EXPECT_EQ(ReadAll(p), "keep");
}

TEST(PlatformFileTemp, NameRulesAndFailures) {
  TempFolder dir;
  char name[MAX_PATH];
  // A given number only builds the name, from its low 16 bits in upper case;
  // a separator is added when missing, and the prefix cut to 3.
  EXPECT_EQ(GetTempFileNameA(dir.path().c_str(), "ABCDEF", 0x1abcd, name), 0x1abcdu);
  EXPECT_EQ(std::string(name), dir / "ABCABCD.tmp");
  EXPECT_FALSE(Exists(name));
  EXPECT_EQ(GetTempFileNameA((dir.path() + "/").c_str(), nullptr, 7, name), 7u);
  EXPECT_EQ(std::string(name), dir / "0007.tmp");
  // The longest folder whose names still fit MAX_PATH, and one more.
  const std::string longest = dir / std::string(MAX_PATH - 1 - 12 - dir.path().size() - 1, 'l');
  ASSERT_EQ(mkdir(longest.c_str(), 0755), 0);
  EXPECT_NE(GetTempFileNameA(longest.c_str(), "TFR", 0, name), 0u);
  EXPECT_EQ(strlen(name), MAX_PATH - 1);
  name[0] = '#';
  EXPECT_EQ(GetTempFileNameA((longest + "m").c_str(), "TFR", 0, name), 0u);
  EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);
  EXPECT_EQ(name[0], '#');

  EXPECT_EQ(GetTempFileNameA((dir / "none").c_str(), "TFR", 0, name), 0u);
  EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(GetTempFileNameA(nullptr, "TFR", 0, name), 0u);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  FaultScope fault(QZ_FAULT_TEMP_FILE_NAME);
  EXPECT_EQ(GetTempFileNameA(dir.path().c_str(), "TFR", 0, name), 0u);
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
}

}  // namespace
