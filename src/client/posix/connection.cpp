// The POSIX side of the client library: hosts are the sockets
// "zor-<pid>.sock" in the runtime folder whose process still runs; a
// connection holds one socket to its host.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "client/posix/link.h"
#include "os/os.h"
#include "os/posix/wire.h"

namespace zor::client {

namespace {

namespace wire = os::posix::wire;

int OpenPidfd(std::uint32_t pid) {
#ifdef SYS_pidfd_open
    const long fd = syscall(SYS_pidfd_open, static_cast<pid_t>(pid), 0);
    return fd < 0 ? -1 : AboveZero(static_cast<int>(fd));
#else
    return -1;
#endif
}

// A process descriptor turns readable when the process has ended, zombies
// included, and cannot be fooled by a reused pid.
bool Ended(int pidfd) {
    pollfd p{pidfd, POLLIN, 0};
    return poll(&p, 1, 0) != 0;
}

// Calls visit(pid, made_ns) for each live host's socket in the folders searched.
template <typename F>
void Scan(F&& visit) {
    char dir[256];
    for (int i = 0; wire::search_dir(i, dir, sizeof dir); ++i) {
        DIR* d = opendir(dir);
        if (d == nullptr) continue;
        while (dirent* e = readdir(d)) {
            const std::uint32_t pid = wire::socket_pid(e->d_name);
            if (pid == 0 || (e->d_type != DT_SOCK && e->d_type != DT_UNKNOWN)) continue;
            struct stat st;
            if (fstatat(dirfd(d), e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISSOCK(st.st_mode)) continue;
            if (os::process_alive(pid)) visit(pid, st.st_mtim.tv_sec * 1000000000ll + st.st_mtim.tv_nsec);
        }
        closedir(d);
    }
}

// The host's socket in the first folder searched that holds one.
bool FindSocket(std::uint32_t pid, char* path, std::size_t cap) {
    char dir[256];
    struct stat st;
    for (int i = 0; wire::search_dir(i, dir, sizeof dir); ++i)
        if (wire::socket_path_in(dir, pid, path, cap) && lstat(path, &st) == 0 && S_ISSOCK(st.st_mode))
            return true;
    return false;
}

int Link1(ZorConnection* c, std::uint32_t pid) {
    auto* link = new (std::nothrow) Link();
    if (link == nullptr) return ZOR_E_SYSTEM;
    const int st = FindSocket(pid, link->path, sizeof link->path) ? ConnectSocket(link, c->timeout_ms)
                                                                  : ZOR_E_NO_HOST;
    if (st != ZOR_OK) {
        delete link;
        return st;
    }
    link->pidfd = OpenPidfd(pid);
    c->link = link;
    c->host_pid = pid;
    return ZOR_OK;
}

thread_local std::uint32_t g_untrustedPid = 0, g_untrustedUid = 0;

// A socket in a folder that others may write to could be anyone's, and so
// could a folder of a user this process has no reason to trust.
bool Vouched(int sock, const char* path) {
    char dir[sizeof(sockaddr_un{}.sun_path)];
    std::snprintf(dir, sizeof dir, "%s", path);
    if (char* slash = std::strrchr(dir, '/')) *slash = 0;
    ucred cred{};
    socklen_t len = sizeof cred;
    if (getsockopt(sock, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return false;
    std::uint32_t owner = 0;
    const bool ok = !wire::folder_problem(dir, &owner) && cred.uid == owner &&
                    wire::owner_trusted(owner, static_cast<std::uint32_t>(geteuid()));
    if (!ok) NoteUntrusted(static_cast<std::uint32_t>(cred.pid), static_cast<std::uint32_t>(cred.uid));
    return ok;
}

}  // namespace

int AboveZero(int fd) {
    if (fd != 0) return fd;
    const int up = fcntl(fd, F_DUPFD_CLOEXEC, 1);
    close(fd);
    return up;
}

bool WaitFor(int fd, short events, double deadline) {
    for (;;) {
        const double left = deadline - NowMs();
        if (left <= 0) return false;
        pollfd p{fd, events, 0};
        const int r = poll(&p, 1, static_cast<int>(left) + 1);
        if (r > 0) return true;
        if (r < 0 && errno != EINTR) return false;
    }
}

bool Arm(Link* l, std::uint32_t ms) {
    if (l->armed_ms == ms) return true;
    const timeval tv{static_cast<time_t>(ms / 1000), static_cast<suseconds_t>(ms % 1000) * 1000};
    const bool ok = setsockopt(l->sock, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0 &&
                    setsockopt(l->sock, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv) == 0;
    l->armed_ms = ok ? ms : 0;
    return ok;
}

void NoteUntrusted(std::uint32_t pid, std::uint32_t uid) {
    g_untrustedPid = pid;
    g_untrustedUid = uid;
}

int ConnectSocket(Link* l, std::uint32_t timeout_ms) {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    static_assert(sizeof a.sun_path == sizeof l->path);
    std::memcpy(a.sun_path, l->path, sizeof a.sun_path);
    l->sock = AboveZero(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    l->armed_ms = 0;
    // The send time-out also bounds connect() while the host's backlog is full.
    int st = ZOR_E_NO_HOST;
    if (l->sock >= 0 && Arm(l, timeout_ms) && connect(l->sock, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0)
        st = Vouched(l->sock, l->path) ? ZOR_OK : ZOR_E_UNTRUSTED;
    if (st == ZOR_OK) return st;
    if (l->sock >= 0) close(l->sock);
    l->sock = -1;
    return st;
}

int ListHosts(std::uint32_t* pids, std::uint32_t cap, std::uint32_t* count) {
    std::uint32_t n = 0;
    Scan([&](std::uint32_t pid, std::int64_t) {
        if (pids && n < cap) pids[n] = pid;
        ++n;
    });
    *count = n;
    return ZOR_OK;
}

int Attach(ZorConnection* c, std::uint32_t host_pid, bool by_pid) {
    if (by_pid) return os::process_alive(host_pid) ? Link1(c, host_pid) : ZOR_E_NO_HOST;
    // Any host: the newest first, as a new window comes first on Windows.
    struct Found {
        std::uint32_t pid;
        std::int64_t made_ns;
    } found[64];
    std::uint32_t n = 0;
    Scan([&](std::uint32_t pid, std::int64_t made_ns) {
        if (n < 64) found[n++] = {pid, made_ns};
    });
    std::sort(found, found + n, [](const Found& a, const Found& b) { return a.made_ns > b.made_ns; });
    // A host that is not trusted is passed over for the next.
    int st = ZOR_E_NO_HOST;
    for (std::uint32_t i = 0; i < n; ++i) {
        const int one = Link1(c, found[i].pid);
        if (one == ZOR_OK) return one;
        if (one == ZOR_E_UNTRUSTED) st = one;
    }
    return st;
}

void Detach(ZorConnection* c) {
    if (c->link->sock >= 0) close(c->link->sock);
    if (c->link->pidfd >= 0) close(c->link->pidfd);
    delete c->link;
    c->link = nullptr;
}

bool HostAlive(ZorConnection* c) {
    if (c->link->pidfd < 0) return os::process_alive(c->host_pid);
    return !Ended(c->link->pidfd);
}

}  // namespace zor::client

extern "C" void zor_untrusted_peer(uint32_t* pid, uint32_t* uid) {
    if (pid) *pid = zor::client::g_untrustedPid;
    if (uid) *uid = zor::client::g_untrustedUid;
}

namespace zor::client {

std::uint32_t SelfPid() { return static_cast<std::uint32_t>(getpid()); }

double NowMs() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

void Pace(double since) {
    if (NowMs() - since < 2.0) {
        sched_yield();
    } else {
        timespec ms{0, 1000000};
        nanosleep(&ms, nullptr);
    }
}

}  // namespace zor::client
