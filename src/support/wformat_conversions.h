// What the format walker (wformat.cpp) and the conversions share: the
// writer over the caller's buffer, one conversion's flags, and the
// conversions themselves (strings and characters in wformat_text.cpp,
// numbers in wformat_numbers.cpp).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace zor::wformat_detail {

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

// Pads with `c` up to `width` units after `len` units.
void pad(Out& o, int width, std::size_t len, char16_t c);
// `units` UTF-16 units of a UTF-8 string; a surrogate pair is never split.
void put_utf8(Out& o, const char* s, std::size_t units);
void put_wide_str(Out& o, const Conv& sp, const char16_t* s);
void put_narrow_str(Out& o, const Conv& sp, const char* s);
void put_char(Out& o, const Conv& sp, char16_t c);
// conv: 'd' (signed, `neg` tells the sign), 'u', 'x', 'X' or 'o'.
void put_int(Out& o, const Conv& sp, std::uint64_t mag, bool neg, char conv);
void put_pointer(Out& o, const Conv& sp, std::uintptr_t v);
// conv: one of f F e E g G a A.
void put_float(Out& o, const Conv& sp, double v, char conv);

}  // namespace zor::wformat_detail
