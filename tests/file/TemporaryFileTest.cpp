// QzTemporaryFile: Create, HandsOff, HandsOn, Close, and their failures.
#include <gtest/gtest.h>

#include <dirent.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>

#include <qzbase/QzFile.h>

#include "QzTestSupport.h"
#include "platform/posix/Handles.h"

using namespace qzsys;
using namespace qztest;

namespace {

constexpr HRESULT kTooLong = static_cast<HRESULT>(0x80020013u);
constexpr HRESULT Win32(DWORD e) { return HRESULT_FROM_WIN32(e); }
const DWORD kBoth = GENERIC_READ | GENERIC_WRITE;

// Names in a folder, sorted.
std::vector<std::string> Entries(const std::string& folder) {
  std::vector<std::string> names;
  if (DIR* d = opendir(folder.c_str())) {
    while (dirent* e = readdir(d))
      if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool Write(QzTemporaryFile& t, const char* text) {
  DWORD n = 0;
  return WriteFile(t.GetHandle(), text, static_cast<DWORD>(strlen(text)), &n, nullptr) && n == strlen(text);
}

TEST(TemporaryFile, CreateMakesAnOpenScratchFileInTheGivenOrSystemFolder) {
  TempFolder dir;
  QzTemporaryFile given;
  ASSERT_EQ(given.Create(QzStringT<char>(dir.path().c_str()), kBoth), S_OK);
  std::string path = given.GetPath().c_str();
  EXPECT_EQ(path.compare(0, dir.path().size() + 4, dir.path() + "/TFR"), 0) << path;
  EXPECT_EQ(path.substr(path.size() - 4), ".tmp");
  EXPECT_EQ(given.access, kBoth);
  EXPECT_TRUE(Write(given, "scratch"));
  EXPECT_EQ(ReadAll(path), "scratch");
  // No sharing while it is open.
  EXPECT_EQ(CreateFileA(path.c_str(), GENERIC_READ, 7, nullptr, OPEN_EXISTING, 0, nullptr), QZ_INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);

  EnvScope tmp("TMPDIR", dir.path().c_str());
  QzTemporaryFile system;
  ASSERT_EQ(system.Create(QzStringT<char>(), GENERIC_WRITE), S_OK);
  EXPECT_EQ(std::string(system.GetPath().c_str()).compare(0, dir.path().size() + 4, dir.path() + "/TFR"), 0);
  EXPECT_EQ(Entries(dir.path()).size(), 2u);
}

TEST(TemporaryFile, FolderLengthLimits) {
  TempFolder dir;
  auto folderOf = [&](size_t length) { return dir.path() + "/" + std::string(length - dir.path().size() - 1, 'x'); };
  const struct {
    size_t length;
    HRESULT result;
  } rows[] = {
      {247, S_OK},                             // the longest whose names fit MAX_PATH
      {248, Win32(ERROR_FILENAME_EXCED_RANGE)},
      {259, Win32(ERROR_FILENAME_EXCED_RANGE)},  // accepted by Create, refused by the name maker
      {260, kTooLong},
      {300, kTooLong},
  };
  for (const auto& r : rows) {
    std::string folder = folderOf(r.length);
    if (folder.size() - dir.path().size() - 1 < 256) mkdir(folder.c_str(), 0755);
    QzTemporaryFile t;
    EXPECT_EQ(t.Create(QzStringT<char>(folder.c_str()), kBoth), r.result) << r.length;
    EXPECT_EQ(t.GetHandle() != QZ_INVALID_HANDLE_VALUE, r.result == S_OK) << r.length;
    if (r.result != S_OK) {
      EXPECT_EQ(t.GetPath().length(), 0u) << r.length;
      EXPECT_TRUE(Entries(folder).empty()) << r.length;
    }
  }
  // The system's folder: a result above 256 is too long, 256 is not.
  {
    EnvScope tmp("TMPDIR", ("/" + std::string(254, 'y')).c_str());  // "/yyy...y/" is 256
    QzTemporaryFile t;
    EXPECT_NE(t.Create(QzStringT<char>(), kBoth), kTooLong);
  }
  {
    EnvScope tmp("TMPDIR", ("/" + std::string(255, 'y')).c_str());  // 257
    QzTemporaryFile t;
    EXPECT_EQ(t.Create(QzStringT<char>(), kBoth), kTooLong);
  }
}

TEST(TemporaryFile, CreateFailuresReturnTheSystemError) {
  TempFolder dir;
  QzStringT<char> folder(dir.path().c_str());
  {
    QzTemporaryFile t;
    EXPECT_EQ(t.Create(QzStringT<char>((dir / "none").c_str()), kBoth), Win32(ERROR_PATH_NOT_FOUND));
  }
  {
    FaultScope fault(QZ_FAULT_TEMP_PATH);
    QzTemporaryFile t;
    EXPECT_EQ(t.Create(QzStringT<char>(), kBoth), Win32(ERROR_ACCESS_DENIED));
  }
  {
    FaultScope fault(QZ_FAULT_TEMP_FILE_NAME);
    QzTemporaryFile t;
    EXPECT_EQ(t.Create(folder, kBoth), Win32(ERROR_ACCESS_DENIED));
  }
  EXPECT_TRUE(Entries(dir.path()).empty());
  // Out of memory for either work block, or for the path string after the
  // name was made: no throw, and no nameless file left behind.
  for (unsigned skip = 0; skip < 3; ++skip) {
    FaultScope fault(QZ_FAULT_POOL_ALLOC, skip);
    QzTemporaryFile t;
    EXPECT_EQ(t.Create(folder, kBoth), E_OUTOFMEMORY) << skip;
    EXPECT_EQ(t.GetPath().length(), 0u);
  }
  EXPECT_TRUE(Entries(dir.path()).empty());
  {
    // The open fails after the name was made: the empty file stays, and the
    // object knows its name.
    FaultScope fault(QZ_FAULT_CREATE_FILE);
    QzTemporaryFile t;
    EXPECT_EQ(t.Create(folder, kBoth), Win32(ERROR_ACCESS_DENIED));
    EXPECT_EQ(t.GetHandle(), QZ_INVALID_HANDLE_VALUE);
    ASSERT_EQ(Entries(dir.path()).size(), 1u);
    EXPECT_EQ(dir / Entries(dir.path())[0], t.GetPath().c_str());
  }
}

TEST(TemporaryFile, HandsOffAndHandsOnGiveTheFileAwayAndWriteOnAtItsEnd) {
  TempFolder dir;
  QzTemporaryFile t;
  ASSERT_EQ(t.Create(QzStringT<char>(dir.path().c_str()), kBoth), S_OK);
  std::string path = t.GetPath().c_str();
  ASSERT_TRUE(Write(t, "abc"));
  ASSERT_EQ(SetFilePointer(t.GetHandle(), 0, nullptr, FILE_BEGIN), 0u);
  EXPECT_EQ(t.HandsOff(), S_OK);
  EXPECT_EQ(t.GetHandle(), QZ_INVALID_HANDLE_VALUE);
  EXPECT_EQ(t.HandsOff(), S_OK);
  {
    // Another component may now open it alone.
    HANDLE other = CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(other, QZ_INVALID_HANDLE_VALUE);
    EXPECT_EQ(t.HandsOn(), Win32(ERROR_SHARING_VIOLATION));
    EXPECT_EQ(t.GetHandle(), QZ_INVALID_HANDLE_VALUE);
    CloseHandle(other);
  }
  EXPECT_EQ(t.HandsOn(), S_OK);
  ASSERT_TRUE(Write(t, "de"));
  EXPECT_EQ(ReadAll(path), "abcde");

  EXPECT_EQ(t.HandsOff(), S_OK);
  {
    FaultScope fault(QZ_FAULT_SET_FILE_POINTER);
    EXPECT_EQ(t.HandsOn(), Win32(ERROR_ACCESS_DENIED));
    EXPECT_NE(t.GetHandle(), QZ_INVALID_HANDLE_VALUE);  // opened before the seek failed
  }
  EXPECT_EQ(t.HandsOff(), S_OK);
  ASSERT_TRUE(DeleteFileA(path.c_str()));
  EXPECT_EQ(t.HandsOn(), Win32(ERROR_FILE_NOT_FOUND));
  {
    FaultScope fault(QZ_FAULT_FLUSH_FILE);
    QzTemporaryFile u;
    ASSERT_EQ(u.Create(QzStringT<char>(dir.path().c_str()), kBoth), S_OK);
    EXPECT_EQ(u.HandsOff(), S_OK);  // a failing flush is no failure
    EXPECT_EQ(u.GetHandle(), QZ_INVALID_HANDLE_VALUE);
    EXPECT_EQ(u.Close(QzStringT<char>()), S_OK);
  }
}

TEST(TemporaryFile, CloseDeletesOrPutsInPlace) {
  TempFolder dir;
  QzStringT<char> folder(dir.path().c_str());
  WriteAll(dir / "existing", "old");
  const struct {
    const char* what;
    std::string target;
    bool handsOffFirst;
  } rows[] = {
      {"new name", dir / "new", false},
      {"replaces", dir / "existing", false},
      {"after hands-off", dir / "later", true},
  };
  for (const auto& r : rows) {
    QzTemporaryFile t;
    ASSERT_EQ(t.Create(folder, kBoth), S_OK);
    ASSERT_TRUE(Write(t, r.what));
    if (r.handsOffFirst) t.HandsOff();
    std::string scratch = t.GetPath().c_str();
    EXPECT_EQ(t.Close(QzStringT<char>(r.target.c_str())), S_OK) << r.what;
    EXPECT_EQ(t.GetHandle(), QZ_INVALID_HANDLE_VALUE);
    EXPECT_EQ(ReadAll(r.target), r.what);
    EXPECT_FALSE(Exists(scratch)) << r.what;
  }
  QzTemporaryFile dropped;
  ASSERT_EQ(dropped.Create(folder, kBoth), S_OK);
  std::string scratch = dropped.GetPath().c_str();
  EXPECT_EQ(dropped.Close(QzStringT<char>()), S_OK);
  EXPECT_FALSE(Exists(scratch));
  EXPECT_EQ(dropped.Close(QzStringT<char>()), S_OK);  // again: nothing left to delete, still 0
  EXPECT_EQ(Entries(dir.path()), (std::vector<std::string>{"existing", "later", "new"}));
}

TEST(TemporaryFile, CloseThatCannotPlaceTheFileKeepsBothAndCanBeRepeated) {
  TempFolder dir;
  QzStringT<char> folder(dir.path().c_str());
  std::string target = dir / "target";
  WriteAll(target, "old");
  ASSERT_TRUE(SetFileAttributesA(target.c_str(), FILE_ATTRIBUTE_READONLY));
  mkdir((dir / "sub").c_str(), 0755);

  QzTemporaryFile t;
  ASSERT_EQ(t.Create(folder, kBoth), S_OK);
  ASSERT_TRUE(Write(t, "new"));
  std::string scratch = t.GetPath().c_str();
  const struct {
    const char* what;
    std::string target;
    HRESULT result;
  } rows[] = {
      {"read-only target", target, Win32(ERROR_ACCESS_DENIED)},
      {"folder as target", dir / "sub", Win32(ERROR_ACCESS_DENIED)},
      {"missing folder", dir / "none/target", Win32(ERROR_PATH_NOT_FOUND)},
  };
  for (const auto& r : rows) {
    EXPECT_EQ(t.Close(QzStringT<char>(r.target.c_str())), r.result) << r.what;
    EXPECT_EQ(ReadAll(scratch), "new") << r.what;
  }
  EXPECT_EQ(ReadAll(target), "old");
  {
    FaultScope fault(QZ_FAULT_DELETE_FILE);
    EXPECT_EQ(t.Close(QzStringT<char>(target.c_str())), Win32(ERROR_ACCESS_DENIED));
  }
  {
    FaultScope fault(QZ_FAULT_MOVE_FILE);
    EXPECT_EQ(t.Close(QzStringT<char>((dir / "other").c_str())), Win32(ERROR_ACCESS_DENIED));
  }
  EXPECT_EQ(ReadAll(scratch), "new");
  ASSERT_TRUE(SetFileAttributesA(target.c_str(), FILE_ATTRIBUTE_NORMAL));
  EXPECT_EQ(t.Close(QzStringT<char>(target.c_str())), S_OK);
  EXPECT_EQ(ReadAll(target), "new");
  EXPECT_FALSE(Exists(scratch));
}

TEST(TemporaryFile, CloseWithoutAScratchFileLeavesTheTargetAlone) {
  TempFolder dir;
  std::string target = dir / "target";
  WriteAll(target, "keep");
  QzTemporaryFile never;
  EXPECT_EQ(never.Close(QzStringT<char>(target.c_str())), Win32(ERROR_PATH_NOT_FOUND));
  QzTemporaryFile gone;
  ASSERT_EQ(gone.Create(QzStringT<char>(dir.path().c_str()), kBoth), S_OK);
  gone.HandsOff();
  ASSERT_TRUE(DeleteFileA(gone.GetPath().c_str()));
  EXPECT_EQ(gone.Close(QzStringT<char>(target.c_str())), Win32(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(ReadAll(target), "keep");
  // Closing onto its own name keeps it.
  QzTemporaryFile self;
  ASSERT_EQ(self.Create(QzStringT<char>(dir.path().c_str()), kBoth), S_OK);
  EXPECT_EQ(self.Close(self.GetPath()), S_OK);
  EXPECT_TRUE(Exists(self.GetPath().c_str()));
}

TEST(TemporaryFile, DestructionClosesButKeepsTheFileAndCreateTwiceLeaksNothing) {
  TempFolder dir;
  size_t before = QzHandleCount();
  std::string first, second;
  {
    QzTemporaryFile t;
    ASSERT_EQ(t.Create(QzStringT<char>(dir.path().c_str()), kBoth), S_OK);
    first = t.GetPath().c_str();
    ASSERT_EQ(t.Create(QzStringT<char>(dir.path().c_str()), kBoth), S_OK);
    second = t.GetPath().c_str();
    EXPECT_EQ(QzHandleCount(), before + 1);
  }
  EXPECT_EQ(QzHandleCount(), before);
  EXPECT_NE(first, second);
  EXPECT_TRUE(Exists(first));
  EXPECT_TRUE(Exists(second));
}

}  // namespace
