// Real clients: files we write must be read by sox and by Python's wave
// module with the right format, length and samples, and files sox writes
// must be read by us with the right samples.
#include "WaveTestSupport.h"

#include <stdio.h>
#include <stdlib.h>

using namespace qzwavetest;
using qztest::ReadAll;
using qztest::TempFolder;
using qztest::WriteAll;

namespace {

// Runs a shell command; its standard output, without a trailing line feed.
std::string Shell(const std::string& command) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (p == nullptr) return "<popen failed>";
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  int status = pclose(p);
  while (!out.empty() && out.back() == '\n') out.pop_back();
  if (status != 0) out += " <exit " + std::to_string(status) + ">";
  return out;
}

std::string Quote(const std::string& s) { return "'" + s + "'"; }

#define REQUIRE_SOX() \
  if (system("{ command -v sox && command -v soxi; } >/dev/null 2>&1") != 0) GTEST_SKIP() << "sox is not installed (tools/install-deps installs it)"

struct Written {
  const char* what;
  uint16_t tag, channels, bits;
  uint32_t rate;
  const char* soxEncoding;  // as soxi -e names it
  bool python;              // the wave module reads PCM only
};

TEST(RealClients, SoxAndPythonReadWhatWeWrite) {
  REQUIRE_SOX();
  const Written rows[] = {
      {"16-bit PCM", 1, 2, 16, 22050, "Signed Integer PCM", true},
      {"IEEE float", 3, 1, 32, 16000, "Floating Point PCM", false},
  };
  TempFolder dir;
  for (const Written& r : rows) {
    SCOPED_TRACE(r.what);
    tWAVEFORMATEX format;
    Qz_SetWaveFormat(&format, r.channels, int(r.rate), r.bits);
    format.wFormatTag = r.tag;
    const unsigned frames = 1001;
    std::string data;
    if (r.tag == 3) {
      for (unsigned i = 0; i < frames; ++i) {
        float v = float(int(i % 200) - 100) / 128.0f;  // exact in 16 bits too
        data.append(reinterpret_cast<char*>(&v), 4);
      }
    } else {
      data = Samples(frames * format.nBlockAlign);
    }
    std::string path = dir / "ours.wav";
    WriteWave(path, &format, data, 777);
    EXPECT_EQ(Shell("soxi -r " + Quote(path) + " && soxi -s " + Quote(path) + " && soxi -e " + Quote(path)),
              std::to_string(r.rate) + "\n" + std::to_string(frames) + "\n" + r.soxEncoding);
    std::string raw = dir / "sox.raw";
    Shell("sox " + Quote(path) + " -t raw " + Quote(raw));
    EXPECT_TRUE(ReadAll(raw) == data);
    if (r.python) {
      std::string py = dir / "py.raw";
      EXPECT_EQ(Shell("python3 -c 'import sys, wave\n"
                    "w = wave.open(sys.argv[1])\n"
                    "open(sys.argv[2], \"wb\").write(w.readframes(w.getnframes()))\n"
                    "print(w.getnchannels(), w.getsampwidth(), w.getframerate(), w.getnframes())' " +
                    Quote(path) + " " + Quote(py)),
                std::to_string(r.channels) + " " + std::to_string(r.bits / 8) + " " + std::to_string(r.rate) + " " +
                    std::to_string(frames));
      EXPECT_TRUE(ReadAll(py) == data);
    }
  }
}

TEST(RealClients, WeReadWhatSoxWrites) {
  REQUIRE_SOX();
  struct Row {
    const char* what;
    const char* options;  // sox output options
    uint16_t tag, channels, bits;
    bool insertChunks;    // a LIST and an odd-sized chunk put before "data"
  } rows[] = {
      {"16-bit PCM", "-r 8000 -c 2 -b 16 -e signed-integer", 1, 2, 16, false},
      {"24-bit, 3 channels, extensible", "-r 8000 -c 3 -b 24 -e signed-integer", 0xFFFE, 3, 24, false},
      {"LIST and odd chunk before data", "-r 8000 -c 1 -b 16 -e signed-integer", 1, 1, 16, true},
  };
  TempFolder dir;
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    std::string path = dir / "sox.wav";
    std::string raw = dir / "sox.raw";
    ASSERT_EQ(Shell(std::string("sox -n ") + r.options + " " + Quote(path) + " synth 0.05 sine 440 sine 1000"), "");
    Shell("sox " + Quote(path) + " -t raw " + Quote(raw));
    if (r.insertChunks) {
      std::string file = ReadAll(path);
      size_t data = file.find("data");
      ASSERT_NE(data, std::string::npos);
      std::string extra = Chunk("LIST", "INFO" + Chunk("ISFT", "qzbase")) + Chunk("odd ", "12345");
      file.insert(data, extra);
      file.replace(4, 4, Le32(uint32_t(file.size() - 8)));
      WriteAll(path, file);
    }
    QzWaveFile w;
    ASSERT_EQ(w.Open(path.c_str(), nullptr, QzWaveFile::QZ_WAVE_READ), 0);
    EXPECT_EQ(w.GetFormat()->wFormatTag, r.tag);
    EXPECT_EQ(w.GetFormat()->nChannels, r.channels);
    if (r.tag == 0xFFFE) {
      EXPECT_EQ(w.GetFormat()->cbSize, 22);
    }
    const std::string samples = ReadAll(raw);
    EXPECT_EQ(w.GetSize(), samples.size());
    EXPECT_TRUE(ReadAllData(w, 1000) == samples);
  }
}

}  // namespace
