// Directories, environment, file enumeration and the debugger channel.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fnmatch.h>
#include <limits.h>
#include <string>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "os/posix/posix_internal.h"

namespace zor::os {

namespace posix {
bool exe_path(char* out, std::size_t cap) {
    ssize_t n = readlink("/proc/self/exe", out, cap - 1);
    if (n <= 0 || static_cast<std::size_t>(n) >= cap - 1) return false;
    out[n] = 0;
    return true;
}

bool runs_from_usr_bin() {
    char path[PATH_MAX];
    const char* slash = exe_path(path, sizeof path) ? std::strrchr(path, '/') : nullptr;
    return slash && slash - path == 8 && std::strncmp(path, "/usr/bin", 8) == 0;
}
}  // namespace posix

bool startup_dir(char16_t* buf, std::uint32_t size) {
    char path[PATH_MAX];
    if (!posix::exe_path(path, sizeof path)) return false;
    char* slash = std::strrchr(path, '/');
    if (!slash) return false;
    *(slash == path ? slash + 1 : slash) = 0;  // keep "/" for the root
    return posix::to_utf16_path(path, buf, size);
}

bool config_dir(char16_t* buf, std::uint32_t size) {
    return posix::runs_from_usr_bin() ? posix::to_utf16_path("/etc/zor", buf, size) : startup_dir(buf, size);
}

namespace {
bool owned_and_closed(const char* path, bool folder) {
    struct stat st;
    if (lstat(path, &st) != 0 || (folder ? !S_ISDIR(st.st_mode) : !S_ISREG(st.st_mode))) return false;
    return (st.st_uid == 0 || st.st_uid == geteuid()) && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}
}  // namespace

bool file_is_own(const char16_t* path) {
    char file[PATH_MAX];
    struct stat st;
    return path && posix::to_utf8(path, file, sizeof file, true) && lstat(file, &st) == 0 && S_ISREG(st.st_mode) &&
           st.st_uid == geteuid();
}

bool file_protected(const char16_t* path) {
    char file[PATH_MAX];
    if (!path || !posix::to_utf8(path, file, sizeof file, true)) return false;
    char* slash = std::strrchr(file, '/');
    if (!slash || slash == file) return false;
    *slash = 0;
    char folder[PATH_MAX];
    if (!realpath(file, folder) || !owned_and_closed(folder, true)) return false;
    *slash = '/';
    return owned_and_closed(file, false);
}

// Directories come back with '\\' separators like every path the layer
// hands out. $APPDATA first (tests and users can point it anywhere), then
// the XDG configuration (or state) folder.
namespace {
bool xdg_dir(const char* xdg, const char* underHome, char16_t* buf, std::uint32_t size) {
    std::string dir;
    if (const char* v = std::getenv("APPDATA"); v && *v) {
        dir = v;
    } else if (const char* x = std::getenv(xdg); x && *x) {
        dir = x;
    } else if (const char* h = std::getenv("HOME"); h && *h) {
        dir = std::string(h) + underHome;
    } else {
        return false;
    }
    while (dir.size() > 1 && (dir.back() == '/' || dir.back() == '\\')) dir.pop_back();
    return posix::to_utf16_path(dir.c_str(), buf, size);
}
}  // namespace

bool user_appdata_dir(char16_t* buf, std::uint32_t size) {
    return xdg_dir("XDG_CONFIG_HOME", "/.config", buf, size);
}

bool user_state_dir(char16_t* buf, std::uint32_t size) {
    return xdg_dir("XDG_STATE_HOME", "/.local/state", buf, size);
}

bool env_get(const char* name, char16_t* buf, std::uint32_t size) {
    const char* v = std::getenv(name);
    if (!v) {
        errno = ENOENT;
        if (size) buf[0] = 0;
        return false;
    }
    if (!posix::to_utf16(v, buf, size)) {
        errno = ERANGE;
        return false;
    }
    return true;
}

bool env_set(const char* name, const char16_t* value) {
    if (!value) return unsetenv(name) == 0;
    char v[32768];
    if (!posix::to_utf8(value, v, sizeof v, false)) {
        errno = ERANGE;
        return false;
    }
    return setenv(name, v, 1) == 0;
}

void debug_output(const char16_t*) {}

// Names are matched without regard to case, as on Windows, and visited in
// case-insensitive name order so that every run sees the same sequence.
void enumerate_files(const char16_t* pattern, FileVisitor visit, void* ctx) {
    char path[PATH_MAX];
    if (!pattern || !posix::to_utf8(pattern, path, sizeof path, true)) return;
    char* slash = std::strrchr(path, '/');
    const char* dir = ".";
    const char* mask = path;
    if (slash) {
        *slash = 0;
        dir = slash == path ? "/" : path;
        mask = slash + 1;
    }
    // Windows wildcards are only '*' and '?': brackets match themselves.
    std::string glob;
    for (const char* c = mask; *c; ++c) {
        if (*c == '[') glob += "[[]";
        else glob += *c;
    }
    DIR* d = opendir(dir);
    if (!d) return;
    std::vector<std::string> names;
    while (dirent* e = readdir(d)) {
        if (fnmatch(glob.c_str(), e->d_name, FNM_CASEFOLD | FNM_NOESCAPE) != 0) continue;
        struct stat st;
        if (fstatat(dirfd(d), e->d_name, &st, 0) != 0 || !S_ISREG(st.st_mode)) continue;
        names.emplace_back(e->d_name);
    }
    closedir(d);
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        int c = strcasecmp(a.c_str(), b.c_str());
        return c != 0 ? c < 0 : a < b;
    });
    for (const std::string& n : names) {
        char16_t name[NAME_MAX + 1];
        if (posix::to_utf16(n.c_str(), name, NAME_MAX + 1)) visit(ctx, name);
    }
}

}  // namespace zor::os
