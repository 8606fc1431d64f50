// Helpers of the log suites: the parts of a line, and the rows a dump gives.
#ifndef QZBASE_TESTS_LOGTESTSUPPORT_H
#define QZBASE_TESTS_LOGTESTSUPPORT_H

#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <string>

namespace qztest {

inline const char kTrailer[] =
    "*******************************************END BINARY*******************************************\n";

// Splits one line into its prefix fields and message, checking the prefix's shape.
struct Line {
  int month = 0, day = 0, year = 0, hour = 0, minute = 0, second = 0, ms = 0;
  long pid = 0, tid = 0;
  std::string level, message;
};

inline bool ParseLine(const std::string& text, Line* out) {
  static const std::regex re(
      R"(^\[(\d{2})/(\d{2})/(\d{4}) (\d{2}):(\d{2}):(\d{2})\.(\d{3}) pid=(\d+) tid=(\d+)\] ([A-Za-z]+): ([^]*)\n$)");
  std::smatch m;
  if (!std::regex_match(text, m, re)) return false;
  out->month = std::stoi(m[1]);
  out->day = std::stoi(m[2]);
  out->year = std::stoi(m[3]);
  out->hour = std::stoi(m[4]);
  out->minute = std::stoi(m[5]);
  out->second = std::stoi(m[6]);
  out->ms = std::stoi(m[7]);
  out->pid = std::stol(m[8]);
  out->tid = std::stol(m[9]);
  out->level = m[10];
  out->message = m[11];
  return true;
}

inline std::string MessageOf(const std::string& line) {
  Line l;
  EXPECT_TRUE(ParseLine(line, &l)) << line;
  return l.message;
}


// The rows a dump of `size` bytes must give, after its header.
inline std::string ExpectedRows(const unsigned char* data, unsigned size) {
  std::string out;
  for (unsigned i = 0; i < size; ++i) {
    char hex[4];
    snprintf(hex, sizeof hex, "%02X", data[i]);
    if (i % 32 != 0) out += ' ';
    out += hex;
    if (i % 32 == 31 || i + 1 == size) out += '\n';
  }
  return out;
}

inline std::string ExpectedDumpHeader(const void* data, unsigned size) {
  char text[96];
  snprintf(text, sizeof text, "DUMP BINARY(0x%0*llx), LEN(%u):\n", int(2 * sizeof(void*)),
           static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(data)), size);
  return text;
}

}  // namespace qztest

#endif
