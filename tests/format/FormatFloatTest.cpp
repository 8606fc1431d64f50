// The floating conversions: the digit generator, fixed and exponential text,
// the general form, and their limits, in both widths.
#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include <qzbase/QzFrame.h>

#include "FormatCheck.h"
#include "QzFormatEngine.h"

using fmtcheck::ExpectBoth;
using fmtcheck::FormatA;
using fmtcheck::FormatW;

namespace {

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

TEST(FormatDigits, RoundsHalfUpOnTheDigitsMade) {
  DigitsOf d = Digits(0.5, 0, false);  // the carry makes a new first digit
  EXPECT_EQ("1", d.digits);
  EXPECT_EQ(1, d.decpt);
  d = Digits(99.96, 1, false);  // a carry in fixed mode lengthens the string
  EXPECT_EQ("1000", d.digits);
  EXPECT_EQ(3, d.decpt);
  d = Digits(-0.001, 2, false);  // rounds away entirely: no digits
  EXPECT_EQ("", d.digits);
  EXPECT_EQ(-2, d.decpt);
  EXPECT_TRUE(d.negative);
  d = Digits(-0.0, 3, true);
  EXPECT_FALSE(d.negative);
  EXPECT_EQ("000", d.digits);
  EXPECT_EQ(0, d.decpt);
}

TEST(FormatDigits, Limits) {
  EXPECT_EQ(78u, Digits(1.0 / 3.0, 500, true).digits.size());
  EXPECT_EQ(78u, Digits(1.0 / 3.0, 79, true).digits.size());
  EXPECT_EQ(77u, Digits(1.0 / 3.0, 77, true).digits.size());
  // Ten integer digits and 78 after the point pass the 80 places: 79 digits,
  // unrounded.
  DigitsOf d = Digits(1234567890.5, 78, false);
  EXPECT_EQ(79u, d.digits.size());
  EXPECT_EQ(10, d.decpt);
  EXPECT_EQ("12345678905", d.digits.substr(0, 11));
}

TEST(FormatFloat, FixedAndExponent) {
  ExpectBoth("3.141590", "%f", 3.14159);
  ExpectBoth("1.234500e+03", "%e", 1234.5);
  ExpectBoth("1.234500E+03", "%E", 1234.5);
  ExpectBoth("3", "%.0f", 3.0);
  ExpectBoth("3.", "%#.0f", 3.0);
  ExpectBoth("3", "%.0f", 2.5);
  ExpectBoth("1", "%.0f", 0.5);
  ExpectBoth("0", "%.0f", 0.3);
  ExpectBoth("0.", "%#.0f", 0.3);
  ExpectBoth("1.00e+01", "%.2e", 9.999);
  ExpectBoth("0.000000e-01", "%e", 0.0);
  ExpectBoth("0.000000", "%f", -0.0);
  ExpectBoth("-0.0", "%.1f", -0.01);
  ExpectBoth("0.00", "%.2f", 0.0001);
  ExpectBoth("0.01", "%.2f", 0.006);
  ExpectBoth("2.3", "%.1f", 2.25);
  ExpectBoth("1e+00", "%.0e", 1.0);
  ExpectBoth("1.e+00", "%#.0e", 1.0);
  ExpectBoth("1.000e-300", "%.3e", 1e-300);
  ExpectBoth("1.000000e+300", "%e", 1e300);
  ExpectBoth("123456.789000", "%f", 123456.789);
  ExpectBoth("2147483647.000000", "%f", 2147483647.0);
}

TEST(FormatFloat, SignsAndPadding) {
  ExpectBoth("-3.142", "%.3f", -3.14159);
  ExpectBoth("+3.142", "%+.3f", 3.14159);
  ExpectBoth(" 3.142", "% .3f", 3.14159);
  ExpectBoth("-00003.142", "%010.3f", -3.14159);
  ExpectBoth("3.142     |", "%-10.3f|", 3.14159);
  ExpectBoth("3.14200000|", "%-010.3f|", 3.14159);
  ExpectBoth("    -2.5e+00", "%12.1e", -2.5);
}

TEST(FormatFloat, General) {
  ExpectBoth(".5", "%g", 0.5);
  ExpectBoth(".0001", "%g", 0.0001);
  ExpectBoth("1.e-5", "%g", 0.00001);
  ExpectBoth("1.5e-5", "%g", 0.000015);
  ExpectBoth("1.e+5", "%g", 100000.0);
  ExpectBoth("1.E+5", "%G", 100000.0);
  ExpectBoth("120000", "%g", 120000.0);
  ExpectBoth("1234570", "%g", 1234567.0);
  ExpectBoth("1", "%g", 1.0);
  ExpectBoth("0", "%g", 0.0);
  ExpectBoth("0.", "%#g", 0.0);
  ExpectBoth("1.", "%#g", 1.0);
  ExpectBoth("1.", "%#.3g", 1.0);
  ExpectBoth("-2.5", "%g", -2.5);
  ExpectBoth("+2.5", "%+g", 2.5);
  ExpectBoth("-002.5", "%06g", -2.5);
  ExpectBoth("3.14159", "%g", 3.14159);
  ExpectBoth("3", "%.0g", 3.14159);
  ExpectBoth("3.1", "%.2g", 3.14159);
  ExpectBoth("1.e+100", "%g", 1e100);
  ExpectBoth("1.E-100", "%G", 1e-100);
  ExpectBoth("1234570000", "%g", 1234567890.0);
  ExpectBoth("1.23457e+10", "%g", 12345678901.0);
}

TEST(FormatFloat, NotANumberAndInfinity) {
  ExpectBoth("nan", "%f", kNaN);
  ExpectBoth("nan", "%e", -kNaN);
  ExpectBoth("inf", "%f", kInf);
  ExpectBoth("inf", "%g", -kInf);
  ExpectBoth("nan", "%+f", kNaN);
  ExpectBoth("inf", "% E", kInf);
  ExpectBoth("00nan", "%05f", kNaN);
  ExpectBoth("  inf", "%5G", -kInf);
  ExpectBoth("inf  |", "%-5e|", kInf);
}

TEST(FormatFloat, DigitLimits) {
  // Ten integer digits: 69 decimals, not 78, and no rounding.
  std::string s = FormatA("%.78f", 1234567890.5);
  ASSERT_EQ(80u, s.size());
  EXPECT_EQ("1234567890.5", s.substr(0, 12));
  EXPECT_EQ(s, FormatW("%.78f", 1234567890.5));
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
  ExpectBoth("2147483648.000000", "%f", 2147483648.0);
  ExpectBoth("-2147483648.000000", "%f", -2147483648.0);
  ExpectBoth("3000000000.000000", "%f", 3e9);
  ExpectBoth("4294967296.500", "%.3f", 4294967296.5);
  ExpectBoth("100000000000000000000.000000", "%f", 1e20);
  ExpectBoth("1.234568e+15", "%e", 1234567890123456.0);
  ExpectBoth("1.797693e+308", "%e", DBL_MAX);
  ExpectBoth("1.79769E+308", "%G", DBL_MAX);
  ExpectBoth("-1.e+20", "%g", -1e20);
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
