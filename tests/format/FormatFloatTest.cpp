// The floating conversions: the digit generator, fixed and exponential text,
// the general form, and their limits, in both widths.
#include <cfloat>
#include <cmath>
#include <limits>
#include <string>

#include <qzbase/QzFrame.h>

#include "FormatCheck.h"

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
