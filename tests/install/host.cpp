// A small host of qzbase: a formatted string in both widths, a block from
// the default pool, a log line and a thread that runs a delegate.
#include <qzbase/qzbase.h>

#include <stdio.h>

static int failures = 0;
static void Check(bool ok, const char* what) {
  if (ok) return;
  fprintf(stderr, "host: %s failed\n", what);
  ++failures;
}

static unsigned int runs = 0;
static unsigned int Work() {  // on the library's thread
  ++runs;
  return 0;
}

int main() {
  QzStringA text = QzStringA::CreateFormatted("%s %d.%02d", "qzbase", 1, 5);
  Check(text == "qzbase 1.05", "a formatted string");
  QzStringW wide(text);  // converted through the process's ANSI code page
  Check(wide.length() == 11 && wide[10] == '5', "its wide copy");

  void* block = Qz_MempoolAlloc(0, 1000);  // pool 0: the default pool
  Check(block != 0 && Qz_MemblkSize(block) >= 1000, "a block from the pool");
  Qz_MempoolFree(0, block);

  QZ_LOG_WRITE_A(QZ_LOG_STATUS, "host: %s", text.c_str());  // see QZ_DEBUG_OUTPUT

  QzThread* thread = QzThread::Start(&Work, 0, 0, 0);  // a delegate of a plain function
  Check(thread != 0 && thread->WaitForExit(INFINITE) == 1 && runs == 1, "a thread");
  if (thread != 0) {  // the object lives in the default pool
    thread->~QzThread();
    Qz_MempoolFree(0, thread);
  }

  Qz_TerminateLibrary();
  return failures == 0 ? 0 : 1;
}
