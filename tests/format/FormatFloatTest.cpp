// The floating conversions: the digit generator, fixed and exponential text,
// the general form, and their limits, in both widths.
#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

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
  // round away entirely; -0 is not negative; 78 digits at most in exponent
  // mode; ten integer digits and 78 after the point pass the 80 places: 79
  // digits, unrounded.
  const struct { double v; int ndigit; bool emode; const char* digits; int decpt; bool negative; } rows[] = {
      {0.5, 0, false, "1", 1, false}, {99.96, 1, false, "1000", 3, false}, {-0.001, 2, false, "", -2, true},
      {-0.0, 3, true, "000", 0, false}};
  for (const auto& r : rows) {
    DigitsOf d = Digits(r.v, r.ndigit, r.emode);
    EXPECT_EQ(r.digits, d.digits) << r.v << " " << r.ndigit;
    EXPECT_EQ(r.decpt, d.decpt) << r.v << " " << r.ndigit;
    EXPECT_EQ(r.negative, d.negative) << r.v << " " << r.ndigit;
  }
  for (int n : {500, 79, 77}) EXPECT_EQ(n < 78 ? 77u : 78u, Digits(1.0 / 3.0, n, true).digits.size()) << n;
  DigitsOf d = Digits(1234567890.5, 78, false);
  EXPECT_EQ(79u, d.digits.size());
  EXPECT_EQ(10, d.decpt);
  EXPECT_EQ("12345678905", d.digits.substr(0, 11));
}

TEST(FormatFloat, FixedAndExponent) {
  ExpectRows({
      {"3.141590", "%f", 3.14159}, {"1.234500e+03", "%e", 1234.5}, {"1.234500E+03", "%E", 1234.5}, {"3", "%.0f", 3.0},
      {"3.", "%#.0f", 3.0}, {"3", "%.0f", 2.5}, {"1", "%.0f", 0.5}, {"0", "%.0f", 0.3}, {"0.", "%#.0f", 0.3},
      {"1.00e+01", "%.2e", 9.999}, {"0.000000e-01", "%e", 0.0}, {"0.000000", "%f", -0.0}, {"-0.0", "%.1f", -0.01},
      {"0.00", "%.2f", 0.0001}, {"0.01", "%.2f", 0.006}, {"2.3", "%.1f", 2.25}, {"1e+00", "%.0e", 1.0},
      {"1.e+00", "%#.0e", 1.0}, {"1.000e-300", "%.3e", 1e-300}, {"1.000000e+300", "%e", 1e300},
      {"123456.789000", "%f", 123456.789}, {"2147483647.000000", "%f", 2147483647.0}});
}

TEST(FormatFloat, SignsAndPadding) {
  ExpectRows({
      {"-3.142", "%.3f", -3.14159}, {"+3.142", "%+.3f", 3.14159}, {" 3.142", "% .3f", 3.14159},
      {"-00003.142", "%010.3f", -3.14159}, {"3.142     |", "%-10.3f|", 3.14159},
      {"3.14200000|", "%-010.3f|", 3.14159}, {"    -2.5e+00", "%12.1e", -2.5}});
}

TEST(FormatFloat, General) {
  ExpectRows({
      {".5", "%g", 0.5}, {".0001", "%g", 0.0001}, {"1.e-5", "%g", 0.00001}, {"1.5e-5", "%g", 0.000015},
      {"1.e+5", "%g", 100000.0}, {"1.E+5", "%G", 100000.0}, {"120000", "%g", 120000.0}, {"1234570", "%g", 1234567.0},
      {"1", "%g", 1.0}, {"0", "%g", 0.0}, {"0.", "%#g", 0.0}, {"1.", "%#g", 1.0}, {"1.", "%#.3g", 1.0},
      {"-2.5", "%g", -2.5}, {"+2.5", "%+g", 2.5}, {"-002.5", "%06g", -2.5}, {"3.14159", "%g", 3.14159},
      {"3", "%.0g", 3.14159}, {"3.1", "%.2g", 3.14159}, {"1.e+100", "%g", 1e100}, {"1.E-100", "%G", 1e-100},
      {"1234570000", "%g", 1234567890.0}, {"1.23457e+10", "%g", 12345678901.0}});
}

TEST(FormatFloat, NotANumberAndInfinity) {
  ExpectRows({
      {"nan", "%f", kNaN}, {"nan", "%e", -kNaN}, {"inf", "%f", kInf}, {"inf", "%g", -kInf}, {"nan", "%+f", kNaN},
      {"inf", "% E", kInf}, {"00nan", "%05f", kNaN}, {"  inf", "%5G", -kInf}, {"inf  |", "%-5e|", kInf}});
}

TEST(FormatFloat, DigitLimits) {
  // Ten integer digits: 69 decimals, not 78, and no rounding.
  std::string s = FormatA("%.78f", 1234567890.5);
  ASSERT_EQ(80u, s.size());
  EXPECT_EQ("1234567890.5", s.substr(0, 12));
  ExpectBoth(s, "%.78f", 1234567890.5);
  s = FormatA("%.500e", 1.0);
  EXPECT_EQ("1." + std::string(77, '0') + "e+00", s);
  ExpectBoth(s, "%.4294967295e", 1.0);
  s = FormatA("%.500g", 0.25);
  EXPECT_EQ(".25", s);
  s = FormatA("%.100f", 0.001);
  EXPECT_EQ("0.001", s.substr(0, 5));
  EXPECT_EQ(79u, s.size() - 1);  // 79 digits with the leading 0
}

TEST(FormatFloat, LargeMagnitudesStayFiniteAndClose) {
  ExpectRows({
      {"2147483648.000000", "%f", 2147483648.0}, {"-2147483648.000000", "%f", -2147483648.0},
      {"3000000000.000000", "%f", 3e9}, {"4294967296.500", "%.3f", 4294967296.5},
      {"100000000000000000000.000000", "%f", 1e20}, {"1.234568e+15", "%e", 1234567890123456.0},
      {"1.797693e+308", "%e", DBL_MAX}, {"1.79769E+308", "%G", DBL_MAX}, {"-1.e+20", "%g", -1e20}});
  // Past 79 integer digits: the first 79, zeros up to the point, nothing after.
  std::string s = FormatA("%f", DBL_MAX);
  ASSERT_EQ(310u, s.size());
  EXPECT_EQ("17976931348623", s.substr(0, 14));
  EXPECT_EQ(std::string(309 - 79, '0') + ".", s.substr(79));
  ExpectBoth(s, "%f", DBL_MAX);
  ExpectBoth("-" + s.substr(0, 309), "%.0f", -DBL_MAX);
}

TEST(FormatFloat, TinyMagnitudes) {
  ExpectBoth("2.225074e-308", "%e", DBL_MIN);
  std::string s = FormatA("%e", 4.9406564584124654e-324);
  EXPECT_EQ("e-324", s.substr(s.size() - 5));
  EXPECT_EQ('4', s[0]);
  ExpectBoth(s, "%e", 4.9406564584124654e-324);
  ExpectBoth("0.000000", "%f", 4.9406564584124654e-324);
  ExpectBoth("-0.000000", "%f", -1e-30);
}

// A static initialiser may format before the load code fills the slots.
TEST(FormatFloat, WorksBeforeTheSlotsAreFilled) {
  int (*saved)(double) = Qz_Truncate;
  Qz_Truncate = nullptr;
  std::string s = FormatA("%.3f|%g|%e", 3.14159, 1e20, -2.5);
  Qz_Truncate = saved;
  EXPECT_EQ("3.142|1.e+20|-2.500000e+00", s);
}

// Other conversions read their values from the right place after a double.
TEST(FormatFloat, MixedWithOtherValues) {
  ExpectBoth("1|2.50|3|x", "%d|%.2f|%I64d|%c", 1, 2.5, 3ll, 'x');
  fmtcheck::ExpectA("   1.5|ab", "%*.*f|%s", 6, 1, 1.5, "ab");
}

}  // namespace
