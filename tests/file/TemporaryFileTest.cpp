// QzTemporaryFile: Create, HandsOff, HandsOn, Close, and their failures.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>

#include <optional>

#include <qzbase/QzFile.h>

#include "QzTestFiles.h"
#include "platform/posix/Handles.h"

using namespace qzsys;
using namespace qztest;

namespace {

constexpr HRESULT Win32(DWORD e) { return HRESULT_FROM_WIN32(e); }
constexpr QzFault kNoFault = QZ_FAULT_COUNT;
using Str = QzStringT<char>;

size_t CountEntries(const std::string& folder) {
  size_t count = 0;
  if (DIR* d = opendir(folder.c_str())) {
    while (dirent* e = readdir(d)) count += e->d_name[0] != '.';
    closedir(d);
  }
  return count;
}

TEST(TemporaryFile, CreateMakesAnOpenUnsharedScratchFileOrFailsCleanly) {
  TempFolder dir;
  // Folders of a given length: dir, '/', then x up to it.
  auto folderOf = [&](size_t length) { return dir / std::string(length - dir.path().size() - 1, 'x'); };
  const struct {
    const char* what;
    std::string folder;     // "" for the system's folder
    std::string tmpdir;     // TMPDIR for that
    HRESULT result;
    QzFault fault = kNoFault;
    unsigned skip = 0;
  } rows[] = {
      {"given folder", dir.path(), "", S_OK},
      {"system folder", "", dir.path(), S_OK},
      {"259, refused by the name maker", folderOf(259), "", Win32(ERROR_FILENAME_EXCED_RANGE)},
      {"260", folderOf(260), "", DISP_E_BUFFERTOOSMALL},
      {"no temporary folder", "", dir.path(), Win32(ERROR_ACCESS_DENIED), QZ_FAULT_TEMP_PATH},
      {"no name", dir.path(), "", Win32(ERROR_ACCESS_DENIED), QZ_FAULT_TEMP_FILE_NAME},
      // either work block, or the path string once the name is made
      {"no memory 0", dir.path(), "", E_OUTOFMEMORY, QZ_FAULT_POOL_ALLOC, 0},
      {"no memory 2", dir.path(), "", E_OUTOFMEMORY, QZ_FAULT_POOL_ALLOC, 2},
  };
  mkdir(folderOf(259).c_str(), 0755);
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    EnvScope tmp("TMPDIR", r.tmpdir.c_str());
    const size_t entries = CountEntries(dir.path());
    QzTemporaryFile t;
    const Str folder(r.folder.c_str());
    {
      std::optional<FaultScope> fault;
      if (r.fault != kNoFault) fault.emplace(r.fault, r.skip);
      EXPECT_EQ(t.Create(folder, kBoth), r.result);
    }
    EXPECT_EQ(CountEntries(dir.path()), entries + (r.result == S_OK));
    if (r.result != S_OK) {
      EXPECT_EQ(t.GetHandle(), QZ_INVALID_HANDLE_VALUE);
      EXPECT_EQ(t.GetPath().length(), 0u);
      continue;
    }
    const std::string path = t.GetPath().c_str();
    EXPECT_EQ(path.compare(0, dir.path().size() + 4, dir / "TFR"), 0) << path;
    EXPECT_TRUE(WriteHandle(t.GetHandle(), "scratch"));
    EXPECT_EQ(ReadAll(path), "scratch");
    EXPECT_EQ(Open(path, kRead, kShareAll), QZ_INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
  }
  // The open fails once the name is made: the empty file stays, under the object's path.
  FaultScope fault(QZ_FAULT_CREATE_FILE);
  QzTemporaryFile t;
  EXPECT_EQ(t.Create(Str(dir.path().c_str()), kBoth), Win32(ERROR_ACCESS_DENIED));
  EXPECT_EQ(t.GetHandle(), QZ_INVALID_HANDLE_VALUE);
  EXPECT_TRUE(Exists(t.GetPath().c_str()));
}

TEST(TemporaryFile, HandsOffAndHandsOnGiveTheFileAwayAndWriteOnAtItsEnd) {
  TempFolder dir;
  QzTemporaryFile t;
  ASSERT_EQ(t.Create(Str(dir.path().c_str()), kBoth), S_OK);
  const std::string path = t.GetPath().c_str();
  ASSERT_TRUE(WriteHandle(t.GetHandle(), "abc"));
  ASSERT_EQ(SetFilePointer(t.GetHandle(), 0, nullptr, FILE_BEGIN), 0u);
  EXPECT_EQ(t.HandsOff(), S_OK);
  EXPECT_EQ(t.GetHandle(), QZ_INVALID_HANDLE_VALUE);
  EXPECT_EQ(t.HandsOff(), S_OK);
  {
    Handle other(Open(path, kBoth));  // another component may now hold it alone
    ASSERT_TRUE(other.valid());
    EXPECT_EQ(t.HandsOn(), Win32(ERROR_SHARING_VIOLATION));
    EXPECT_EQ(t.GetHandle(), QZ_INVALID_HANDLE_VALUE);
  }
  EXPECT_EQ(t.HandsOn(), S_OK);
  ASSERT_TRUE(WriteHandle(t.GetHandle(), "de"));
  EXPECT_EQ(ReadAll(path), "abcde");
  {
    FaultScope flush(QZ_FAULT_FLUSH_FILE);
    EXPECT_EQ(t.HandsOff(), S_OK);  // a failing flush is no failure
    EXPECT_EQ(t.GetHandle(), QZ_INVALID_HANDLE_VALUE);
  }
  FaultScope seek(QZ_FAULT_SET_FILE_POINTER);
  EXPECT_EQ(t.HandsOn(), Win32(ERROR_ACCESS_DENIED));
  EXPECT_NE(t.GetHandle(), QZ_INVALID_HANDLE_VALUE);  // opened before the seek failed
}


TEST(TemporaryFile, CloseDeletesPutsInPlaceOrKeepsBoth) {
  const struct {
    const char* what;
    const char* target;  // in a folder holding "old" (a file), "ro" (read-only); "=" the scratch path
    HRESULT result;
    const char* targetAfter;  // the target's content afterwards (nullptr: not checked)
    bool scratchKept;
    QzFault fault = kNoFault;
    bool handsOff = false, scratchGone = false;
  } rows[] = {
      {"new name", "new", S_OK, "made", false},
      {"replaces", "old", S_OK, "made", false},
      {"after hands-off", "new", S_OK, "made", false, kNoFault, true},
      {"deletes", "", S_OK, nullptr, false},
      {"its own name", "=", S_OK, "made", true},
      {"read-only target", "ro", Win32(ERROR_ACCESS_DENIED), "old", true},
      {"missing folder", "none/new", Win32(ERROR_PATH_NOT_FOUND), nullptr, true},
      {"delete refused", "old", Win32(ERROR_ACCESS_DENIED), "old", true, QZ_FAULT_DELETE_FILE},
      {"move refused", "new", Win32(ERROR_ACCESS_DENIED), nullptr, true, QZ_FAULT_MOVE_FILE},
      {"no scratch file", "old", Win32(ERROR_FILE_NOT_FOUND), "old", false, kNoFault, true, true},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    TempFolder dir;
    WriteAll(dir / "old", "old");
    WriteAll(dir / "ro", "old");
    ASSERT_TRUE(SetFileAttributesA((dir / "ro").c_str(), FILE_ATTRIBUTE_READONLY));
    QzTemporaryFile t;
    ASSERT_EQ(t.Create(Str(dir.path().c_str()), kBoth), S_OK);
    ASSERT_TRUE(WriteHandle(t.GetHandle(), "made"));
    const std::string scratch = t.GetPath().c_str();
    const std::string target = std::string(r.target) == "=" ? scratch : *r.target ? dir / r.target : "";
    if (r.handsOff) t.HandsOff();
    if (r.scratchGone) DeleteFileA(scratch.c_str());
    std::optional<FaultScope> fault;
    if (r.fault != kNoFault) fault.emplace(r.fault);
    EXPECT_EQ(t.Close(Str(target.c_str())), r.result);
    EXPECT_EQ(t.GetHandle(), QZ_INVALID_HANDLE_VALUE);
    EXPECT_EQ(Exists(scratch), r.scratchKept);
    if (r.scratchKept) { EXPECT_EQ(ReadAll(scratch), "made"); }
    if (r.targetAfter != nullptr) { EXPECT_EQ(ReadAll(target), r.targetAfter); }
  }
}

}  // namespace
