// File streams: a sliding mapped view for reading, a buffer for writing.
#include <qzbase/QzFileStream.h>
#include <qzbase/QzLog.h>
#include <qzbase/QzMempool.h>

#include "frame/QzException.h"
#include "platform/QzPlatform.h"

#include <string.h>

using namespace qzsys;

namespace {

// The longest view, the alignment of a view's start, and the buffer's size.
constexpr uint32_t kSpan = 0x40000;
const char kSource[] = "QzFileStream";

void* const kNoFile = QZ_INVALID_HANDLE_VALUE;

// Moves the file pointer from the start; false when the system refused.
bool PointerTo(void* handle, uint64_t position) {
  LONG high = static_cast<LONG>(position >> 32);
  SetLastError(ERROR_SUCCESS);
  DWORD low = SetFilePointer(handle, static_cast<LONG>(position), &high, FILE_BEGIN);
  return !(low == INVALID_SET_FILE_POINTER && GetLastError() != ERROR_SUCCESS);
}

// The file's size, or false when the system cannot tell.
bool SizeOf(void* handle, uint64_t* size) {
  DWORD high = 0;
  DWORD low = GetFileSize(handle, &high);
  if (low == INVALID_FILE_SIZE && GetLastError() != ERROR_SUCCESS) return false;
  *size = (static_cast<uint64_t>(high) << 32) | low;
  return true;
}

void* PoolBlock(size_t size) {
  void* block = Qz_MempoolAlloc(nullptr, size);
  if (block == nullptr) QzThrow(E_OUTOFMEMORY);
  return block;
}

}  // namespace

// ---- Input ----------------------------------------------------------------------------------------

void* QzFileInputStream::operator new(size_t size) { return PoolBlock(size); }
void QzFileInputStream::operator delete(void* block) { Qz_MempoolFree(nullptr, block); }

QzFileInputStream::QzFileInputStream(QzFile& source)
    : mapping(nullptr), view(nullptr), viewSize(0), viewOffset(0), fileSize(0), viewBase(0) {
  if (!source.IsOpen()) QzThrow(E_INVALIDARG);
  file.handle = source.handle;
  source.handle = kNoFile;
  Start("QzFileInputStream::QzFileInputStream(file): CreateFileMapping",
        "QzFileInputStream::QzFileInputStream(file): MapViewOfFileEx");
}

QzFileInputStream::QzFileInputStream(const QzStringT<char>& path)
    : mapping(nullptr), view(nullptr), viewSize(0), viewOffset(0), fileSize(0), viewBase(0) {
  HRESULT hr = file.Open(path.c_str(), 0x8000);
  if (FAILED(hr)) QzThrow(hr);
  QzStringT<char> head = "QzFileInputStream::QzFileInputStream(" + path;
  QzStringT<char> mappingText = head + "): CreateFileMapping";
  QzStringT<char> viewText = head + "): MapViewOfFileEx";
  Start(mappingText.c_str(), viewText.c_str());
}

void QzFileInputStream::Start(const char* mappingText, const char* viewText) {
  if (!SizeOf(file.handle, &fileSize)) fileSize = 0;
  // Plain mode reads from the file pointer, which a given file may have moved.
  PointerTo(file.handle, 0);
  if (fileSize == 0) return;
  viewSize = fileSize < kSpan ? static_cast<unsigned int>(fileSize) : kSpan;
  mapping = CreateFileMappingA(file.handle, nullptr, PAGE_READONLY, 0, 0, nullptr);
  if (mapping == nullptr) {
    QZ_DBGLOG_WRITE_API_ERROR_IMPL(kSource, __LINE__, mappingText, QzHresultFromLastError());
    return;
  }
  view = MapViewOfFileEx(mapping, FILE_MAP_READ, 0, 0, viewSize, nullptr);
  if (view == nullptr) FailView(viewText, 0);
}

void QzFileInputStream::FailView(const char* place, uint64_t position) {
  HRESULT hr = QzHresultFromLastError();
  QZ_DBGLOG_WRITE_API_ERROR_IMPL(kSource, __LINE__, place, hr);
  view = nullptr;
  CloseHandle(mapping);
  mapping = nullptr;
  viewOffset = 0;
  viewSize = 0;
  viewBase = position;
  PointerTo(file.handle, position);
}

// Replaces the view by the one at `base`; false (in plain mode) when it fails.
bool QzFileInputStream::MoveView(uint64_t base) {
  uint64_t left = fileSize - base;
  viewSize = left < kSpan ? static_cast<unsigned int>(left) : kSpan;
  if (view != nullptr) UnmapViewOfFile(view);
  viewBase = base;
  view = MapViewOfFileEx(mapping, FILE_MAP_READ, static_cast<DWORD>(base >> 32), static_cast<DWORD>(base), viewSize,
                         nullptr);
  return view != nullptr;
}

void QzFileInputStream::Release() {
  if (view != nullptr && !UnmapViewOfFile(view))
    QZ_DBGLOG_WRITE_API_ERROR_IMPL(kSource, __LINE__, "QzFileInputStream::~QzFileInputStream: UnmapViewOfFile",
                                   QzHresultFromLastError());
  view = nullptr;
  if (mapping != nullptr) CloseHandle(mapping);
  mapping = nullptr;
  if (file.IsOpen()) CloseHandle(file.handle);
  file.handle = kNoFile;
}

void QzFileInputStream::Take(QzFileInputStream& other) {
  file.handle = other.file.handle;
  mapping = other.mapping;
  view = other.view;
  viewSize = other.viewSize;
  viewOffset = other.viewOffset;
  fileSize = other.fileSize;
  viewBase = other.viewBase;
  other.file.handle = kNoFile;
  other.mapping = nullptr;
  other.view = nullptr;
}

QzFileInputStream::QzFileInputStream(QzFileInputStream& other) { Take(other); }

QzFileInputStream& QzFileInputStream::operator=(QzFileInputStream& other) {
  if (this != &other) {
    Release();
    Take(other);
  }
  return *this;
}

QzFileInputStream::~QzFileInputStream() { Release(); }

int QzFileInputStream::Seek(int64_t offset, tagSTREAM_SEEK origin) {
  uint64_t target;
  if (origin == STREAM_SEEK_SET) {
    if (offset < 0 || static_cast<uint64_t>(offset) > fileSize) return 0;
    target = static_cast<uint64_t>(offset);
  } else if (origin == STREAM_SEEK_CUR || origin == STREAM_SEEK_END) {
    uint64_t from = origin == STREAM_SEEK_CUR ? GetCurrentPos() : fileSize;
    if (from > fileSize) from = fileSize;
    if (offset < 0) {
      uint64_t back = static_cast<uint64_t>(-(offset + 1)) + 1;
      target = back > from ? 0 : from - back;
    } else {
      uint64_t ahead = static_cast<uint64_t>(offset);
      target = ahead > fileSize - from ? fileSize : from + ahead;
    }
  } else {
    return 0;
  }

  if (mapping != nullptr) {
    uint64_t base = target & ~static_cast<uint64_t>(kSpan - 1);
    if (base != viewBase && !MoveView(base)) {
      // Also the end of a file whose size is a multiple of the span: no view.
      FailView("MapViewOfFileEx", target);
      return 1;
    }
    viewOffset = static_cast<unsigned int>(target - base);
    return 1;
  }
  if (target != viewBase) {
    if (!PointerTo(file.handle, target)) return 0;
    viewBase = target;
  }
  return 1;
}

uint64_t QzFileInputStream::GetSize() { return fileSize; }

void* QzFileInputStream::GetBuffer(unsigned int, unsigned int&) { return nullptr; }

uint64_t QzFileInputStream::GetCurrentPos() { return viewBase + viewOffset; }

int QzFileInputStream::IsEOS() { return GetCurrentPos() == fileSize ? 1 : 0; }

int QzFileInputStream::IsValid() { return file.IsOpen() ? 1 : 0; }

unsigned int QzFileInputStream::Read(void* destination, unsigned int size) {
  if (destination == nullptr || size == 0 || !file.IsOpen()) return 0;
  unsigned char* out = static_cast<unsigned char*>(destination);
  if (mapping == nullptr) {
    DWORD got = 0;
    ReadFile(file.handle, out, size, &got, nullptr);
    viewBase += got;
    return got;
  }
  const unsigned char* from = static_cast<const unsigned char*>(view);
  if (static_cast<uint64_t>(viewOffset) + size <= viewSize) {
    memcpy(out, from + viewOffset, size);
    viewOffset += size;
    return size;
  }
  unsigned int rest = viewSize - viewOffset;
  uint64_t next = viewBase + viewSize;
  if (rest != 0) memcpy(out, from + viewOffset, rest);
  unsigned int delivered = rest;
  if (next >= fileSize) {
    viewOffset += rest;
    return rest;
  }
  uint64_t remain = size - rest;
  if (remain > fileSize - next) remain = fileSize - next;
  for (;;) {
    if (!MoveView(next)) {
      // The stream goes on in plain mode; so does this read, so that a short
      // result still means the end of the file to a caller.
      FailView("MapViewOfFileEx", next);
      DWORD got = 0;
      ReadFile(file.handle, out + delivered, static_cast<DWORD>(remain), &got, nullptr);
      viewBase += got;
      return delivered + got;
    }
    if (remain <= kSpan) {
      memcpy(out + delivered, view, static_cast<size_t>(remain));
      viewOffset = static_cast<unsigned int>(remain);
      return delivered + static_cast<unsigned int>(remain);
    }
    memcpy(out + delivered, view, viewSize);
    delivered += viewSize;
    next += viewSize;
    remain -= kSpan;
  }
}

// ---- Output ---------------------------------------------------------------------------------------

void* QzFileOutputStream::operator new(size_t size) { return PoolBlock(size); }
void QzFileOutputStream::operator delete(void* block) { Qz_MempoolFree(nullptr, block); }

void QzFileOutputStream::AllocateBuffer() {
  buffer = static_cast<unsigned char*>(Qz_MempoolAlloc(nullptr, kSpan));
}

QzFileOutputStream::QzFileOutputStream(QzFile& source, int append)
    : buffer(nullptr), capacity(kSpan), fill(0), position(0) {
  void* h = source.handle;
  if (!source.IsOpen()) QzThrow(E_INVALIDARG);
  uint64_t size = 0;
  // Proves that the file takes writes, and leaves it as it was.
  DWORD written = 0;
  const char probe = 0x61;
  if (!SizeOf(h, &size) || !PointerTo(h, size) || !WriteFile(h, &probe, 1, &written, nullptr) || written != 1 ||
      !PointerTo(h, size) || !SetEndOfFile(h))
    QzThrow(E_INVALIDARG);
  AllocateBuffer();
  // Out of memory: the caller keeps its file.
  if (buffer == nullptr) QzThrow(E_OUTOFMEMORY);
  file.handle = h;
  source.handle = kNoFile;
  position = append ? size : 0;
  PointerTo(h, position);
}

QzFileOutputStream::QzFileOutputStream(const QzStringT<char>& path, int append)
    : buffer(nullptr), capacity(kSpan), fill(0), position(0) {
  DWORD attributes = append ? GetFileAttributesA(path.c_str()) : INVALID_FILE_ATTRIBUTES;
  if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    file.Open(path.c_str(), 0x9001);
  } else {
    if ((attributes & FILE_ATTRIBUTE_READONLY) != 0) {
      DWORD cleared = attributes & ~FILE_ATTRIBUTE_READONLY;
      if (!SetFileAttributesA(path.c_str(), cleared != 0 ? cleared : FILE_ATTRIBUTE_NORMAL)) QzThrow(E_INVALIDARG);
    }
    if (SUCCEEDED(file.Open(path.c_str(), 0xA001))) {
      uint64_t size = 0;
      if (SizeOf(file.handle, &size)) position = size;
      PointerTo(file.handle, position);
    }
  }
  if (!file.IsOpen()) QzThrow(E_INVALIDARG);
  AllocateBuffer();
  if (buffer == nullptr) QzThrow(E_OUTOFMEMORY);
}

void QzFileOutputStream::Release() {
  if (buffer != nullptr) Qz_MempoolFree(nullptr, buffer);
  buffer = nullptr;
  fill = 0;
  if (file.IsOpen()) CloseHandle(file.handle);
  file.handle = kNoFile;
}

void QzFileOutputStream::Take(QzFileOutputStream& other) {
  file.handle = other.file.handle;
  buffer = other.buffer;
  capacity = other.capacity;
  fill = other.fill;
  position = other.position;
  other.file.handle = kNoFile;
  other.buffer = nullptr;
  other.fill = 0;
}

QzFileOutputStream::QzFileOutputStream(QzFileOutputStream& other) { Take(other); }

QzFileOutputStream& QzFileOutputStream::operator=(QzFileOutputStream& other) {
  if (this != &other) {
    Release();
    Take(other);
  }
  return *this;
}

QzFileOutputStream::~QzFileOutputStream() {
  if (fill != 0 && file.IsOpen()) {
    DWORD written = 0;
    if (WriteFile(file.handle, buffer, fill, &written, nullptr)) FlushFileBuffers(file.handle);
  }
  Release();
}

int QzFileOutputStream::IsValid() { return file.IsOpen() ? 1 : 0; }

uint64_t QzFileOutputStream::GetPosition() { return position; }

unsigned int QzFileOutputStream::Write(const void* data, unsigned int size) {
  if (buffer == nullptr || (data == nullptr && size != 0)) return 0;
  if (static_cast<uint64_t>(fill) + size < capacity) {
    memcpy(buffer + fill, data, size);
    fill += size;
    position += size;
    return size;
  }
  if (fill != 0) {
    DWORD written = 0;
    unsigned int waiting = fill;
    WriteFile(file.handle, buffer, waiting, &written, nullptr);
    fill = 0;
    if (written < waiting) return 0;
  }
  if (size >= capacity) {
    DWORD written = 0;
    WriteFile(file.handle, data, size, &written, nullptr);
    position += written;
    return written;
  }
  memcpy(buffer, data, size);
  fill = size;
  position += size;
  return size;
}

int QzFileOutputStream::Flush() {
  if (fill == 0) return 0;
  DWORD written = 0;
  unsigned int waiting = fill;
  fill = 0;
  if (!WriteFile(file.handle, buffer, waiting, &written, nullptr) || written != waiting) return 0;
  return FlushFileBuffers(file.handle) ? 1 : 0;
}

int QzFileOutputStream::SetPosition(int64_t target) {
  if (static_cast<uint64_t>(target) == position) return 1;
  Flush();
  LONG high = static_cast<LONG>(static_cast<uint64_t>(target) >> 32);
  SetLastError(ERROR_SUCCESS);
  DWORD low = SetFilePointer(file.handle, static_cast<LONG>(target), &high, FILE_BEGIN);
  if (low == INVALID_SET_FILE_POINTER && GetLastError() != ERROR_SUCCESS) {
    // Refused: the position is wherever the system's pointer still stands.
    high = 0;
    SetLastError(ERROR_SUCCESS);
    low = SetFilePointer(file.handle, 0, &high, FILE_CURRENT);
    if (low == INVALID_SET_FILE_POINTER && GetLastError() != ERROR_SUCCESS) return 0;
  }
  position = (static_cast<uint64_t>(static_cast<DWORD>(high)) << 32) | low;
  return position == static_cast<uint64_t>(target) ? 1 : 0;
}
