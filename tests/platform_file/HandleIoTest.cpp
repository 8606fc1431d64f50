// Calls on a file handle: read, write, seek with its two halves, end of file,
// flush, size; stale and made-up handles; the failure switches.
#include "FileTestSupport.h"

#include <atomic>
#include <functional>
#include <thread>

#include "platform/posix/FileObject.h"

using namespace qzfiletest;
using namespace qztest;

namespace {

TEST(PlatformFileIo, ReadAndWriteMoveOneFilePositionPerHandle) {
  TempFolder dir;
  std::string path = dir / "f";
  Handle w(Open(path, kBoth, FILE_SHARE_READ, CREATE_NEW));
  ASSERT_TRUE(w.valid());
  EXPECT_TRUE(WriteHandle(w.get(), "hello "));
  EXPECT_TRUE(WriteHandle(w.get(), "world"));
  DWORD n = 7;
  EXPECT_TRUE(WriteFile(w.get(), "", 0, &n, nullptr));
  EXPECT_EQ(n, 0u);
  EXPECT_TRUE(FlushFileBuffers(w.get()));
  // A second handle has its own position.
  Handle r(Open(path, kRead, FILE_SHARE_READ | FILE_SHARE_WRITE));
  EXPECT_EQ(ReadHandle(r.get(), 5), "hello");
  EXPECT_EQ(ReadHandle(r.get()), " world");
  EXPECT_EQ(ReadHandle(r.get()), "");  // the end is success with 0 bytes
  // Reading through the writer starts where it stands: at the end.
  EXPECT_EQ(ReadHandle(w.get()), "");
  EXPECT_EQ(ReadAll(path), "hello world");
  // Null count or an overlapped record: refused, no crash.
  char c;
  EXPECT_FALSE(ReadFile(r.get(), &c, 1, nullptr, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(WriteFile(w.get(), "x", 1, nullptr, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(WriteFile(w.get(), "x", 1, &n, &c));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(ReadAll(path), "hello world");
}

TEST(PlatformFileIo, SetFilePointerKeepsBothHalvesAndTheMinusOneConvention) {
  TempFolder dir;
  Handle h(Open(dir / "f", kBoth, 0, CREATE_NEW));
  ASSERT_TRUE(WriteHandle(h.get(), "0123456789"));

  struct Row {
    LONG distance;
    bool withHigh;
    LONG high;
    DWORD method;
    DWORD result;     // lower half, or INVALID_SET_FILE_POINTER
    LONG highAfter;   // when withHigh
    DWORD error;      // last error afterwards (0 on success)
  };
  const Row rows[] = {
      {3, false, 0, FILE_BEGIN, 3, 0, 0},
      {2, false, 0, FILE_CURRENT, 5, 0, 0},
      {-1, false, 0, FILE_END, 9, 0, 0},          // without the high half the distance is signed
      {-4, false, 0, FILE_CURRENT, 5, 0, 0},
      {-6, false, 0, FILE_CURRENT, INVALID_SET_FILE_POINTER, 0, ERROR_NEGATIVE_SEEK},
      {5, false, 0, 3, INVALID_SET_FILE_POINTER, 0, ERROR_INVALID_PARAMETER},
      {16, true, 1, FILE_BEGIN, 16, 1, 0},         // 4 GiB + 16
      {-32, true, -1, FILE_CURRENT, static_cast<DWORD>(-16), 0, 0},
      // 0xFFFFFFFF is a real position: success is told by the last error
      {-1, true, 0, FILE_BEGIN, INVALID_SET_FILE_POINTER, 0, 0},
      {-1, true, -1, FILE_END, 9, 0, 0},
      {-11, true, -1, FILE_END, INVALID_SET_FILE_POINTER, -1, ERROR_NEGATIVE_SEEK},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(testing::Message() << r.distance << " high " << r.high << " method " << r.method);
    LONG high = r.high;
    SetLastError(777);
    DWORD result = SetFilePointer(h.get(), r.distance, r.withHigh ? &high : nullptr, r.method);
    EXPECT_EQ(result, r.result);
    EXPECT_EQ(GetLastError(), r.error);
    if (r.withHigh) {
      EXPECT_EQ(high, r.highAfter);
    }
  }
  // A failed seek leaves the position where it was (9, from the last success).
  EXPECT_EQ(ReadHandle(h.get()), "9");
  // Past 4 GiB without a high half: cannot be told, so refused.
  LONG high = 1;
  EXPECT_EQ(SetFilePointer(h.get(), 0, &high, FILE_BEGIN), 0u);
  EXPECT_EQ(SetFilePointer(h.get(), 1, nullptr, FILE_CURRENT), INVALID_SET_FILE_POINTER);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(PlatformFileIo, SetEndOfFileCutsAndGrowsAndGetFileSizeSplitsTheSize) {
  TempFolder dir;
  Handle h(Open(dir / "f", kBoth, 0, CREATE_NEW));
  ASSERT_TRUE(WriteHandle(h.get(), "0123456789"));
  EXPECT_EQ(SetFilePointer(h.get(), 4, nullptr, FILE_BEGIN), 4u);
  EXPECT_TRUE(SetEndOfFile(h.get()));
  DWORD high = 99;
  EXPECT_EQ(GetFileSize(h.get(), &high), 4u);
  EXPECT_EQ(high, 0u);
  EXPECT_EQ(ReadAll(dir / "f"), "0123");
  // Grow past 4 GiB (a sparse file): the size comes in two halves.
  LONG hi = 1;
  EXPECT_EQ(SetFilePointer(h.get(), 5, &hi, FILE_BEGIN), 5u);
  ASSERT_TRUE(SetEndOfFile(h.get()));
  SetLastError(777);
  EXPECT_EQ(GetFileSize(h.get(), &high), 5u);
  EXPECT_EQ(high, 1u);
  EXPECT_EQ(GetLastError(), 0u);
  EXPECT_EQ(SetFilePointer(h.get(), 0, nullptr, FILE_BEGIN), 0u);
  EXPECT_TRUE(SetEndOfFile(h.get()));
  EXPECT_EQ(GetFileSize(h.get(), nullptr), 0u);
}

// Every call on a handle, as one function for the tables below.
struct HandleCall {
  const char* name;
  std::function<bool(HANDLE)> call;  // true: the call succeeded
};

std::vector<HandleCall> HandleCalls() {
  return {
      {"ReadFile", [](HANDLE h) { char b[4]; DWORD n = 0; return ReadFile(h, b, 4, &n, nullptr) != 0; }},
      {"WriteFile", [](HANDLE h) { DWORD n = 0; return WriteFile(h, "new", 3, &n, nullptr) != 0; }},
      {"SetFilePointer", [](HANDLE h) { return SetFilePointer(h, 1, nullptr, FILE_BEGIN) != INVALID_SET_FILE_POINTER; }},
      {"SetEndOfFile", [](HANDLE h) { return SetEndOfFile(h) != 0; }},
      {"FlushFileBuffers", [](HANDLE h) { return FlushFileBuffers(h) != 0; }},
      {"GetFileSize", [](HANDLE h) { return GetFileSize(h, nullptr) != INVALID_FILE_SIZE; }},
      {"CloseHandle", [](HANDLE h) { return CloseHandle(h) != 0; }},
  };
}

TEST(PlatformFileIo, ClosedAndMadeUpHandlesFailWithInvalidHandle) {
  TempFolder dir;
  WriteAll(dir / "old", "old");
  HANDLE stale = Open(dir / "old", kBoth);
  ASSERT_TRUE(Valid(stale));
  int oldDescriptor = QzFileLookup(stale).as<QzFileObject>()->descriptor();
  ASSERT_TRUE(CloseHandle(stale));
  // The next open reuses the table slot and, on Linux, the descriptor number.
  HANDLE reuse = Open(dir / "new", kBoth, 0, CREATE_NEW);
  ASSERT_TRUE(Valid(reuse));
  EXPECT_EQ(QzFileLookup(reuse).as<QzFileObject>()->descriptor(), oldDescriptor);
  EXPECT_NE(reuse, stale);

  const HANDLE bad[] = {stale, nullptr, QZ_INVALID_HANDLE_VALUE, reinterpret_cast<HANDLE>(4),
                        reinterpret_cast<HANDLE>(0x12345), reinterpret_cast<HANDLE>(uintptr_t(0xFFFFFFF0u)),
                        reinterpret_cast<HANDLE>(static_cast<uintptr_t>(oldDescriptor))};
  for (const HANDLE h : bad) {
    for (const auto& c : HandleCalls()) {
      SetLastError(0);
      EXPECT_FALSE(c.call(h)) << c.name << " on " << h;
      EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE) << c.name << " on " << h;
    }
  }
  // Nothing reached the file that took the old handle's slot and descriptor.
  EXPECT_EQ(ReadAll(dir / "new"), "");
  EXPECT_EQ(ReadAll(dir / "old"), "old");
  EXPECT_TRUE(CloseHandle(reuse));
}

TEST(PlatformFileIo, CloseUnderAReadInAnotherThreadNeverReachesTheNextFile) {
  TempFolder dir;
  WriteAll(dir / "a", "A");
  WriteAll(dir / "b", "B");
  HANDLE h = Open(dir / "a", kRead, FILE_SHARE_READ);
  ASSERT_TRUE(Valid(h));
  std::atomic<int> reads{0};
  std::atomic<bool> sawOther{false};
  DWORD lastError = 0;
  std::thread reader([&] {
    for (int i = 0; i < 10000000; ++i) {
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
  // Likely to get the descriptor number the reader's object had.
  Handle next(Open(dir / "b", kRead, FILE_SHARE_READ));
  reader.join();
  EXPECT_FALSE(sawOther.load());
  EXPECT_EQ(lastError, ERROR_INVALID_HANDLE);
}

TEST(PlatformFileIo, FailureSwitchesFailTheirCallAndTouchNothing) {
  TempFolder dir;
  std::string path = dir / "f";
  WriteAll(path, "0123");
  Handle h(Open(path, kBoth));
  ASSERT_TRUE(h.valid());
  const struct {
    QzFault fault;
    const char* call;
  } rows[] = {
      {QZ_FAULT_READ_FILE, "ReadFile"},          {QZ_FAULT_WRITE_FILE, "WriteFile"},
      {QZ_FAULT_SET_FILE_POINTER, "SetFilePointer"}, {QZ_FAULT_SET_END_OF_FILE, "SetEndOfFile"},
      {QZ_FAULT_FLUSH_FILE, "FlushFileBuffers"}, {QZ_FAULT_GET_FILE_SIZE, "GetFileSize"},
      {QZ_FAULT_CLOSE_HANDLE, "CloseHandle"},
  };
  for (const auto& r : rows) {
    for (const auto& c : HandleCalls()) {
      if (std::string(c.name) != r.call) continue;
      FaultScope fault(r.fault);
      SetLastError(0);
      EXPECT_FALSE(c.call(h.get())) << r.call;
      EXPECT_NE(GetLastError(), 0u) << r.call;
      EXPECT_EQ(fault.hits(), 1u) << r.call;
    }
  }
  EXPECT_EQ(ReadAll(path), "0123");
  EXPECT_EQ(GetFileSize(h.get(), nullptr), 4u);  // still open after the failed close

  FaultScope open(QZ_FAULT_CREATE_FILE);
  EXPECT_EQ(Open(dir / "g", kWrite, 0, CREATE_NEW), QZ_INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
  EXPECT_FALSE(Exists(dir / "g"));
}

TEST(PlatformFileIo, ShortWriteSwitchWritesHalfAndSaysSo) {
  TempFolder dir;
  Handle h(Open(dir / "f", kWrite, 0, CREATE_NEW));
  FaultScope shortWrite(QZ_FAULT_WRITE_FILE_SHORT, 0, 1);
  DWORD n = 0;
  EXPECT_TRUE(WriteFile(h.get(), "abcdefgh", 8, &n, nullptr));
  EXPECT_EQ(n, 4u);
  EXPECT_TRUE(WriteFile(h.get(), "XY", 2, &n, nullptr));
  EXPECT_EQ(n, 2u);
  EXPECT_EQ(ReadAll(dir / "f"), "abcdXY");
}

TEST(PlatformFileIo, NoHandleLeaksFromFailedOrClosedOpens) {
  TempFolder dir;
  size_t before = QzHandleCount();
  WriteAll(dir / "f", "x");
  HANDLE h = Open(dir / "f", kRead, 0);
  EXPECT_EQ(Open(dir / "f", kRead, 0), QZ_INVALID_HANDLE_VALUE);
  EXPECT_EQ(Open(dir / "none", kRead), QZ_INVALID_HANDLE_VALUE);
  EXPECT_EQ(QzHandleCount(), before + 1);
  CloseHandle(h);
  EXPECT_EQ(QzHandleCount(), before);
}

}  // namespace
