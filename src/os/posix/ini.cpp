// Reading configuration files with the rules of GetPrivateProfileStringW /
// GetPrivateProfileIntW, so that a file behaves the same under both builds:
// - sections and keys match without regard to case and surrounding blanks
//   (in the file and in the request); keys before the first section form a
//   section with an empty name; only the first section of a name is
//   searched; ';' is no comment mark, it is simply part of the key;
// - whitespace around keys and values is dropped, CRLF and LF end lines;
// - a value enclosed in matching double or single quotes loses them (with
//   the system's quirk when the value is cut, see copy_value);
// - UTF-8 with or without a byte-order mark, UTF-16LE/BE with one.
// Checked case by case against the Windows profile reader under Wine.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <vector>

#include "os/posix/posix_internal.h"

namespace zor::os {

namespace {

constexpr long kMaxFileBytes = 16L << 20;

bool is_space(char16_t c) {
    return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n' || c == u'\v' || c == u'\f' ||
           c == 0x1A;
}

char16_t fold(char16_t c) {
    if (c >= u'a' && c <= u'z') return static_cast<char16_t>(c - 32);
    if (c >= 0xE0 && c <= 0xFE && c != 0xF7) return static_cast<char16_t>(c - 32);
    return c;
}

struct Span {
    const char16_t* p;
    std::size_t n;
};

Span trim(Span s) {
    while (s.n && is_space(s.p[0])) ++s.p, --s.n;
    while (s.n && is_space(s.p[s.n - 1])) --s.n;
    return s;
}

bool same(Span a, Span b) {
    if (a.n != b.n) return false;
    for (std::size_t i = 0; i < a.n; ++i)
        if (fold(a.p[i]) != fold(b.p[i])) return false;
    return true;
}

Span span(const char16_t* s) {
    Span r{s, 0};
    while (s[r.n]) ++r.n;
    return r;
}

// The whole file as UTF-16; false when it cannot be read.
bool load(const char16_t* file, std::vector<char16_t>* text) {
    char path[PATH_MAX];
    if (!file || !posix::to_utf8(file, path, sizeof path, true)) {
        errno = ENOENT;
        return false;
    }
    std::FILE* f = std::fopen(path, "rb");
    if (!f) return false;
    std::vector<unsigned char> raw;
    unsigned char chunk[4096];
    std::size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, f)) > 0) {
        raw.insert(raw.end(), chunk, chunk + got);
        if (raw.size() > static_cast<std::size_t>(kMaxFileBytes)) break;
    }
    std::fclose(f);
    std::size_t n = raw.size();
    const unsigned char* b = raw.data();
    if (n >= 2 && ((b[0] == 0xFF && b[1] == 0xFE) || (b[0] == 0xFE && b[1] == 0xFF))) {
        bool le = b[0] == 0xFF;
        for (std::size_t i = 2; i + 1 < n; i += 2)
            text->push_back(static_cast<char16_t>(le ? b[i] | (b[i + 1] << 8)
                                                     : (b[i] << 8) | b[i + 1]));
        return true;
    }
    std::size_t skip = n >= 3 && b[0] == 0xEF && b[1] == 0xBB && b[2] == 0xBF ? 3 : 0;
    text->assign(n - skip + 1, 0);
    if (!posix::to_utf16(reinterpret_cast<const char*>(b + skip), n - skip, text->data(),
                         text->size()))
        return false;
    text->resize(text->size() - 1);
    return true;
}

// Finds the value of section/key in text (the value still with its
// quotes); false when absent.
bool find(const std::vector<char16_t>& text, Span section, Span key, Span* value) {
    bool inside = section.n == 0, found_section = inside;
    const char16_t* p = text.data();
    const char16_t* end = p + text.size();
    while (p < end) {
        const char16_t* eol = p;
        while (eol < end && *eol != u'\n' && *eol != 0) ++eol;
        Span line = trim({p, static_cast<std::size_t>(eol - p)});
        p = eol + 1;
        if (line.n == 0) continue;
        if (line.p[0] == u'[') {
            std::size_t close = line.n;
            while (close > 1 && line.p[close - 1] != u']') --close;
            if (close > 1) {
                if (found_section) return false;  // the first such section ended
                inside = same(trim({line.p + 1, close - 2}), section);
                found_section = inside;
                continue;
            }
        }
        if (!inside) continue;
        std::size_t eq = 0;
        while (eq < line.n && line.p[eq] != u'=') ++eq;
        if (eq == line.n || !same(trim({line.p, eq}), key)) continue;
        *value = trim({line.p + eq + 1, line.n - eq - 1});
        return true;
    }
    return false;
}

std::uint32_t copy_out(Span v, char16_t* out, std::uint32_t outSize);

// Quotes around a value are dropped the way the system does it: the
// opening one is skipped, the value with its closing quote is cut to the
// buffer, and the last unit is dropped only when the buffer held the
// whole of it. So "abc" read into 4 units gives ab, not abc.
std::uint32_t copy_value(Span v, char16_t* out, std::uint32_t outSize) {
    bool quoted = v.n >= 2 && (v.p[0] == u'"' || v.p[0] == u'\'') && v.p[v.n - 1] == v.p[0];
    if (!quoted) return copy_out(v, out, outSize);
    Span inner{v.p + 1, v.n - 1};
    std::uint32_t n = copy_out(inner, out, outSize);
    if (outSize >= inner.n && n > 0) out[--n] = 0;
    return n;
}

std::uint32_t copy_out(Span v, char16_t* out, std::uint32_t outSize) {
    if (outSize == 0) return 0;
    std::size_t n = v.n < outSize - 1 ? v.n : outSize - 1;
    for (std::size_t i = 0; i < n; ++i) out[i] = v.p[i];
    out[n] = 0;
    return static_cast<std::uint32_t>(n);
}

}  // namespace

std::uint32_t ini_read_string(const char16_t* section, const char16_t* key, const char16_t* def,
                              char16_t* out, std::uint32_t outSize, const char16_t* file) {
    std::vector<char16_t> text;
    Span v;
    if (section && key && load(file, &text) && find(text, trim(span(section)), trim(span(key)), &v))
        return copy_value(v, out, outSize);
    // The default loses its trailing blanks, as on Windows.
    Span d{def ? def : u"", 0};
    while (d.p[d.n]) ++d.n;
    while (d.n && d.p[d.n - 1] == u' ') --d.n;
    return copy_out(d, out, outSize);
}

// A present key whose value is not a number reads as 0; an absent or
// empty one gives the default. The number is read like
// RtlUnicodeStringToInteger with base 0: optional sign, then "0x", "0o" or
// "0b" for hex, octal, binary, else decimal; leading digits only; wraps at
// 32 bits.
std::uint32_t ini_read_int(const char16_t* section, const char16_t* key, std::int32_t def,
                           const char16_t* file) {
    char16_t buf[30];
    if (ini_read_string(section, key, u"", buf, 30, file) == 0)
        return static_cast<std::uint32_t>(def);
    const char16_t* p = buf;
    while (*p && *p <= u' ') ++p;
    bool neg = false;
    if (*p == u'+' || *p == u'-') neg = *p++ == u'-';
    std::uint32_t base = 10;
    if (p[0] == u'0' && (p[1] == u'x' || p[1] == u'X')) base = 16;
    if (p[0] == u'0' && (p[1] == u'o' || p[1] == u'O')) base = 8;
    if (p[0] == u'0' && (p[1] == u'b' || p[1] == u'B')) base = 2;
    if (base != 10) p += 2;
    std::uint32_t v = 0;
    for (;; ++p) {
        char16_t c = *p;
        std::uint32_t d = c >= u'0' && c <= u'9'   ? c - u'0'
                          : c >= u'a' && c <= u'f' ? c - u'a' + 10u
                          : c >= u'A' && c <= u'F' ? c - u'A' + 10u
                                                   : 99u;
        if (d >= base) break;
        v = v * base + d;
    }
    return neg ? 0u - v : v;
}

}  // namespace zor::os
