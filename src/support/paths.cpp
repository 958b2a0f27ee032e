#include "support/paths.h"

#include <cstring>

#include "os/os.h"
#include "support/wstr.h"

namespace zor {

namespace {
constexpr std::uint32_t kPathUnits = 260;
constexpr const char16_t* kAppDataToken = u"?{UserCompanyAppData}";
}  // namespace

bool FU_GetProcessStartupDir(char16_t* buffer) {
    if (!buffer) return false;
    if (os::startup_dir(buffer, kPathUnits)) return true;
    buffer[0] = 0;
    return false;
}

// The host's path buffers hold 260 units; the separator is added only when
// the result still fits with its terminator.
char16_t* FU_FormatPath(char16_t* buffer, char16_t separator) {
    if (!buffer) return buffer;
    std::size_t n = wnlen(buffer, kPathUnits);
    if (n == kPathUnits) return buffer;  // not terminated within 260: leave it
    if ((n == 0 || buffer[n - 1] != separator) && n + 1 < kPathUnits) {
        buffer[n] = separator;
        buffer[n + 1] = 0;
    }
    return buffer;
}

bool FU_ReplacePath(char16_t* buffer, std::uint32_t size) {
    if (!buffer || size == 0) return false;
    std::size_t len = wnlen(buffer, size);
    if (len == size) return false;
    if (len < 2 || buffer[0] != u'?' || buffer[1] != u'{') return true;  // no token
    std::size_t tokenLen = wlen(kAppDataToken);
    for (std::size_t i = 0; i < tokenLen; ++i)
        if (buffer[i] != kAppDataToken[i]) return false;  // an unknown token

    char16_t out[2 * kPathUnits];
    if (!os::user_appdata_dir(out, kPathUnits)) return false;
    wappend(out, sizeof out / sizeof out[0], u"\\");
    wappend(out, sizeof out / sizeof out[0], kCompanyFolder);
    wappend(out, sizeof out / sizeof out[0], u"\\");
    std::size_t head = wlen(out);
    if (head + (len - tokenLen) + 1 > size) return false;
    // The rest (with its terminator) moves first; the expansion may be
    // shorter or longer than the token.
    std::memmove(buffer + head, buffer + tokenLen, (len - tokenLen + 1) * sizeof(char16_t));
    std::memcpy(buffer, out, head * sizeof(char16_t));
    return true;
}

}  // namespace zor
