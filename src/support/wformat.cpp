// The host's own printf: UTF-16 formats into a fixed UTF-16 buffer, no
// allocation, no locks, so that it can run on the per-event path.
//
// Integer sizes follow the Windows x64 data model whatever the build:
// no length and 'l' read a 32-bit int (the host passes 32-bit values with
// %ld), 'll', 'I64' and 'j' read 64 bits, 'z', 'I' and 't' read a
// pointer-sized value, 'h' and 'hh' narrow an int.
// Strings: %s, %ls and %ws take char16_t*; %S and %hs take UTF-8 char*.
// Width and precision of strings count UTF-16 units. A null string prints
// "(null)". %c takes a UTF-16 unit, %C and %hc a narrow char (Latin-1).
// %p prints the pointer as 16 upper-case hex digits, zero padded.
// %n is not supported: it consumes its pointer and writes nothing.
// An unknown conversion is copied to the output as written.
// Floating conversions print what printf prints in the C locale, without the
// C runtime (which may lock or allocate); precision is capped at 120 digits
// and exponents have at least two digits everywhere; a NaN prints without
// its sign.
#include "support/wformat.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace zor {
namespace {

constexpr int kMaxWidth = 1 << 20;
constexpr int kMaxFloatPrecision = 120;

// Writer over the caller's buffer: keeps room for the terminator. Once
// something does not fit, everything after it is dropped too, so that a cut
// output is always a prefix of the full one.
struct Out {
    char16_t* p;
    std::size_t cap;  // > 0
    std::size_t n = 0;
    bool full = false;

    std::size_t room() const { return full ? 0 : cap - 1 - n; }
    std::size_t clip(std::size_t k) {
        if (k > room()) {
            k = room();
            full = true;
        }
        return k;
    }
    void put(char16_t c) {
        if (clip(1)) p[n++] = c;
    }
    void fill(char16_t c, std::size_t k) {
        k = clip(k);
        for (std::size_t i = 0; i < k; ++i) p[n + i] = c;
        n += k;
    }
    void write(const char16_t* s, std::size_t k) {
        k = clip(k);
        std::memcpy(p + n, s, k * sizeof(char16_t));
        n += k;
    }
    void write_ascii(const char* s, std::size_t k) {
        k = clip(k);
        for (std::size_t i = 0; i < k; ++i) p[n + i] = static_cast<unsigned char>(s[i]);
        n += k;
    }
};

enum class Len { None, hh, h, l, ll, z, L };

struct Conv {
    bool left = false, plus = false, space = false, alt = false, zero = false;
    int width = 0;
    int prec = -1;  // -1: none given
    Len len = Len::None;
};

// Decodes one UTF-8 sequence at s; returns the code point (U+FFFD for a
// malformed sequence, which then consumes one byte) and advances s.
char32_t decode_utf8(const unsigned char*& s) {
    unsigned c = s[0];
    if (c < 0x80) {
        ++s;
        return c;
    }
    int extra;
    char32_t cp;
    char32_t min;
    if ((c & 0xE0) == 0xC0) {
        extra = 1, cp = c & 0x1F, min = 0x80;
    } else if ((c & 0xF0) == 0xE0) {
        extra = 2, cp = c & 0x0F, min = 0x800;
    } else if ((c & 0xF8) == 0xF0) {
        extra = 3, cp = c & 0x07, min = 0x10000;
    } else {
        ++s;
        return 0xFFFD;
    }
    for (int i = 1; i <= extra; ++i) {
        if ((s[i] & 0xC0) != 0x80) {  // also stops at the terminator
            ++s;
            return 0xFFFD;
        }
        cp = (cp << 6) | (s[i] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        ++s;
        return 0xFFFD;
    }
    s += extra + 1;
    return cp;
}

int utf16_units(char32_t cp) { return cp >= 0x10000 ? 2 : 1; }

// UTF-16 units of a UTF-8 string, counting no further than `limit`.
std::size_t utf8_units(const char* s, std::size_t limit) {
    auto* u = reinterpret_cast<const unsigned char*>(s);
    std::size_t n = 0;
    while (*u) {
        const unsigned char* before = u;
        std::size_t k = static_cast<std::size_t>(utf16_units(decode_utf8(u)));
        if (n + k > limit) {
            u = before;
            break;
        }
        n += k;
    }
    return n;
}

void put_utf8(Out& o, const char* s, std::size_t units) {
    auto* u = reinterpret_cast<const unsigned char*>(s);
    std::size_t done = 0;
    while (done < units && *u && o.room()) {
        char32_t cp = decode_utf8(u);
        if (cp >= 0x10000) {
            if (o.room() < 2) {  // a pair is never split
                o.full = true;
                return;
            }
            cp -= 0x10000;
            o.put(static_cast<char16_t>(0xD800 + (cp >> 10)));
            o.put(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
            done += 2;
        } else {
            o.put(static_cast<char16_t>(cp));
            ++done;
        }
    }
}

void pad(Out& o, int width, std::size_t len, char16_t c) {
    if (width > 0 && static_cast<std::size_t>(width) > len) o.fill(c, width - len);
}

// How far a string needs measuring: past the room it is cut anyway, and
// below the width the exact length decides the padding.
std::size_t scan_limit(const Out& o, const Conv& sp) {
    std::size_t need = o.room() + 1;
    if (static_cast<std::size_t>(sp.width) > need) need = static_cast<std::size_t>(sp.width);
    if (sp.prec >= 0 && static_cast<std::size_t>(sp.prec) < need) need = static_cast<std::size_t>(sp.prec);
    return need;
}

void put_wide_str(Out& o, const Conv& sp, const char16_t* s) {
    if (!s) s = u"(null)";
    std::size_t len = 0;
    std::size_t max = scan_limit(o, sp);
    while (len < max && s[len]) ++len;
    if (!sp.left) pad(o, sp.width, len, u' ');
    o.write(s, len);
    if (sp.left) pad(o, sp.width, len, u' ');
}

void put_narrow_str(Out& o, const Conv& sp, const char* s) {
    if (!s) s = "(null)";
    std::size_t len = utf8_units(s, scan_limit(o, sp));
    if (!sp.left) pad(o, sp.width, len, u' ');
    put_utf8(o, s, len);
    if (sp.left) pad(o, sp.width, len, u' ');
}

void put_char(Out& o, const Conv& sp, char16_t c) {
    if (!sp.left) pad(o, sp.width, 1, u' ');
    o.put(c);
    if (sp.left) pad(o, sp.width, 1, u' ');
}

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

int read_number(const char16_t*& f) {
    int v = 0;
    while (*f >= u'0' && *f <= u'9') {
        if (v < kMaxWidth) v = v * 10 + (*f - u'0');
        ++f;
    }
    return v > kMaxWidth ? kMaxWidth : v;
}

}  // namespace

std::size_t vwformat(char16_t* out, std::size_t cap, const char16_t* fmt, std::va_list ap_in) {
    if (!out || cap == 0) return 0;
    Out o{out, cap};
    if (!fmt) {
        out[0] = 0;
        return 0;
    }
    std::va_list ap;
    va_copy(ap, ap_in);
    const char16_t* f = fmt;
    while (*f && !o.full) {
        if (*f != u'%') {
            const char16_t* run = f;
            while (*f && *f != u'%') ++f;
            o.write(run, static_cast<std::size_t>(f - run));
            continue;
        }
        const char16_t* start = f++;
        Conv sp;
        for (;; ++f) {
            if (*f == u'-') sp.left = true;
            else if (*f == u'+') sp.plus = true;
            else if (*f == u' ') sp.space = true;
            else if (*f == u'#') sp.alt = true;
            else if (*f == u'0') sp.zero = true;
            else break;
        }
        if (*f == u'*') {
            ++f;
            int w = va_arg(ap, int);
            if (w < 0) {
                sp.left = true;
                w = w < -kMaxWidth ? kMaxWidth : -w;
            }
            sp.width = w > kMaxWidth ? kMaxWidth : w;
        } else {
            sp.width = read_number(f);
        }
        if (*f == u'.') {
            ++f;
            if (*f == u'*') {
                ++f;
                int p = va_arg(ap, int);
                sp.prec = p < 0 ? -1 : p > kMaxWidth ? kMaxWidth : p;
            } else {
                sp.prec = read_number(f);
            }
        }
        switch (*f) {
            case u'h':
                ++f;
                sp.len = Len::h;
                if (*f == u'h') ++f, sp.len = Len::hh;
                break;
            case u'l':
                ++f;
                sp.len = Len::l;
                if (*f == u'l') ++f, sp.len = Len::ll;
                break;
            case u'w':
                ++f, sp.len = Len::l;
                break;
            case u'j':
                ++f, sp.len = Len::ll;
                break;
            case u'z':
            case u't':
                ++f, sp.len = Len::z;
                break;
            case u'L':
                ++f, sp.len = Len::L;
                break;
            case u'I':
                if (f[1] == u'6' && f[2] == u'4') f += 3, sp.len = Len::ll;
                else if (f[1] == u'3' && f[2] == u'2') f += 3, sp.len = Len::None;
                else ++f, sp.len = Len::z;
                break;
            default:
                break;
        }
        char16_t c = *f;
        if (c) ++f;
        switch (c) {
            case u'd':
            case u'i': {
                std::int64_t v;
                switch (sp.len) {
                    case Len::hh: v = static_cast<signed char>(va_arg(ap, int)); break;
                    case Len::h: v = static_cast<short>(va_arg(ap, int)); break;
                    case Len::ll:
                    case Len::L: v = va_arg(ap, long long); break;
                    case Len::z: v = static_cast<std::int64_t>(va_arg(ap, std::intptr_t)); break;
                    default: v = va_arg(ap, int); break;
                }
                std::uint64_t mag = v < 0 ? 0 - static_cast<std::uint64_t>(v) : static_cast<std::uint64_t>(v);
                put_int(o, sp, mag, v < 0, 'd');
                break;
            }
            case u'u':
            case u'x':
            case u'X':
            case u'o': {
                std::uint64_t v;
                switch (sp.len) {
                    case Len::hh: v = static_cast<unsigned char>(va_arg(ap, unsigned)); break;
                    case Len::h: v = static_cast<unsigned short>(va_arg(ap, unsigned)); break;
                    case Len::ll:
                    case Len::L: v = va_arg(ap, unsigned long long); break;
                    case Len::z: v = va_arg(ap, std::uintptr_t); break;
                    default: v = va_arg(ap, unsigned); break;
                }
                put_int(o, sp, v, false, static_cast<char>(c));
                break;
            }
            case u'c':
                if (sp.len == Len::h || sp.len == Len::hh)
                    put_char(o, sp, static_cast<unsigned char>(va_arg(ap, int)));
                else
                    put_char(o, sp, static_cast<char16_t>(va_arg(ap, int)));
                break;
            case u'C':
                if (sp.len == Len::l) put_char(o, sp, static_cast<char16_t>(va_arg(ap, int)));
                else put_char(o, sp, static_cast<unsigned char>(va_arg(ap, int)));
                break;
            case u's':
                if (sp.len == Len::h || sp.len == Len::hh) put_narrow_str(o, sp, va_arg(ap, const char*));
                else put_wide_str(o, sp, va_arg(ap, const char16_t*));
                break;
            case u'S':
                if (sp.len == Len::l) put_wide_str(o, sp, va_arg(ap, const char16_t*));
                else put_narrow_str(o, sp, va_arg(ap, const char*));
                break;
            case u'p':
                put_pointer(o, sp, reinterpret_cast<std::uintptr_t>(va_arg(ap, void*)));
                break;
            case u'f':
            case u'F':
            case u'e':
            case u'E':
            case u'g':
            case u'G':
            case u'a':
            case u'A': {
                double v = sp.len == Len::L ? static_cast<double>(va_arg(ap, long double)) : va_arg(ap, double);
                put_float(o, sp, v, static_cast<char>(c));
                break;
            }
            case u'%':
                o.put(u'%');
                break;
            case u'n':
                (void)va_arg(ap, void*);
                break;
            default:
                // Unknown or cut-off conversion: show it as written.
                o.write(start, static_cast<std::size_t>(f - start));
                break;
        }
    }
    va_end(ap);
    out[o.n] = 0;
    return o.n;
}

std::size_t wformat(char16_t* out, std::size_t cap, const char16_t* fmt, ...) {
    std::va_list ap;
    va_start(ap, fmt);
    std::size_t n = vwformat(out, cap, fmt, ap);
    va_end(ap);
    return n;
}

std::size_t utf16_to_utf8(const char16_t* in, char* out, std::size_t cap) {
    if (!out || cap == 0) return 0;
    std::size_t n = 0;
    if (in) {
        for (std::size_t i = 0; in[i]; ++i) {
            char32_t c = in[i];
            if (c < 0x80) {
                if (n + 1 >= cap) break;
                out[n++] = static_cast<char>(c);
                continue;
            }
            if (c >= 0xD800 && c <= 0xDBFF && in[i + 1] >= 0xDC00 && in[i + 1] <= 0xDFFF) {
                c = 0x10000 + ((c - 0xD800) << 10) + (in[i + 1] - 0xDC00);
                ++i;
            } else if (c >= 0xD800 && c <= 0xDFFF) {
                c = 0xFFFD;  // a lone surrogate
            }
            std::size_t k = c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
            if (n + k >= cap) break;
            if (k == 2) {
                out[n++] = static_cast<char>(0xC0 | (c >> 6));
            } else if (k == 3) {
                out[n++] = static_cast<char>(0xE0 | (c >> 12));
                out[n++] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            } else {
                out[n++] = static_cast<char>(0xF0 | (c >> 18));
                out[n++] = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
                out[n++] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            }
            out[n++] = static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    out[n] = 0;
    return n;
}

std::size_t utf8_to_utf16(const char* in, char16_t* out, std::size_t cap) {
    if (!out || cap == 0) return 0;
    Out o{out, cap};
    if (in) put_utf8(o, in, SIZE_MAX);
    out[o.n] = 0;
    return o.n;
}

}  // namespace zor
