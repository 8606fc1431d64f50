// The RIFF layer: direct buffer access across buffer ends, and seeks.
#include "WaveTestSupport.h"

#include "platform/QzPlatformMmio.h"

using namespace qzwavetest;
using namespace qzsys;
using qztest::ReadAll;
using qztest::TempFolder;

namespace {

// Byte-at-a-time direct access through a 16-byte buffer: every byte crosses
// into the next buffer at some point.
TEST(Mmio, DirectAccessAcrossBufferEndsWritesAndReadsEveryByte) {
  TempFolder dir;
  std::string path = dir / "f";
  const std::string data = Samples(100);
  MMIOINFO open;
  memset(&open, 0, sizeof open);
  open.cchBuffer = 16;
  HMMIO m = mmioOpenA(&path[0], &open, MMIO_CREATE | MMIO_READWRITE | MMIO_ALLOCBUF);
  ASSERT_NE(m, nullptr);
  ASSERT_EQ(mmioWrite(m, "head", 4), 4);
  MMIOINFO info;
  ASSERT_EQ(mmioGetInfo(m, &info, 0), 0u);
  for (char c : data) {
    if (info.pchNext == info.pchEndWrite) {
      info.dwFlags |= MMIO_DIRTY;
      ASSERT_EQ(mmioAdvance(m, &info, MMIO_WRITE), 0u);
    }
    *info.pchNext++ = c;
  }
  info.dwFlags |= MMIO_DIRTY;
  ASSERT_EQ(mmioSetInfo(m, &info, 0), 0u);
  EXPECT_EQ(mmioSeek(m, 0, SEEK_END), 104);
  ASSERT_EQ(mmioClose(m, 0), 0u);
  EXPECT_EQ(ReadAll(path), "head" + data);

  m = mmioOpenA(&path[0], &open, MMIO_READ);
  ASSERT_NE(m, nullptr);
  ASSERT_EQ(mmioSeek(m, 4, SEEK_SET), 4);
  ASSERT_EQ(mmioGetInfo(m, &info, 0), 0u);
  std::string back;
  for (;;) {
    if (info.pchNext == info.pchEndRead) {
      ASSERT_EQ(mmioAdvance(m, &info, MMIO_READ), 0u);
      if (info.pchNext == info.pchEndRead) break;
    }
    back += *info.pchNext++;
  }
  EXPECT_EQ(back, data);
  ASSERT_EQ(mmioSetInfo(m, &info, 0), 0u);
  EXPECT_EQ(mmioSeek(m, -10, SEEK_CUR), 94);
  char big[64];
  EXPECT_EQ(mmioRead(m, big, 64), 10);  // past a whole buffer: straight from the file
  EXPECT_EQ(std::string(big, 10), data.substr(90));
  EXPECT_EQ(mmioClose(m, 0), 0u);
}

}  // namespace
