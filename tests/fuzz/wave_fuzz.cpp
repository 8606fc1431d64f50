// Any bytes as a wave file: opened from a file and read to the end in pieces
// of a size the input picks, started over, and read again; and the same
// bytes as memory data behind a format taken from their first 18 bytes.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <qzbase/QzWaveFile.h>

namespace {

const std::string& ScratchPath() {
  static const std::string path = [] {
    const char* folder = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    return std::string(folder) + "/qzbase-wave-fuzz-" + std::to_string(getpid()) + ".wav";
  }();
  static const bool cleaned = atexit([] { unlink(path.c_str()); }) == 0;
  (void)cleaned;
  return path;
}

void ReadToEnd(QzWaveFile& w, DWORD piece, DWORD limit) {
  std::vector<unsigned char> buf(piece);
  DWORD total = 0;
  for (;;) {
    DWORD got = 0;
    if (w.Read(buf.data(), piece, &got) != 0 || got == 0) return;
    if (got > piece) abort();
    total += got;
    if (total > limit) abort();  // more than the data chunk can hold
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (1u << 20)) return 0;
  FILE* f = fopen(ScratchPath().c_str(), "wb");
  if (f == nullptr) return 0;
  if (size != 0) fwrite(data, 1, size, f);
  fclose(f);
  DWORD piece = size != 0 ? 1 + data[size - 1] * 37 : 1;
  {
    QzWaveFile w;
    if (w.Open(ScratchPath().c_str(), nullptr, QzWaveFile::QZ_WAVE_READ) == 0) {
      if (w.GetFormat() == nullptr) abort();
      ReadToEnd(w, piece, w.GetSize());
      if (w.ResetFile() != 0) abort();
      ReadToEnd(w, piece + 1000, w.GetSize());
      if (w.Close() != 0) abort();
    }
  }
  if (size >= sizeof(tWAVEFORMATEX)) {
    tWAVEFORMATEX format;
    memcpy(&format, data, sizeof format);
    std::vector<unsigned char> samples(data + sizeof format, data + size);
    QzWaveFile w;
    if (w.OpenFromMemory(samples.data(), DWORD(samples.size()), &format, QzWaveFile::QZ_WAVE_READ) != 0) abort();
    ReadToEnd(w, piece, DWORD(samples.size()));
    w.ResetFile();
    ReadToEnd(w, 1, DWORD(samples.size()));
  }
  return 0;
}
