#include "os/posix/socket_peer.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "os/posix/posix_internal.h"

namespace zor::os::posix {

namespace {
bool duplicate(int fd, Handle* out) {
    const int d = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (d < 0) return false;
    *out = static_cast<Handle>(d) + 1;
    return true;
}
}  // namespace

SocketPeer::~SocketPeer() {
    for (int i = 0; i < receivedCount_; ++i) close(received_[i]);
    for (int i = 0; i < givenCount_; ++i) close(given_[i]);
}

bool SocketPeer::Mine(Handle process) {
    if (process == (kProcessTag | pid_)) return true;
    errno = EPERM;
    return false;
}

Handle SocketPeer::Open(std::uint32_t pid) {
    if (pid == pid_) return kProcessTag | pid;
    refusedPid_ = pid;
    errno = EPERM;
    return 0;
}

bool SocketPeer::Is(std::uint32_t pid) {
    if (pid == pid_) return true;
    refusedPid_ = pid;
    return false;
}

bool SocketPeer::DupTo(Handle process, Handle h, std::uint64_t* remote) {
    if (!Mine(process)) return false;
    if (!is_fd_handle(h)) {
        errno = EBADF;
        return false;
    }
    if (givenCount_ == wire::kMaxDescriptors) {
        errno = EMFILE;
        return false;
    }
    Handle copy = 0;
    if (!duplicate(fd_of(h), &copy)) return false;
    given_[givenCount_++] = fd_of(copy);
    *remote = static_cast<std::uint64_t>(givenCount_);
    return true;
}

// The position was read from the payload once, and is only compared here.
bool SocketPeer::DupFrom(Handle process, std::uint64_t remote, Handle* h) {
    if (!Mine(process)) return false;
    if (remote == 0 || remote > static_cast<std::uint64_t>(receivedCount_)) {
        errno = EBADF;
        return false;
    }
    return duplicate(received_[remote - 1], h);
}

bool SocketPeer::CloseIn(Handle process, std::uint64_t remote) {
    if (!Mine(process)) return false;
    if (remote == 0 || remote != static_cast<std::uint64_t>(givenCount_)) {
        errno = EBADF;
        return false;
    }
    close(given_[--givenCount_]);
    return true;
}

}  // namespace zor::os::posix
