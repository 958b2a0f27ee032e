// The command-line switch finder. The case rule is deliberate: each
// command-line character must equal the keyword's upper-case character plus
// 32, so "-hide" matches and "-HIDE" does not.
#include "host/config.h"

namespace zor {

const char16_t* FindSwitch(const char16_t* commandLine, const char16_t* upperKeyword) {
    if (!commandLine || !upperKeyword) return nullptr;
    for (const char16_t* p = commandLine; *p; ++p) {
        if (*p != u'/' && *p != u'-') continue;
        const char16_t* c = p + 1;
        const char16_t* k = upperKeyword;
        // The terminator of the command line never equals a letter + 32, so
        // the comparison stops there by itself.
        while (*k && *c == static_cast<char16_t>(*k + 32)) {
            ++c;
            ++k;
        }
        if (!*k) return c;
        // Mismatch: go on right after this '/' or '-'.
    }
    return nullptr;
}

}  // namespace zor
