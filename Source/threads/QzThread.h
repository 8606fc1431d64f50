// Threads, internal side: the guard that thread entries run user code under.
#ifndef QZBASE_SOURCE_THREADS_QZTHREAD_H
#define QZBASE_SOURCE_THREADS_QZTHREAD_H

#include <qzbase/QzThread.h>

// Calls `procedure` with every C++ exception and every processor fault
// caught. True when it returned, false when it raised (its result is
// dropped either way). A runtime's forced unwinding (pthread_exit) is let
// through, since it must reach the thread's base.
bool QzCallGuarded(const QzThread::Procedure& procedure);

#endif  // QZBASE_SOURCE_THREADS_QZTHREAD_H
