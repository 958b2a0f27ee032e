// The command socket: listening, admitting peers, serving datagrams.
#include "shell/posix/command_socket.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <grp.h>
#include <new>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "host/command_intake.h"
#include "host/host.h"
#include "os/posix/socket_peer.h"
#include "os/posix/wire.h"

namespace zor::shell {

namespace wire = os::posix::wire;

namespace {

constexpr std::uint32_t kDatagramMax = 8 + wire::kMaxPayload;

// One answer datagram: the result, and the descriptors given to the peer.
// A peer that does not take its answer at once loses it (and later its
// connection): the host never waits on a client.
bool Answer(int fd, std::uint64_t result, const os::posix::SocketPeer& m) {
    iovec iov{&result, sizeof result};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    wire::Control control;
    wire::attach_descriptors(&msg, &control, m.Given(), m.GivenCount());
    return sendmsg(fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT) == static_cast<ssize_t>(sizeof result);
}

}  // namespace

CommandSocket::~CommandSocket() {
    for (int i = 0; i < kMaxPeers; ++i) Drop(i);
    if (listen_ >= 0) {
        close(listen_);
        unlink(path_);
    }
    delete[] buffer_;
}

bool CommandSocket::ReadGroup(const char* group) {
    if (!group[0]) return true;
    struct group* g = getgrnam(group);
    if (!g) {
        host_.log.wPrintf(kLogFault, u"ZOR: command socket: GROUP '%S' unknown\n\r", group);
        return false;
    }
    access_.hasGroup = true;
    access_.group = g->gr_gid;
    return true;
}

bool CommandSocket::Listen(const char* group) {
    access_.ownUid = getuid();
    buffer_ = new (std::nothrow) unsigned char[kDatagramMax + 1];
    char dir[256];
    if (!buffer_ || !ReadGroup(group) || !wire::runtime_dir(dir, sizeof dir) ||
        !wire::socket_path(static_cast<std::uint32_t>(getpid()), path_, sizeof path_)) {
        host_.log.wPrintf(kLogFault, u"ZOR: command socket: cannot be made\n\r");
        return false;
    }
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const bool fits = std::strlen(path_) < sizeof addr.sun_path;
    if (fits) std::strcpy(addr.sun_path, path_);
    const mode_t mode = access_.hasGroup ? 0660 : 0600;
    // A folder made here is the host's: closed to others but the group.
    std::error_code made;
    bool ok = fits;
    if (ok && std::filesystem::create_directories(dir, made)) chmod(dir, access_.hasGroup ? 0750 : 0700);
    ok = ok && !made;
    if (ok) {
        if (access_.hasGroup) {
            chown(dir, static_cast<uid_t>(-1), access_.group);
            // A folder an earlier run made without the group would keep
            // the group out of a socket the log calls 0660.
            struct stat st;
            if (stat(dir, &st) == 0 && st.st_uid == getuid() && (st.st_mode & 0050) != 0050)
                chmod(dir, (st.st_mode & 07777) | 0050);
        }
        unlink(path_);  // a dead host's socket under a reused pid
        listen_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        ok = listen_ >= 0 && bind(listen_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
             chmod(path_, mode) == 0 &&
             (!access_.hasGroup || chown(path_, static_cast<uid_t>(-1), access_.group) == 0) &&
             listen(listen_, 16) == 0;
    }
    if (!ok) {
        host_.log.wPrintf(kLogFault, u"ZOR: command socket: cannot listen on '%S' (%S)\n\r", path_,
                          std::strerror(errno));
        return false;
    }
    host_.log.wPrintf(kLogTrace, u"ZOR: command socket %S (mode %o)\n\r", path_, static_cast<unsigned>(mode));
    return true;
}

int CommandSocket::PollSet(pollfd* fds, int cap) const {
    int n = 0;
    if (listen_ >= 0 && n < cap) fds[n++] = pollfd{listen_, POLLIN, 0};
    for (int i = 0; i < kMaxPeers && n < cap; ++i)
        if (peers_[i].fd >= 0) fds[n++] = pollfd{peers_[i].fd, POLLIN, 0};
    return n;
}

void CommandSocket::Handle(const pollfd* fds, int n, const DialogEnder& ender) {
    for (int k = 0; k < n; ++k) {
        if (!fds[k].revents) continue;
        if (fds[k].fd == listen_) {
            Accept();
            continue;
        }
        for (int i = 0; i < kMaxPeers; ++i)
            if (peers_[i].fd == fds[k].fd) Serve(i, ender);
    }
}

void CommandSocket::Accept() {
    const int fd = accept4(listen_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) return;
    ucred cred{};
    socklen_t len = sizeof cred;
    std::uint32_t groups[64];
    socklen_t glen = sizeof groups;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
        close(fd);
        return;
    }
    if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups, &glen) != 0) glen = 0;
    if (!PeerAllowed(access_, cred.uid, cred.gid, groups, static_cast<int>(glen / sizeof groups[0]))) {
        host_.log.wPrintf(kLogError, u"ZOR: command socket: peer pid %u uid %u refused\n\r",
                          static_cast<unsigned>(cred.pid), static_cast<unsigned>(cred.uid));
        close(fd);
        return;
    }
    for (Peer& p : peers_) {
        if (p.fd >= 0) continue;
        p = Peer{fd, static_cast<std::uint32_t>(cred.pid), static_cast<std::uint32_t>(cred.uid)};
        return;
    }
    host_.log.wPrintf(kLogError, u"ZOR: command socket: more than %d peers, pid %u refused\n\r", kMaxPeers,
                      static_cast<unsigned>(cred.pid));
    close(fd);
}

void CommandSocket::Drop(int slot) {
    if (peers_[slot].fd >= 0) close(peers_[slot].fd);
    peers_[slot] = Peer{};
}

void CommandSocket::Serve(int slot, const DialogEnder& ender) {
    Peer& peer = peers_[slot];
    os::posix::SocketPeer m(peer.pid, peer.uid);
    iovec iov{buffer_, kDatagramMax + 1};
    wire::Control control;
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control.bytes;
    msg.msg_controllen = sizeof control.bytes;
    const ssize_t got = recvmsg(peer.fd, &msg, MSG_CMSG_CLOEXEC | MSG_TRUNC | MSG_DONTWAIT);
    if (got <= 0) {
        if (got == 0 || (errno != EAGAIN && errno != EINTR)) Drop(slot);  // the peer went
        return;
    }
    const bool descriptorsOk = wire::take_descriptors(&msg, m.Received(), m.ReceivedCount());
    std::uint64_t command = 0;
    if (got >= 8) std::memcpy(&command, buffer_, sizeof command);
    const Command* known = FindCommand(command);
    std::uint64_t result = known ? known->failure : 0;
    if (got < 8 || static_cast<std::uint64_t>(got) > kDatagramMax) {
        host_.log.wPrintf(kLogError, u"ZOR: command socket: datagram of %u bytes refused\n\r",
                          static_cast<unsigned>(got));
    } else if (!descriptorsOk) {
        host_.log.wPrintf(kLogError, u"ZOR: command socket: more than %d descriptors refused\n\r",
                          wire::kMaxDescriptors);
    } else {
        result = OnCopyData(host_, m, command, got > 8 ? buffer_ + 8 : nullptr,
                            static_cast<std::uint32_t>(got - 8), ender);
        if (m.RefusedPid())
            host_.log.wPrintf(kLogError, u"ZOR: command %d: payload pid %u is not the peer's (pid %u uid %u)\n\r",
                              static_cast<int>(command), m.RefusedPid(), m.Pid(), m.Uid());
    }
    if (!Answer(peer.fd, result, m)) Drop(slot);
}

}  // namespace zor::shell
