// The Linux host's command intake: a SOCK_SEQPACKET socket in the runtime
// folder, one datagram per command (os/posix/wire.h), served one at a time
// on the thread that polls it, as the window's messages are on Windows.
//
// The socket's folder must be the host's: owned by its user, not a
// symbolic link, writable by no one else; otherwise Listen refuses it with
//   "ZOR: command socket: folder '%S' refused (%S): ..."
// and the host does not start.
//
// A connecting peer is checked once, by the kernel's credentials
// (SO_PEERCRED): its own user, root, or the GROUP of ZOR.INI; anyone else
// is refused with (at most once a second per uid, with a count)
//   "ZOR: command socket: peer pid %u uid %u refused\n\r"
// One uid holds at most `perUid` connections, and a connection that sends
// nothing within kSilentMs is closed: a connection costs the host a slot
// of kMaxPeers and nothing else, and a client may keep one open for as
// long as it likes once it has sent a command.
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
    // A connection that sends no first datagram within this is closed.
    static constexpr double kSilentMs = 10000.0;

    explicit CommandSocket(Host& host) : host_(host) {}
    ~CommandSocket();
    CommandSocket(const CommandSocket&) = delete;
    CommandSocket& operator=(const CommandSocket&) = delete;

    // Creates the folder when missing and listens; false (logged) when the
    // socket cannot be made. `group` empty: mode 0600, else 0660 for it.
    // `perUid`: connections one user may hold at once (0: no cap).
    bool Listen(const char* group, int perUid = 16);
    // How long a connection may stay silent (tests shorten it).
    void SetSilentMs(double ms) { silentMs_ = ms; }
    // True after Listen refused the runtime folder: the host must not run.
    bool FolderRefused() const { return folderRefused_; }
    // The descriptors to poll: the listening socket, then each peer.
    int PollSet(pollfd* fds, int cap) const;
    // Milliseconds until a silent connection is due to be closed; -1: none.
    int WaitMs() const;
    // After poll: accepts or serves what `fds` (from PollSet) report, and
    // closes silent connections whose time is up.
    void Handle(const pollfd* fds, int n, const DialogEnder& ender);

private:
    bool CheckFolder(const char* dir);
    void Accept();
    // Accepts and closes one waiting connection when out of descriptors.
    void Shed(int error);
    void Admit(int fd);
    void Refuse(const char* why, std::uint32_t pid, std::uint32_t uid);
    void Serve(int slot, const DialogEnder& ender);
    void Drop(int slot);
    void CloseSilent();
    bool ReadGroup(const char* group);

    Host& host_;
    PeerAccess access_;
    RefusalLog refusals_;
    int listen_ = -1;
    int reserve_ = -1;  // spent to accept and drop a peer when out of descriptors
    bool starved_ = false;
    bool folderRefused_ = false;
    int perUid_ = 16;
    double silentMs_ = kSilentMs;
    char path_[256] = {};
    struct Peer {
        int fd = -1;
        std::uint32_t pid = 0, uid = 0;
        double silentUntil = 0;  // 0 once it has spoken
    } peers_[kMaxPeers];
    unsigned char* buffer_ = nullptr;  // one datagram
};

}  // namespace zor::shell
