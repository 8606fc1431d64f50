// What the frame tests share: the headers, rounding modes, x87 state, and
// pages with chosen access rights.
#ifndef QZBASE_TESTS_FRAME_FRAMETESTSUPPORT_H
#define QZBASE_TESTS_FRAME_FRAMETESTSUPPORT_H

#include <fenv.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <random>
#include <vector>

#include "frame/QzCpuInfo.h"
#include "frame/QzFrame.h"
#include "frame/QzPrimitives.h"

namespace frametest {

// Sets the rounding mode of the x87 unit and of SSE for the life of the object.
struct RoundingScope {
  explicit RoundingScope(int mode) : saved(fegetround()) { fesetround(mode); }
  ~RoundingScope() { fesetround(saved); }
  int saved;
};

// The x87 tag word: 0xFFFF when every register is empty, which is the state
// that emms leaves and that MMX use destroys.
inline unsigned X87TagWord() {
  unsigned char env[28] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
#if defined(__i386__) || defined(__x86_64__)
  __asm__ __volatile__("fnstenv %0\n\tfldenv %0" : "+m"(env) : : "memory");
#endif
  return static_cast<unsigned>(env[8] | (env[9] << 8));
}

// Three consecutive pages: read-write, read-only and without access, until
// Protect changes one.
class Pages {
 public:
  enum Access { kNone = PROT_NONE, kRead = PROT_READ, kReadWrite = PROT_READ | PROT_WRITE };
  Pages() : size_(static_cast<size_t>(sysconf(_SC_PAGESIZE))) {
    void* p = mmap(nullptr, 3 * size_, kReadWrite, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) abort();
    base_ = static_cast<unsigned char*>(p);
    Protect(1, kRead);
    Protect(2, kNone);
  }
  ~Pages() { munmap(base_, 3 * size_); }
  Pages(const Pages&) = delete;
  Pages& operator=(const Pages&) = delete;
  unsigned char* page(int i) const { return base_ + i * size_; }
  size_t size() const { return size_; }
  void Protect(int i, Access access) {
    if (mprotect(page(i), size_, access) != 0) abort();
  }

 private:
  unsigned char* base_;
  size_t size_;
};

}  // namespace frametest

#endif
