// The active-pair list parser.
#include "support/log_active.h"

namespace zor::logdetail {
namespace {

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

bool EqualsNoCase(const char* b, const char* e, const char* word) {
    for (; b < e && *word; ++b, ++word) {
        char c = *b >= 'A' && *b <= 'Z' ? static_cast<char>(*b + 32) : *b;
        if (c != *word) return false;
    }
    return b == e && !*word;
}

// '*' (-1) or a decimal number not above max.
bool ParseField(const char*& p, const char* e, int max, int* out) {
    if (p < e && *p == '*') {
        ++p;
        *out = -1;
        return true;
    }
    int v = 0, digits = 0;
    for (; p < e && *p >= '0' && *p <= '9'; ++p, ++digits) {
        v = v * 10 + (*p - '0');
        if (v > max) return false;
    }
    *out = v;
    return digits > 0;
}

bool ApplyItem(const char* b, const char* e, bool first, ActiveSet& a) {
    if (EqualsNoCase(b, e, "all") || EqualsNoCase(b, e, "*")) {
        a.Fill(true);
        return true;
    }
    if (EqualsNoCase(b, e, "none")) {
        a.Fill(false);
        return true;
    }
    bool on = true;
    if (b < e && (*b == '-' || *b == '+')) on = *b++ == '+';
    if (first) a.Fill(!on);
    int level, mask = -1;
    if (!ParseField(b, e, kLevels - 1, &level)) return false;
    if (b < e && *b == ':') {
        ++b;
        if (!ParseField(b, e, 63, &mask)) return false;
    }
    if (b != e) return false;
    for (int r = 0; r < kRows; ++r) {
        if (level >= 0 && r != level) continue;
        std::uint64_t bits = mask < 0 ? ~std::uint64_t{0} : std::uint64_t{1} << mask;
        a.low[r] = on ? a.low[r] | bits : a.low[r] & ~bits;
        if (mask < 0) a.high[r] = on;
    }
    return true;
}

}  // namespace

bool ParseActive(const char* list, ActiveSet& a) {
    a.Fill(true);
    if (!list) return true;
    const char* p = list;
    while (IsSpace(*p)) ++p;
    if (!*p) return true;
    bool first = true;
    for (;;) {
        const char* b = p;
        while (*p && *p != ',') ++p;
        const char* e = p;
        while (b < e && IsSpace(*b)) ++b;
        while (e > b && IsSpace(e[-1])) --e;
        if (b == e || !ApplyItem(b, e, first, a)) return false;
        first = false;
        if (!*p) return true;
        ++p;
    }
}

}  // namespace zor::logdetail
