// Helpers of the RIFF and wave tests: little-endian bytes and hand-made files.
#ifndef QZBASE_TESTS_WAVE_WAVETESTSUPPORT_H
#define QZBASE_TESTS_WAVE_WAVETESTSUPPORT_H

#include <gtest/gtest.h>

#include <qzbase/QzWaveFile.h>

#include <stdint.h>
#include <string.h>

#include <string>
#include <utility>
#include <vector>

#include "QzTestSupport.h"

namespace qzwavetest {

inline std::string Le32(uint32_t v) {
  char b[4] = {char(v), char(v >> 8), char(v >> 16), char(v >> 24)};
  return std::string(b, 4);
}
inline std::string Le16(uint16_t v) { return std::string{char(v), char(v >> 8)}; }

// A chunk: id, the stated length (the body's own unless given), the body and
// its pad byte when the body is odd.
inline std::string Chunk(const std::string& id, const std::string& body, int64_t statedSize = -1) {
  std::string s = id + Le32(statedSize < 0 ? uint32_t(body.size()) : uint32_t(statedSize)) + body;
  if (body.size() & 1) s += '\0';
  return s;
}
inline std::string Riff(const std::string& form, const std::string& chunks) { return Chunk("RIFF", form + chunks); }

inline std::string PcmFormat(uint16_t channels, uint32_t rate, uint16_t bits) {
  uint16_t align = uint16_t(channels * ((bits + 7) / 8));
  return Le16(1) + Le16(channels) + Le32(rate) + Le32(rate * align) + Le16(align) + Le16(bits);
}

inline std::string Samples(size_t size, unsigned seed = 1) {
  std::string s(size, 0);
  for (size_t i = 0; i < size; ++i) s[i] = char((i * 37 + seed * 11 + (i >> 8)) & 0xFF);
  return s;
}

// Everything a QzWaveFile delivers from where it stands, in pieces of `piece`.
inline std::string ReadAllData(QzWaveFile& w, DWORD piece) {
  std::string out;
  std::vector<unsigned char> buf(piece);
  for (;;) {
    DWORD got = 12345;
    EXPECT_EQ(w.Read(buf.data(), piece, &got), 0);
    out.append(reinterpret_cast<char*>(buf.data()), got);
    if (got == 0) return out;
  }
}

// Writes `data` with `format` through QzWaveFile in pieces of `piece`.
inline void WriteWave(const std::string& path, tWAVEFORMATEX* format, const std::string& data, size_t piece) {
  QzWaveFile w;
  ASSERT_EQ(w.Open(path.c_str(), format, QzWaveFile::QZ_WAVE_WRITE), 0);
  for (size_t at = 0; at < data.size(); at += piece) {
    size_t n = std::min(piece, data.size() - at);
    DWORD written = 0;
    ASSERT_EQ(w.Write(unsigned(n), reinterpret_cast<unsigned char*>(const_cast<char*>(data.data() + at)), &written), 0);
    ASSERT_EQ(written, n);
  }
  ASSERT_EQ(w.Close(), 0);
}

}  // namespace qzwavetest

#endif
