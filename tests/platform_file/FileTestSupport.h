// Helpers of the platform file tests.
#ifndef QZBASE_TESTS_PLATFORM_FILE_FILETESTSUPPORT_H
#define QZBASE_TESTS_PLATFORM_FILE_FILETESTSUPPORT_H

#include <gtest/gtest.h>

#include <string>

#include "QzTestSupport.h"

namespace qzfiletest {

using namespace qzsys;

constexpr DWORD kRead = GENERIC_READ;
constexpr DWORD kWrite = GENERIC_WRITE;
constexpr DWORD kBoth = GENERIC_READ | GENERIC_WRITE;
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

inline HANDLE Open(const std::string& path, DWORD access, DWORD share = 0, DWORD disposition = OPEN_EXISTING,
                   DWORD flags = FILE_ATTRIBUTE_NORMAL) {
  return CreateFileA(path.c_str(), access, share, nullptr, disposition, flags, nullptr);
}

inline bool Valid(HANDLE h) { return h != QZ_INVALID_HANDLE_VALUE && h != nullptr; }

// Closes a handle at the end of a scope, if it is one.
class Handle {
 public:
  explicit Handle(HANDLE h = QZ_INVALID_HANDLE_VALUE) : h_(h) {}
  ~Handle() { if (Valid(h_)) CloseHandle(h_); }
  HANDLE get() const { return h_; }
  bool valid() const { return Valid(h_); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
 private:
  HANDLE h_;
};

inline std::string ReadHandle(HANDLE h, DWORD max = 4096) {
  std::string out(max, '\0');
  DWORD got = 0;
  if (!ReadFile(h, &out[0], max, &got, nullptr)) return "<failed>";
  out.resize(got);
  return out;
}

inline bool WriteHandle(HANDLE h, const std::string& text) {
  DWORD done = 0;
  return WriteFile(h, text.data(), static_cast<DWORD>(text.size()), &done, nullptr) && done == text.size();
}

}  // namespace qzfiletest

#endif
