#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <cstdarg>
#include <cstdint>
#include <string>

#include "common/test_log.h"
#include "support/wformat.h"
#include "support/wstr.h"

namespace zor {
namespace {

using test::Utf8;

std::string F(const char16_t* fmt, ...) {
    char16_t out[1024];
    std::va_list ap;
    va_start(ap, fmt);
    vwformat(out, 1024, fmt, ap);
    va_end(ap);
    return Utf8(out);
}

TEST(Format, LengthModifiersReadWindowsSizes) {
    // 'l' is 32 bits as on Windows x64, whatever the native long is.
    EXPECT_EQ(F(u"%ld %lu %lx", std::uint32_t{0xFFFFFFFF}, std::uint32_t{0xFFFFFFFF}, std::uint32_t{0xABCDEF01}),
              "-1 4294967295 abcdef01");
    EXPECT_EQ(F(u"%lld %llu %I64d %I64x", LLONG_MIN, ULLONG_MAX, std::int64_t{-3}, std::uint64_t{0x123456789A}),
              "-9223372036854775808 18446744073709551615 -3 123456789a");
    EXPECT_EQ(F(u"%zu %Iu %zd", std::size_t{5000000000}, std::size_t{7}, std::ptrdiff_t{-9}), "5000000000 7 -9");
    EXPECT_EQ(F(u"%hd %hu %hhd %hhu %I32d", 70000, 70000, 300, 300, -1), "4464 4464 44 44 -1");
    // Arguments after a 64-bit one stay aligned.
    EXPECT_EQ(F(u"%I64u %d", std::uint64_t{1} << 40, 9), "1099511627776 9");
}

TEST(Format, StringsWideAndNarrow) {
    EXPECT_EQ(F(u"[%s][%-6s][%.2s][%6.2s]", u"abc", u"ab", u"abcdef", u"abcdef"), "[abc][ab    ][ab][    ab]");
    EXPECT_EQ(F(u"[%S][%hs][%ls][%ws]", "narrow", "hs", u"ls", u"ws"), "[narrow][hs][ls][ws]");
    EXPECT_EQ(F(u"[%s][%S]", static_cast<const char16_t*>(nullptr), static_cast<const char*>(nullptr)),
              "[(null)][(null)]");
    // Width counts UTF-16 units of the text, not bytes.
    EXPECT_EQ(F(u"[%5S][%5s]", "\xC3\xA9t\xC3\xA9", u"\u00E9t\u00E9"), "[  \xC3\xA9t\xC3\xA9][  \xC3\xA9t\xC3\xA9]");
    EXPECT_EQ(F(u"[%S]", "\xF0\x9F\x98\x80"), "[\xF0\x9F\x98\x80]");
    EXPECT_EQ(F(u"[%c%c][%3c][%-3c][%C]", u'A', 0x00E9, u'x', u'y', 'n'), "[A\xC3\xA9][  x][y  ][n]");
}

// Whatever the capacity, the output is the full text cut to cap-1 units,
// terminated, and nothing past the buffer is touched.
TEST(Format, NeverWritesPastTheBuffer) {
    const char16_t* fmt = u"%s|%08x|%-12S|%7.3f|%p|%c%c";
    const char16_t* s = u"wide\u00E9";
    const char* n = "\xF0\x9F\x98\x80x";  // a pair then 'x'
    char16_t full[256];
    std::size_t fullLen = wformat(full, 256, fmt, s, 0xABu, n, 2.5, full, 0xD83D, 0xDE00);
    ASSERT_GT(fullLen, 40u);
    for (std::size_t cap = 1; cap <= fullLen + 2; ++cap) {
        char16_t buf[300];
        for (auto& c : buf) c = u'#';
        std::size_t got = wformat(buf, cap, fmt, s, 0xABu, n, 2.5, full, 0xD83D, 0xDE00);
        ASSERT_LT(got, cap);
        ASSERT_EQ(buf[got], 0) << cap;
        for (std::size_t i = cap; i < 300; ++i) ASSERT_EQ(buf[i], u'#') << "cap " << cap;
        // Only a surrogate pair may end a unit early.
        ASSERT_GE(got + 2, std::min(cap - 1, fullLen)) << cap;
        ASSERT_EQ(std::u16string(buf, got), std::u16string(full, got)) << cap;
    }
    char16_t one[1] = {u'#'};
    EXPECT_EQ(wformat(one, 1, u"%d", 12345), 0u);
    EXPECT_EQ(one[0], 0);
    char16_t wide[8];
    EXPECT_EQ(wformat(wide, 8, u"%100000d", 1), 7u);
    EXPECT_EQ(std::u16string(wide), u"       ");
}

TEST(Utf, ConversionsRoundTripAndStayBounded) {
    const char* text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";  // a é € 😀 z
    char16_t w[16];
    ASSERT_EQ(utf8_to_utf16(text, w, 16), 6u);
    EXPECT_EQ(std::u16string(w), u"a\u00E9\u20AC\U0001F600z");
    char back[32];
    EXPECT_EQ(utf16_to_utf8(w, back, sizeof back), std::strlen(text));
    EXPECT_STREQ(back, text);

    // Cut at a sequence boundary, never inside one.
    char small[6];
    EXPECT_EQ(utf16_to_utf8(w, small, sizeof small), 3u);  // "a" + "é", € does not fit
    EXPECT_STREQ(small, "a\xC3\xA9");
    char16_t three[4];
    EXPECT_EQ(utf8_to_utf16("ab\xF0\x9F\x98\x80", three, 4), 2u);  // the pair would need 2 more
    EXPECT_EQ(std::u16string(three), u"ab");

    // Broken input turns into U+FFFD, one per bad byte, and never hides text.
    char out[32];
    const char16_t lone[] = {u'x', 0xD800, u'y', 0xDC00, 0};
    utf16_to_utf8(lone, out, sizeof out);
    EXPECT_STREQ(out, "x\xEF\xBF\xBDy\xEF\xBF\xBD");
    char16_t r[16];
    utf8_to_utf16("\xC0\xAFq\xED\xA0\x80\xE2\x82", r, 16);  // overlong, surrogate, cut sequence
    EXPECT_EQ(std::u16string(r).find(u'q'), 2u);
    for (char16_t c : std::u16string(r)) EXPECT_TRUE(c == u'q' || c == 0xFFFD);
}

TEST(Wstr, BoundedCopyCompareAndFilePart) {
    char16_t b[6];
    wcopy(b, 6, u"abcdefgh");
    EXPECT_EQ(std::u16string(b), u"abcde");
    wcopy(b, 6, u"ab");
    wappend(b, 6, u"cdefg");
    EXPECT_EQ(std::u16string(b), u"abcde");

    EXPECT_EQ(wicmp(u"Timer.IRQ", u"timer.irq"), 0);
    EXPECT_EQ(wicmp(u"\u00C9T\u00C9", u"\u00E9t\u00E9"), 0);  // Latin-1 letters fold
    EXPECT_NE(wicmp(u"\u00D7", u"\u00F7"), 0);                 // the signs do not
    EXPECT_LT(wicmp(u"abc", u"ABD"), 0);
    EXPECT_GT(wicmp(u"abcd", u"ABC"), 0);
    EXPECT_GT(wicmp(u"A", u"["), 0);  // folded to lower case, as _wcsicmp does

    EXPECT_EQ(std::u16string(wfile_part(u"C:\\dir\\mod.dll")), u"mod.dll");
    EXPECT_EQ(std::u16string(wfile_part(u"/a/b\\c/d.so")), u"c/d.so");
    EXPECT_EQ(std::u16string(wfile_part(u"/a/b\\c/d.so", true)), u"d.so");
    EXPECT_EQ(std::u16string(wfile_part(u"plain")), u"plain");
}

}  // namespace
}  // namespace zor
