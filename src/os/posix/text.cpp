// UTF-16 <-> UTF-8 conversion for everything that crosses to the system.
// Lone surrogates become U+FFFD; nothing allocates.
#include "os/posix/posix_internal.h"

namespace zor::os::posix {

bool to_utf8(const char16_t* s, char* out, std::size_t cap, bool path) {
    if (cap == 0) return false;
    std::size_t o = 0;
    auto put = [&](unsigned c) {
        if (o + 1 >= cap) return false;
        out[o++] = static_cast<char>(c);
        return true;
    };
    for (std::size_t i = 0; s && s[i]; ++i) {
        std::uint32_t c = s[i];
        if (c >= 0xD800 && c <= 0xDBFF && s[i + 1] >= 0xDC00 && s[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (s[i + 1] - 0xDC00);
            ++i;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = 0xFFFD;
        }
        if (path && c == u'\\') c = '/';
        bool ok;
        if (c < 0x80) {
            ok = put(c);
        } else if (c < 0x800) {
            ok = put(0xC0 | (c >> 6)) && put(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            ok = put(0xE0 | (c >> 12)) && put(0x80 | ((c >> 6) & 0x3F)) && put(0x80 | (c & 0x3F));
        } else {
            ok = put(0xF0 | (c >> 18)) && put(0x80 | ((c >> 12) & 0x3F)) &&
                 put(0x80 | ((c >> 6) & 0x3F)) && put(0x80 | (c & 0x3F));
        }
        if (!ok) {
            out[0] = 0;
            return false;
        }
    }
    out[o] = 0;
    return true;
}

namespace {
// Decodes one code point at s[*i] (advancing *i); invalid bytes give U+FFFD.
std::uint32_t decode(const unsigned char* s, std::size_t n, std::size_t* i) {
    unsigned c = s[(*i)++];
    if (c < 0x80) return c;
    int more = c >= 0xF0 && c < 0xF8 ? 3 : c >= 0xE0 ? 2 : c >= 0xC0 ? 1 : -1;
    if (more < 0) return 0xFFFD;
    std::uint32_t cp = c & (0x3F >> more);
    for (int k = 0; k < more; ++k) {
        if (*i >= n || (s[*i] & 0xC0) != 0x80) return 0xFFFD;
        cp = (cp << 6) | (s[(*i)++] & 0x3F);
    }
    return cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF) ? 0xFFFD : cp;
}
}  // namespace

bool to_utf16(const char* s, std::size_t n, char16_t* out, std::size_t cap) {
    if (cap == 0) return false;
    const auto* u = reinterpret_cast<const unsigned char*>(s);
    std::size_t o = 0;
    for (std::size_t i = 0; i < n;) {
        std::uint32_t cp = decode(u, n, &i);
        std::size_t need = cp >= 0x10000 ? 2 : 1;
        if (o + need >= cap) {
            out[0] = 0;
            return false;
        }
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out[o++] = static_cast<char16_t>(0xD800 + (cp >> 10));
            out[o++] = static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
        } else {
            out[o++] = static_cast<char16_t>(cp);
        }
    }
    out[o] = 0;
    return true;
}

bool to_utf16_path(const char* s, char16_t* out, std::size_t cap) {
    if (!to_utf16(s, out, cap)) return false;
    for (; *out; ++out)
        if (*out == u'/') *out = u'\\';
    return true;
}

}  // namespace zor::os::posix
