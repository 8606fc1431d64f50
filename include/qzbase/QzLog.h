// qzbase: the process log.
//
// One log per process. Every line goes to one sink: the debugger output
// (after load) or one log file that the host opens with QZ_CREATE_FILE_LOG.
// The file is a ring of about 40 MiB: when the bytes written since it was
// created or last rewound pass 0x2800000, it is flushed and writing goes on
// at its start, overwriting the oldest text; it is never truncated. There is
// no level filter: the level is a word in the line ("FatalError", "Error",
// "Warning", "Status", "Info"; any other value prints "NA").
//
// Line: "[MM/DD/YYYY hh:mm:ss.mmm pid=P tid=T] Level: message\n" in local
// time; dumps print a header, rows of 32 bytes in hexadecimal and a trailer.
//
// Threads: any thread may write at any time; a line is written with one
// system call under the file's lock, and a dump holds the lock for all its
// rows, so nothing interleaves in the file. QZ_CREATE_FILE_LOG and
// QZ_DISABLE_LOG must run while no other thread logs (start-up, shutdown).
// Failures: a failed write is dropped silently (the log never logs its own
// failures); running out of memory while a line is built throws QzException
// (0x8007000E) to the caller, and nothing is written.
#ifndef QZBASE_QZLOG_H
#define QZBASE_QZLOG_H

#include <qzbase/QzTypes.h>
#include <qzbase/QzString.h>

enum QzLogLevelValues {
  QZ_LOG_FATAL_ERROR = 0,
  QZ_LOG_ERROR = 1,
  QZ_LOG_WARNING = 2,
  QZ_LOG_STATUS = 3,
  QZ_LOG_INFO = 4
};

// A narrow message (format as QZ_SNPRINTF_A). A null format logs an empty message.
QZ_API void QZ_CALL QZ_LOG_WRITE_A(QzLogLevelValues level, const char* format, ...);
// A wide message, narrowed to the active code page in the line.
QZ_API void QZ_CALL QZ_LOG_WRITE_W(QzLogLevelValues level, const unsigned short* format, ...);
QZ_API void QZ_CALL QZ_LOG_WRITE_STRING(QzLogLevelValues level, const QzStringT<char>& text);
QZ_API void QZ_CALL QZ_LOG_WRITE_STRING(QzLogLevelValues level, const QzStringT<unsigned short>& text);
// A dump of `size` bytes at `data`; nothing at all when size is 0 or data null.
QZ_API void QZ_CALL QZ_LOG_WRITE_B(QzLogLevelValues level, const void* data, unsigned int size);
// A failed system call at level Error: "In file F at line L: 'E' failed with
// error 0x%08lx (system text)." where F is `file` after its last backslash.
QZ_API void QZ_CALL QZ_DBGLOG_WRITE_API_ERROR_IMPL(const char* file, int line, const char* expression, HRESULT error);
// Closes any open log file, then opens `path` anew (its old content dropped).
// 1 when a log file is now open; 0 otherwise (null path, a path that cannot
// be opened, no memory), with the log back on debugger output.
QZ_API int QZ_CALL QZ_CREATE_FILE_LOG(const char* path);
// Closes any log file; lines go to debugger output again.
QZ_API void QZ_CALL QZ_DISABLE_LOG();

#endif  // QZBASE_QZLOG_H
