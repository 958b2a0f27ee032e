// The command socket: listening, admitting peers, serving datagrams.
#include "shell/posix/command_socket.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <new>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <vector>

#include "host/command_intake.h"
#include "host/host.h"
#include "os/os.h"
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
    if (reserve_ >= 0) close(reserve_);
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

// Whoever controls the folder can put a socket of their own in the host's
// place, so it must be the host's alone.
bool CommandSocket::CheckFolder(const char* dir) {
    std::uint32_t owner = 0;
    const char* why = wire::folder_problem(dir, &owner);
    char own[64];
    if (!why && owner != geteuid()) {
        std::snprintf(own, sizeof own, "it belongs to uid %u", static_cast<unsigned>(owner));
        why = own;
    }
    if (!why) return true;
    folderRefused_ = true;
    host_.log.wPrintf(kLogFault,
                      u"ZOR: command socket: folder '%S' refused (%S): remove it, or set ZOR_RUNTIME_DIR "
                      u"to a folder of your own that only you may write\n\r",
                      dir, why);
    return false;
}

bool CommandSocket::Listen(const char* group, int perUid) {
    access_.ownUid = getuid();
    perUid_ = perUid;
    buffer_ = new (std::nothrow) unsigned char[kDatagramMax + 1];
    reserve_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
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
    if (ok && !CheckFolder(dir)) return false;
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

int CommandSocket::WaitMs() const {
    double first = 0;
    for (const Peer& p : peers_)
        if (p.fd >= 0 && p.silentUntil > 0 && (first == 0 || p.silentUntil < first)) first = p.silentUntil;
    if (first == 0) return -1;
    const double left = first - os::now_ms();
    return left > 0 ? static_cast<int>(left) + 1 : 0;
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
    CloseSilent();
}

void CommandSocket::CloseSilent() {
    const double now = os::now_ms();
    for (int i = 0; i < kMaxPeers; ++i) {
        Peer& p = peers_[i];
        if (p.fd < 0 || p.silentUntil == 0 || now < p.silentUntil) continue;
        host_.log.wPrintf(kLogError, u"ZOR: command socket: peer pid %u uid %u sent nothing for %u ms: closed\n\r",
                          p.pid, p.uid, static_cast<unsigned>(silentMs_));
        Drop(i);
    }
}

void CommandSocket::Refuse(const char* why, std::uint32_t pid, std::uint32_t uid) {
    std::uint32_t more = 0;
    if (!refusals_.Due(uid, os::now_ms(), &more)) return;
    if (more == 0)
        host_.log.wPrintf(kLogError, u"ZOR: command socket: peer pid %u uid %u %S\n\r", pid, uid, why);
    else
        host_.log.wPrintf(kLogError, u"ZOR: command socket: peer pid %u uid %u %S (%u more since the last line)\n\r",
                          pid, uid, why, more);
}

void CommandSocket::Accept() {
    const int fd = accept4(listen_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd >= 0) {
        starved_ = false;
        Admit(fd);
    } else if (errno == EMFILE || errno == ENFILE) {
        Shed(errno);
    }
}

// Out of descriptors, a waiting connection would wake poll again at once:
// the reserve descriptor makes room to take it off the queue and close it.
void CommandSocket::Shed(int error) {
    if (!starved_)
        host_.log.wPrintf(kLogFault, u"ZOR: command socket: out of descriptors (%S): new peers are closed\n\r",
                          std::strerror(error));
    starved_ = true;
    if (reserve_ >= 0) close(reserve_);
    const int fd = accept4(listen_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) close(fd);
    reserve_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (fd < 0 && reserve_ < 0) os::sleep_ms(100);  // no room at all: do not spin
}

void CommandSocket::Admit(int fd) {
    ucred cred{};
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
        close(fd);
        return;
    }
    // A member of many groups gets a buffer as large as the kernel asks for.
    std::vector<std::uint32_t> groups(64);
    socklen_t glen = static_cast<socklen_t>(groups.size() * sizeof groups[0]);
    int got = getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &glen);
    if (got != 0 && errno == ERANGE) {
        groups.resize(glen / sizeof groups[0] + 1);
        glen = static_cast<socklen_t>(groups.size() * sizeof groups[0]);
        got = getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &glen);
    }
    if (got != 0) glen = 0;
    const auto pid = static_cast<std::uint32_t>(cred.pid), uid = static_cast<std::uint32_t>(cred.uid);
    if (!PeerAllowed(access_, uid, cred.gid, groups.data(), static_cast<int>(glen / sizeof groups[0]))) {
        Refuse("refused", pid, uid);
        close(fd);
        return;
    }
    int held = 0;
    for (const Peer& p : peers_) held += p.fd >= 0 && p.uid == uid;
    Peer* slot = nullptr;
    for (Peer& p : peers_)
        if (p.fd < 0 && !slot) slot = &p;
    if (!slot || (perUid_ > 0 && held >= perUid_)) {
        Refuse(slot ? "refused: its user holds the most connections allowed" : "refused: no connection free", pid,
               uid);
        close(fd);
        return;
    }
    *slot = Peer{fd, pid, uid, os::now_ms() + silentMs_};
}

void CommandSocket::Drop(int slot) {
    if (peers_[slot].fd >= 0) close(peers_[slot].fd);
    peers_[slot] = Peer{};
}

void CommandSocket::Serve(int slot, const DialogEnder& ender) {
    Peer& peer = peers_[slot];
    os::posix::SocketPeer m(peer.pid, peer.uid, PeerTrusted(access_, peer.uid));
    iovec iov{buffer_, kDatagramMax + 1};
    wire::Control control;
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control.bytes;
    msg.msg_controllen = sizeof control.bytes;
    const ssize_t got = recvmsg(peer.fd, &msg, MSG_CMSG_CLOEXEC | MSG_TRUNC | MSG_DONTWAIT);
    if (got < 0) {
        if (errno != EAGAIN && errno != EINTR) Drop(slot);
        return;
    }
    // Whatever arrived is the peer's to close, an empty datagram's too.
    const bool descriptorsOk = wire::take_descriptors(&msg, m.Received(), m.ReceivedCount());
    if (got == 0 && msg.msg_controllen == 0) {
        Drop(slot);  // the peer went
        return;
    }
    peer.silentUntil = 0;
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
