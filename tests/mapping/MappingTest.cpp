// Sections and views: private, named (shared between processes) and
// file-backed; the failure codes hosts see; QzFileMapping over them.
#include <gtest/gtest.h>

#include <qzbase/QzFileMapping.h>

#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "QzTestSupport.h"
#include "platform/posix/Handles.h"

using namespace qzsys;
using qztest::FaultScope;
using qztest::ReadAll;
using qztest::TempFolder;
using qztest::WriteAll;

namespace {

// A name no other run of the tests uses at the same time.
std::string UniqueName(const char* what) {
  return std::string("qzbase-test\\") + what + "-" + std::to_string(getpid());
}

HANDLE OpenFile(const std::string& path, DWORD access) {
  return CreateFileA(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                     FILE_ATTRIBUTE_NORMAL, nullptr);
}

// Every test must give back what it took.
class Mapping : public testing::Test {
 protected:
  void SetUp() override {
    handles_ = QzHandleCount();
    views_ = QzMappedViewCount();
  }
  void TearDown() override {
    EXPECT_EQ(QzHandleCount(), handles_);
    EXPECT_EQ(QzMappedViewCount(), views_);
  }
  size_t handles_ = 0, views_ = 0;
};

TEST_F(Mapping, ViewsOfOneSectionShareMemoryAndOutliveItsHandle) {
  HANDLE a = CreateFileMappingA(QZ_INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 0x30000, nullptr);
  ASSERT_NE(a, nullptr);
  char* whole = static_cast<char*>(MapViewOfFileEx(a, FILE_MAP_WRITE, 0, 0, 0, nullptr));
  char* second = static_cast<char*>(MapViewOfFileEx(a, FILE_MAP_READ, 0, 0x10000, 0x10000, nullptr));
  char* copy = static_cast<char*>(MapViewOfFileEx(a, FILE_MAP_COPY, 0, 0, 0x10000, nullptr));
  ASSERT_TRUE(whole && second && copy);
  EXPECT_EQ(whole[0x2FFFF], 0);  // new memory is zeroed
  ASSERT_TRUE(CloseHandle(a));   // the views keep the section
  strcpy(whole + 0x10000, "shared");
  copy[0] = 'c';
  EXPECT_STREQ(second, "shared");
  EXPECT_EQ(whole[0], 0);        // a copy view's writes stay private
  for (char* v : {whole, second, copy}) EXPECT_TRUE(UnmapViewOfFile(v));
  EXPECT_FALSE(UnmapViewOfFile(whole));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_ADDRESS);
}

TEST_F(Mapping, FailuresGiveTheSystemsCodes) {
  TempFolder dir;
  WriteAll(dir / "empty", "");
  WriteAll(dir / "small", std::string(100, 'x'));
  HANDLE empty = OpenFile(dir / "empty", GENERIC_READ);
  HANDLE readOnly = OpenFile(dir / "small", GENERIC_READ);
  HANDLE section = CreateFileMappingA(QZ_INVALID_HANDLE_VALUE, nullptr, PAGE_READONLY, 0, 0x20000, nullptr);
  ASSERT_NE(section, nullptr);
  struct Row {
    const char* what;
    HANDLE file;
    DWORD protect, size;
    DWORD error;
  } creates[] = {
      {"memory of 0 bytes", QZ_INVALID_HANDLE_VALUE, PAGE_READWRITE, 0, ERROR_INVALID_PARAMETER},
      {"size 0 of an empty file", empty, PAGE_READONLY, 0, ERROR_FILE_INVALID},
      {"past the end of a read-only section", readOnly, PAGE_READONLY, 101, ERROR_NOT_ENOUGH_MEMORY},
      {"writable section on a read-only handle", readOnly, PAGE_READWRITE, 0, ERROR_ACCESS_DENIED},
  };
  for (const Row& r : creates) {
    SCOPED_TRACE(r.what);
    EXPECT_EQ(CreateFileMappingA(r.file, nullptr, r.protect, 0, r.size, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), r.error);
  }
  struct ViewRow {
    const char* what;
    DWORD access, offset;
    SIZE_T bytes;
    DWORD error;
  } views[] = {
      {"offset off the granularity", FILE_MAP_READ, 0x1000, 0x1000, ERROR_MAPPED_ALIGNMENT},
      {"range past the end", FILE_MAP_READ, 0x10000, 0x10001, ERROR_ACCESS_DENIED},
      {"writing a read-only section", FILE_MAP_WRITE, 0, 0, ERROR_ACCESS_DENIED},
  };
  for (const ViewRow& r : views) {
    SCOPED_TRACE(r.what);
    EXPECT_EQ(MapViewOfFileEx(section, r.access, 0, r.offset, r.bytes, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), r.error);
  }
  {
    FaultScope fault(QZ_FAULT_CREATE_MAPPING);
    EXPECT_EQ(CreateFileMappingA(QZ_INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 16, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
  }
  for (HANDLE h : {empty, readOnly, section}) CloseHandle(h);
}

TEST_F(Mapping, NamedSectionIsSharedBetweenProcesses) {
  const std::string name = UniqueName("processes");
  QzFileMapping mine;
  ASSERT_EQ(mine.MapSharedMem(0x20000, name.c_str(), nullptr, nullptr, QZ_PAGE_READWRITE, QZ_FILE_MAP_WRITE), 0);
  strcpy(static_cast<char*>(mine.view), "parent");
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // Joins by name, checks the parent's bytes, answers in the second 64 KiB.
    QzFileMapping theirs;
    int existed = 0;
    bool ok = theirs.MapSharedMem(0x20000, name.c_str(), &existed, nullptr, QZ_PAGE_READWRITE, QZ_FILE_MAP_WRITE) == 0 &&
              existed == 1 && strcmp(static_cast<char*>(theirs.view), "parent") == 0;
    if (ok) strcpy(static_cast<char*>(theirs.view) + 0x10000, "child");
    ok = ok && theirs.Unmap() == 0;
    _exit(ok ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_STREQ(static_cast<char*>(mine.view) + 0x10000, "child");
  // The child's leaving did not end the section: its last user does.
  QzFileMapping again;
  EXPECT_EQ(again.OpenMapping(name.c_str(), 0, QZ_FILE_MAP_READ, 0x10000), 0);
  EXPECT_EQ(mine.Unmap(), 0);
  EXPECT_EQ(again.Unmap(), 0);
  EXPECT_NE(again.OpenMapping(name.c_str(), 0, QZ_FILE_MAP_READ, 0), 0);
}

TEST_F(Mapping, MapFileMapsTheWholeFileExtendsAWritableOneAndKeepsItOpen) {
  TempFolder dir;
  std::string content(0x18000, 0);
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7);
  WriteAll(dir / "f", content);
  HANDLE file = OpenFile(dir / "f", GENERIC_READ | GENERIC_WRITE);
  {
    QzFileMapping whole;
    ASSERT_EQ(whole.MapFile(file, 0, QZ_PAGE_READONLY, QZ_FILE_MAP_READ, 0), 0);
    EXPECT_EQ(whole.size, content.size());
    EXPECT_EQ(memcmp(whole.view, content.data(), content.size()), 0);
  }
  QzFileMapping longer;
  ASSERT_EQ(longer.MapFile(file, 0x20000, QZ_PAGE_READWRITE, QZ_FILE_MAP_WRITE, 0), 0);
  CloseHandle(file);  // the section holds the file
  static_cast<char*>(longer.view)[0x1FFFF] = 'z';
  EXPECT_EQ(longer.Unmap(), 0);
  std::string after = ReadAll(dir / "f");
  ASSERT_EQ(after.size(), 0x20000u);
  EXPECT_EQ(after.compare(0, content.size(), content), 0);
  EXPECT_EQ(after[0x1FFFF], 'z');
}

}  // namespace
