// Sequential reading of a 256 MiB file that sits in the page cache, through
// QzFileInputStream::Read in 4 KiB and 64 KiB pieces, against read(2) with
// the same pieces and against copying out of a whole-file mmap in the same
// pieces; and writing 64 MiB through QzFileOutputStream in 4 KiB pieces
// against write(2) of 256 KiB pieces and fwrite of 4 KiB pieces. Processor time (user and system),
// which a shared machine disturbs less than wall time; the work is copies,
// page faults and system calls, all counted there.
#include "QzBenchReport.h"

#include <benchmark/benchmark.h>
#include <qzbase/qzbase.h>

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

constexpr size_t kReadSize = size_t(256) << 20;
constexpr size_t kWriteSize = size_t(64) << 20;

std::string TempPath(const char* name) {
  const char* dir = getenv("TMPDIR");
  return std::string(dir && *dir ? dir : "/tmp") + "/qzbench_" + name + "_" + std::to_string(getpid());
}

struct Files {
  std::string input = TempPath("in"), output = TempPath("out");
  Files() {
    int fd = open(input.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
    std::vector<char> block(1 << 20);
    for (size_t i = 0; i < block.size(); ++i) block[i] = char(i * 31);
    for (size_t done = 0; done < kReadSize; done += block.size())
      if (write(fd, block.data(), block.size()) != ssize_t(block.size())) abort();
    close(fd);
    // Into the page cache before any timing.
    fd = open(input.c_str(), O_RDONLY);
    while (read(fd, block.data(), block.size()) > 0) {}
    close(fd);
  }
  ~Files() {
    unlink(input.c_str());
    unlink(output.c_str());
  }
};
Files& F() {
  static Files files;
  return files;
}

void ReadStream(benchmark::State& state) {
  const unsigned piece = unsigned(state.range(0));
  std::vector<char> buf(piece);
  for (auto _ : state) {
    QzFileInputStream s{QzStringT<char>(F().input.c_str())};
    size_t total = 0;
    while (unsigned got = s.Read(buf.data(), piece)) total += got;
    if (total != kReadSize) state.SkipWithError("short read");
    benchmark::DoNotOptimize(buf.data());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kReadSize));
}

void ReadSyscall(benchmark::State& state) {
  const size_t piece = size_t(state.range(0));
  std::vector<char> buf(piece);
  for (auto _ : state) {
    int fd = open(F().input.c_str(), O_RDONLY);
    size_t total = 0;
    ssize_t got;
    while ((got = read(fd, buf.data(), piece)) > 0) total += size_t(got);
    close(fd);
    if (total != kReadSize) state.SkipWithError("short read");
    benchmark::DoNotOptimize(buf.data());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kReadSize));
}

void ReadMmap(benchmark::State& state) {
  const size_t piece = size_t(state.range(0));
  std::vector<char> buf(piece);
  for (auto _ : state) {
    int fd = open(F().input.c_str(), O_RDONLY);
    const char* p = static_cast<const char*>(mmap(nullptr, kReadSize, PROT_READ, MAP_SHARED, fd, 0));
    for (size_t at = 0; at < kReadSize; at += piece) memcpy(buf.data(), p + at, piece);
    munmap(const_cast<char*>(p), kReadSize);
    close(fd);
    benchmark::DoNotOptimize(buf.data());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kReadSize));
}

void WriteStream(benchmark::State& state) {
  std::vector<char> piece(4096, 'w');
  for (auto _ : state) {
    QzFileOutputStream s(QzStringT<char>(F().output.c_str()), 0);
    for (size_t done = 0; done < kWriteSize; done += piece.size()) s.Write(piece.data(), unsigned(piece.size()));
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kWriteSize));
}

void WriteSyscall(benchmark::State& state) {
  std::vector<char> piece(262144, 'w');
  for (auto _ : state) {
    int fd = open(F().output.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
    for (size_t done = 0; done < kWriteSize; done += piece.size())
      if (write(fd, piece.data(), piece.size()) != ssize_t(piece.size())) state.SkipWithError("short write");
    close(fd);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kWriteSize));
}

void WriteStdio(benchmark::State& state) {
  std::vector<char> piece(4096, 'w');
  for (auto _ : state) {
    FILE* f = fopen(F().output.c_str(), "wb");
    for (size_t done = 0; done < kWriteSize; done += piece.size()) fwrite(piece.data(), 1, piece.size(), f);
    fclose(f);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kWriteSize));
}

BENCHMARK(ReadStream)->Arg(4096)->Arg(65536)->Repetitions(3)->Iterations(4);
BENCHMARK(ReadSyscall)->Arg(4096)->Arg(65536)->Repetitions(3)->Iterations(4);
BENCHMARK(ReadMmap)->Arg(4096)->Arg(65536)->Repetitions(3)->Iterations(4);
BENCHMARK(WriteStream)->Repetitions(3)->Iterations(4);
BENCHMARK(WriteSyscall)->Repetitions(3)->Iterations(4);
BENCHMARK(WriteStdio)->Repetitions(3)->Iterations(4);

}  // namespace

int main(int argc, char** argv) {
  return qzbench::Run(argc, argv, qzbench::Clock::kCpu, [](qzbench::Report& r) {
    const qzbench::Goal goal("within 10% of the best peer", {qzbench::BestRatioAtMost(1.10)});
    qzbench::Table& rd = r.AddTable("Reading a 256 MiB file from the page cache", qzbench::Ratio::kTime,
                                    {"read(2)", "mmap walk"}, "per file");
    for (const char* piece : {"4096", "65536"}) {
      const std::string arg = std::string("/") + piece + "/iterations:4";
      rd.Row(std::string("QzFileInputStream::Read, ") + (piece[0] == '4' ? "4 KiB" : "64 KiB") + " pieces",
             "ReadStream" + arg, {"ReadSyscall" + arg, "ReadMmap" + arg}, goal);
    }
    qzbench::Table& wr = r.AddTable("Writing a 64 MiB file", qzbench::Ratio::kTime,
                                    {"write(2) of 256 KiB", "fwrite of 4 KiB"}, "per file");
    wr.Row("QzFileOutputStream::Write, 4 KiB pieces", "WriteStream/iterations:4",
           {"WriteSyscall/iterations:4", "WriteStdio/iterations:4"}, goal);
  });
}
