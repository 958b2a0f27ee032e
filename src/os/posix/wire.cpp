// Where hosts put their command sockets, and their names.
#include "os/posix/wire.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace zor::os::posix::wire {

bool runtime_dir(char* out, std::size_t cap) {
    int n = 0;
    if (const char* own = std::getenv("ZOR_RUNTIME_DIR"); own && *own)
        n = std::snprintf(out, cap, "%s", own);
    else if (const char* xdg = std::getenv("XDG_RUNTIME_DIR"); xdg && *xdg)
        n = std::snprintf(out, cap, "%s/zor", xdg);
    else if (geteuid() == 0)
        n = std::snprintf(out, cap, "/run/zor");
    else
        n = std::snprintf(out, cap, "/tmp/zor-%u", static_cast<unsigned>(geteuid()));
    return n > 0 && static_cast<std::size_t>(n) < cap;
}

bool socket_path(std::uint32_t pid, char* out, std::size_t cap) {
    char dir[256];
    if (!runtime_dir(dir, sizeof dir)) return false;
    int n = std::snprintf(out, cap, "%s/zor-%u.sock", dir, static_cast<unsigned>(pid));
    return n > 0 && static_cast<std::size_t>(n) < cap;
}

std::uint32_t socket_pid(const char* name) {
    if (std::strncmp(name, "zor-", 4) != 0) return 0;
    std::uint64_t pid = 0;
    const char* p = name + 4;
    for (; *p >= '0' && *p <= '9'; ++p) {
        pid = pid * 10 + static_cast<unsigned>(*p - '0');
        if (pid > 0xFFFFFFFFu) return 0;
    }
    if (p == name + 4 || std::strcmp(p, ".sock") != 0) return 0;
    return static_cast<std::uint32_t>(pid);
}

}  // namespace zor::os::posix::wire
