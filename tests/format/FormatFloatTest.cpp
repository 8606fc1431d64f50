// The floating conversions: the digit generator, fixed and exponential text,
// the general form, and their limits, in both widths.
#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <tuple>

#include <qzbase/QzFrame.h>

#include "FormatCheck.h"
#include "text/QzFormatEngine.h"

using fmtcheck::ExpectBoth;
using fmtcheck::FormatA;

namespace {

struct DoubleRow {
  const char* expect;
  const char* format;
  double value;
};
void ExpectRows(std::initializer_list<DoubleRow> rows) {
  for (const DoubleRow& r : rows) ExpectBoth(r.expect, r.format, r.value);
}

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

struct DigitsOf {
  std::string digits;
  int decpt;
  bool negative;
};
DigitsOf Digits(double v, int ndigit, bool emode) {
  char buf[kQzFormatDigitBuffer];
  DigitsOf r;
  int n = QzFormatDigits(v, ndigit, emode, buf, &r.decpt, &r.negative);
  r.digits.assign(buf, static_cast<size_t>(n));
  EXPECT_EQ(std::strlen(buf), static_cast<size_t>(n));
  return r;
}

TEST(FormatDigits, RoundsHalfUpOnTheDigitsMadeWithinTheLimits) {
  // A carry makes a new first digit or lengthens a fixed string; a value may
  // round away entirely; -0 is not negative.
  const struct { double v; int ndigit; bool emode; const char* digits; int decpt; bool negative; } rows[] = {
      {0.5, 0, false, "1", 1, false}, {99.96, 1, false, "1000", 3, false}, {-0.001, 2, false, "", -2, true},
      {-0.0, 3, true, "000", 0, false}};
  for (const auto& r : rows) {
    DigitsOf d = Digits(r.v, r.ndigit, r.emode);
    EXPECT_EQ(std::make_tuple(std::string(r.digits), r.decpt, r.negative), std::make_tuple(d.digits, d.decpt, d.negative))
        << r.v << " " << r.ndigit;
  }
  // 78 digits at most in exponent mode; ten integer digits and 78 after the
  // point pass the 80 places: 79 digits, unrounded.
  EXPECT_EQ(78u, Digits(1.0 / 3.0, 500, true).digits.size());
  EXPECT_EQ("12345678905", Digits(1234567890.5, 78, false).digits.substr(0, 11));
  EXPECT_EQ(79u, Digits(1234567890.5, 78, false).digits.size());
}

TEST(FormatFloat, FixedExponentGeneralAndSpecials) {
  ExpectRows({
      {"1.234500E+03", "%E", 1234.5}, {"3.", "%#.0f", 3.0}, {"3", "%.0f", 2.5}, {"0.", "%#.0f", 0.3},
      {"1.00e+01", "%.2e", 9.999}, {"0.000000e-01", "%e", 0.0}, {"-0.0", "%.1f", -0.01}, {"2.3", "%.1f", 2.25},
      {"1.e+00", "%#.0e", 1.0}, {"1.000e-300", "%.3e", 1e-300}, {"2147483647.000000", "%f", 2147483647.0},
      {" 3.142", "% .3f", 3.14159}, {"-00003.142", "%010.3f", -3.14159}, {"3.14200000|", "%-010.3f|", 3.14159},
      {".5", "%g", 0.5}, {".0001", "%g", 0.0001}, {"1.5e-5", "%g", 0.000015}, {"1.E+5", "%G", 100000.0},
      {"1234570", "%g", 1234567.0}, {"0", "%g", 0.0}, {"1.", "%#.3g", 1.0}, {"-002.5", "%06g", -2.5},
      {"3", "%.0g", 3.14159}, {"1.E-100", "%G", 1e-100}, {"1.23457e+10", "%g", 12345678901.0},
      {"nan", "%+f", kNaN}, {"inf", "%g", -kInf}, {"00nan", "%05f", kNaN}, {"inf  |", "%-5e|", kInf}});
  // Other conversions read their values from the right place after a double.
  ExpectBoth("1|2.50|3|x", "%d|%.2f|%I64d|%c", 1, 2.5, 3ll, 'x');
}

TEST(FormatFloat, DigitLimitsAndExtremeMagnitudes) {
  ExpectRows({
      {"-2147483648.000000", "%f", -2147483648.0}, {"4294967296.500", "%.3f", 4294967296.5},
      {"100000000000000000000.000000", "%f", 1e20}, {"1.79769E+308", "%G", DBL_MAX},
      {"2.225074e-308", "%e", DBL_MIN}, {"0.000000", "%f", 4.9406564584124654e-324}, {"-0.000000", "%f", -1e-30}});
  // Ten integer digits: 69 decimals, not 78, and no rounding.
  std::string s = FormatA("%.78f", 1234567890.5);
  ASSERT_EQ(80u, s.size());
  EXPECT_EQ("1234567890.5", s.substr(0, 12));
  ExpectBoth("1." + std::string(77, '0') + "e+00", "%.4294967295e", 1.0);
  EXPECT_EQ(".25", FormatA("%.500g", 0.25));
  // Past 79 integer digits: the first 79, zeros up to the point, nothing after.
  s = FormatA("%f", DBL_MAX);
  ASSERT_EQ(310u, s.size());
  EXPECT_EQ("17976931348623", s.substr(0, 14));
  EXPECT_EQ(std::string(309 - 79, '0') + ".", s.substr(79));
  ExpectBoth("-" + s.substr(0, 309), "%.0f", -DBL_MAX);
  s = FormatA("%e", 4.9406564584124654e-324);
  EXPECT_EQ("e-324", s.substr(s.size() - 5));
  EXPECT_EQ('4', s[0]);
}

// A static initialiser may format before the load code fills the slots.
TEST(FormatFloat, WorksBeforeTheSlotsAreFilled) {
  int (*saved)(double) = Qz_Truncate;
  Qz_Truncate = nullptr;
  std::string s = FormatA("%.3f|%g|%e", 3.14159, 1e20, -2.5);
  Qz_Truncate = saved;
  EXPECT_EQ("3.142|1.e+20|-2.500000e+00", s);
}

}  // namespace
