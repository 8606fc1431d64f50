// QzWaveFile: the bytes it writes, what it reads back, the files it refuses
// (with their log lines), memory data, and who owns what after assignment.
#include "WaveTestSupport.h"

using namespace qzwavetest;
using qztest::DebugCapture;
using qztest::FaultScope;
using qztest::ReadAll;
using qztest::TempFolder;
using qztest::WriteAll;

namespace {

constexpr HRESULT kFail = static_cast<HRESULT>(0x80004005u);
constexpr HRESULT kNotOpen = static_cast<HRESULT>(0x800401F0u);
constexpr HRESULT kNotImpl = static_cast<HRESULT>(0x80004001u);
constexpr HRESULT kBadArg = static_cast<HRESULT>(0x80070057u);

TEST(WaveFile, WritesTheExactBytesAndReadsThemBack) {
  TempFolder dir;
  // A data length that crosses the layer's 8 KiB buffer several times, odd.
  const std::string data = Samples(3 * 8192 + 7);
  struct Row {
    const char* what;
    std::string formatBytes;  // as the format chunk must hold them
  } rows[] = {
      {"16-bit PCM", PcmFormat(2, 44100, 16)},
      {"float with cbSize 0", Le16(3) + Le16(1) + Le32(8000) + Le32(32000) + Le16(4) + Le16(32) + Le16(0)},
      {"odd cbSize", Le16(0x55) + Le16(1) + Le32(8000) + Le32(1000) + Le16(1) + Le16(0) + Le16(3) + "xyz"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    std::string formatBlock = r.formatBytes + std::string(4, '\0');
    tWAVEFORMATEX* format = reinterpret_cast<tWAVEFORMATEX*>(&formatBlock[0]);
    std::string path = dir / "out.wav";
    WriteWave(path, format, data, 1000);
    const std::string expected =
        Riff("WAVE", Chunk("fmt ", r.formatBytes) + Chunk("fact", Le32(0)) + Chunk("data", data));
    EXPECT_TRUE(ReadAll(path) == expected);

    QzWaveFile w;
    ASSERT_EQ(w.Open(path.c_str(), nullptr, QzWaveFile::QZ_WAVE_READ), 0);
    EXPECT_EQ(w.IsValid(), 1);
    EXPECT_EQ(w.GetSize(), data.size());
    size_t formatSize = r.formatBytes.size() == 16 ? 18 : r.formatBytes.size();
    std::string got(reinterpret_cast<char*>(w.GetFormat()), formatSize);
    EXPECT_EQ(got, r.formatBytes.size() == 16 ? r.formatBytes + Le16(0) : r.formatBytes);
    unsigned char head[100];
    DWORD n = 0;
    ASSERT_EQ(w.Read(head, 100, &n), 0);
    ASSERT_EQ(n, 100u);
    EXPECT_TRUE(ReadAllData(w, 5000) == data.substr(100));
    ASSERT_EQ(w.ResetFile(), 0);  // starts over, and GetSize stays
    EXPECT_TRUE(ReadAllData(w, 70000) == data);
    EXPECT_EQ(w.GetSize(), data.size());
    EXPECT_EQ(w.Close(), 0);
    EXPECT_EQ(w.IsValid(), 0);
    EXPECT_NE(w.GetFormat(), nullptr);  // the format outlives Close
  }
}

TEST(WaveFile, AFileNeverClosedKeepsItsUnknownFactValue) {
  TempFolder dir;
  tWAVEFORMATEX format;
  Qz_SetWaveFormat(&format, 1, 8000, 8);
  QzWaveFile w;
  ASSERT_EQ(w.Open((dir / "open.wav").c_str(), &format, QzWaveFile::QZ_WAVE_WRITE), 0);
  std::string data = Samples(20000);
  DWORD written = 0;
  ASSERT_EQ(w.Write(unsigned(data.size()), reinterpret_cast<unsigned char*>(&data[0]), &written), 0);
  std::string now = ReadAll(dir / "open.wav");  // the buffer holding the header has gone out
  ASSERT_GE(now.size(), 48u);
  EXPECT_EQ(now.substr(36, 4), "fact");
  EXPECT_EQ(ReadLe32(now, 44), 0xFFFFFFFFu);
}

TEST(WaveFile, HandMadeFilesWithOtherChunksAreRead) {
  TempFolder dir;
  const std::string data = Samples(301);
  const std::string file = Riff(
      "WAVE", Chunk("junk", "abc") + Chunk("LIST", "INFO" + Chunk("ICMT", "odd")) +
                  Chunk("fmt ", PcmFormat(1, 8000, 8) + Le16(0)) + Chunk("fact", Le32(301)) + Chunk("data", data) +
                  Chunk("tail", "x"));
  WriteAll(dir / "f.wav", file);
  QzWaveFile w;
  ASSERT_EQ(w.Open((dir / "f.wav").c_str(), nullptr, QzWaveFile::QZ_WAVE_READ), 0);
  EXPECT_EQ(w.GetFormat()->cbSize, 0);  // a PCM chunk of 18 bytes still gives cbSize 0
  EXPECT_EQ(w.GetFormat()->nSamplesPerSec, 8000u);
  EXPECT_EQ(ReadAllData(w, 64), data);
}

TEST(WaveFile, RefusedFilesGiveTheirLines) {
  const std::string fmt = Chunk("fmt ", PcmFormat(1, 8000, 16));
  const std::string data = Chunk("data", Samples(10));
  struct Row {
    const char* what;
    std::string bytes;
    const char* line;
  } rows[] = {
      {"empty", "", "QzWaveFile::ReadMMIO: mmioDescend failed"},
      {"not RIFF", "RIFX" + Riff("WAVE", fmt + data).substr(4), "QzWaveFile::ReadMMIO: mmioFOURCC failed"},
      {"not WAVE", Riff("AVI ", fmt + data), "QzWaveFile::ReadMMIO: mmioFOURCC failed"},
      {"fmt of 14 bytes", Riff("WAVE", Chunk("fmt ", PcmFormat(1, 8000, 16).substr(0, 14)) + data),
       "QzWaveFile::ReadMMIO: ckIn.cksize(14) < sizeof(PCMWAVEFORMAT)"},
      {"no fmt", Riff("WAVE", data), "QzWaveFile::ReadMMIO: mmioDescend failed"},
      {"truncated fmt", Riff("WAVE", fmt).substr(0, 30), "QzWaveFile::ReadMMIO: mmioDescend failed"},
      {"cbSize past its chunk",
       Riff("WAVE", Chunk("fmt ", Le16(3) + PcmFormat(1, 8000, 32).substr(2) + Le16(9)) + data),
       "QzWaveFile::ReadMMIO: mmioRead failed"},
      {"no data", Riff("WAVE", fmt), "QzWaveFile::ResetFile: mmioDescend failed"},
      {"data longer than the file", Riff("WAVE", fmt + Chunk("data", Samples(10), 11)),
       "QzWaveFile::ResetFile: mmioDescend failed"},
      {"data length 0xFFFFFFFF", Riff("WAVE", fmt + Chunk("data", Samples(10), 0xFFFFFFFF)),
       "QzWaveFile::ResetFile: mmioDescend failed"},
  };
  TempFolder dir;
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    WriteAll(dir / "bad.wav", r.bytes);
    DebugCapture capture;
    QzWaveFile w;
    EXPECT_EQ(w.Open((dir / "bad.wav").c_str(), nullptr, QzWaveFile::QZ_WAVE_READ), kFail);
    EXPECT_EQ(w.IsValid(), 0);
    EXPECT_NE(capture.joined().find(std::string("Error: ") + r.line), std::string::npos) << capture.joined();
    bool readLine = strstr(r.line, "ReadMMIO") != nullptr;
    EXPECT_NE(capture.joined().find(readLine ? "QzWaveFile::Open: ReadMMIO failed" : "QzWaveFile::Open: ResetFile failed"),
              std::string::npos);
  }
}

TEST(WaveFile, CallsWithoutAFileOrWithBadArguments) {
  DebugCapture capture;
  QzWaveFile w;
  unsigned char b[4];
  DWORD n = 0;
  EXPECT_EQ(w.Close(), kNotOpen);
  EXPECT_EQ(w.ResetFile(), kNotOpen);
  EXPECT_EQ(w.Read(b, 4, &n), kNotOpen);
  EXPECT_EQ(w.Read(nullptr, 4, &n), kBadArg);
  EXPECT_EQ(w.Read(b, 4, nullptr), kBadArg);
  EXPECT_EQ(w.Open(nullptr, nullptr, QzWaveFile::QZ_WAVE_READ), kBadArg);
  EXPECT_EQ(w.Open("/nonexistent/x.wav", nullptr, QzWaveFile::QZ_WAVE_READ), kFail);
  EXPECT_EQ(capture.joined(), "");  // a file that does not open has no line
  tWAVEFORMATEX format;
  Qz_SetWaveFormat(&format, 1, 8000, 16);
  {
    FaultScope fault(qzsys::QZ_FAULT_MMIO);
    EXPECT_EQ(w.Open("/tmp/never.wav", &format, QzWaveFile::QZ_WAVE_WRITE), kFail);
  }
  EXPECT_NE(capture.joined().find("QzWaveFile::Open: mmioOpen failed"), std::string::npos);
  TempFolder dir;
  ASSERT_EQ(w.Open((dir / "w.wav").c_str(), &format, QzWaveFile::QZ_WAVE_WRITE), 0);
  EXPECT_EQ(w.Write(4, nullptr, &n), kBadArg);
  EXPECT_EQ(w.Write(4, b, nullptr), kBadArg);
  ASSERT_EQ(w.Close(), 0);
  // Writing to a file opened for reading fails cleanly, even after a writer.
  ASSERT_EQ(w.Open((dir / "w.wav").c_str(), nullptr, QzWaveFile::QZ_WAVE_READ), 0);
  EXPECT_EQ(w.Write(4, b, &n), kFail);
  EXPECT_EQ(n, 0u);
  EXPECT_NE(capture.joined().find("QzWaveFile::Write: mmioAdvance failed"), std::string::npos);
}

TEST(WaveFile, MemoryDataIsReadOnly) {
  std::string data = Samples(1000);
  tWAVEFORMATEX format;
  Qz_SetWaveFormat(&format, 2, 48000, 16);
  QzWaveFile w;
  unsigned char* bytes = reinterpret_cast<unsigned char*>(&data[0]);
  EXPECT_EQ(w.OpenFromMemory(bytes, 1000, &format, QzWaveFile::QZ_WAVE_WRITE), kNotImpl);
  EXPECT_EQ(w.GetFormat(), &format);  // the fields are set all the same
  ASSERT_EQ(w.OpenFromMemory(bytes, 1000, &format, QzWaveFile::QZ_WAVE_READ), 0);
  EXPECT_EQ(w.IsValid(), 0);
  EXPECT_EQ(ReadAllData(w, 300), data);
  DWORD n = 0;
  EXPECT_EQ(w.Write(4, bytes, &n), kNotImpl);
  EXPECT_EQ(w.ResetFile(), 0);
  EXPECT_EQ(ReadAllData(w, 4096), data);
  EXPECT_EQ(w.Close(), kNotOpen);
  // Reading a file afterwards drops the caller's format without freeing it.
  TempFolder dir;
  WriteWave(dir / "f.wav", &format, "abcd", 4);
  ASSERT_EQ(w.Open((dir / "f.wav").c_str(), nullptr, QzWaveFile::QZ_WAVE_READ), 0);
  EXPECT_NE(w.GetFormat(), &format);
  EXPECT_EQ(format.nChannels, 2);
}

TEST(WaveFile, AssignmentMovesTheFileAndCopiesTheFormat) {
  TempFolder dir;
  tWAVEFORMATEX format;
  Qz_SetWaveFormat(&format, 1, 8000, 8);
  const std::string data = Samples(5000);
  WriteWave(dir / "in.wav", &format, data, 5000);
  QzWaveFile a, b;
  ASSERT_EQ(a.Open((dir / "in.wav").c_str(), nullptr, QzWaveFile::QZ_WAVE_READ), 0);
  unsigned char head[10];
  DWORD n = 0;
  a.Read(head, 10, &n);
  b = a;
  b = b;
  EXPECT_EQ(a.IsValid(), 0);
  EXPECT_EQ(a.Close(), kNotOpen);
  EXPECT_EQ(b.IsValid(), 1);
  EXPECT_NE(a.GetFormat(), b.GetFormat());
  EXPECT_EQ(memcmp(a.GetFormat(), b.GetFormat(), 18), 0);
  EXPECT_EQ(ReadAllData(b, 999), data.substr(10));
  // A writer moved mid-file ends its file with the right lengths.
  {
    QzWaveFile c, d;
    ASSERT_EQ(c.Open((dir / "out.wav").c_str(), &format, QzWaveFile::QZ_WAVE_WRITE), 0);
    c.Write(3, reinterpret_cast<unsigned char*>(const_cast<char*>("abc")), &n);
    d = c;
    d.Write(2, reinterpret_cast<unsigned char*>(const_cast<char*>("de")), &n);
  }
  QzWaveFile e;
  ASSERT_EQ(e.Open((dir / "out.wav").c_str(), nullptr, QzWaveFile::QZ_WAVE_READ), 0);
  EXPECT_EQ(ReadAllData(e, 10), "abcde");
}

TEST(WaveFile, SetWaveFormatFillsPcm) {
  struct Row {
    int channels, rate, bits;
    uint16_t align;
    DWORD perSecond;
  } rows[] = {{2, 44100, 16, 4, 176400}, {1, 8000, 8, 1, 8000}, {6, 48000, 24, 18, 864000}, {1, 11025, 12, 2, 22050}};
  for (const Row& r : rows) {
    tWAVEFORMATEX f;
    memset(&f, 0xEE, sizeof f);
    EXPECT_EQ(Qz_SetWaveFormat(&f, r.channels, r.rate, r.bits), 1);
    EXPECT_EQ(f.wFormatTag, 1);
    EXPECT_EQ(f.nChannels, r.channels);
    EXPECT_EQ(f.nSamplesPerSec, DWORD(r.rate));
    EXPECT_EQ(f.wBitsPerSample, r.bits);
    EXPECT_EQ(f.nBlockAlign, r.align);
    EXPECT_EQ(f.nAvgBytesPerSec, r.perSecond);
    EXPECT_EQ(f.cbSize, 0);
  }
}

}  // namespace
