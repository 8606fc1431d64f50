// One section and one view, over the platform's mapping calls.
#include <qzbase/QzFileMapping.h>

#include "frame/QzException.h"
#include "platform/QzPlatform.h"

using namespace qzsys;

QzFileMapping::QzFileMapping() : view(nullptr), size(0), handle(nullptr), access(0), offset(0) {}

QzFileMapping::~QzFileMapping() { Unmap(); }

namespace {

// Maps the view; on failure the section goes too, so that a failed call
// leaves nothing behind.
HRESULT MapOrRelease(QzFileMapping* m, DWORD length) {
  m->view = MapViewOfFileEx(m->handle, m->access, static_cast<DWORD>(m->offset >> 32),
                            static_cast<DWORD>(m->offset), length, nullptr);
  if (m->view != nullptr) return S_OK;
  HRESULT hr = QzHresultFromLastError();
  CloseHandle(m->handle);
  m->handle = nullptr;
  return hr;
}

}  // namespace

HRESULT QzFileMapping::MapSharedMem(DWORD size_, const char* name, int* existed, _SECURITY_ATTRIBUTES* security,
                                    DWORD protect, DWORD access_) {
  size = size_;
  handle = CreateFileMappingA(QZ_INVALID_HANDLE_VALUE, reinterpret_cast<LPSECURITY_ATTRIBUTES>(security), protect, 0,
                              size_, name);
  if (handle == nullptr) return QzHresultFromLastError();
  if (existed != nullptr) *existed = GetLastError() == ERROR_ALREADY_EXISTS ? 1 : 0;
  access = access_;
  offset = 0;
  return MapOrRelease(this, size_);
}

HRESULT QzFileMapping::OpenMapping(const char* name, DWORD size_, DWORD access_, uint64_t offset_) {
  size = size_;
  access = access_;
  handle = OpenFileMappingA(access_, FALSE, name);
  if (handle == nullptr) return QzHresultFromLastError();
  offset = offset_;
  return MapOrRelease(this, size_);
}

HRESULT QzFileMapping::MapFile(void* file, DWORD size_, DWORD protect, DWORD access_, uint64_t offset_) {
  DWORD high = 0;
  DWORD low = GetFileSize(file, &high);
  uint64_t fileSize = (static_cast<uint64_t>(high) << 32) | low;
  uint64_t sectionSize = size_ > fileSize ? size_ : fileSize;
  handle = CreateFileMappingA(file, nullptr, protect, static_cast<DWORD>(sectionSize >> 32),
                              static_cast<DWORD>(sectionSize), nullptr);
  if (handle == nullptr) return QzHresultFromLastError();
  DWORD length = size_ != 0 ? size_ : static_cast<DWORD>(sectionSize) - static_cast<DWORD>(offset_);
  size = length;
  access = access_;
  offset = offset_;
  return MapOrRelease(this, length);
}

HRESULT QzFileMapping::Unmap() {
  HRESULT hr = S_OK;
  if (view != nullptr) {
    if (!UnmapViewOfFile(view)) hr = QzHresultFromLastError();
    view = nullptr;
  }
  if (handle != nullptr) {
    if (!CloseHandle(handle) && hr == S_OK) hr = QzHresultFromLastError();
    handle = nullptr;
  }
  return hr;
}
