// Handles of the platform's file calls, for the suites that drive them.
#ifndef QZBASE_TESTS_QZTESTFILES_H
#define QZBASE_TESTS_QZTESTFILES_H

#include <string>

#include "QzTestSupport.h"

namespace qztest {

constexpr qzsys::DWORD kRead = qzsys::GENERIC_READ, kWrite = qzsys::GENERIC_WRITE, kBoth = kRead | kWrite;
constexpr qzsys::DWORD kShareAll = qzsys::FILE_SHARE_READ | qzsys::FILE_SHARE_WRITE | qzsys::FILE_SHARE_DELETE;

inline qzsys::HANDLE Open(const std::string& path, qzsys::DWORD access, qzsys::DWORD share = 0,
                          qzsys::DWORD disposition = qzsys::OPEN_EXISTING,
                          qzsys::DWORD flags = qzsys::FILE_ATTRIBUTE_NORMAL) {
  return qzsys::CreateFileA(path.c_str(), access, share, nullptr, disposition, flags, nullptr);
}

// Closes the handle, if it is one, at the end of a scope.
class Handle {
 public:
  explicit Handle(qzsys::HANDLE h) : h_(h) {}
  ~Handle() { if (valid()) qzsys::CloseHandle(h_); }
  qzsys::HANDLE get() const { return h_; }
  bool valid() const { return h_ != QZ_INVALID_HANDLE_VALUE; }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
 private:
  qzsys::HANDLE h_;
};

// What one ReadFile gives, or "<failed>".
inline std::string ReadHandle(qzsys::HANDLE h, qzsys::DWORD max = 64) {
  std::string out(max, '\0');
  qzsys::DWORD got = 0;
  if (!qzsys::ReadFile(h, &out[0], max, &got, nullptr)) return "<failed>";
  out.resize(got);
  return out;
}

inline bool WriteHandle(qzsys::HANDLE h, const std::string& text) {
  qzsys::DWORD done = 0;
  return qzsys::WriteFile(h, text.data(), static_cast<qzsys::DWORD>(text.size()), &done, nullptr) &&
         done == text.size();
}

}  // namespace qztest

#endif
