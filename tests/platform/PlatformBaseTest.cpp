#include <gtest/gtest.h>

#include <errno.h>
#include <thread>

#include "QzTestSupport.h"

using namespace qzsys;

TEST(PlatformLastError, IsPerThreadAndMapsErrno) {
  SetLastError(1234);
  std::thread([] { EXPECT_EQ(GetLastError(), 0u); SetLastError(7); }).join();
  EXPECT_EQ(GetLastError(), 1234u);
  const struct { int err; DWORD win; } rows[] = {
      {ENOENT, 2}, {ENOTDIR, 3}, {EACCES, 5}, {EBADF, 6}, {ENOMEM, 8},
      {EFAULT, 487}, {ETXTBSY, 32}, {EEXIST, 80}, {EINVAL, 87}, {ENOSPC, 112}};
  for (const auto& r : rows) EXPECT_EQ(QzErrnoToWin32(r.err), r.win) << r.err;
  errno = ENOENT;
  EXPECT_EQ(QzSetLastErrorFromErrno(), 2u);
  EXPECT_EQ(GetLastError(), 2u);
}

TEST(PlatformClock, FileTimeCountsFrom1601) {
  FILETIME ft;
  GetSystemTimeAsFileTime(&ft);
  uint64_t t = (static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
  // 2020-01-01 is 132223104000000000 in these units.
  EXPECT_GT(t, 132223104000000000ull);
  SYSTEM_INFO si;
  GetSystemInfo(&si);
  EXPECT_GE(si.dwPageSize, 4096u);
  EXPECT_EQ(si.dwPageSize & (si.dwPageSize - 1), 0u);
}

TEST(PlatformFaults, SkipThenFailThenPass) {
  qztest::FaultScope fault(QZ_FAULT_VIRTUAL_ALLOC, 2, 3);
  bool seen[7];
  for (bool& s : seen) s = QzFaultHit(QZ_FAULT_VIRTUAL_ALLOC);
  const bool want[7] = {false, false, true, true, true, false, false};
  for (int i = 0; i < 7; ++i) EXPECT_EQ(seen[i], want[i]) << i;
  EXPECT_EQ(fault.hits(), 3u);
}
