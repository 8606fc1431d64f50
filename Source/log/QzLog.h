// The process log, internal side: the sink and the file record, which the
// tests and the pools' already-freed line reach.
#ifndef QZBASE_SOURCE_LOG_QZLOG_H
#define QZBASE_SOURCE_LOG_QZLOG_H

#include <qzbase/QzLog.h>
#include <qzbase/QzFile.h>
#include <qzbase/QzString.h>
#include <qzbase/QzSyncObject.h>

#include "platform/QzPlatform.h"

// The one sink of the process: a target word and the function called on it
// with the finished line. The debug-output sink keeps a plain function in the
// target word and a thunk that calls it in the function word; a log file
// keeps its record and the locked write.
typedef void (*QzLogSinkFn)(void* target, const QzStringT<char>& line);
struct QzLogSink {
  void* target;
  QzLogSinkFn function;
};

// The record of the open log file. At most one exists.
struct QzFileLog {
  QzFile* file;                    // owned, from the default pool
  uint32_t sizeLimit;              // 0x2800000: the file rewinds once past it
  uint32_t bytesWritten;           // since creation or the last rewind
  QzCriticalSection lock;          // one line, or one whole dump
};

constexpr uint32_t QZ_LOG_SIZE_LIMIT = 0x2800000u;

// The open log file's record, or null (tests look at its counts).
QzFileLog* QzLogCurrentFile();

#endif  // QZBASE_SOURCE_LOG_QZLOG_H
