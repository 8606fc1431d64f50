#include "FrameTestSupport.h"

#include <sys/mman.h>
#include <unistd.h>

#include <stdexcept>

namespace frametest {

Pages::Pages() : size_(static_cast<size_t>(sysconf(_SC_PAGESIZE))) {
  void* p = mmap(nullptr, 3 * size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) throw std::runtime_error("mmap");
  base_ = static_cast<unsigned char*>(p);
}

Pages::~Pages() { munmap(base_, 3 * size_); }

void Pages::Protect(int i, Access access) {
  int prot = access == kNone ? PROT_NONE : access == kRead ? PROT_READ : PROT_READ | PROT_WRITE;
  if (mprotect(page(i), size_, prot) != 0) throw std::runtime_error("mprotect");
}

}  // namespace frametest
