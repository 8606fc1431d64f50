// Calls on a name: delete, move, temporary names.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <optional>

#include "QzTestFiles.h"

using namespace qzsys;
using namespace qztest;

namespace {

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
      {"a", nullptr, ERROR_ACCESS_DENIED, QZ_FAULT_DELETE_FILE},
      {"a", "b", ERROR_ALREADY_EXISTS},
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
