// The number conversions of the host's printf: integers (%d %i %u %x %X
// %o), pointers (%p) and floating point (%f %e %g %a and upper case).
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "support/wformat_conversions.h"

namespace zor::wformat_detail {
namespace {

constexpr int kMaxFloatPrecision = 120;

// Digits of one floating conversion into b (at least 512 chars), no sign
// flags: std::to_chars rounds exactly like printf in the C locale (nearest,
// ties to even on the exact binary value) and neither allocates nor locks.
// Exponents have at least two digits, the C99 form, on every platform.
std::size_t float_digits(char* b, double v, char conv, int prec, bool alt) {
    char* end = b + 512;
    char lc = static_cast<char>(conv | 0x20);
    std::to_chars_result r;
    if (lc == 'f') {
        r = std::to_chars(b, end, v, std::chars_format::fixed, prec);
    } else if (lc == 'e') {
        r = std::to_chars(b, end, v, std::chars_format::scientific, prec);
    } else if (lc == 'a') {
        char* d = b;
        if (std::signbit(v)) *d++ = '-';
        if (std::isfinite(v)) *d++ = '0', *d++ = 'x';
        double m = std::fabs(v);
        r = prec < 0 ? std::to_chars(d, end, m, std::chars_format::hex)
                     : std::to_chars(d, end, m, std::chars_format::hex, prec);
    } else {  // g: P significant digits, style by the rounded exponent
        int p = prec == 0 ? 1 : prec;
        r = std::to_chars(b, end, v, std::chars_format::scientific, p - 1);
        char* e = std::find(b, r.ptr, 'e');
        if (e != r.ptr) {
            int x = 0;
            for (const char* d = e + 2; d < r.ptr; ++d) x = x * 10 + (*d - '0');
            if (e[1] == '-') x = -x;
            if (x >= -4 && x < p) r = std::to_chars(b, end, v, std::chars_format::fixed, p - 1 - x);
            if (!alt) {  // drop trailing zeros of the fraction (and a bare point)
                char* x_end = std::find(b, r.ptr, 'e');
                char* dot = std::find(b, x_end, '.');
                if (dot != x_end) {
                    char* t = x_end;
                    while (t[-1] == '0') --t;
                    if (t - 1 == dot) --t;
                    std::memmove(t, x_end, static_cast<std::size_t>(r.ptr - x_end));
                    r.ptr -= x_end - t;
                }
            }
        }
    }
    std::size_t n = static_cast<std::size_t>(r.ptr - b);
    bool finite = std::isfinite(v);
    // '#': always a decimal point (%a too).
    if (alt && finite && std::find(b, b + n, '.') == b + n) {
        char* at = std::find_if(b, b + n, [](char c) { return c == 'e' || c == 'p'; });
        std::memmove(at + 1, at, static_cast<std::size_t>(b + n - at));
        *at = '.';
        ++n;
    }
    if (conv != lc)
        for (std::size_t i = 0; i < n; ++i)
            if (b[i] >= 'a' && b[i] <= 'z') b[i] = static_cast<char>(b[i] - 32);
    return n;
}

}  // namespace

// Integer conversions: sign or "0x" prefix, precision as minimum digits,
// then width padding with spaces or (flag '0', no precision) zeros.
void put_int(Out& o, const Conv& sp, std::uint64_t mag, bool neg, char conv) {
    char16_t digits[24];
    int nd = 0;
    const char* hex = conv == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
    unsigned base = (conv == 'x' || conv == 'X') ? 16 : conv == 'o' ? 8 : 10;
    for (std::uint64_t v = mag; v; v /= base) digits[23 - nd++] = static_cast<unsigned char>(hex[v % base]);
    int prec = sp.prec < 0 ? 1 : sp.prec;
    if (conv == 'o' && sp.alt && prec <= nd) prec = nd + 1;  // a leading 0
    int zeros = prec > nd ? prec - nd : 0;

    char16_t prefix[2];
    int np = 0;
    if (conv == 'd' || conv == 'i') {
        if (neg) prefix[np++] = u'-';
        else if (sp.plus) prefix[np++] = u'+';
        else if (sp.space) prefix[np++] = u' ';
    } else if (base == 16 && sp.alt && mag != 0) {
        prefix[np++] = u'0';
        prefix[np++] = static_cast<char16_t>(conv);
    }
    std::size_t body = static_cast<std::size_t>(np + zeros + nd);
    if (sp.width > 0 && static_cast<std::size_t>(sp.width) > body && !sp.left) {
        if (sp.zero && sp.prec < 0) zeros += static_cast<int>(sp.width - body);
        else o.fill(u' ', sp.width - body);
    }
    o.write(prefix, static_cast<std::size_t>(np));
    o.fill(u'0', static_cast<std::size_t>(zeros));
    o.write(digits + 24 - nd, static_cast<std::size_t>(nd));
    if (sp.left) pad(o, sp.width, body, u' ');
}

void put_pointer(Out& o, const Conv& sp, std::uintptr_t v) {
    char16_t d[2 * sizeof(void*)];
    constexpr int nd = 2 * sizeof(void*);
    for (int i = nd - 1; i >= 0; --i, v >>= 4) d[i] = static_cast<char16_t>("0123456789ABCDEF"[v & 15]);
    if (!sp.left) pad(o, sp.width, nd, u' ');
    o.write(d, nd);
    if (sp.left) pad(o, sp.width, nd, u' ');
}

void put_float(Out& o, const Conv& sp, double v, char conv) {
    if (std::isnan(v)) v = std::fabs(v);  // "nan", never "-nan": what the Windows build always printed
    int prec = sp.prec < 0 ? 6 : sp.prec > kMaxFloatPrecision ? kMaxFloatPrecision : sp.prec;
    if (sp.prec < 0 && (conv == 'a' || conv == 'A')) prec = -1;  // exact hex digits
    char nb[520];
    std::size_t len = 0;
    if (!std::signbit(v) && (sp.plus || sp.space)) nb[len++] = sp.plus ? '+' : ' ';
    len += float_digits(nb + len, v, conv, prec, sp.alt);

    // Zero padding goes after the sign (and "0x"); never for inf and nan.
    std::size_t lead = 0;
    if (len && (nb[0] == '-' || nb[0] == '+' || nb[0] == ' ')) lead = 1;
    if ((conv == 'a' || conv == 'A') && len >= lead + 2 && nb[lead] == '0') lead += 2;
    bool finite = std::isfinite(v);
    std::size_t w = sp.width > 0 ? static_cast<std::size_t>(sp.width) : 0;
    if (w > len && !sp.left) {
        if (sp.zero && finite) {
            o.write_ascii(nb, lead);
            o.fill(u'0', w - len);
            o.write_ascii(nb + lead, len - lead);
            return;
        }
        o.fill(u' ', w - len);
    }
    o.write_ascii(nb, len);
    if (sp.left && w > len) o.fill(u' ', w - len);
}

}  // namespace zor::wformat_detail
