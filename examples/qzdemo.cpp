// qzdemo: renders a few seconds of a stereo tone with noise into a wave file,
// paced in real time by the library's timer, then reads the file back and
// checks every sample.
//
// The parts, and which thread runs them:
//   main thread   options, names, log, pools; starts the queue thread and the
//                 timer, prints the progress line, settles the end, reads the
//                 file back, prints the figures.
//   timer thread  a QzTimer ticking every 23.2200 ms (Start(23), then
//                 AdjustRate(2200) in units of 100 ns); each tick notes its
//                 time and posts one block to the queue thread.
//   queue thread  a QzThreadWithEventQueue that opens the wave file, renders
//                 each block (sines through the dispatched Qz_Sin, noise from
//                 a seeded QzRandom, rounding through Qz_Round), writes it with
//                 QzWaveFile, and finally closes the file. Only this thread
//                 touches the file and the noise generator while it runs.
// A copy of the noise generator, taken before the first block, renders
// everything a second time for the read-back, so the check is sample-exact.
//
// Exit status: 0 when everything was written and read back intact; 1 for a
// failure while running (each gives one line "qzdemo: ..." on stderr); 2 for
// a bad command line.
#include <qzbase/qzbase.h>

#include <atomic>
#include <math.h>
#include <new>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <errno.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// ---- What is rendered ----------------------------------------------------------------
const unsigned kRate = 44100;
const unsigned kChannels = 2;
const unsigned kBits = 16;
const unsigned kFrameBytes = kChannels * kBits / 8;
const unsigned kBlockFrames = 1024;
const unsigned kLeftHz = 440;   // A4
const unsigned kRightHz = 660;  // a fifth above
const double kTone = 0.30;      // of full scale, about -13 dBFS RMS
const double kNoise = 0.02;     // left noise, of full scale
const uint32_t kNoiseSteps = 655;  // right noise, +-655 sample steps (also 0.02)
const unsigned kFadeFrames = kRate / 50;  // 20 ms in and out: no click at either end
const uint32_t kDefaultSeed = 20240611;

// One block of 1024 frames lasts 1024 / 44100 s = 23.21995 ms. The timer holds
// its period in units of 100 ns, so it runs at 23.2200 ms: 2 ppm slower than the
// audio, which only stretches the wall-clock time, not the file.
const unsigned kPeriodWholeMs = 23;
const int kPeriodAdjustUnits = 2200;
const double kPeriodMs = kPeriodWholeMs + kPeriodAdjustUnits / 10000.0;

const unsigned kMaxSeconds = 600;
const DWORD kWaitTimeout = 0x800705B4u;  // what a wait gives on a time-out
const HRESULT kOutOfMemory = static_cast<HRESULT>(0x8007000Eu);
const HRESULT kFail = static_cast<HRESULT>(0x80004005u);

// ---- Small helpers ----------------------------------------------------------------------
// Wide text from a narrow literal (the library's conversion, UTF-8 by default).
QzStringW W(const char* text) { return QzStringW(text); }

unsigned Hex(HRESULT hr) { return static_cast<unsigned>(hr); }

// CRC-32 (the polynomial of zip and PNG), kept while writing on the queue
// thread and recomputed on the main thread from the raw bytes of the file.
struct CrcTable {
  uint32_t entry[256];
  CrcTable() {
    for (uint32_t i = 0; i < 256; ++i) {
      uint32_t c = i;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      entry[i] = c;
    }
  }
};

uint32_t Crc32(uint32_t crc, const void* data, size_t size) {
  static const CrcTable table;  // built once, on whichever thread comes first
  const unsigned char* p = static_cast<const unsigned char*>(data);
  crc = ~crc;
  while (size-- != 0) crc = table.entry[(crc ^ *p++) & 0xFF] ^ (crc >> 8);
  return ~crc;
}

uint32_t ReadLe32(const unsigned char* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
uint16_t ReadLe16(const unsigned char* p) { return uint16_t(p[0] | p[1] << 8); }

double Seconds(const QzTimeValue& t) { return t.TotalMicroseconds() / 1e6; }

// ---- The signal -----------------------------------------------------------------------------
// The phase of a whole-hertz sine at frame n, worked out from n itself so that
// no rounding builds up over a long file: 2 pi ((f n) mod rate) / rate.
double Phase(unsigned hz, uint64_t frame) {
  return 6.283185307179586 * static_cast<double>((hz * frame) % kRate) / kRate;
}

int16_t Clamp16(int v) { return static_cast<int16_t>(v > 32767 ? 32767 : v < -32768 ? -32768 : v); }

// Renders `frames` frames from `first` on into `out` (interleaved left, right),
// drawing three words of noise per frame from `noise`. The same generator state
// gives the same samples: this is both the writer and the read-back's reference.
void Render(QzRandom* noise, unsigned first, unsigned frames, unsigned total, int16_t* out) {
  for (unsigned i = 0; i < frames; ++i) {
    const unsigned n = first + i;
    const unsigned edge = n < total - 1 - n ? n : total - 1 - n;
    const double gain = edge < kFadeFrames ? static_cast<double>(edge) / kFadeFrames : 1.0;
    const double left = kTone * Qz_Sin(Phase(kLeftHz, n)) + kNoise * (2.0 * Qz_RandomDouble(noise) - 1.0);
    // A range from -655 to 655: the range call works in unsigned arithmetic and
    // wraps through 0, so signed bounds work as they read.
    const int32_t rightNoise = static_cast<int32_t>(Qz_RandomIntRange(noise, 0u - kNoiseSteps, kNoiseSteps + 1));
    const double right = kTone * 32767.0 * Qz_Sin(Phase(kRightHz, n)) + rightNoise;
    out[2 * i] = Clamp16(Qz_Round(gain * left * 32767.0));
    out[2 * i + 1] = Clamp16(Qz_Round(gain * right));
  }
}

// ---- Options ---------------------------------------------------------------------------------
struct Options {
  unsigned seconds = 3;
  const char* out = ".";
  uint32_t seed = kDefaultSeed;
};

void Usage(FILE* to) {
  fprintf(to,
          "usage: qzdemo [--seconds N] [--out DIR] [--seed N] [--help]\n"
          "\n"
          "Renders N seconds (default 3, at most %u) of a stereo tone with noise,\n"
          "44100 Hz, 16-bit, in real time: a timer ticks every 23.22 ms and each tick\n"
          "has one block of 1024 frames rendered and written on an event-queue thread.\n"
          "Writes DIR/qzdemo.wav and the log DIR/qzdemo.log (DIR: default the current\n"
          "directory, created if missing), then reads the file back and checks it.\n"
          "--seed sets the noise generator's seed (default %u).\n",
          kMaxSeconds, static_cast<unsigned>(kDefaultSeed));
}

bool ParseNumber(const char* text, unsigned long low, unsigned long high, unsigned long* value) {
  if (text == nullptr || *text < '0' || *text > '9') return false;
  errno = 0;
  char* end = nullptr;
  unsigned long v = strtoul(text, &end, 10);
  if (errno != 0 || *end != 0 || v < low || v > high) return false;
  *value = v;
  return true;
}

// 0: run; 1: --help was shown; 2: a bad command line (reported).
int ParseOptions(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const char* arg = argv[i];
    const char* value = nullptr;
    const char* name = arg;
    char nameBuffer[32];
    if (strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0) {
      Usage(stdout);
      return 1;
    }
    if (const char* eq = strchr(arg, '=')) {
      size_t len = static_cast<size_t>(eq - arg);
      if (len >= sizeof nameBuffer) len = sizeof nameBuffer - 1;
      memcpy(nameBuffer, arg, len);
      nameBuffer[len] = 0;
      name = nameBuffer;
      value = eq + 1;
    }
    const bool known = strcmp(name, "--seconds") == 0 || strcmp(name, "--out") == 0 || strcmp(name, "--seed") == 0;
    if (!known) {
      fprintf(stderr, "qzdemo: unknown option '%s' (try --help)\n", arg);
      return 2;
    }
    if (value == nullptr) {
      if (i + 1 >= argc) {
        fprintf(stderr, "qzdemo: option %s needs a value (try --help)\n", name);
        return 2;
      }
      value = argv[++i];
    }
    unsigned long number = 0;
    if (strcmp(name, "--seconds") == 0) {
      if (!ParseNumber(value, 1, kMaxSeconds, &number)) {
        fprintf(stderr, "qzdemo: --seconds wants a whole number from 1 to %u, not '%s'\n", kMaxSeconds, value);
        return 2;
      }
      options->seconds = static_cast<unsigned>(number);
    } else if (strcmp(name, "--seed") == 0) {
      if (!ParseNumber(value, 0, 0xFFFFFFFFul, &number)) {
        fprintf(stderr, "qzdemo: --seed wants a whole number from 0 to 4294967295, not '%s'\n", value);
        return 2;
      }
      options->seed = static_cast<uint32_t>(number);
    } else {
      if (*value == 0) {
        fprintf(stderr, "qzdemo: --out wants a directory, not an empty text\n");
        return 2;
      }
      options->out = value;
    }
  }
  return 0;
}

// ---- Events handed to the queue thread -----------------------------------------------------
class Demo;

// One call of a Demo step on the queue thread. Events live in the demo's pool:
// the timer thread makes them, the queue thread releases them.
class StepEvent : public IQzEvent {
 public:
  typedef HRESULT (Demo::*Step)(unsigned int);

  static StepEvent* Make(QzMempool* pool, Demo* demo, Step step, unsigned int arg) {
    void* block = Qz_MempoolAlloc(pool, sizeof(StepEvent));
    return block != nullptr ? new (block) StepEvent(pool, demo, step, arg) : nullptr;
  }
  HRESULT Execute() override { return (m_demo->*m_step)(m_arg); }
  void Release() override {
    QzMempool* pool = m_pool;
    this->~StepEvent();
    Qz_MempoolFree(pool, this);
  }

 private:
  StepEvent(QzMempool* pool, Demo* demo, Step step, unsigned int arg)
      : m_pool(pool), m_demo(demo), m_step(step), m_arg(arg) {}

  QzMempool* m_pool;
  Demo* m_demo;
  Step m_step;
  unsigned int m_arg;
};

// How closely the timer keeps its rate: a least-squares line through the tick
// times from the second tick on (the first deadline was set before the rate
// adjustment), and the worst distance of a tick from the ideal schedule.
struct TickStats {
  unsigned ticks = 0;      // ticks fitted
  int64_t firstUs = 0;     // time of the reference tick
  double sk = 0, st = 0, skk = 0, skt = 0;
  double worstMs = 0;

  void Add(unsigned index, int64_t us) {
    if (ticks == 0) firstUs = us;
    const double k = index, t = static_cast<double>(us - firstUs) / 1000.0;
    sk += k;
    st += t;
    skk += k * k;
    skt += k * t;
    ++ticks;
    const double off = fabs(t - k * kPeriodMs);
    if (off > worstMs) worstMs = off;
  }
  // Milliseconds per tick; 0 until three ticks are in.
  double Period() const {
    if (ticks < 3) return 0;
    const double n = ticks, d = n * skk - sk * sk;
    return d != 0 ? (n * skt - sk * st) / d : 0;
  }
};

// ---- The demo ------------------------------------------------------------------------------------
class Demo {
 public:
  explicit Demo(const Options& options) : m_options(options), m_allPosted(1, 0) {
    Qz_InitializeCriticalSection(&m_statsLock);
    m_totalFrames = options.seconds * kRate;
    m_totalBlocks = (m_totalFrames + kBlockFrames - 1) / kBlockFrames;
  }
  ~Demo() {
    Cleanup();
    Qz_DeleteCriticalSection(&m_statsLock);
  }

  int Run();
  // Stops the timer and the queue thread, then frees what they used. Safe to
  // call more than once.
  void Cleanup();

  // Steps on the queue thread.
  HRESULT OpenWave(unsigned int);
  HRESULT RenderBlock(unsigned int block);
  HRESULT FinishWave(unsigned int);

 private:
  int Fail(const char* format, ...);
  bool PrepareDirectory();
  bool BuildNames();
  unsigned int OnTick();
  HRESULT SendStep(StepEvent::Step step, const char* what);
  void PrintProgress(bool final);
  bool CheckRawBytes();
  bool CheckSamples();
  void PrintPools();
  void PrintProcessor();

  Options m_options;
  unsigned m_totalFrames = 0;
  unsigned m_totalBlocks = 0;
  bool m_tty = false;
  bool m_midLine = false;  // a progress line stands unfinished on the terminal
  QzTimeValue m_started;

  QzStringA m_dirA;
  QzStringW m_wavW, m_logW;
  QzStringA m_wavA, m_logA;
  bool m_logOpen = false;

  QzMempool* m_pool = nullptr;
  QzRandom* m_noise = nullptr;   // the queue thread's while it runs
  QzRandom* m_replay = nullptr;  // the same state, for the read-back
  QzThreadWithEventQueue* m_queue = nullptr;
  QzTimer m_timer;

  // The queue thread's, from OpenWave to FinishWave.
  QzWaveFile m_wave;
  tWAVEFORMATEX m_format;
  int16_t* m_samples = nullptr;
  uint32_t m_crc = 0;
  double m_sumSquares = 0;
  HRESULT m_renderFailure = 0;

  std::atomic<unsigned> m_ticks{0};
  std::atomic<unsigned> m_rendered{0};
  std::atomic<HRESULT> m_postFailure{0};
  QzThreadEvent m_allPosted;
  QzCriticalSection m_statsLock;
  TickStats m_stats;  // under m_statsLock
  TickStats m_final;
};

int Demo::Fail(const char* format, ...) {
  va_list args;
  va_start(args, format);
  QzStringA text = QzStringA::CreateFormattedV(format, args);
  va_end(args);
  if (m_midLine) fputc('\n', stdout);  // end the progress line first
  m_midLine = false;
  fflush(stdout);
  fprintf(stderr, "qzdemo: %s\n", text.c_str());
  if (m_logOpen) QZ_LOG_WRITE_A(QZ_LOG_ERROR, "qzdemo: %s", text.c_str());
  return 1;
}

bool Demo::PrepareDirectory() {
  const char* dir = m_options.out;
  struct stat st;
  if (stat(dir, &st) != 0) {
    if (errno != ENOENT || mkdir(dir, 0777) != 0) {
      Fail("cannot create the output directory '%s': %s", dir, strerror(errno));
      return false;
    }
  } else if (!S_ISDIR(st.st_mode)) {
    Fail("the output path '%s' is not a directory", dir);
    return false;
  }
  if (access(dir, W_OK | X_OK) != 0) {
    Fail("the output directory '%s' is not writable: %s", dir, strerror(errno));
    return false;
  }
  char full[PATH_MAX];
  if (realpath(dir, full) == nullptr) {
    Fail("cannot resolve the output directory '%s': %s", dir, strerror(errno));
    return false;
  }
  m_dirA = full;
  return true;
}

// The names are built as UTF-16 text, as a Windows host holds paths, and
// narrowed to the ANSI code page for the file calls. A path that the code page
// cannot hold would not survive the trip: that is refused rather than writing
// somewhere else.
bool Demo::BuildNames() {
  const QzStringW dirW(m_dirA);
  const bool slash = dirW.length() != 0 && dirW.c_str()[dirW.length() - 1] == '/';
  const QzStringW pattern = W(slash ? "%sqzdemo.%S" : "%s/qzdemo.%S");
  m_wavW = QzStringW::CreateFormatted(pattern.c_str(), dirW.c_str(), "wav");
  m_logW.Format(pattern.c_str(), dirW.c_str(), "log");
  m_wavA = QzStringA(m_wavW);
  m_logA = QzStringA(m_logW);
  if (QzStringW(m_wavA) != m_wavW || QzStringW(m_logA) != m_logW) {
    Fail("the output path '%s' cannot be held in the ANSI code page (see QZ_ACP)", m_wavA.c_str());
    return false;
  }
  return true;
}

// The timer thread. Notes the tick and posts the block it stands for; nothing
// here waits, so the next deadline is never pushed back.
unsigned int Demo::OnTick() {
  const unsigned index = m_ticks.fetch_add(1);
  if (index >= m_totalBlocks || m_postFailure.load() != 0) return 0;
  const int64_t now = QzTimeValue::GetTimeOfDay().TotalMicroseconds();
  if (index >= 1) {
    QzCriticalSectionHolder hold(&m_statsLock);
    m_stats.Add(index - 1, now);
  }
  StepEvent* event = StepEvent::Make(m_pool, this, &Demo::RenderBlock, index);
  HRESULT hr = event != nullptr ? m_queue->PostEvent(event) : kOutOfMemory;
  if (hr < 0) {
    // Only a post that found no memory leaves the event with us; a refused
    // one has already been released.
    if (event != nullptr && hr == kOutOfMemory) event->Release();
    m_postFailure.store(hr);
    m_allPosted.Signal();
    return 0;
  }
  if (index + 1 == m_totalBlocks) m_allPosted.Signal();
  return 0;
}

HRESULT Demo::OpenWave(unsigned int) {
  Qz_SetWaveFormat(&m_format, kChannels, kRate, kBits);
  m_samples = static_cast<int16_t*>(Qz_MempoolAlignedAlloc(m_pool, 64, kBlockFrames * kFrameBytes));
  if (m_samples == nullptr) return kOutOfMemory;
  HRESULT hr = m_wave.Open(m_wavA.c_str(), &m_format, QzWaveFile::QZ_WAVE_WRITE);
  if (hr >= 0) QZ_LOG_WRITE_A(QZ_LOG_STATUS, "qzdemo: wave file opened for writing: PCM, %u channels, %u Hz, %u bits",
                              kChannels, kRate, kBits);
  return hr;
}

HRESULT Demo::RenderBlock(unsigned int block) {
  if (m_renderFailure < 0) return m_renderFailure;  // the file is already in trouble
  const unsigned first = block * kBlockFrames;
  const unsigned frames = m_totalFrames - first < kBlockFrames ? m_totalFrames - first : kBlockFrames;
  Render(m_noise, first, frames, m_totalFrames, m_samples);
  const unsigned bytes = frames * kFrameBytes;
  DWORD written = 0;
  HRESULT hr = m_wave.Write(bytes, reinterpret_cast<unsigned char*>(m_samples), &written);
  if (hr < 0 || written != bytes) {
    m_renderFailure = hr < 0 ? hr : kFail;
    QZ_LOG_WRITE_A(QZ_LOG_ERROR, "qzdemo: block %u: QzWaveFile::Write stored %u of %u bytes, result 0x%08X", block,
                   static_cast<unsigned>(written), bytes, Hex(hr));
    return m_renderFailure;
  }
  m_crc = Crc32(m_crc, m_samples, bytes);
  for (unsigned i = 0; i < frames * kChannels; ++i) m_sumSquares += double(m_samples[i]) * m_samples[i];
  QZ_LOG_WRITE_A(QZ_LOG_INFO, "qzdemo: block %u: frames %u to %u rendered and written, crc so far 0x%08X", block, first,
                 first + frames - 1, m_crc);
  m_rendered.fetch_add(1);
  return 0;
}

HRESULT Demo::FinishWave(unsigned int) {
  if (m_renderFailure < 0) return m_renderFailure;
  HRESULT hr = m_wave.Close();
  if (hr >= 0) QZ_LOG_WRITE_A(QZ_LOG_STATUS, "qzdemo: wave file closed, lengths patched");
  return hr;
}

// Runs one step on the queue thread and waits for its result. The event is
// the queue's from here on, also after a time-out, so it lives in the pool.
HRESULT Demo::SendStep(StepEvent::Step step, const char* what) {
  StepEvent* event = StepEvent::Make(m_pool, this, step, 0);
  if (event == nullptr) return kOutOfMemory;
  HRESULT hr = m_queue->SendEvent(event, 30000);
  if (hr == kOutOfMemory) event->Release();  // not taken over
  QZ_LOG_WRITE_A(hr < 0 ? QZ_LOG_ERROR : QZ_LOG_STATUS, "qzdemo: %s on the queue thread: result 0x%08X", what, Hex(hr));
  return hr;
}

void Demo::PrintProgress(bool final) {
  TickStats stats;
  {
    QzCriticalSectionHolder hold(&m_statsLock);
    stats = m_stats;
  }
  const unsigned done = m_rendered.load();
  const unsigned width = 20;
  char bar[width + 1];
  const unsigned filled = m_totalBlocks ? done * width / m_totalBlocks : width;
  for (unsigned i = 0; i < width; ++i) bar[i] = i < filled ? '#' : '.';
  bar[width] = 0;
  char timing[96] = "timer: waiting for ticks";
  const double period = stats.Period();
  if (period > 0)
    snprintf(timing, sizeof timing, "timer %.4f ms/tick (%+.0f ppm), worst %.2f ms off", period,
             (period / kPeriodMs - 1.0) * 1e6, stats.worstMs);
  const unsigned frames = done * kBlockFrames < m_totalFrames ? done * kBlockFrames : m_totalFrames;
  printf("%s  block %4u/%u [%s] %6.2f/%.2f s  %s%s", m_tty ? "\r" : "", done, m_totalBlocks, bar,
         double(frames) / kRate, double(m_totalFrames) / kRate, timing, m_tty ? "\033[K" : "\n");
  m_midLine = m_tty && !final;
  if (final && m_tty) printf("\n");
  fflush(stdout);
}

// The file as bytes, through the mapped input stream: the RIFF header and its
// length, the format chunk, and a CRC of the data chunk against the one kept
// while writing. Chunks the demo does not look at are skipped with Seek.
bool Demo::CheckRawBytes() {
  try {
    QzFileInputStream in(m_wavA);
    const uint64_t size = in.GetSize();
    unsigned char head[16];
    if (in.Read(head, 12) != 12 || memcmp(head, "RIFF", 4) != 0 || memcmp(head + 8, "WAVE", 4) != 0) {
      Fail("read-back: %s does not start with a RIFF/WAVE header", m_wavA.c_str());
      return false;
    }
    if (ReadLe32(head + 4) + 8ull != size) {
      Fail("read-back: the RIFF length says %u bytes, the file has %I64u", ReadLe32(head + 4) + 8, size);
      return false;
    }
    bool sawFormat = false, sawData = false;
    uint32_t crc = 0;
    uint64_t dataBytes = 0;
    static unsigned char buffer[65536];
    while (!in.IsEOS()) {
      if (in.Read(head, 8) != 8) {
        Fail("read-back: a chunk header is cut at byte %I64u", in.GetCurrentPos());
        return false;
      }
      const uint32_t length = ReadLe32(head + 4);
      if (memcmp(head, "fmt ", 4) == 0) {
        unsigned char f[16];
        if (length < 16 || in.Read(f, 16) != 16 || !in.Seek(length - 16 + (length & 1), STREAM_SEEK_CUR)) {
          Fail("read-back: the format chunk is cut");
          return false;
        }
        if (ReadLe16(f) != WAVE_FORMAT_PCM || ReadLe16(f + 2) != kChannels || ReadLe32(f + 4) != kRate ||
            ReadLe16(f + 14) != kBits) {
          Fail("read-back: the format chunk says tag %u, %u channels, %u Hz, %u bits", ReadLe16(f), ReadLe16(f + 2),
               ReadLe32(f + 4), ReadLe16(f + 14));
          return false;
        }
        sawFormat = true;
      } else if (memcmp(head, "data", 4) == 0) {
        uint64_t left = length;
        while (left != 0) {
          const unsigned piece = left < sizeof buffer ? static_cast<unsigned>(left) : unsigned(sizeof buffer);
          if (in.Read(buffer, piece) != piece) {
            Fail("read-back: the data chunk is cut after %I64u bytes", uint64_t(length - left));
            return false;
          }
          crc = Crc32(crc, buffer, piece);
          left -= piece;
        }
        dataBytes = length;
        sawData = true;
        if (length & 1) in.Seek(1, STREAM_SEEK_CUR);
      } else if (!in.Seek(length + (length & 1), STREAM_SEEK_CUR)) {
        Fail("read-back: cannot skip the chunk '%.4s'", reinterpret_cast<const char*>(head));
        return false;
      }
    }
    if (!sawFormat || !sawData) {
      Fail("read-back: %s has no %s chunk", m_wavA.c_str(), sawFormat ? "data" : "format");
      return false;
    }
    if (dataBytes != uint64_t(m_totalFrames) * kFrameBytes || crc != m_crc) {
      Fail("read-back: the data chunk holds %I64u bytes with CRC 0x%08X; written were %u bytes with CRC 0x%08X",
           dataBytes, crc, m_totalFrames * kFrameBytes, m_crc);
      return false;
    }
    printf("  %-34s %llu bytes; RIFF length right; data %llu bytes, CRC-32 0x%08X as written\n",
           "raw bytes (QzFileInputStream)", static_cast<unsigned long long>(size),
           static_cast<unsigned long long>(dataBytes), crc);
    QZ_LOG_WRITE_A(QZ_LOG_STATUS, "qzdemo: read back %I64u bytes through QzFileInputStream, data CRC 0x%08X matches",
                   static_cast<uint64_t>(size), crc);
    return true;
  } catch (const QzException& e) {
    Fail("read-back: QzFileInputStream cannot open %s: %s", m_wavA.c_str(), e.GetText());
    return false;
  }
}

// The samples, through QzWaveFile, against a second rendering from the copy
// of the noise generator.
bool Demo::CheckSamples() {
  QzWaveFile reader;
  HRESULT hr = reader.Open(m_wavA.c_str(), nullptr, QzWaveFile::QZ_WAVE_READ);
  if (hr < 0) {
    Fail("read-back: QzWaveFile::Open(%s) for reading failed: 0x%08X", m_wavA.c_str(), Hex(hr));
    return false;
  }
  const tWAVEFORMATEX* f = reader.GetFormat();
  if (f == nullptr || f->wFormatTag != WAVE_FORMAT_PCM || f->nChannels != kChannels || f->nSamplesPerSec != kRate ||
      f->wBitsPerSample != kBits || f->nBlockAlign != kFrameBytes) {
    Fail("read-back: QzWaveFile reads another format than was written");
    return false;
  }
  if (reader.GetSize() != m_totalFrames * kFrameBytes) {
    Fail("read-back: QzWaveFile finds %u data bytes, %u were written", static_cast<unsigned>(reader.GetSize()),
         m_totalFrames * kFrameBytes);
    return false;
  }
  int16_t* expected = static_cast<int16_t*>(Qz_MempoolAlloc(m_pool, kBlockFrames * kFrameBytes));
  int16_t* got = static_cast<int16_t*>(Qz_MempoolAlloc(m_pool, kBlockFrames * kFrameBytes));
  bool ok = expected != nullptr && got != nullptr;
  if (!ok) Fail("read-back: no memory for the comparison buffers");
  for (unsigned first = 0; ok && first < m_totalFrames; first += kBlockFrames) {
    const unsigned frames = m_totalFrames - first < kBlockFrames ? m_totalFrames - first : kBlockFrames;
    Render(m_replay, first, frames, m_totalFrames, expected);
    DWORD bytes = 0;
    hr = reader.Read(reinterpret_cast<unsigned char*>(got), frames * kFrameBytes, &bytes);
    if (hr < 0 || bytes != frames * kFrameBytes) {
      ok = false;
      Fail("read-back: QzWaveFile::Read at frame %u gave %u of %u bytes, result 0x%08X", first,
           static_cast<unsigned>(bytes), frames * kFrameBytes, Hex(hr));
      break;
    }
    for (unsigned i = 0; i < frames * kChannels; ++i) {
      if (got[i] != expected[i]) {
        ok = false;
        Fail("read-back: mismatch at frame %u, %s channel: the file holds %d, the second rendering gives %d",
             first + i / kChannels, i % kChannels ? "right" : "left", got[i], expected[i]);
        break;
      }
    }
  }
  if (ok) {
    DWORD bytes = 1;
    unsigned char extra[4];
    hr = reader.Read(extra, sizeof extra, &bytes);
    if (hr < 0 || bytes != 0) {
      ok = false;
      Fail("read-back: QzWaveFile reads past the data written (%u bytes, 0x%08X)", static_cast<unsigned>(bytes), Hex(hr));
    }
  }
  Qz_MempoolFree(m_pool, expected);
  Qz_MempoolFree(m_pool, got);
  reader.Close();
  if (!ok) return false;
  printf("  %-34s PCM, %u channels, %u Hz, %u bits, %u frames, equal to a second rendering\n",
         "samples (QzWaveFile)", kChannels, kRate, kBits, m_totalFrames);
  QZ_LOG_WRITE_A(QZ_LOG_STATUS, "qzdemo: read back %u frames through QzWaveFile, equal to a second rendering",
                 m_totalFrames);
  return true;
}

void PoolRow(const char* name, QzMempool* pool) {
  const QzMempoolInfo info = Qz_MempoolGetInfo(pool);
  printf("  %-13s footprint %8zu, peak %8zu, in use %8zu, free %8zu bytes (%zu free chunk%s)\n", name,
         Qz_MempoolFootprint(pool), info.maxFootprint, info.usedBytes, info.freeBytes, info.freeChunks,
         info.freeChunks == 1 ? "" : "s");
}

void Demo::PrintPools() {
  printf("\nMemory pools (Qz_MempoolGetInfo; per-heap figures from Qz_MempoolStats are in the log)\n");
  PoolRow("demo pool", m_pool);
  PoolRow("default pool", nullptr);
  QZ_LOG_WRITE_A(QZ_LOG_STATUS, "qzdemo: statistics of the demo pool (events, sample buffers):");
  Qz_MempoolStats(m_pool);
  QZ_LOG_WRITE_A(QZ_LOG_STATUS, "qzdemo: statistics of the default pool (strings, threads, files):");
  Qz_MempoolStats(nullptr);
}

void Demo::PrintProcessor() {
  static const struct {
    uint32_t flag;
    const char* name;
  } kFlags[] = {{QZ_CPU_HAS_MMX, "MMX"},     {QZ_CPU_HAS_SSE, "SSE"},     {QZ_CPU_HAS_SSE2, "SSE2"},
                {QZ_CPU_HAS_SSE3, "SSE3"},   {QZ_CPU_HAS_SSSE3, "SSSE3"}, {QZ_CPU_HAS_SSE41, "SSE4.1"},
                {QZ_CPU_HAS_SSE42, "SSE4.2"}, {QZ_CPU_HAS_3DNOW, "3DNow!"}, {QZ_CPU_HAS_LONG_MODE, "x86-64"}};
  char features[160] = "";
  size_t used = 0;
  for (const auto& n : kFlags)
    if ((QZ_CPU_INFO.features & n.flag) != 0 && used < sizeof features)
      used += snprintf(features + used, sizeof features - used, "%s%s", used ? " " : "", n.name);
  const char* vendor = QZ_CPU_INFO.vendor[0] != 0 ? QZ_CPU_INFO.vendor : "(none given)";
  printf("\nProcessor (QZ_CPU_INFO) and the variants the library chose for it\n");
  printf("  %-22s %s, features 0x%08X: %s\n", "vendor", vendor, static_cast<unsigned>(QZ_CPU_INFO.features),
         used ? features : "(none)");
  QZ_LOG_WRITE_A(QZ_LOG_STATUS, "qzdemo: processor %s, features 0x%08X", vendor, QZ_CPU_INFO.features);
  static const struct {
    const char* name;
    const void* slot;
    const char* use;
  } kSlots[] = {{"Qz_Sin", &Qz_Sin, "the tones"},
                {"Qz_Round", &Qz_Round, "samples to integers"},
                {"Qz_Sqrt", &Qz_Sqrt, "the RMS level"},
                {"Qz_FastMemcpy", &Qz_FastMemcpy, "large copies; not used by the demo"}};
  for (const auto& s : kSlots) {
    const char* variant = Qz_SlotVariantName(s.slot);
    printf("  %-22s %s (%s)\n", s.name, variant ? variant : "(not set)", s.use);
    QZ_LOG_WRITE_A(QZ_LOG_STATUS, "qzdemo: slot %s holds %s", s.name, variant ? variant : "(not set)");
  }
}

void Demo::Cleanup() {
  // The timer first: it posts to the queue. Then the queue, whose pending
  // events still belong to it. Only then is the pool nobody's but ours.
  m_timer.Shutdown();
  if (m_queue != nullptr) {
    QzThreadWithEventQueue::Stop(m_queue, 2000);
    if (m_logOpen) QZ_LOG_WRITE_A(QZ_LOG_STATUS, "qzdemo: queue thread stopped");
  }
  m_wave.Close();  // a file left open by a failure: finished as far as it goes
  Qz_DestroyRandom(m_noise);
  Qz_DestroyRandom(m_replay);
  m_noise = m_replay = nullptr;
  if (m_pool != nullptr) {
    if (m_samples != nullptr) Qz_MempoolAlignedFree(m_pool, m_samples);
    m_samples = nullptr;
    Qz_DestroyMempool(m_pool);
    m_pool = nullptr;
  }
}

int Demo::Run() {
  m_tty = isatty(fileno(stdout)) != 0;
  m_started = QzTimeValue::GetTimeOfDay();
  if (!PrepareDirectory() || !BuildNames()) return 1;

  if (!QZ_CREATE_FILE_LOG(m_logA.c_str()))
    return Fail("cannot create the log file %s (QZ_CREATE_FILE_LOG returned 0)", m_logA.c_str());
  m_logOpen = true;
  QZ_LOG_WRITE_A(QZ_LOG_STATUS, "qzdemo: started: %u s, seed %u, %u Hz, %u channels, %u bits", m_options.seconds,
                 m_options.seed, kRate, kChannels, kBits);
  QZ_LOG_WRITE_W(QZ_LOG_STATUS, W("qzdemo: wave file %s").c_str(), m_wavW.c_str());
  QZ_LOG_WRITE_W(QZ_LOG_STATUS, W("qzdemo: log file %s").c_str(), m_logW.c_str());

  printf("qzdemo: %u s of a stereo tone (%u Hz left, %u Hz right) with noise, %u Hz, %u-bit\n", m_options.seconds,
         kLeftHz, kRightHz, kRate, kBits);
  printf("  %-10s %s\n  %-10s %s\n", "wave file", m_wavA.c_str(), "log file", m_logA.c_str());
  printf("  %-10s %.4f ms a tick (Start(%u), AdjustRate(%d) in 100 ns units), one block of %u frames a tick\n",
         "timer", kPeriodMs, kPeriodWholeMs, kPeriodAdjustUnits, kBlockFrames);
  fflush(stdout);

  // Events and sample buffers come from a pool of the demo's own (two heaps:
  // the timer thread makes events, the queue thread frees them).
  m_pool = Qz_CreateMempool(0, 2);
  if (m_pool == nullptr) return Fail("Qz_CreateMempool failed");
  m_noise = Qz_CreateRandomWithSeed(m_options.seed);
  m_replay = Qz_CopyRandom(m_noise);
  if (m_noise == nullptr || m_replay == nullptr) return Fail("no memory for the noise generators");
  QZ_LOG_WRITE_A(QZ_LOG_STATUS, "qzdemo: pool created; noise generator seeded with %u and copied for the read-back",
                 m_options.seed);

  m_queue = QzThreadWithEventQueue::Start(0, 0, 0);
  if (m_queue == nullptr) return Fail("the event-queue thread did not start (QzThreadWithEventQueue::Start)");
  QZ_LOG_WRITE_A(QZ_LOG_STATUS, "qzdemo: queue thread started, id %u", m_queue->GetThreadId());

  HRESULT hr = SendStep(&Demo::OpenWave, "open the wave file");
  if (hr < 0) return Fail("cannot create the wave file %s: QzWaveFile::Open failed with 0x%08X", m_wavA.c_str(), Hex(hr));

  if (!m_timer.SetTimerCallback(fastdelegate::MakeDelegate<Demo, &Demo::OnTick>(this)))
    return Fail("QzTimer::SetTimerCallback refused the callback");
  if (!m_timer.Start(kPeriodWholeMs)) return Fail("the timer refused to start (QzTimer::Start(%u) returned 0)", kPeriodWholeMs);
  m_timer.AdjustRate(kPeriodAdjustUnits);
  QZ_LOG_WRITE_A(QZ_LOG_STATUS, "qzdemo: timer started at %u ms and adjusted by %d units: %u blocks to go",
                 kPeriodWholeMs, kPeriodAdjustUnits, m_totalBlocks);

  // Wait for the last post, showing progress. A timer that stops ticking for
  // five seconds (over two hundred periods) is a failure, not a hang.
  const DWORD step = m_tty ? 100 : 250;
  unsigned lastTicks = 0, stalledMs = 0, sincePrint = 0;
  for (;;) {
    hr = m_allPosted.Wait(step);
    if (hr == 0) break;
    if (static_cast<DWORD>(hr) != kWaitTimeout) return Fail("waiting for the timer failed: 0x%08X", Hex(hr));
    const unsigned ticks = m_ticks.load();
    stalledMs = ticks == lastTicks ? stalledMs + step : 0;
    lastTicks = ticks;
    if (stalledMs >= 5000 || !m_timer.IsTimerRunning())
      return Fail("the timer stopped ticking after %u of %u ticks", ticks, m_totalBlocks);
    sincePrint += step;
    if (m_tty || sincePrint >= 1000) {
      PrintProgress(false);
      sincePrint = 0;
    }
  }
  m_timer.Shutdown();
  {
    QzCriticalSectionHolder hold(&m_statsLock);
    m_final = m_stats;
  }
  if (m_postFailure.load() < 0)
    return Fail("posting block %u to the queue thread failed: 0x%08X", m_ticks.load() - 1, Hex(m_postFailure.load()));
  QZ_LOG_WRITE_A(QZ_LOG_STATUS, "qzdemo: timer stopped after %u ticks: %.4f ms a tick, worst %.2f ms off the schedule",
                 m_totalBlocks, m_final.Period(), m_final.worstMs);

  // Everything posted runs before this send, so its answer settles the file.
  hr = SendStep(&Demo::FinishWave, "finish the wave file");
  PrintProgress(true);
  if (hr < 0) return Fail("writing %s failed: 0x%08X (see the log)", m_wavA.c_str(), Hex(hr));
  QzThreadWithEventQueue::Stop(m_queue, 2000);
  QZ_LOG_WRITE_A(QZ_LOG_STATUS, "qzdemo: queue thread stopped");

  const double rms = Qz_Sqrt(m_sumSquares / (double(m_totalFrames) * kChannels)) / 32768.0;
  printf("Wrote %u blocks, %u frames, %u data bytes; CRC-32 0x%08X; level %.1f dBFS RMS\n", m_totalBlocks,
         m_totalFrames, m_totalFrames * kFrameBytes, m_crc, 20.0 * log10(rms));

  printf("\nRead back\n");
  if (!CheckRawBytes() || !CheckSamples()) return 1;

  PrintPools();
  PrintProcessor();
  const double took = Seconds(QzTimeValue::GetTimeOfDay() - m_started);
  printf("\nDone in %.2f s: %s plays in any audio player.\n", took, m_wavA.c_str());
  QZ_LOG_WRITE_A(QZ_LOG_STATUS, "qzdemo: done in %.2f s", took);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  const int parsed = ParseOptions(argc, argv, &options);
  if (parsed != 0) return parsed == 1 ? 0 : 2;
  int status;
  {
    Demo demo(options);
    status = demo.Run();
  }  // the demo's threads are stopped here, on every way out
  Qz_TerminateLibrary();
  return status;
}
