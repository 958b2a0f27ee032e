#include "control/module_policy.h"

#include "support/log.h"
#include "support/wformat.h"

namespace zor {

namespace {
constexpr std::uint32_t kPath = 300;

bool Equal(const char16_t* a, const char16_t* b) {
    for (; *a && *a == *b; ++a, ++b) {}
    return *a == *b;
}

// The module folder with a separator at its end; false when none is known.
bool Folder(const char16_t* dir, char16_t* out) {
    if (dir && dir[0]) {
        wformat(out, kPath, u"%s", dir);
    } else if (!os::startup_dir(out, kPath)) {
        return false;
    }
    std::uint32_t n = 0;
    while (out[n]) ++n;
    if (n > 0 && out[n - 1] != u'\\' && out[n - 1] != u'/' && n + 1 < kPath) {
        out[n] = u'\\';
        out[n + 1] = 0;
    }
    return n > 0;
}
}  // namespace

bool BareModuleName(const char16_t* name) {
    if (!name[0] || Equal(name, u".") || Equal(name, u"..")) return false;
    for (const char16_t* p = name; *p; ++p)
        if (*p == u'/' || *p == u'\\' || *p == u':') return false;
    return true;
}

os::Module LoadModuleFor(os::Peer& peer, const char16_t* dir, const char16_t* name, Logger& log) {
    const bool bare = BareModuleName(name);
    char16_t folder[kPath], path[kPath];
    const bool inFolder = bare && Folder(dir, folder) && wformat(path, kPath, u"%s%s", folder, name) > 0;
    if (peer.Trusted()) {
        if (inFolder && dir && dir[0]) {
            if (os::Module m = os::module_load(path)) return m;
        }
        return os::module_load(name);
    }
    if (!inFolder || !os::file_protected(path)) {
        log.wPrintf(kLogError,
                    u"ZOR: module '%s' refused for peer pid %u uid %u: only a protected file of the module "
                    u"folder, by name\n\r",
                    name, peer.Pid(), peer.Uid());
        return nullptr;
    }
    return os::module_load(path);
}

}  // namespace zor
