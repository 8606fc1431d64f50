// File streams: reads across every view boundary in mapped and plain mode,
// seeks, the output buffer's rules, append and cut, constructors' refusals.
#include <gtest/gtest.h>

#include <qzbase/QzException.h>
#include <qzbase/QzFileStream.h>

#include <sys/stat.h>

#include <string>
#include <vector>

#include "QzTestSupport.h"

using namespace qzsys;
using qztest::DebugCapture;
using qztest::FaultScope;
using qztest::ReadAll;
using qztest::TempFolder;
using qztest::WriteAll;

namespace {

constexpr unsigned kSpan = 262144;

// Bytes whose value tells their position (no period of the span's size).
std::string Pattern(size_t size) {
  std::string s(size, 0);
  for (size_t i = 0; i < size; ++i) s[i] = static_cast<char>((i * 131 + (i >> 9)) & 0xFF);
  return s;
}

// The exception's text is the only trace of its code: compare with a fresh one.
template <typename F>
std::string ThrownText(F make) {
  try {
    make();
  } catch (const QzException& e) {
    return e.GetText();
  }
  return "<nothing thrown>";
}
std::string TextOf(HRESULT code) { return QzException(code).GetText(); }

// Reads to the end in pieces of `piece`, checking each position on the way.
std::string ReadToEnd(QzFileInputStream& s, unsigned piece) {
  std::string out;
  std::vector<char> buf(piece);
  for (;;) {
    unsigned got = s.Read(buf.data(), piece);
    out.append(buf.data(), got);
    EXPECT_EQ(s.GetCurrentPos(), out.size());
    if (got == 0) return out;
  }
}

enum class Mode { Mapped, Plain, ViewFailsMidway };

TEST(FileInputStream, ReadsEveryByteAcrossViewBoundariesInEachMode) {
  const size_t sizes[] = {0, kSpan - 1, kSpan, kSpan + 1, 2 * kSpan};
  const unsigned pieces[] = {1000, kSpan + 5, 3 * kSpan};
  TempFolder dir;
  for (size_t size : sizes) {
    std::string path = dir / ("f" + std::to_string(size));
    std::string content = Pattern(size);
    WriteAll(path, content);
    for (unsigned piece : pieces) {
      for (Mode mode : {Mode::Mapped, Mode::Plain, Mode::ViewFailsMidway}) {
        SCOPED_TRACE(testing::Message() << "size " << size << " piece " << piece << " mode " << int(mode));
        FaultScope noMapping(QZ_FAULT_CREATE_MAPPING, mode == Mode::Plain ? 0 : QZ_FAULT_ALWAYS, 1);
        FaultScope secondView(QZ_FAULT_MAP_VIEW, mode == Mode::ViewFailsMidway ? 1 : QZ_FAULT_ALWAYS, 1);
        QzFileInputStream s{QzStringT<char>(path.c_str())};
        EXPECT_EQ(s.GetSize(), size);
        EXPECT_TRUE(ReadToEnd(s, piece) == content);
        EXPECT_EQ(s.IsEOS(), 1);
      }
    }
  }
}

TEST(FileInputStream, SeeksClampOrRefuseByOrigin) {
  TempFolder dir;
  const uint64_t size = 2 * kSpan + 100;
  std::string content = Pattern(size);
  WriteAll(dir / "f", content);
  struct Row {
    int64_t offset;
    int origin;
    int result;
    uint64_t position;  // where the stream stands after, from a start at 1000
  } rows[] = {
      {int64_t(size), 0, 1, size}, {int64_t(size) + 1, 0, 0, 1000}, {-1, 0, 0, 1000},
      {-2000, 1, 1, 0},            {INT64_MAX, 1, 1, size},         {INT64_MIN, 1, 1, 0},
      {-100, 2, 1, size - 100},    {100, 2, 1, size},               {0, 3, 0, 1000},
  };
  for (bool plain : {false, true}) {
    for (const Row& r : rows) {
      SCOPED_TRACE(testing::Message() << "offset " << r.offset << " origin " << r.origin << " plain " << plain);
      FaultScope noMapping(QZ_FAULT_CREATE_MAPPING, plain ? 0 : QZ_FAULT_ALWAYS, 1);
      QzFileInputStream s{QzStringT<char>((dir / "f").c_str())};
      ASSERT_EQ(s.Seek(1000, STREAM_SEEK_SET), 1);
      EXPECT_EQ(s.Seek(r.offset, static_cast<tagSTREAM_SEEK>(r.origin)), r.result);
      EXPECT_EQ(s.GetCurrentPos(), r.position);
      char buf[300];
      unsigned got = s.Read(buf, sizeof buf);
      EXPECT_EQ(std::string(buf, got), content.substr(r.position, sizeof buf));
    }
  }
}

TEST(FileInputStream, SeekToTheEndOfAWholeNumberOfViewsFallsBackToPlainMode) {
  TempFolder dir;
  WriteAll(dir / "two", Pattern(2 * kSpan));
  DebugCapture capture;
  QzFileInputStream s{QzStringT<char>((dir / "two").c_str())};
  EXPECT_EQ(s.Seek(0, STREAM_SEEK_END), 1);  // no view can stand there: plain mode
  EXPECT_NE(capture.joined().find("MapViewOfFileEx"), std::string::npos);
  char c;
  EXPECT_EQ(s.Read(&c, 1), 0u);
  EXPECT_EQ(s.Seek(-1, STREAM_SEEK_END), 1);  // and plain mode seeks and reads on
  ASSERT_EQ(s.Read(&c, 1), 1u);
  EXPECT_EQ(c, Pattern(2 * kSpan).back());
}

TEST(FileStreams, ConstructorsWithoutAUsableFileThrow) {
  TempFolder dir;
  WriteAll(dir / "ro", "read only");
  chmod((dir / "ro").c_str(), 0444);
  const std::string invalid = TextOf(E_INVALIDARG);
  EXPECT_EQ(ThrownText([&] { QzFileInputStream s{QzStringT<char>((dir / "missing").c_str())}; }),
            TextOf(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)));
  QzFile none;
  EXPECT_EQ(ThrownText([&] { QzFileInputStream s(none); }), invalid);
  EXPECT_EQ(ThrownText([&] { QzFileOutputStream s(QzStringT<char>(dir.path().c_str()), 0); }), invalid);
  // A file that takes no writes is refused, and its owner keeps it.
  QzFile readable;
  ASSERT_EQ(readable.Open((dir / "ro").c_str(), 0x8000), 0);
  EXPECT_EQ(ThrownText([&] { QzFileOutputStream s(readable, 1); }), invalid);
  EXPECT_TRUE(readable.IsOpen());
  EXPECT_EQ(ReadAll(dir / "ro"), "read only");
}

// What stands on disk after each write tells whether it went through the buffer.
TEST(FileOutputStream, WritesBelowTheSpanWaitAndLargerOnesGoStraightThrough) {
  struct Step {
    unsigned size;
    uint64_t onDisk;  // file size right after the write
  };
  const std::vector<std::vector<Step>> cases = {
      {{kSpan - 1, 0}, {1, kSpan - 1}},  // the buffer never fills up: it goes out first
      {{kSpan, kSpan}},
      {{100, 0}, {kSpan + 1, 100 + kSpan + 1}},
      {{0, 0}, {3 * kSpan, 3 * kSpan}, {5, 3 * kSpan}},
  };
  TempFolder dir;
  for (const auto& steps : cases) {
    std::string path = dir / "out";
    std::string expected;
    {
      QzFileOutputStream s(QzStringT<char>(path.c_str()), 0);
      for (const Step& step : steps) {
        std::string data = Pattern(expected.size() + step.size).substr(expected.size());
        EXPECT_EQ(s.Write(data.data(), step.size), step.size);
        expected += data;
        EXPECT_EQ(s.GetPosition(), expected.size());
        EXPECT_EQ(ReadAll(path).size(), step.onDisk);
      }
    }
    EXPECT_EQ(ReadAll(path), expected);
  }
}

TEST(FileOutputStream, FlushSetPositionAndFailuresLoseOnlyWaitingBytes) {
  TempFolder dir;
  std::string path = dir / "out";
  QzFileOutputStream s(QzStringT<char>(path.c_str()), 0);
  EXPECT_EQ(s.Flush(), 0);  // nothing waiting is no success
  s.Write("hello world", 11);
  EXPECT_EQ(s.Flush(), 1);
  EXPECT_EQ(ReadAll(path), "hello world");
  s.Write("HELLO", 5);
  EXPECT_EQ(s.SetPosition(6), 1);  // writes the waiting bytes, then moves
  s.Write("W", 1);
  EXPECT_EQ(s.SetPosition(100), 1);
  {
    FaultScope refuse(QZ_FAULT_SET_FILE_POINTER, 0, 1);
    EXPECT_EQ(s.SetPosition(3), 0);
    EXPECT_EQ(s.GetPosition(), 100u);  // where the system still stands
  }
  EXPECT_EQ(ReadAll(path), "hello WorldHELLO");
  s.Write("abc", 3);
  {
    FaultScope shortWrite(QZ_FAULT_WRITE_FILE_SHORT, 0, 1);
    EXPECT_EQ(s.Flush(), 0);
  }
  EXPECT_EQ(s.Flush(), 0);  // the waiting bytes are gone, not written twice
  EXPECT_EQ(s.Write(nullptr, 5), 0u);
}

TEST(FileOutputStream, AppendClearsReadOnlyAndKeepsTheFileAPlainOpenCutsIt) {
  TempFolder dir;
  std::string path = dir / "f";
  WriteAll(path, "0123");
  chmod(path.c_str(), 0444);
  {
    QzFileOutputStream s(QzStringT<char>(path.c_str()), 1);
    EXPECT_EQ(s.GetPosition(), 4u);
    s.Write("!", 1);
  }
  EXPECT_EQ(ReadAll(path), "0123!");
  { QzFileOutputStream s(QzStringT<char>(path.c_str()), 0); }
  EXPECT_EQ(ReadAll(path), "");
}

}  // namespace
