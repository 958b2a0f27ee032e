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

#include <cstdint>

#include "support/wformat_conversions.h"

namespace zor {

using namespace wformat_detail;

namespace {

constexpr int kMaxWidth = 1 << 20;

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

}  // namespace zor
