// POSIX implementation of the multimedia file calls.
//
// One buffer per file covers the file from `bufOffset`: bytes [0, fill) of it
// are valid (read from the file or written), the position is bufOffset + next,
// and next never passes fill, so a dirty buffer is written out as one run
// [0, fill). A memory file is the same buffer with bufOffset 0 for good and
// fill its whole length.
#include "platform/QzPlatformMmio.h"
#include "platform/QzPlatformBase.h"
#include "platform/QzPlatformFaults.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

struct HMMIO__ {
  int fd;                // -1 for a memory file
  DWORD openFlags;
  char* buf;
  int64_t bufSize;
  bool ownBuffer;
  int64_t bufOffset;
  int64_t next;
  int64_t fill;
  bool dirty;
  DWORD grow;            // memory files: growth step, 0 for none
};

namespace qzsys {

namespace {

constexpr int64_t kMaxPosition = 0x7FFFFFFF;

bool IsMemory(const HMMIO__* m) { return m->fd < 0; }

int64_t Position(const HMMIO__* m) { return m->bufOffset + m->next; }

bool PWriteAll(int fd, const char* p, int64_t n, int64_t at) {
  while (n > 0) {
    ssize_t w = pwrite(fd, p, static_cast<size_t>(n), static_cast<off_t>(at));
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    p += w; n -= w; at += w;
  }
  return true;
}

// Bytes read, -1 on an error; short only at the end of the file.
int64_t PReadAll(int fd, char* p, int64_t n, int64_t at) {
  int64_t done = 0;
  while (done < n) {
    ssize_t r = pread(fd, p + done, static_cast<size_t>(n - done), static_cast<off_t>(at + done));
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) return -1;
    if (r == 0) break;
    done += r;
  }
  return done;
}

bool Flush(HMMIO__* m) {
  if (!m->dirty || IsMemory(m)) { m->dirty = false; return true; }
  if (!PWriteAll(m->fd, m->buf, m->fill, m->bufOffset)) return false;
  m->dirty = false;
  return true;
}

// Writes a dirty buffer out and starts an empty one at the position.
bool Rebase(HMMIO__* m) {
  if (IsMemory(m)) return true;
  if (!Flush(m)) return false;
  m->bufOffset += m->next;
  m->next = 0;
  m->fill = 0;
  return true;
}

int64_t FileEnd(const HMMIO__* m) {
  if (IsMemory(m)) return m->fill;
  struct stat st;
  int64_t size = fstat(m->fd, &st) == 0 ? static_cast<int64_t>(st.st_size) : 0;
  if (m->bufOffset + m->fill > size) size = m->bufOffset + m->fill;
  return size;
}

// Memory files: room for `needed` bytes, when the file may grow.
bool GrowMemory(HMMIO__* m, int64_t needed) {
  if (!m->ownBuffer || m->grow == 0 || needed > kMaxPosition) return false;
  int64_t size = m->bufSize;
  while (size < needed) size += m->grow;
  char* p = static_cast<char*>(realloc(m->buf, static_cast<size_t>(size)));
  if (p == nullptr) return false;
  memset(p + m->bufSize, 0, static_cast<size_t>(size - m->bufSize));
  m->buf = p;
  m->bufSize = size;
  return true;
}

bool SeekTo(HMMIO__* m, int64_t target) {
  if (target < 0 || target > kMaxPosition) return false;
  if (IsMemory(m)) {
    if (target > m->fill) return false;
    m->next = target;
    return true;
  }
  if (target >= m->bufOffset && target <= m->bufOffset + m->fill) {
    m->next = target - m->bufOffset;
    return true;
  }
  if (!Flush(m)) return false;
  m->bufOffset = target;
  m->next = 0;
  m->fill = 0;
  return true;
}

bool ReadDword(HMMIO__* m, DWORD* value) {
  unsigned char b[4];
  if (mmioRead(m, reinterpret_cast<char*>(b), 4) != 4) return false;
  *value = b[0] | (b[1] << 8) | (b[2] << 16) | (static_cast<DWORD>(b[3]) << 24);
  return true;
}

bool WriteDword(HMMIO__* m, DWORD value) {
  const char b[4] = {static_cast<char>(value), static_cast<char>(value >> 8), static_cast<char>(value >> 16),
                     static_cast<char>(value >> 24)};
  return mmioWrite(m, b, 4) == 4;
}

UINT OpenError(int err) {
  switch (err) {
    case ENOENT: return MMIOERR_FILENOTFOUND;
    case ENOTDIR: return MMIOERR_PATHNOTFOUND;
    case EACCES: case EPERM: case EROFS: case EISDIR: return MMIOERR_ACCESSDENIED;
    case EMFILE: case ENFILE: return MMIOERR_TOOMANYOPENFILES;
    case ENOMEM: return MMIOERR_OUTOFMEMORY;
    default: return MMIOERR_CANNOTOPEN;
  }
}

void FillInfo(const HMMIO__* m, ::MMIOINFO* info) {
  memset(info, 0, sizeof *info);
  info->dwFlags = m->openFlags | (m->dirty ? MMIO_DIRTY : 0);
  info->fccIOProc = IsMemory(m) ? FOURCC_MEM : FOURCC_DOS;
  info->cchBuffer = static_cast<LONG>(m->bufSize);
  info->pchBuffer = m->buf;
  info->pchNext = m->buf + m->next;
  info->pchEndRead = m->buf + m->fill;
  info->pchEndWrite = m->buf + m->bufSize;
  info->lBufOffset = static_cast<LONG>(m->bufOffset);
  info->lDiskOffset = static_cast<LONG>(m->bufOffset + m->fill);
  info->adwInfo[0] = m->grow;
  info->hmmio = const_cast<HMMIO__*>(m);
}

}  // namespace

HMMIO mmioOpenA(LPSTR path, ::MMIOINFO* info, DWORD flags) {
  auto fail = [info](UINT error) -> HMMIO {
    if (info != nullptr) info->wErrorRet = error;
    return nullptr;
  };
  if (QzFaultHit(QZ_FAULT_MMIO)) return fail(MMIOERR_OUTOFMEMORY);
  const bool memory = info != nullptr && info->fccIOProc == FOURCC_MEM;
  if (!memory && path == nullptr) return fail(MMIOERR_FILENOTFOUND);
  int64_t size = info != nullptr && info->cchBuffer > 0 ? info->cchBuffer : (memory ? 0 : MMIO_DEFAULTBUFFER);
  if (memory && info->pchBuffer == nullptr && size == 0 && info->adwInfo[0] == 0) return fail(MMIOERR_OUTOFMEMORY);

  HMMIO__* m = static_cast<HMMIO__*>(calloc(1, sizeof(HMMIO__)));
  if (m == nullptr) return fail(MMIOERR_OUTOFMEMORY);
  m->fd = -1;
  m->openFlags = flags & (MMIO_WRITE | MMIO_READWRITE);
  if (memory && info->pchBuffer != nullptr) {
    m->buf = info->pchBuffer;
  } else {
    m->buf = static_cast<char*>(calloc(1, static_cast<size_t>(size > 0 ? size : 1)));
    m->ownBuffer = true;
    if (m->buf == nullptr) { free(m); return fail(MMIOERR_OUTOFMEMORY); }
  }
  m->bufSize = size;
  if (memory) {
    m->fill = size;
    m->grow = m->ownBuffer ? info->adwInfo[0] : 0;
  } else {
    int mode = (flags & MMIO_READWRITE) ? O_RDWR : (flags & MMIO_WRITE) ? O_WRONLY : O_RDONLY;
    if (flags & MMIO_CREATE) mode |= O_CREAT | O_TRUNC;
    m->fd = open(path, mode | O_CLOEXEC, 0666);
    struct stat st;
    if (m->fd >= 0 && fstat(m->fd, &st) == 0 && S_ISDIR(st.st_mode)) { close(m->fd); m->fd = -1; errno = EISDIR; }
    if (m->fd < 0) {
      UINT e = OpenError(errno);
      free(m->buf);
      free(m);
      return fail(e);
    }
  }
  if (info != nullptr) info->wErrorRet = 0;
  return m;
}

MMRESULT mmioClose(HMMIO m, UINT) {
  if (m == nullptr) return MMIOERR_CANNOTCLOSE;
  bool ok = Flush(m);
  if (!IsMemory(m) && close(m->fd) != 0) ok = false;
  if (m->ownBuffer) free(m->buf);
  free(m);
  return ok ? 0 : MMIOERR_CANNOTWRITE;
}

LONG mmioRead(HMMIO m, HPSTR out, LONG size) {
  if (m == nullptr || size < 0 || (out == nullptr && size > 0)) return -1;
  int64_t done = 0;
  while (done < size) {
    int64_t avail = m->fill - m->next;
    if (avail > 0) {
      int64_t n = avail < size - done ? avail : size - done;
      memcpy(out + done, m->buf + m->next, static_cast<size_t>(n));
      m->next += n;
      done += n;
      continue;
    }
    if (IsMemory(m)) break;
    if (!Rebase(m)) return -1;
    if (size - done >= m->bufSize) {
      // A large read goes straight into the caller's memory.
      int64_t r = PReadAll(m->fd, out + done, size - done, m->bufOffset);
      if (r < 0) return -1;
      m->bufOffset += r;
      done += r;
      break;
    }
    int64_t r = PReadAll(m->fd, m->buf, m->bufSize, m->bufOffset);
    if (r < 0) return -1;
    if (r == 0) break;
    m->fill = r;
  }
  return static_cast<LONG>(done);
}

LONG mmioWrite(HMMIO m, const char* in, LONG size) {
  if (m == nullptr || size < 0 || (in == nullptr && size > 0)) return -1;
  if (Position(m) + size > kMaxPosition) return -1;
  int64_t done = 0;
  while (done < size) {
    int64_t room = m->bufSize - m->next;
    if (room == 0) {
      if (IsMemory(m)) {
        if (!GrowMemory(m, m->next + (size - done))) break;
        continue;
      }
      if (!Rebase(m)) return -1;
      room = m->bufSize;
    }
    int64_t n = room < size - done ? room : size - done;
    memcpy(m->buf + m->next, in + done, static_cast<size_t>(n));
    m->next += n;
    if (m->next > m->fill) m->fill = m->next;
    m->dirty = true;
    done += n;
  }
  return static_cast<LONG>(done);
}

LONG mmioSeek(HMMIO m, LONG offset, int origin) {
  if (m == nullptr) return -1;
  int64_t base;
  switch (origin) {
    case 0: base = 0; break;
    case 1: base = Position(m); break;
    case 2: base = FileEnd(m); break;
    default: return -1;
  }
  if (!SeekTo(m, base + offset)) return -1;
  return static_cast<LONG>(Position(m));
}

MMRESULT mmioDescend(HMMIO m, ::MMCKINFO* ck, const ::MMCKINFO* parent, UINT flags) {
  if (m == nullptr || ck == nullptr) return MMIOERR_CHUNKNOTFOUND;
  const int64_t parentEnd = parent != nullptr ? static_cast<int64_t>(parent->dwDataOffset) + parent->cksize : INT64_MAX;
  const FOURCC wantId = (flags & MMIO_FINDRIFF) ? FOURCC_RIFF : (flags & MMIO_FINDLIST) ? FOURCC_LIST : ck->ckid;
  const bool byType = (flags & (MMIO_FINDRIFF | MMIO_FINDLIST)) != 0;
  const bool search = byType || (flags & MMIO_FINDCHUNK) != 0;
  const FOURCC wantType = ck->fccType;
  for (;;) {
    const int64_t start = Position(m);
    if (start + 8 > parentEnd) return MMIOERR_CHUNKNOTFOUND;
    ::MMCKINFO found = {};
    if (!ReadDword(m, &found.ckid) || !ReadDword(m, &found.cksize)) return MMIOERR_CHUNKNOTFOUND;
    found.dwDataOffset = static_cast<DWORD>(start + 8);
    const bool form = found.ckid == FOURCC_RIFF || found.ckid == FOURCC_LIST;
    if (form) {
      if (start + 12 > parentEnd || !ReadDword(m, &found.fccType)) return MMIOERR_CHUNKNOTFOUND;
    }
    const int64_t dataEnd = static_cast<int64_t>(found.dwDataOffset) + found.cksize;
    const bool match = !search || (found.ckid == wantId && (!byType || found.fccType == wantType));
    if (match) {
      if (parent != nullptr && dataEnd > FileEnd(m)) return MMIOERR_CHUNKNOTFOUND;
      *ck = found;
      return 0;
    }
    if (!SeekTo(m, dataEnd + (found.cksize & 1))) return MMIOERR_CHUNKNOTFOUND;
  }
}

MMRESULT mmioAscend(HMMIO m, ::MMCKINFO* ck, UINT) {
  if (m == nullptr || ck == nullptr) return MMIOERR_CANNOTSEEK;
  if (ck->dwFlags & MMIO_DIRTY) {
    const int64_t here = Position(m);
    const int64_t length = here - ck->dwDataOffset;
    if (length < 0) return MMIOERR_CANNOTSEEK;
    if (static_cast<uint64_t>(length) != ck->cksize) {
      if (!SeekTo(m, static_cast<int64_t>(ck->dwDataOffset) - 4) || !WriteDword(m, static_cast<DWORD>(length)))
        return MMIOERR_CANNOTWRITE;
      ck->cksize = static_cast<DWORD>(length);
      if (!SeekTo(m, here)) return MMIOERR_CANNOTSEEK;
    }
    if (ck->cksize & 1) {
      const char pad = 0;
      if (!SeekTo(m, static_cast<int64_t>(ck->dwDataOffset) + ck->cksize) || mmioWrite(m, &pad, 1) != 1)
        return MMIOERR_CANNOTWRITE;
    }
    ck->dwFlags &= ~static_cast<DWORD>(MMIO_DIRTY);
  }
  const int64_t end = static_cast<int64_t>(ck->dwDataOffset) + ck->cksize + (ck->cksize & 1);
  if (IsMemory(m) && end > m->fill) {
    // The pad byte of a last chunk may be missing from a memory image.
    if (static_cast<int64_t>(ck->dwDataOffset) + ck->cksize > m->fill) return MMIOERR_CANNOTSEEK;
    return SeekTo(m, m->fill) ? 0 : MMIOERR_CANNOTSEEK;
  }
  return SeekTo(m, end) ? 0 : MMIOERR_CANNOTSEEK;
}

MMRESULT mmioCreateChunk(HMMIO m, ::MMCKINFO* ck, UINT flags) {
  if (m == nullptr || ck == nullptr) return MMIOERR_CANNOTWRITE;
  if (flags & MMIO_CREATERIFF) ck->ckid = FOURCC_RIFF;
  if (flags & MMIO_CREATELIST) ck->ckid = FOURCC_LIST;
  const bool form = ck->ckid == FOURCC_RIFF || ck->ckid == FOURCC_LIST;
  const int64_t start = Position(m);
  if (!WriteDword(m, ck->ckid) || !WriteDword(m, ck->cksize)) return MMIOERR_CANNOTWRITE;
  if (form && !WriteDword(m, ck->fccType)) return MMIOERR_CANNOTWRITE;
  ck->dwDataOffset = static_cast<DWORD>(start + 8);
  ck->dwFlags = MMIO_DIRTY;
  return 0;
}

MMRESULT mmioGetInfo(HMMIO m, ::MMIOINFO* info, UINT) {
  if (m == nullptr || info == nullptr) return MMIOERR_UNBUFFERED;
  FillInfo(m, info);
  return 0;
}

MMRESULT mmioSetInfo(HMMIO m, const ::MMIOINFO* info, UINT) {
  if (m == nullptr || info == nullptr) return MMIOERR_UNBUFFERED;
  if (info->pchNext < m->buf || info->pchNext > m->buf + m->bufSize) return MMIOERR_CANNOTSEEK;
  const int64_t next = info->pchNext - m->buf;
  if (info->dwFlags & MMIO_DIRTY) {
    if (next > m->fill) m->fill = next;
    if (!IsMemory(m)) m->dirty = true;
  } else if (next > m->fill) {
    return MMIOERR_CANNOTSEEK;
  }
  m->next = next;
  return 0;
}

MMRESULT mmioAdvance(HMMIO m, ::MMIOINFO* info, UINT flags) {
  if (m == nullptr) return MMIOERR_UNBUFFERED;
  if (info != nullptr) {
    MMRESULT r = mmioSetInfo(m, info, 0);
    if (r != 0) return r;
  }
  if (IsMemory(m)) {
    if ((flags & MMIO_WRITE) && m->next == m->bufSize && !GrowMemory(m, m->bufSize + 1)) return MMIOERR_CANNOTEXPAND;
    if (m->bufSize > m->fill) m->fill = m->bufSize;
  } else {
    if (!Rebase(m)) return MMIOERR_CANNOTWRITE;
    if (!(flags & MMIO_WRITE)) {
      int64_t r = PReadAll(m->fd, m->buf, m->bufSize, m->bufOffset);
      if (r < 0) return MMIOERR_CANNOTREAD;
      m->fill = r;
    }
  }
  if (info != nullptr) FillInfo(m, info);
  return 0;
}

}  // namespace qzsys
