#include "support/wstr.h"

namespace zor {

std::size_t wlen(const char16_t* s) {
    if (!s) return 0;
    std::size_t n = 0;
    while (s[n]) ++n;
    return n;
}

std::size_t wnlen(const char16_t* s, std::size_t max) {
    if (!s) return 0;
    std::size_t n = 0;
    while (n < max && s[n]) ++n;
    return n;
}

void wcopy(char16_t* dst, std::size_t cap, const char16_t* src) {
    if (!dst || cap == 0) return;
    std::size_t n = 0;
    if (src)
        for (; n + 1 < cap && src[n]; ++n) dst[n] = src[n];
    dst[n] = 0;
}

void wappend(char16_t* dst, std::size_t cap, const char16_t* src) {
    if (!dst || cap == 0) return;
    std::size_t n = wnlen(dst, cap);
    if (n == cap) {  // not terminated within cap: make it so
        dst[cap - 1] = 0;
        return;
    }
    wcopy(dst + n, cap - n, src);
}

namespace {
// Lower case for Basic Latin and Latin-1 letters (not U+00D7 and U+00F7,
// which are signs).
char16_t fold(char16_t c) {
    if (c >= u'A' && c <= u'Z') return static_cast<char16_t>(c + 32);
    if (c >= 0xC0 && c <= 0xDE && c != 0xD7) return static_cast<char16_t>(c + 32);
    return c;
}
}  // namespace

int wicmp(const char16_t* a, const char16_t* b) {
    if (!a || !b) return a == b ? 0 : a ? 1 : -1;
    for (;; ++a, ++b) {
        int ca = fold(*a), cb = fold(*b);
        if (ca != cb || !ca) return ca - cb;
    }
}

bool wequal(const char16_t* a, const char16_t* b) {
    if (!a || !b) return a == b;
    for (; *a == *b; ++a, ++b)
        if (!*a) return true;
    return false;
}

const char16_t* wfile_part(const char16_t* path, bool slashes) {
    if (!path) return path;
    const char16_t* part = path;
    for (const char16_t* p = path; *p; ++p)
        if (*p == u'\\' || (slashes && *p == u'/')) part = p + 1;
    return part;
}

}  // namespace zor
