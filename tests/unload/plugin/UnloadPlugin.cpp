// A host module that uses the library as any host would: loaded and unloaded
// by the unload test, it pulls the shared library in and out with it.
#include <string.h>

#include <qzbase/qzbase.h>

// Pools, strings, a conversion and region probes; more pools than the fast
// TLS slots, so that the slower slots' per-thread table is made as well.
// Returns 1 when every answer was right.
extern "C" __attribute__((visibility("default"))) int QzPluginExercise(void* badPage) {
  int ok = 1;
  QzMempool* pools[10];
  for (QzMempool*& pool : pools) {
    pool = Qz_CreateMempool(0, 2);
    if (pool == nullptr) return 0;
    void* blocks[8];
    for (size_t i = 0; i < 8; ++i) blocks[i] = Qz_MempoolAlloc(pool, 24 << i);
    for (void* b : blocks) {
      ok &= b != nullptr;
      Qz_MempoolFree(pool, b);
    }
  }
  for (QzMempool* pool : pools) Qz_DestroyMempool(pool);
  void* big = Qz_MempoolAlloc(nullptr, 300 * 1024);
  ok &= big != nullptr;
  Qz_MempoolFree(nullptr, big);

  QzStringT<char> text = QzStringT<char>::CreateFormatted("%d-%s", 42, "qz");
  ok &= strcmp(text.c_str(), "42-qz") == 0;
  char utf8[] = "h\xC3\xA9";
  unsigned int inSize = 3, outSize = 8;
  unsigned short wide[8] = {};
  ok &= QZ_UTF8_TO_UTF16(utf8, &inSize, wide, &outSize) >= 0 && outSize == 2 && wide[1] == 0xE9;

  int local = 7;
  ok &= Qz_IsValidReadRegion(badPage, 1) == 0 && Qz_IsValidWriteRegion(badPage, 4) == 0;
  ok &= Qz_IsValidReadRegion(&local, sizeof local) == 1 && Qz_IsValidWriteRegion(&local, sizeof local) == 1;
  return ok;
}

static unsigned int Answer() { return 42; }

// A thread of the library's own, which installs the kill signal's handler and
// the fault guard's. Returns 1 once it has ended.
extern "C" __attribute__((visibility("default"))) int QzPluginRunThread() {
  QzThread* thread = QzThread::Start(fastdelegate::FastDelegate0<unsigned int>(&Answer), 0, 0, 0);
  if (thread == nullptr) return 0;
  const int ended = thread->WaitForExit(0xFFFFFFFF);
  thread->~QzThread();
  Qz_MempoolFree(nullptr, thread);
  return ended;
}
