// Calls on a file handle: read, write, seek with its two halves, end of file,
// flush, size; access, stale and made-up handles; the failure switches.
#include <gtest/gtest.h>

#include <functional>

#include "QzTestFiles.h"
#include "platform/posix/FileObject.h"

using namespace qzsys;
using namespace qztest;

namespace {

// Every call on a handle, with its failure switch.
struct HandleCall {
  const char* name;
  QzFault fault;
  std::function<bool(HANDLE)> call;  // true: the call succeeded
};

const HandleCall kCalls[] = {
    {"ReadFile", QZ_FAULT_READ_FILE, [](HANDLE h) { char b[4]; DWORD n; return ReadFile(h, b, 4, &n, nullptr) != 0; }},
    {"WriteFile", QZ_FAULT_WRITE_FILE, [](HANDLE h) { DWORD n; return WriteFile(h, "new", 3, &n, nullptr) != 0; }},
    {"SetFilePointer", QZ_FAULT_SET_FILE_POINTER,
     [](HANDLE h) { return SetFilePointer(h, 1, nullptr, FILE_BEGIN) != INVALID_SET_FILE_POINTER; }},
    {"SetEndOfFile", QZ_FAULT_SET_END_OF_FILE, [](HANDLE h) { return SetEndOfFile(h) != 0; }},
    {"FlushFileBuffers", QZ_FAULT_FLUSH_FILE, [](HANDLE h) { return FlushFileBuffers(h) != 0; }},
    {"GetFileSize", QZ_FAULT_GET_FILE_SIZE, [](HANDLE h) { return GetFileSize(h, nullptr) != INVALID_FILE_SIZE; }},
    {"CloseHandle", QZ_FAULT_CLOSE_HANDLE, [](HANDLE h) { return CloseHandle(h) != 0; }},
};

TEST(PlatformFileIo, EachCallNeedsTheAccessOfItsHandle) {
  const struct {
    DWORD access;
    const char* refused;  // the calls refused with ERROR_ACCESS_DENIED
  } rows[] = {{kRead, "WriteFile SetEndOfFile FlushFileBuffers"}, {kWrite, "ReadFile"},
              {0, "ReadFile WriteFile SetEndOfFile FlushFileBuffers"}};
  TempFolder dir;
  WriteAll(dir / "f", "abc");
  for (const auto& r : rows) {
    Handle h(Open(dir / "f", r.access, kShareAll));
    ASSERT_TRUE(h.valid());
    for (const auto& c : kCalls) {
      if (c.fault == QZ_FAULT_CLOSE_HANDLE) continue;
      const bool refused = strstr(r.refused, c.name) != nullptr;
      SetLastError(0);
      EXPECT_EQ(c.call(h.get()), !refused) << c.name << " with access " << std::hex << r.access;
      if (refused) { EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED) << c.name; }
    }
  }
}

TEST(PlatformFileIo, SetFilePointerKeepsBothHalvesAndTheMinusOneConvention) {
  TempFolder dir;
  Handle h(Open(dir / "f", kBoth, 0, CREATE_NEW));
  ASSERT_TRUE(WriteHandle(h.get(), "0123456789"));
  constexpr DWORD kFailed = INVALID_SET_FILE_POINTER;
  // In order: each row starts where the one before left the position.
  const struct {
    LONG distance;
    bool withHigh;
    LONG high;
    DWORD method, result;  // result: the lower half
    LONG highAfter;        // when withHigh
    DWORD error;           // the last error afterwards (0 on success)
  } rows[] = {
      {3, false, 0, FILE_BEGIN, 3, 0, 0},
      {-1, false, 0, FILE_END, 9, 0, 0},  // without the high half the distance is signed
      {-10, false, 0, FILE_CURRENT, kFailed, 0, ERROR_NEGATIVE_SEEK},
      {5, false, 0, 3, kFailed, 0, ERROR_INVALID_PARAMETER},
      {16, true, 1, FILE_BEGIN, 16, 1, 0},  // 4 GiB + 16
      {1, false, 0, FILE_CURRENT, kFailed, 0, ERROR_INVALID_PARAMETER},  // past 4 GiB needs the high half
      {-32, true, -1, FILE_CURRENT, 0xFFFFFFF0u, 0, 0},
      // 0xFFFFFFFF is a real position: success is told by the last error
      {-1, true, 0, FILE_BEGIN, kFailed, 0, 0},
      {-1, true, -1, FILE_END, 9, 0, 0},
      {-11, true, -1, FILE_END, kFailed, -1, ERROR_NEGATIVE_SEEK},  // *high kept on failure
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(testing::Message() << r.distance << " high " << r.high << " method " << r.method);
    LONG high = r.high;
    SetLastError(777);
    EXPECT_EQ(SetFilePointer(h.get(), r.distance, r.withHigh ? &high : nullptr, r.method), r.result);
    EXPECT_EQ(GetLastError(), r.error);
    if (r.withHigh) { EXPECT_EQ(high, r.highAfter); }
  }
  EXPECT_EQ(ReadHandle(h.get()), "9");  // the failed seeks left the position alone
}

TEST(PlatformFileIo, ClosedAndMadeUpHandlesFailWithInvalidHandle) {
  TempFolder dir;
  WriteAll(dir / "old", "old");
  HANDLE stale = Open(dir / "old", kBoth);
  const int oldDescriptor = QzFileLookup(stale).as<QzFileObject>()->descriptor();
  ASSERT_TRUE(CloseHandle(stale));
  // The next open reuses the table slot and, on Linux, the descriptor number.
  Handle reuse(Open(dir / "new", kBoth, 0, CREATE_NEW));
  ASSERT_EQ(QzFileLookup(reuse.get()).as<QzFileObject>()->descriptor(), oldDescriptor);
  EXPECT_NE(reuse.get(), stale);
  const HANDLE bad[] = {stale, nullptr, QZ_INVALID_HANDLE_VALUE, reinterpret_cast<HANDLE>(0x12345),
                        reinterpret_cast<HANDLE>(static_cast<uintptr_t>(oldDescriptor))};
  for (const HANDLE h : bad) {
    for (const auto& c : kCalls) {
      SetLastError(0);
      EXPECT_FALSE(c.call(h)) << c.name << " on " << h;
      EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE) << c.name << " on " << h;
    }
  }
  EXPECT_EQ(ReadAll(dir / "new"), "");
  EXPECT_EQ(ReadAll(dir / "old"), "old");
}

TEST(PlatformFileIo, FailureSwitchesFailTheirCallAndTouchNothing) {
  TempFolder dir;
  WriteAll(dir / "f", "0123");
  Handle h(Open(dir / "f", kBoth));
  for (const auto& c : kCalls) {
    FaultScope fault(c.fault);
    SetLastError(0);
    EXPECT_FALSE(c.call(h.get())) << c.name;
    EXPECT_NE(GetLastError(), 0u) << c.name;
    EXPECT_EQ(fault.hits(), 1u) << c.name;
  }
  EXPECT_EQ(ReadAll(dir / "f"), "0123");
  EXPECT_EQ(GetFileSize(h.get(), nullptr), 4u);  // still open after the failed close
  // A short write is success with the count of what reached the file.
  FaultScope shortWrite(QZ_FAULT_WRITE_FILE_SHORT, 0, 1);
  DWORD n = 0;
  EXPECT_TRUE(WriteFile(h.get(), "abcdefgh", 8, &n, nullptr));
  EXPECT_EQ(n, 4u);
  EXPECT_TRUE(WriteFile(h.get(), "XY", 2, &n, nullptr));
  EXPECT_EQ(n, 2u);
  EXPECT_EQ(ReadAll(dir / "f"), "abcdXY");
}

}  // namespace
