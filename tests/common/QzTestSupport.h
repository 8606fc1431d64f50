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

// A fresh folder under the system's temporary folder, removed with everything
// in it (read-only entries too) when the object goes.
class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  const std::string& path() const { return path_; }
  // path() + "/" + name
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
 private:
  std::string path_;
};

// Sets an environment variable (or clears it, given null) for one scope.
class EnvScope {
 public:
  EnvScope(const char* name, const char* value);
  ~EnvScope();
  EnvScope(const EnvScope&) = delete;
  EnvScope& operator=(const EnvScope&) = delete;
 private:
  std::string name_, old_;
  bool had_;
};

// Whole-file helpers for checking what calls left on disk. ReadAll gives ""
// for a missing file; use Exists to tell the two apart.
std::string ReadAll(const std::string& path);
void WriteAll(const std::string& path, const std::string& content);
bool Exists(const std::string& path);

}  // namespace qztest

#endif
