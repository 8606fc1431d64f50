#include "QzTestSupport.h"

namespace qztest {

DebugCapture::DebugCapture() { qzsys::QzSetDebugOutputHook(&DebugCapture::Hook, this); }
DebugCapture::~DebugCapture() { qzsys::QzSetDebugOutputHook(nullptr, nullptr); }

void DebugCapture::Hook(void* self, const char* text) {
  auto* me = static_cast<DebugCapture*>(self);
  if (me == nullptr) return;
  std::lock_guard<std::mutex> lock(me->mutex_);
  me->texts_.emplace_back(text);
}

std::vector<std::string> DebugCapture::texts() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return texts_;
}

std::string DebugCapture::joined() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::string all;
  for (const auto& t : texts_) all += t;
  return all;
}

void DebugCapture::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  texts_.clear();
}

}  // namespace qztest
