#include "QzTestSupport.h"

#include <ftw.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

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

namespace {
int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
  // Folders first made writable, so that their entries can go for anyone.
  chmod(path, 0700);
  remove(path);
  return 0;
}
int OpenUp(const char* path, const struct stat* st, int type, struct FTW*) {
  if (type == FTW_D || type == FTW_DNR) chmod(path, 0700);
  return 0;
}
}  // namespace

TempFolder::TempFolder() {
  const char* base = getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != 0 ? base : "/tmp") + "/qztest-XXXXXX";
  if (mkdtemp(&pattern[0]) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempFolder::~TempFolder() {
  nftw(path_.c_str(), OpenUp, 16, FTW_PHYS);
  nftw(path_.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
}

EnvScope::EnvScope(const char* name, const char* value) : name_(name) {
  const char* old = getenv(name);
  had_ = old != nullptr;
  if (had_) old_ = old;
  if (value != nullptr) setenv(name, value, 1);
  else unsetenv(name);
}

EnvScope::~EnvScope() {
  if (had_) setenv(name_.c_str(), old_.c_str(), 1);
  else unsetenv(name_.c_str());
}

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream all;
  all << in.rdbuf();
  return all.str();
}

void WriteAll(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

bool Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

}  // namespace qztest
