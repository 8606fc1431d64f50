// The process log: one sink, debug output or one ring file.
#include "log/QzLog.h"

#include <qzbase/QzMempool.h>
#include <qzbase/QzSyncObject.h>

#include <stdarg.h>

#include <atomic>
#include <new>

#include "frame/QzException.h"
#include "frame/QzFrame.h"

using namespace qzsys;

namespace {

// The pair is read without a lock on every line; only QZ_CREATE_FILE_LOG and
// QZ_DISABLE_LOG change it, while no other thread logs. Relaxed atomics keep
// those reads well defined without costing anything.
std::atomic<void*> g_sinkTarget{nullptr};
std::atomic<QzLogSinkFn> g_sinkFunction{nullptr};
std::atomic<QzFileLog*> g_fileLog{nullptr};

typedef void (*QzPlainSinkFn)(const QzStringT<char>& line);

void DebugOutputSink(const QzStringT<char>& line) { OutputDebugStringA(line.c_str()); }

void PlainFunctionThunk(void* target, const QzStringT<char>& line) {
  reinterpret_cast<QzPlainSinkFn>(target)(line);
}

void SetSink(void* target, QzLogSinkFn function) {
  g_sinkTarget.store(target, std::memory_order_relaxed);
  g_sinkFunction.store(function, std::memory_order_relaxed);
}

void SetDebugOutputSink() { SetSink(reinterpret_cast<void*>(&DebugOutputSink), &PlainFunctionThunk); }

void CallSink(const QzStringT<char>& line) {
  QzLogSinkFn function = g_sinkFunction.load(std::memory_order_relaxed);
  void* target = g_sinkTarget.load(std::memory_order_relaxed);
  if (function == nullptr) {  // before the first static initialiser ran
    DebugOutputSink(line);
    return;
  }
  function(target, line);
}

// Write failures are dropped here on purpose: the log has nowhere to report
// its own failures, and a line it cannot write is simply lost.
void UnlockedFileWrite(QzFileLog* log, const char* text, DWORD size) {
  DWORD written = 0;
  if (!WriteFile(log->file->handle, text, size, &written, nullptr)) return;
  log->bytesWritten += written;
  if (log->bytesWritten > log->sizeLimit) {
    (void)FlushFileBuffers(log->file->handle);
    LONG high = 0;
    SetLastError(ERROR_SUCCESS);
    DWORD low = SetFilePointer(log->file->handle, 0, &high, FILE_BEGIN);
    // Only a seek that happened starts the count again, so a failed rewind
    // is tried anew at the next line rather than letting the file grow.
    if (low != INVALID_SET_FILE_POINTER || GetLastError() == ERROR_SUCCESS) log->bytesWritten = 0;
  }
}

void UnlockedFileWrite(QzFileLog* log, const QzStringT<char>& line) {
  UnlockedFileWrite(log, line.c_str(), static_cast<DWORD>(line.length()));
}

// Releases the file lock even when building a row throws.
class FileLogHold {
 public:
  explicit FileLogHold(QzFileLog* log) : log_(log) { if (log_) EnterCriticalSection(&log_->lock); }
  ~FileLogHold() { if (log_) LeaveCriticalSection(&log_->lock); }
  FileLogHold(const FileLogHold&) = delete;
  FileLogHold& operator=(const FileLogHold&) = delete;
 private:
  QzFileLog* log_;
};

void LockedFileWrite(void* target, const QzStringT<char>& line) {
  QzFileLog* log = static_cast<QzFileLog*>(target);
  FileLogHold hold(log);
  UnlockedFileWrite(log, line);
}

const char* LevelWord(int level) {
  switch (level) {
    case 0: return "FatalError";
    case 1: return "Error";
    case 2: return "Warning";
    case 3: return "Status";
    case 4: return "Info";
    default: return "NA";
  }
}

// The prefix's values, from one reading of the clock.
struct LineTime {
  int month, day, year, hour, minute, second, millisecond, pid, tid;
};

LineTime ReadLineTime() {
  FILETIME ft;
  GetSystemTimeAsFileTime(&ft);
  const uint64_t t = (uint64_t(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
  LineTime lt;
  lt.millisecond = int(t / 10 % 1000000 / 1000);
  // The seconds go to localtime as a 32-bit count, as the line has always had them.
  const int32_t seconds = static_cast<int32_t>((t - 116444736000000000ull) / 10000000ull);
  QzLocalTime tm;
  QzLocalTimeOf(seconds, &tm);
  lt.month = tm.tm_mon + 1;
  lt.day = tm.tm_mday;
  lt.year = tm.tm_year + 1900;
  lt.hour = tm.tm_hour;
  lt.minute = tm.tm_min;
  lt.second = tm.tm_sec;
  lt.pid = static_cast<int>(GetCurrentProcessId());
  lt.tid = static_cast<int>(GetCurrentThreadId());
  return lt;
}

#define QZ_LOG_PREFIX "[%02d/%02d/%04d %02d:%02d:%02d.%03d pid=%d tid=%d] %s: "
#define QZ_LOG_PREFIX_ARGS(lt, level)                                                              \
  (lt).month, (lt).day, (lt).year, (lt).hour, (lt).minute, (lt).second, (lt).millisecond, (lt).pid, \
      (lt).tid, LevelWord(level)

void WriteNarrowMessage(int level, const char* message) {
  const LineTime lt = ReadLineTime();
  CallSink(QzStringT<char>::CreateFormatted(QZ_LOG_PREFIX "%s\n", QZ_LOG_PREFIX_ARGS(lt, level), message));
}

void WriteWideMessage(int level, const unsigned short* message) {
  const LineTime lt = ReadLineTime();
  CallSink(QzStringT<char>::CreateFormatted(QZ_LOG_PREFIX "%S\n", QZ_LOG_PREFIX_ARGS(lt, level), message));
}

void CloseFileLog(QzFileLog* log) {
  // QzFile's destructor closes the handle; its failure is swallowed there.
  log->file->~QzFile();
  Qz_MempoolFree(0, log->file);
  DeleteCriticalSection(&log->lock);
  Qz_MempoolFree(0, log);
}

void DisableLog() {
  QzFileLog* log = g_fileLog.exchange(nullptr, std::memory_order_relaxed);
  SetDebugOutputSink();
  if (log != nullptr) CloseFileLog(log);
}

}  // namespace

QzFileLog* QzLogCurrentFile() { return g_fileLog.load(std::memory_order_relaxed); }

void QZ_LOG_WRITE_A(QzLogLevelValues level, const char* format, ...) {
  QzStringT<char> message;
  if (format != nullptr) {
    va_list args;
    va_start(args, format);
    try {
      message = QzStringT<char>::CreateFormattedV(format, args);
    } catch (...) {
      va_end(args);
      throw;
    }
    va_end(args);
  }
  WriteNarrowMessage(level, message.c_str());
}

void QZ_LOG_WRITE_W(QzLogLevelValues level, const unsigned short* format, ...) {
  QzStringT<unsigned short> message;
  if (format != nullptr) {
    va_list args;
    va_start(args, format);
    try {
      message = QzStringT<unsigned short>::CreateFormattedV(format, args);
    } catch (...) {
      va_end(args);
      throw;
    }
    va_end(args);
  }
  WriteWideMessage(level, message.c_str());
}

void QZ_LOG_WRITE_STRING(QzLogLevelValues level, const QzStringT<char>& text) {
  WriteNarrowMessage(level, text.c_str());
}

void QZ_LOG_WRITE_STRING(QzLogLevelValues level, const QzStringT<unsigned short>& text) {
  WriteWideMessage(level, text.c_str());
}

void QZ_LOG_WRITE_B(QzLogLevelValues level, const void* data, unsigned int size) {
  if (size == 0 || data == nullptr) return;
  QzFileLog* log = g_fileLog.load(std::memory_order_relaxed);
  const LineTime lt = ReadLineTime();
  // The address is printed as a whole word: eight digits on i386, sixteen on x86-64.
  const QzStringT<char> header = QzStringT<char>::CreateFormatted(
      QZ_LOG_PREFIX "DUMP BINARY(0x%.*I64x), LEN(%d):\n", QZ_LOG_PREFIX_ARGS(lt, level),
      int(2 * sizeof(void*)), static_cast<uint64_t>(reinterpret_cast<uintptr_t>(data)), int(size));
  static const char kTrailer[] =
      "*******************************************END BINARY*******************************************\n";

  FileLogHold hold(log);
  auto write = [log](const QzStringT<char>& text) {
    if (log != nullptr) UnlockedFileWrite(log, text);
    else OutputDebugStringA(text.c_str());
  };
  write(header);
  const unsigned char* p = static_cast<const unsigned char*>(data);
  unsigned int left = size;
  while (left > 0) {
    const unsigned int n = left > 32 ? 32 : left;
    QzStringT<char> row = QzStringT<char>::ToHexString(p, n, 1, 0);
    row += '\n';
    write(row);
    p += n;
    left -= n;
  }
  if (log != nullptr) UnlockedFileWrite(log, kTrailer, DWORD(sizeof kTrailer - 1));
  else OutputDebugStringA(kTrailer);
}

void QZ_DBGLOG_WRITE_API_ERROR_IMPL(const char* file, int line, const char* expression, HRESULT error) {
  const char* name = file != nullptr ? file : "";
  // Step by characters, so that a trail byte of 0x5C in a double-byte page is
  // not taken for a backslash.
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(name); *p != 0; p = _mbsinc(p)) {
    if (*p == '\\') name = reinterpret_cast<const char*>(p + 1);
  }
  const QzStringT<char> text = QzStringT<char>::GetWin32Error(error);
  QZ_LOG_WRITE_A(QZ_LOG_ERROR, "In file %s at line %d: '%s' failed with error 0x%08lx (%s).", name, line,
                 expression != nullptr ? expression : "", static_cast<unsigned int>(error),
                 text.c_str());
}

int QZ_CREATE_FILE_LOG(const char* path) {
  DisableLog();
  QzFile* file = nullptr;
  QzFileLog* record = nullptr;
  try {
    if (path != nullptr) {
      void* fileBlock = Qz_MempoolAlloc(0, sizeof(QzFile));
      if (fileBlock != nullptr) {
        file = new (fileBlock) QzFile();
        if (file->Open(path, 0x9021) < 0) {
          file->~QzFile();
          Qz_MempoolFree(0, file);
          file = nullptr;
        }
      }
      if (file != nullptr) {
        record = static_cast<QzFileLog*>(Qz_MempoolAlloc(0, sizeof(QzFileLog)));
        if (record != nullptr) {
          record->file = file;
          record->sizeLimit = QZ_LOG_SIZE_LIMIT;
          record->bytesWritten = 0;
          Qz_InitializeCriticalSection(&record->lock);
          g_fileLog.store(record, std::memory_order_relaxed);
        } else {
          file->~QzFile();
          Qz_MempoolFree(0, file);
          file = nullptr;
        }
      }
    }
  } catch (...) {
    // Only the lock's creation throws, and the record is published after it:
    // whatever failed, the log goes on with no file and nothing half made.
    if (record != nullptr) Qz_MempoolFree(0, record);
    if (file != nullptr) {
      file->~QzFile();
      Qz_MempoolFree(0, file);
    }
    g_fileLog.store(nullptr, std::memory_order_relaxed);
  }
  QzFileLog* log = g_fileLog.load(std::memory_order_relaxed);
  if (log != nullptr) {
    SetSink(log, &LockedFileWrite);
    return 1;
  }
  SetDebugOutputSink();
  return 0;
}

void QZ_DISABLE_LOG() { DisableLog(); }

extern "C" void QzLoadStepLogSink() { SetDebugOutputSink(); }
extern "C" void QzUnloadStepDisableLog() { QZ_DISABLE_LOG(); }
