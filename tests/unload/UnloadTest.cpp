// The shared library as a host sees it: what it exports, and that it can be
// loaded and unloaded again and again, leaving nothing of its own behind.
// This program does not link the library; it loads it through a host module.
#include <cxxabi.h>
#include <dirent.h>
#include <dlfcn.h>
#include <elf.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/futex.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::string Env(const char* name) {
  const char* v = getenv(name);
  return v != nullptr ? v : "";
}

// ---- The dynamic symbol table ----------------------------------------------------------
struct DynSymbol {
  std::string name;
  unsigned binding;
};

template <typename Ehdr, typename Shdr, typename Sym>
std::vector<DynSymbol> DefinedDynamicSymbols(const std::string& image) {
  std::vector<DynSymbol> out;
  const auto* eh = reinterpret_cast<const Ehdr*>(image.data());
  const auto* sections = reinterpret_cast<const Shdr*>(image.data() + eh->e_shoff);
  for (unsigned i = 0; i < eh->e_shnum; ++i) {
    if (sections[i].sh_type != SHT_DYNSYM) continue;
    const char* strings = image.data() + sections[sections[i].sh_link].sh_offset;
    const auto* syms = reinterpret_cast<const Sym*>(image.data() + sections[i].sh_offset);
    for (size_t k = 1; k < sections[i].sh_size / sizeof(Sym); ++k) {
      if (syms[k].st_shndx == SHN_UNDEF) continue;
      out.push_back({strings + syms[k].st_name, static_cast<unsigned>(syms[k].st_info >> 4)});
    }
  }
  return out;
}

std::string Demangled(const std::string& name) {
  int status = 0;
  char* d = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status);
  std::string out = status == 0 && d != nullptr ? d : name;
  free(d);
  return out;
}

// The interface: the library's C names and its classes' members, tables and
// type records; never an entity local to a function.
bool IsInterface(const std::string& mangled) {
  const std::string name = Demangled(mangled);
  if (name.find(")::") != std::string::npos) return false;
  for (const char* prefix : {"Qz", "QZ_", "IQz", "fastdelegate::", "typeinfo for Qz", "typeinfo for IQz",
                             "typeinfo name for Qz", "typeinfo name for IQz", "vtable for Qz", "vtable for IQz"})
    if (name.compare(0, strlen(prefix), prefix) == 0) return true;
  return false;
}

TEST(SharedLibrary, ExportsItsInterfaceAndNothingElse) {
  const std::string path = Env("QZ_LIBRARY");
  ASSERT_FALSE(path.empty());
  std::ifstream file(path, std::ios::binary);
  const std::string image((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  ASSERT_GT(image.size(), sizeof(Elf32_Ehdr));
  ASSERT_EQ(0, memcmp(image.data(), ELFMAG, SELFMAG));
  const bool wide = image[EI_CLASS] == ELFCLASS64;
  EXPECT_EQ(wide, sizeof(void*) == 8);
  const std::vector<DynSymbol> symbols =
      wide ? DefinedDynamicSymbols<Elf64_Ehdr, Elf64_Shdr, Elf64_Sym>(image)
           : DefinedDynamicSymbols<Elf32_Ehdr, Elf32_Shdr, Elf32_Sym>(image);
  size_t interface = 0;
  bool terminate = false;
  for (const DynSymbol& s : symbols) {
    EXPECT_NE(STB_GNU_UNIQUE, s.binding) << Demangled(s.name);  // would pin the library in memory
    EXPECT_TRUE(IsInterface(s.name)) << Demangled(s.name);
    interface += IsInterface(s.name);
    terminate |= s.name == "Qz_TerminateLibrary";
  }
  EXPECT_TRUE(terminate);
  EXPECT_GT(interface, 100u);
}

// ---- Load and unload ---------------------------------------------------------------------
bool Mapped(const std::string& fileName) {
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line))
    if (line.find(fileName) != std::string::npos) return true;
  return false;
}

std::string BaseName(const std::string& path) { return path.substr(path.find_last_of('/') + 1); }

size_t ThreadCount() {
  size_t n = 0;
  if (DIR* d = opendir("/proc/self/task")) {
    while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
    closedir(d);
  }
  return n;
}

void HostHandler(int sig, siginfo_t*, void*) { _exit(100 + sig); }

void* HandlerOf(int sig) {
  struct sigaction sa;
  sigaction(sig, nullptr, &sa);
  return reinterpret_cast<void*>(sa.sa_sigaction);
}

// A sandbox that refuses the two calls of the kernel's memory probes, so that
// the library falls back to its fault guard and installs its handlers.
bool RefuseKernelProbes() {
#if defined(__x86_64__)
  const unsigned arch = AUDIT_ARCH_X86_64;
#else
  const unsigned arch = AUDIT_ARCH_I386;
#endif
  const unsigned futexOp = FUTEX_WAKE_OP | FUTEX_PRIVATE_FLAG;
  struct sock_filter code[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, arch, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_rt_sigprocmask, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, args[0])),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0x7FFF, 4, 5),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_futex, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, args[1])),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, futexOp, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  struct sock_fprog prog = {static_cast<unsigned short>(sizeof code / sizeof code[0]), code};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &prog) == 0;
}

// Whether this process may install the sandbox (a user-mode emulator runs
// the program's calls as its own and refuses filters), tried in a child.
bool CanSandbox() {
  pid_t child = fork();
  if (child == 0) _exit(RefuseKernelProbes() ? 0 : 1);
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// 50 rounds of load, use on two threads, unload. Every unload must unmap
// the library and leave no handler, thread-exit destructor or thread of it,
// even though the library's own thread ended just before.
// Reports by exit code, since a sandbox cannot be left again.
void LoadAndUnload(bool sandboxed) {
  const std::string plugin = Env("QZ_UNLOAD_PLUGIN"), library = BaseName(Env("QZ_LIBRARY"));
  if (plugin.empty() || library.empty()) _exit(2);
  struct sigaction host;
  memset(&host, 0, sizeof host);
  host.sa_sigaction = &HostHandler;
  host.sa_flags = SA_SIGINFO;
  sigemptyset(&host.sa_mask);
  sigaction(SIGSEGV, &host, nullptr);
  if (sandboxed && !RefuseKernelProbes()) _exit(3);
  void* bad = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  pthread_key_t firstFree;
  pthread_key_create(&firstFree, nullptr);
  pthread_key_delete(firstFree);
  const size_t threads = ThreadCount();
  const int killSignal = SIGRTMAX - 3;  // the library's thread kill
  void* const hostKill = HandlerOf(killSignal);
  for (int round = 0; round < 50; ++round) {
    if (Mapped(library)) _exit(10);
    void* handle = dlopen(plugin.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr || !Mapped(library)) _exit(11);
    auto exercise = reinterpret_cast<int (*)(void*)>(dlsym(handle, "QzPluginExercise"));
    if (exercise == nullptr || exercise(bad) != 1) _exit(12);
    if (sandboxed != (HandlerOf(SIGSEGV) != reinterpret_cast<void*>(&HostHandler))) _exit(13);
    // Unloading follows soon after its end: the thread must have left the library's code.
    auto runThread = reinterpret_cast<int (*)()>(dlsym(handle, "QzPluginRunThread"));
    if (runThread == nullptr || runThread() != 1) _exit(21);
    // A host thread that used the library ends only after the unload: its
    // thread-exit destructors must not lead into the unloaded code.
    std::atomic<int> answer{0};
    std::atomic<bool> unloaded{false};
    std::thread user([&] {
      answer = exercise(bad);
      while (!unloaded) usleep(100);
    });
    while (answer == 0) usleep(100);
    if (answer != 1) _exit(14);
    if (dlclose(handle) != 0) _exit(15);
    unloaded = true;
    user.join();
    if (Mapped(library) || Mapped(BaseName(plugin))) _exit(16);  // really unmapped
    if (HandlerOf(SIGSEGV) != reinterpret_cast<void*>(&HostHandler)) _exit(17);
    if (HandlerOf(killSignal) != hostKill) _exit(20);
    pthread_key_t key;
    if (pthread_key_create(&key, nullptr) != 0 || key != firstFree) _exit(18);  // its key was deleted
    pthread_key_delete(key);
    // A joined thread may still be listed for a moment while the kernel (or
    // an emulator's thread behind it) finishes its exit.
    for (int wait = 0; ThreadCount() != threads && wait < 2000; ++wait) usleep(1000);
    if (ThreadCount() != threads) _exit(19);
  }
  _exit(0);
}

TEST(SharedLibraryDeathTest, LoadsAndUnloadsFiftyTimesLeavingNothingBehind) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer runtime keeps its own hold on every loaded library";
#endif
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(LoadAndUnload(false), testing::ExitedWithCode(0), "") << "kernel probes";
  if (!CanSandbox()) GTEST_SKIP() << "no seccomp filter can be installed here (an emulator?)";
  EXPECT_EXIT(LoadAndUnload(true), testing::ExitedWithCode(0), "") << "probes under the guard";
}

}  // namespace
