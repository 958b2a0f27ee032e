// Where hosts put their command sockets, and their names.
#include "os/posix/wire.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
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

const char* folder_problem(const char* dir, std::uint32_t* owner) {
    struct stat st;
    if (lstat(dir, &st) != 0) return "it cannot be examined";
    *owner = st.st_uid;
    if (S_ISLNK(st.st_mode)) return "it is a symbolic link";
    if (!S_ISDIR(st.st_mode)) return "it is not a folder";
    if (st.st_mode & (S_IWGRP | S_IWOTH)) return "others may write to it";
    return nullptr;
}

bool owner_trusted(std::uint32_t owner, std::uint32_t self) {
    constexpr std::uint32_t kFirstUserUid = 1000;
    return owner == self || owner < kFirstUserUid;
}

bool socket_path(std::uint32_t pid, char* out, std::size_t cap) {
    char dir[256];
    return runtime_dir(dir, sizeof dir) && socket_path_in(dir, pid, out, cap);
}

bool socket_path_in(const char* dir, std::uint32_t pid, char* out, std::size_t cap) {
    int n = std::snprintf(out, cap, "%s/zor-%u.sock", dir, static_cast<unsigned>(pid));
    return n > 0 && static_cast<std::size_t>(n) < cap;
}

// A user's own hosts live in the user's folder, the packaged service's in
// /run/zor: a member of its group reaches both without setting anything.
bool search_dir(int index, char* out, std::size_t cap) {
    constexpr const char* kSystemDir = "/run/zor";
    if (index == 0) return runtime_dir(out, cap);
    if (index != 1 || std::getenv("ZOR_RUNTIME_DIR") || cap <= std::strlen(kSystemDir)) return false;
    if (runtime_dir(out, cap) && std::strcmp(out, kSystemDir) == 0) return false;
    std::strcpy(out, kSystemDir);
    return true;
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

void attach_descriptors(msghdr* msg, Control* control, const int* fds, int n) {
    if (n <= 0) return;
    std::memset(control, 0, sizeof *control);
    msg->msg_control = control->bytes;
    msg->msg_controllen = CMSG_SPACE(sizeof(int) * n);
    cmsghdr* c = CMSG_FIRSTHDR(msg);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof(int) * n);
    std::memcpy(CMSG_DATA(c), fds, sizeof(int) * n);
}

bool take_descriptors(msghdr* msg, int* fds, int* n) {
    bool ok = (msg->msg_flags & MSG_CTRUNC) == 0;
    *n = 0;
    for (cmsghdr* c = CMSG_FIRSTHDR(msg); c; c = CMSG_NXTHDR(msg, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
        const std::size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (std::size_t i = 0; i < count; ++i) {
            int fd;
            std::memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof fd);
            if (*n < kMaxDescriptors) {
                fds[(*n)++] = fd;
            } else {
                close(fd);
                ok = false;
            }
        }
    }
    return ok;
}

}  // namespace zor::os::posix::wire
