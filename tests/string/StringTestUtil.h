// Helpers of the string tests: both widths from ASCII literals, block
// inspection, and the model text of a string.
#ifndef QZBASE_TESTS_STRING_STRINGTESTUTIL_H
#define QZBASE_TESTS_STRING_STRINGTESTUTIL_H

#include <gtest/gtest.h>

#include <string>

#include <qzbase/QzFrame.h>

#include "strings/QzString.h"
#include "QzTestSupport.h"

namespace strtest {

template <typename T>
using Model = std::basic_string<T>;

// An ASCII text (embedded 0s allowed through the length) in width T.
template <typename T>
Model<T> L(const char* ascii, size_t n = std::string::npos) {
  if (n == std::string::npos) n = strlen(ascii);
  Model<T> r;
  for (size_t i = 0; i < n; ++i) r.push_back(static_cast<T>(static_cast<unsigned char>(ascii[i])));
  return r;
}

template <typename T>
const QzInternalStringData* H(const QzStringT<T>& s) { return qzstr::Header(s.c_str()); }
template <typename T>
int Refs(const QzStringT<T>& s) { return H(s)->refCount; }
template <typename T>
unsigned Cap(const QzStringT<T>& s) { return H(s)->capacity; }
template <typename T>
Model<T> Text(const QzStringT<T>& s) { return Model<T>(s.c_str(), s.length()); }
template <typename T>
bool OnEmptyRecord(const QzStringT<T>& s) { return s.c_str() == qzstr::EmptyChars<T>(); }
inline int EmptyRefs() { return qzstr::g_emptyRecord.header.refCount; }

// A string of width T from an ASCII text, through the counted constructor.
template <typename T>
QzStringT<T> Make(const char* ascii, size_t n = std::string::npos) {
  Model<T> m = L<T>(ascii, n);
  return QzStringT<T>(m.c_str(), static_cast<unsigned>(m.size()));
}

// Expects a QzException of out of memory from `body`, whose text names it.
#define EXPECT_OUT_OF_MEMORY(body)                                                         \
  do {                                                                                     \
    bool thrown_ = false;                                                                  \
    try {                                                                                  \
      body;                                                                                \
    } catch (const QzException& e_) {                                                      \
      thrown_ = true;                                                                      \
      EXPECT_STREQ(e_.GetText(),                                                           \
                   "Not enough memory resources are available to complete this operation."); \
    }                                                                                      \
    EXPECT_TRUE(thrown_) << "no QzException from " #body;                                  \
  } while (0)

// Lets exactly one pool allocation fail (the next), so the exception can still
// build its text.
struct FailNextAlloc : qztest::FaultScope {
  FailNextAlloc() : qztest::FaultScope(qzsys::QZ_FAULT_POOL_ALLOC, 0, 1) {}
};

// The conversion objects keep the code page they were made with, and the
// converter can only fail to be made: both helpers drop the cached objects
// (Qz_TerminateLibrary) so that the next conversion makes new ones.
struct CodePage {
  explicit CodePage(unsigned cp) {
    Qz_TerminateLibrary();
    EXPECT_TRUE(qzsys::QzSetActiveCodePage(cp));
  }
  ~CodePage() {
    Qz_TerminateLibrary();
    qzsys::QzSetActiveCodePage(65001);
  }
};
struct NoConverter {
  NoConverter() { Qz_TerminateLibrary(); qzsys::QzFaultArm(qzsys::QZ_FAULT_CONVERTER, 0, qzsys::QZ_FAULT_ALWAYS); }
  ~NoConverter() { qzsys::QzFaultDisarm(qzsys::QZ_FAULT_CONVERTER); }
};

template <typename T>
class BothWidths : public ::testing::Test {};
typedef ::testing::Types<char, unsigned short> Widths;

}  // namespace strtest

#endif
