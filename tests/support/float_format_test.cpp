// Floating conversions are formatted without the C runtime; they must print
// exactly what the runtime's snprintf prints.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <string>

#include "support/wformat.h"

namespace zor {
namespace {

TEST(FloatFormat, MatchesTheCRuntimeDigitForDigit) {
    const char* formats[] = {"%3.2f", "%7.3lf", "%f", "%.0f", "%#.0f", "%.1f", "%+08.2f", "% .3f", "%-9.2f|",
                             "%010.4f", "%.17f", "%.120f", "%e", "%.0e", "%#.0E", "%12.3e", "%g", "%.0g",
                             "%.3G", "%-12.10g|", "%+.15g", "%F", "%#.3g", "%a", "%.3A", "%.0a", "%#a"};
    const double values[] = {0.0, -0.0, 0.5, 1.5, 2.5, -2.5, 0.125, 0.375, 1.005, 2.675, 0.05, 9.9995,
                             99.995, -1234.5678, 1e-5, 1.25e-7, 123456.5, 999999.5, 1e15, 1e22, 1e300,
                             -DBL_MAX, DBL_MIN, DBL_TRUE_MIN, 4.9406564584124654e-320, 1.0 / 3,
                             HUGE_VAL, -HUGE_VAL, NAN, -NAN};
    for (const char* f : formats) {
        char16_t wf[32];
        utf8_to_utf16(f, wf, 32);
        for (double v : values) {
            char want[600], got[600];
            char16_t out[600];
            // A NaN prints without its sign, as the Windows runtime prints it.
            std::snprintf(want, sizeof want, f, std::isnan(v) ? std::fabs(v) : v);
            wformat(out, 600, wf, v);
            utf16_to_utf8(out, got, sizeof got);
            EXPECT_EQ(std::string(got), std::string(want)) << f << " of " << v;
        }
    }
}

}  // namespace
}  // namespace zor
