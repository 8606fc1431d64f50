// Helpers of the frame tests: rounding modes, x87 state, and pages with
// chosen access rights.
#ifndef QZBASE_TESTS_FRAME_FRAMETESTSUPPORT_H
#define QZBASE_TESTS_FRAME_FRAMETESTSUPPORT_H

#include <fenv.h>
#include <stddef.h>
#include <stdint.h>

namespace frametest {

// Sets the rounding mode of the x87 unit and of SSE for the life of the object.
class RoundingScope {
 public:
  explicit RoundingScope(int mode) : saved_(fegetround()) { fesetround(mode); }
  ~RoundingScope() { fesetround(saved_); }
 private:
  int saved_;
};

#if defined(__i386__) || defined(__x86_64__)
// The x87 tag word: 0xFFFF when every register is empty, which is the state
// that emms leaves and that MMX use destroys.
inline unsigned X87TagWord() {
  unsigned char env[28];
  __asm__ __volatile__("fnstenv %0\n\tfldenv %0" : "=m"(env) : : "memory");
  return static_cast<unsigned>(env[8] | (env[9] << 8));
}
#endif

// Three consecutive pages, each readable and writable until Protect changes
// it; unmapped when the object ends.
class Pages {
 public:
  Pages();
  ~Pages();
  unsigned char* page(int i) const { return base_ + i * size_; }
  size_t size() const { return size_; }
  enum Access { kNone, kRead, kReadWrite };
  void Protect(int i, Access access);
  Pages(const Pages&) = delete;
  Pages& operator=(const Pages&) = delete;
 private:
  unsigned char* base_;
  size_t size_;
};

}  // namespace frametest

#endif
