// qzbase: file streams.
//
// QzFileInputStream reads a file through a mapped view that slides over it
// 256 KiB at a time (at most 256 KiB of address space for any file), and
// reads with plain system calls when the file cannot be mapped or a view
// fails (the failure is logged once, and the stream goes on). Its size is
// read once, when it is made. QzFileOutputStream writes through a 256 KiB
// buffer; a write of 256 KiB or more goes straight to the file.
//
// Ownership: a stream owns its file from its construction on: made from a
// QzFile it takes the handle and leaves the QzFile with -1; made from a path
// it opens the file itself (input: read, no sharing; output: write, no
// sharing). Copy construction and assignment move the stream: the target
// takes the file, view and buffer with every position, and the source is
// left with nothing (IsValid 0; only destruction is meaningful). Assignment
// first gives up what the target held, dropping its unwritten bytes. A
// stream made with `new` lives in the default pool.
// Threads: no lock; a stream belongs to one thread at a time.
// Failures: a constructor with no usable file throws QzException: input from
// a path with the failure code of QzFile::Open; every other refusal (a
// QzFile with no handle, a file that cannot be written, an output path that
// cannot be opened or made writable) with 0x80070057.
// Read and Write return the bytes done (short at the end of the file or on a
// failure); Seek, SetPosition and Flush return 1 or 0. The only texts
// logged are the mapping failures of an input stream.
#ifndef QZBASE_QZFILESTREAM_H
#define QZBASE_QZFILESTREAM_H

#include <qzbase/QzTypes.h>
#include <qzbase/QzFile.h>
#include <qzbase/QzString.h>

#if !defined(_WIN32) && !defined(QZ_NO_WIN_TYPES)
// The origin of QzFileInputStream::Seek.
enum tagSTREAM_SEEK { STREAM_SEEK_SET = 0, STREAM_SEEK_CUR = 1, STREAM_SEEK_END = 2 };
#endif

class QZ_API QzFileInputStream {
 public:
  // Takes `file`'s handle (throws 0x80070057 when it has none).
  explicit QzFileInputStream(QzFile& file);
  // Opens `path` for reading (throws the open's failure code).
  explicit QzFileInputStream(const QzStringT<char>& path);
  QzFileInputStream(QzFileInputStream& other);
  QzFileInputStream& operator=(QzFileInputStream& other);

  virtual ~QzFileInputStream();
  // From the start (0), the position (1) or the end (2). Origin 0 refuses an
  // offset outside 0 .. size (result 0); origins 1 and 2 clamp to it.
  virtual int Seek(int64_t offset, tagSTREAM_SEEK origin);
  // The file's size when the stream was made.
  virtual uint64_t GetSize();
  // Always null, `available` untouched: no direct access to the view.
  virtual void* GetBuffer(unsigned int size, unsigned int& available);
  virtual uint64_t GetCurrentPos();
  // 1 at the end of the file.
  virtual int IsEOS();
  // Copies up to `size` bytes from the position on; returns how many.
  virtual unsigned int Read(void* destination, unsigned int size);

  int IsValid();

  static void* operator new(size_t size);
  static void operator delete(void* block);

 protected:
  void FailView(const char* place, uint64_t position);
  bool MoveView(uint64_t base);
  void Release();
  void Take(QzFileInputStream& other);
  void Start(const char* mappingText, const char* viewText);

  QzFile file;
  void* mapping;        // null in plain mode
  void* view;
  unsigned int viewSize;
  unsigned int viewOffset;
  uint64_t fileSize;
  uint64_t viewBase;
};

class QZ_API QzFileOutputStream {
 public:
  // Takes `file`'s handle after checking that the file can be written (which
  // leaves it as it was). With `append` the stream starts at the end;
  // without, at 0, and the old bytes past what is written stay.
  QzFileOutputStream(QzFile& file, int append);
  // Without `append`: creates `path` anew (cut to 0). With `append`: opens it
  // at its end, clearing a read-only attribute first; a missing path is
  // created.
  QzFileOutputStream(const QzStringT<char>& path, int append);
  QzFileOutputStream(QzFileOutputStream& other);
  QzFileOutputStream& operator=(QzFileOutputStream& other);

  // Writes the waiting bytes out (failures swallowed) and closes.
  virtual ~QzFileOutputStream();
  // Writes the waiting bytes and moves the file position; never cuts the file.
  virtual int SetPosition(int64_t position);
  // The next byte's position, waiting bytes counted.
  virtual uint64_t GetPosition();
  // The bytes taken; 0 when the waiting bytes could not all be written (they
  // are lost).
  virtual unsigned int Write(const void* data, unsigned int size);
  // 1 when waiting bytes were written and flushed to the system; 0 when
  // there were none or a step failed (they are lost).
  virtual int Flush();

  int IsValid();

  static void* operator new(size_t size);
  static void operator delete(void* block);

 protected:
  void Release();
  void Take(QzFileOutputStream& other);
  void AllocateBuffer();

  QzFile file;
  unsigned char* buffer;
  unsigned int capacity;
  unsigned int fill;
  uint64_t position;
};

#endif  // QZBASE_QZFILESTREAM_H
