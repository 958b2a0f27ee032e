// The Linux host's command intake: a SOCK_SEQPACKET socket in the runtime
// folder, one datagram per command (os/posix/wire.h), served one at a time
// on the thread that polls it, as the window's messages are on Windows.
//
// A connecting peer is checked once, by the kernel's credentials
// (SO_PEERCRED): its own user, root, or the GROUP of ZOR.INI; anyone else
// is refused with
//   "ZOR: command socket: peer pid %u uid %u refused\n\r"
// A datagram shorter than the command number or longer than the largest
// payload is answered with the command's failure value after
//   "ZOR: command socket: datagram of %u bytes refused\n\r"
// and a payload pid that is not the peer's makes the command fail (the
// OS layer refuses to open it) with
//   "ZOR: command %d: payload pid %u is not the peer's (pid %u uid %u)\n\r"
#pragma once

#include <poll.h>

#include <cstdint>

#include "shell/posix/peer_access.h"

namespace zor {
struct Host;
struct DialogEnder;
}

namespace zor::shell {

class CommandSocket {
public:
    static constexpr int kMaxPeers = 64;

    explicit CommandSocket(Host& host) : host_(host) {}
    ~CommandSocket();
    CommandSocket(const CommandSocket&) = delete;
    CommandSocket& operator=(const CommandSocket&) = delete;

    // Creates the folder when missing and listens; false (logged) when the
    // socket cannot be made. `group` empty: mode 0600, else 0660 for it.
    bool Listen(const char* group);
    // The descriptors to poll: the listening socket, then each peer.
    int PollSet(pollfd* fds, int cap) const;
    // After poll: accepts or serves what `fds` (from PollSet) report.
    void Handle(const pollfd* fds, int n, const DialogEnder& ender);

private:
    void Accept();
    void Serve(int slot, const DialogEnder& ender);
    void Drop(int slot);
    bool ReadGroup(const char* group);

    Host& host_;
    PeerAccess access_;
    int listen_ = -1;
    char path_[256] = {};
    struct Peer {
        int fd = -1;
        std::uint32_t pid = 0, uid = 0;
    } peers_[kMaxPeers];
    unsigned char* buffer_ = nullptr;  // one datagram
};

}  // namespace zor::shell
