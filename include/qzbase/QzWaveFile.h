// qzbase: RIFF wave files.
//
// QzWaveFile reads and writes wave files through the multimedia file calls
// (a buffered RIFF layer), and reads wave data that the host holds in memory.
// A written file is: "RIFF" <length> "WAVE", "fmt " with the format (16 bytes
// for PCM, 18 + cbSize otherwise), "fact" with 4 bytes (0xFFFFFFFF until
// Close patches it to 0), and "data" with the samples; Close patches the
// lengths. A read file may hold any other chunks (LIST, odd-sized ones with
// their pad byte) around "fmt " and "data"; a chunk whose stated length runs
// past the end of the file is refused.
//
// Ownership: after reading a file, the format (GetFormat) is a block of the
// default pool that the object owns and frees at the next Open or at its
// destruction; it outlives Close. After OpenFromMemory it is the caller's
// pointer, and the data stay the caller's too: both must outlive the object's
// use of them. Assignment moves the open file to the target: the source is
// left with no file (as after Close) and keeps its own format; the target
// gets its own copy of a format that the source owned. So no file is closed
// and no block freed twice.
// Threads: no lock; an object belongs to one thread at a time.
// Failures: 0x80070057 for a null argument, 0x80004005 when a step of the
// RIFF layer fails or the file is no wave file (each logged at level Error
// with a "QzWaveFile::..." line), 0x800401F0 with no file open, 0x80004001
// for what memory data cannot do. Nothing throws. A failed Open leaves the
// object ready for another Open.
#ifndef QZBASE_QZWAVEFILE_H
#define QZBASE_QZWAVEFILE_H

#include <qzbase/QzTypes.h>
#include <qzbase/QzWaveFormat.h>

class QZ_API QzWaveFile {
 public:
  // 1 reads; Open takes any other value for writing.
  enum OpenFlag { QZ_WAVE_READ = 1, QZ_WAVE_WRITE = 2 };

  QzWaveFile();
  // Close, then frees a format that the object owns.
  ~QzWaveFile();

  // Read mode: reads the format and stands at the start of the data
  // (`format` is not read). Write mode: creates `path` anew with `format`
  // (required; not kept) and opens the data chunk.
  HRESULT Open(const char* path, tWAVEFORMATEX* format, OpenFlag flag);
  // Wave data (samples only, no RIFF) in the caller's memory, with the
  // caller's format. Only reading (flag 1); any other flag gives 0x80004001,
  // with the fields set all the same.
  HRESULT OpenFromMemory(unsigned char* data, DWORD size, tWAVEFORMATEX* format, OpenFlag flag);
  // Up to `size` bytes of the data from the position; *bytesRead gets the
  // count, 0 at the end (which is no failure).
  HRESULT Read(unsigned char* buffer, DWORD size, DWORD* bytesRead);
  // Appends `size` bytes to the data; *bytesWritten counts those stored,
  // also when a failure ends the write.
  HRESULT Write(unsigned int size, unsigned char* data, DWORD* bytesWritten);
  // Read mode: back to the start of the data. Write mode: a new data chunk.
  HRESULT ResetFile();
  // Read mode: closes. Write mode: patches the lengths and "fact", closes;
  // on a failure the file stays open.
  HRESULT Close();
  int IsValid();
  tWAVEFORMATEX* GetFormat();
  // The data chunk's length, from Open in read mode.
  DWORD GetSize();

  QzWaveFile& operator=(const QzWaveFile& other);
  QzWaveFile(const QzWaveFile&) = delete;

 protected:
  HRESULT ReadMMIO();
  HRESULT WriteMMIO(tWAVEFORMATEX* format);

  tWAVEFORMATEX* m_pwfx;
  mutable HMMIO mmio;  // moved out of the source by assignment
  DWORD size;
  OpenFlag flag;
  int fromMemory;
  unsigned char* memoryStart;
  unsigned char* memoryCursor;
  DWORD memorySize;
  MMCKINFO dataChunk;
  MMCKINFO riffChunk;
  MMIOINFO writeInfo;
};

// Fills `format` for plain PCM. Always 1.
QZ_API int QZ_CALL Qz_SetWaveFormat(tWAVEFORMATEX* format, int channels, int samplesPerSecond, int bitsPerSample);

#endif  // QZBASE_QZWAVEFILE_H
