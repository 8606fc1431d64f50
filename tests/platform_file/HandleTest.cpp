// Calls on a file handle: read, write, seek with its two halves, end of file,
// flush, size; access, stale and made-up handles; the failure switches.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

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
      {2, false, 0, FILE_CURRENT, 5, 0, 0},
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

TEST(PlatformFileIo, EachHandleHasItsPositionAndTheSizeComesInTwoHalves) {
  TempFolder dir;
  Handle w(Open(dir / "f", kBoth, FILE_SHARE_READ, CREATE_NEW));
  EXPECT_TRUE(WriteHandle(w.get(), "hello "));
  EXPECT_TRUE(WriteHandle(w.get(), "world"));
  DWORD n = 7;
  EXPECT_TRUE(WriteFile(w.get(), "", 0, &n, nullptr));
  EXPECT_EQ(n, 0u);
  Handle r(Open(dir / "f", kRead, FILE_SHARE_READ | FILE_SHARE_WRITE));
  EXPECT_EQ(ReadHandle(r.get(), 5), "hello");
  EXPECT_EQ(ReadHandle(r.get()), " world");
  EXPECT_EQ(ReadHandle(r.get()), "");  // the end is success with 0 bytes
  EXPECT_EQ(ReadHandle(w.get()), "");  // the writer stands at the end
  char c;  // a null count or an overlapped record is refused
  EXPECT_FALSE(ReadFile(r.get(), &c, 1, nullptr, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(WriteFile(w.get(), "x", 1, &n, &c));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(SetFilePointer(w.get(), 4, nullptr, FILE_BEGIN), 4u);
  EXPECT_TRUE(SetEndOfFile(w.get()));
  EXPECT_EQ(ReadAll(dir / "f"), "hell");
  LONG hi = 1;  // grows, sparse, past 4 GiB
  EXPECT_EQ(SetFilePointer(w.get(), 5, &hi, FILE_BEGIN), 5u);
  ASSERT_TRUE(SetEndOfFile(w.get()));
  DWORD high = 99;
  SetLastError(777);
  EXPECT_EQ(GetFileSize(r.get(), &high), 5u);
  EXPECT_EQ(high, 1u);
  EXPECT_EQ(GetLastError(), 0u);
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
  const HANDLE bad[] = {stale, nullptr, QZ_INVALID_HANDLE_VALUE, reinterpret_cast<HANDLE>(4),
                        reinterpret_cast<HANDLE>(0x12345), reinterpret_cast<HANDLE>(uintptr_t(0xFFFFFFF0u)),
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

TEST(PlatformFileIo, CloseUnderAReadInAnotherThreadNeverReachesTheNextFile) {
  TempFolder dir;
  WriteAll(dir / "a", "A");
  WriteAll(dir / "b", "B");
  HANDLE h = Open(dir / "a", kRead, FILE_SHARE_READ);
  std::atomic<int> reads{0};
  std::atomic<bool> sawOther{false};
  DWORD lastError = 0;
  std::thread reader([&] {
    for (int i = 0; i < 10000000; ++i) {  // bounded, so that a stale handle that works fails rather than hangs
      char c = 0;
      DWORD n = 0;
      if (SetFilePointer(h, 0, nullptr, FILE_BEGIN) != 0 || !ReadFile(h, &c, 1, &n, nullptr)) {
        lastError = GetLastError();
        return;
      }
      if (n == 1 && c != 'A') sawOther = true;
      reads++;
    }
  });
  while (reads.load() < 10) std::this_thread::yield();
  ASSERT_TRUE(CloseHandle(h));
  Handle next(Open(dir / "b", kRead, FILE_SHARE_READ));  // likely to get the reader's descriptor number
  reader.join();
  EXPECT_FALSE(sawOther.load());
  EXPECT_EQ(lastError, ERROR_INVALID_HANDLE);
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
