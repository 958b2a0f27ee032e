// The text conversions of the host's printf (%s %S %c %C) and the bounded
// UTF-8 / UTF-16 conversions, which share its UTF-8 decoder.
#include <cstdint>

#include "support/wformat.h"
#include "support/wformat_conversions.h"

namespace zor {
namespace wformat_detail {
namespace {

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

// How far a string needs measuring: past the room it is cut anyway, and
// below the width the exact length decides the padding.
std::size_t scan_limit(const Out& o, const Conv& sp) {
    std::size_t need = o.room() + 1;
    if (static_cast<std::size_t>(sp.width) > need) need = static_cast<std::size_t>(sp.width);
    if (sp.prec >= 0 && static_cast<std::size_t>(sp.prec) < need) need = static_cast<std::size_t>(sp.prec);
    return need;
}

}  // namespace

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

}  // namespace wformat_detail

using wformat_detail::Out;

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
