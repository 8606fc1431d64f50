// The RIFF layer: chunks made and found in memory and in files, direct
// buffer access across buffer ends, seeks, and open failures.
#include "WaveTestSupport.h"

#include "platform/QzPlatformMmio.h"

using namespace qzwavetest;
using namespace qzsys;
using qztest::FaultScope;
using qztest::ReadAll;
using qztest::TempFolder;
using qztest::WriteAll;

namespace {

constexpr FOURCC kWave = mmioFOURCC('W', 'A', 'V', 'E');

HMMIO OpenMemory(char* bytes, LONG size, DWORD grow = 0) {
  MMIOINFO info;
  memset(&info, 0, sizeof info);
  info.fccIOProc = FOURCC_MEM;
  info.pchBuffer = bytes;
  info.cchBuffer = size;
  info.adwInfo[0] = grow;
  return mmioOpenA(nullptr, &info, MMIO_READWRITE);
}

TEST(Mmio, ChunksWrittenToGrowingMemoryPatchSizesAndPadOddData) {
  HMMIO m = OpenMemory(nullptr, 0, 16);
  ASSERT_NE(m, nullptr);
  MMCKINFO riff = {}, list = {}, odd = {}, even = {};
  riff.fccType = kWave;
  ASSERT_EQ(mmioCreateChunk(m, &riff, MMIO_CREATERIFF), 0u);
  list.fccType = mmioFOURCC('I', 'N', 'F', 'O');
  ASSERT_EQ(mmioCreateChunk(m, &list, MMIO_CREATELIST), 0u);
  odd.ckid = mmioFOURCC('I', 'C', 'M', 'T');
  odd.cksize = 100;  // wrong on purpose: ascend writes the real length
  ASSERT_EQ(mmioCreateChunk(m, &odd, 0), 0u);
  ASSERT_EQ(mmioWrite(m, "abc", 3), 3);
  ASSERT_EQ(mmioAscend(m, &odd, 0), 0u);
  ASSERT_EQ(mmioAscend(m, &list, 0), 0u);
  even.ckid = mmioFOURCC('d', 'a', 't', 'a');
  ASSERT_EQ(mmioCreateChunk(m, &even, 0), 0u);
  ASSERT_EQ(mmioWrite(m, "wxyz", 4), 4);
  ASSERT_EQ(mmioAscend(m, &even, 0), 0u);
  ASSERT_EQ(mmioAscend(m, &riff, 0), 0u);
  const LONG end = mmioSeek(m, 0, SEEK_CUR);
  MMIOINFO info;
  ASSERT_EQ(mmioGetInfo(m, &info, 0), 0u);
  const std::string expected =
      Riff("WAVE", Chunk("LIST", "INFO" + Chunk("ICMT", "abc")) + Chunk("data", "wxyz"));
  EXPECT_EQ(std::string(info.pchBuffer, end), expected);

  // Found again from the start, skipping the LIST and its pad byte.
  ASSERT_EQ(mmioSeek(m, 0, SEEK_SET), 0);
  MMCKINFO top = {}, found = {}, inner = {};
  ASSERT_EQ(mmioDescend(m, &top, nullptr, 0), 0u);
  EXPECT_EQ(top.fccType, kWave);
  EXPECT_EQ(top.dwDataOffset, 8u);
  found.ckid = mmioFOURCC('d', 'a', 't', 'a');
  ASSERT_EQ(mmioDescend(m, &found, &top, MMIO_FINDCHUNK), 0u);
  EXPECT_EQ(found.cksize, 4u);
  char four[4];
  ASSERT_EQ(mmioRead(m, four, 4), 4);
  EXPECT_EQ(std::string(four, 4), "wxyz");
  ASSERT_EQ(mmioSeek(m, 12, SEEK_SET), 12);
  inner.fccType = mmioFOURCC('I', 'N', 'F', 'O');
  ASSERT_EQ(mmioDescend(m, &inner, &top, MMIO_FINDLIST), 0u);
  found.ckid = mmioFOURCC('n', 'o', 'n', 'e');
  EXPECT_EQ(mmioDescend(m, &found, &inner, MMIO_FINDCHUNK), MMIOERR_CHUNKNOTFOUND);
  EXPECT_EQ(mmioClose(m, 0), 0u);
}

TEST(Mmio, FixedMemoryRefusesToGrowAndToSeekPastItsEnd) {
  char bytes[8] = {};
  HMMIO m = OpenMemory(bytes, sizeof bytes);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(mmioWrite(m, "0123456789", 10), 8);
  EXPECT_EQ(std::string(bytes, 8), "01234567");
  EXPECT_EQ(mmioSeek(m, 9, SEEK_SET), -1);
  EXPECT_EQ(mmioSeek(m, -2, SEEK_END), 6);
  char two[4];
  EXPECT_EQ(mmioRead(m, two, 4), 2);
  MMIOINFO info;
  ASSERT_EQ(mmioGetInfo(m, &info, 0), 0u);
  EXPECT_EQ(mmioAdvance(m, &info, MMIO_WRITE), MMIOERR_CANNOTEXPAND);
  EXPECT_EQ(mmioAdvance(m, &info, MMIO_READ), 0u);
  EXPECT_EQ(info.pchNext, info.pchEndRead);  // the end is no failure
  info.pchNext = info.pchBuffer + 9;
  EXPECT_EQ(mmioSetInfo(m, &info, 0), MMIOERR_CANNOTSEEK);
  EXPECT_EQ(mmioClose(m, 0), 0u);
}

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
  EXPECT_EQ(mmioSeek(m, -1, SEEK_SET), -1);
  EXPECT_EQ(mmioClose(m, 0), 0u);
}

TEST(Mmio, OpenFailuresSayWhy) {
  TempFolder dir;
  struct Row {
    std::string path;
    DWORD flags;
    UINT error;
  } rows[] = {
      {dir / "missing", MMIO_READ, MMIOERR_FILENOTFOUND},
      {dir.path(), MMIO_READ, MMIOERR_ACCESSDENIED},
      {dir / "no/such", MMIO_CREATE | MMIO_READWRITE, MMIOERR_FILENOTFOUND},
  };
  for (Row& r : rows) {
    MMIOINFO info;
    memset(&info, 0, sizeof info);
    EXPECT_EQ(mmioOpenA(&r.path[0], &info, r.flags), nullptr);
    EXPECT_EQ(info.wErrorRet, r.error) << r.path;
  }
  FaultScope fault(QZ_FAULT_MMIO);
  std::string path = dir / "x";
  EXPECT_EQ(mmioOpenA(&path[0], nullptr, MMIO_CREATE | MMIO_WRITE), nullptr);
}

}  // namespace
