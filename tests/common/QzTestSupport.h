// Helpers shared by every suite.
#ifndef QZBASE_TESTS_QZTESTSUPPORT_H
#define QZBASE_TESTS_QZTESTSUPPORT_H

#include <string>
#include <vector>
#include <mutex>

#include "platform/QzPlatform.h"

namespace qztest {

// Arms a platform failure switch for the life of the object.
class FaultScope {
 public:
  FaultScope(qzsys::QzFault which, unsigned skip = 0, unsigned fail = qzsys::QZ_FAULT_ALWAYS)
      : which_(which) { qzsys::QzFaultArm(which, skip, fail); }
  ~FaultScope() { qzsys::QzFaultDisarm(which_); }
  unsigned hits() const { return qzsys::QzFaultHits(which_); }
  FaultScope(const FaultScope&) = delete;
  FaultScope& operator=(const FaultScope&) = delete;
 private:
  qzsys::QzFault which_;
};

// Captures every text sent to debug output while it lives.
class DebugCapture {
 public:
  DebugCapture();
  ~DebugCapture();
  std::vector<std::string> texts() const;
  std::string joined() const;
  void clear();
  DebugCapture(const DebugCapture&) = delete;
  DebugCapture& operator=(const DebugCapture&) = delete;
 private:
  static void Hook(void* self, const char* text);
  mutable std::mutex mutex_;
  std::vector<std::string> texts_;
};

}  // namespace qztest

#endif
