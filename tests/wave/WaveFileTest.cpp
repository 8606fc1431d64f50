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
    EXPECT_EQ(w.GetSize(), data.size());
    size_t formatSize = r.formatBytes.size() == 16 ? 18 : r.formatBytes.size();
    std::string got(reinterpret_cast<char*>(w.GetFormat()), formatSize);
    EXPECT_EQ(got, r.formatBytes.size() == 16 ? r.formatBytes + Le16(0) : r.formatBytes);
    EXPECT_TRUE(ReadAllData(w, 5000) == data);
    ASSERT_EQ(w.ResetFile(), 0);
    EXPECT_TRUE(ReadAllData(w, 70000) == data);
    EXPECT_EQ(w.Close(), 0);
    EXPECT_NE(w.GetFormat(), nullptr);  // the format outlives Close
  }
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
      {"fmt of 14 bytes", Riff("WAVE", Chunk("fmt ", PcmFormat(1, 8000, 16).substr(0, 14)) + data),
       "QzWaveFile::ReadMMIO: ckIn.cksize(14) < sizeof(PCMWAVEFORMAT)"},
      {"cbSize past its chunk",
       Riff("WAVE", Chunk("fmt ", Le16(3) + PcmFormat(1, 8000, 32).substr(2) + Le16(9)) + data),
       "QzWaveFile::ReadMMIO: mmioRead failed"},
      {"no data", Riff("WAVE", fmt), "QzWaveFile::ResetFile: mmioDescend failed"},
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
  }
}

TEST(WaveFile, CallsWithoutAFileOrWithBadArguments) {
  DebugCapture capture;
  QzWaveFile w;
  unsigned char b[4];
  DWORD n = 0;
  EXPECT_EQ(w.Close(), kNotOpen);
  EXPECT_EQ(w.Read(b, 4, &n), kNotOpen);
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
  ASSERT_EQ(w.Close(), 0);
  // Writing to a file opened for reading fails cleanly, even after a writer.
  ASSERT_EQ(w.Open((dir / "w.wav").c_str(), nullptr, QzWaveFile::QZ_WAVE_READ), 0);
  EXPECT_EQ(w.Write(4, b, &n), kFail);
  EXPECT_EQ(n, 0u);
  EXPECT_NE(capture.joined().find("QzWaveFile::Write: mmioAdvance failed"), std::string::npos);
}

}  // namespace
