// The peer of one datagram on the Linux command socket: the process the
// kernel names at the other end (SO_PEERCRED, never the payload's word), and
// the descriptors that travel with the request and with the answer.
//
// Open and Is accept exactly the peer's pid. DupFrom takes the request's
// descriptors by position (1-based, see wire.h), DupTo adds a duplicate to
// the answer and names it by its position there, and CloseIn takes back the
// last one added (the positions of the others must not move). Every
// descriptor received or given is closed with the peer.
#pragma once

#include <cstdint>

#include "os/peer.h"
#include "os/posix/wire.h"

namespace zor::os::posix {

class SocketPeer final : public Peer {
public:
    SocketPeer(std::uint32_t pid, std::uint32_t uid, bool trusted)
        : pid_(pid), uid_(uid), trusted_(trusted) {}
    ~SocketPeer();
    SocketPeer(const SocketPeer&) = delete;
    SocketPeer& operator=(const SocketPeer&) = delete;

    Handle Open(std::uint32_t pid) override;
    bool DupTo(Handle process, Handle h, std::uint64_t* remote) override;
    bool DupFrom(Handle process, std::uint64_t remote, Handle* h) override;
    bool CloseIn(Handle process, std::uint64_t remote) override;
    void Close(Handle) override {}
    bool Is(std::uint32_t pid) override;
    bool Trusted() const override { return trusted_; }
    std::uint32_t Pid() const override { return pid_; }
    std::uint32_t Uid() const override { return uid_; }
    // The request's descriptors: filled by the socket, owned by the peer.
    int* Received() { return received_; }
    int* ReceivedCount() { return &receivedCount_; }
    // The answer's descriptors.
    const int* Given() const { return given_; }
    int GivenCount() const { return givenCount_; }
    // A pid that was asked for and is not the peer's (0: none).
    std::uint32_t RefusedPid() const { return refusedPid_; }

private:
    bool Mine(Handle process);

    std::uint32_t pid_, uid_;
    bool trusted_;
    int received_[wire::kMaxDescriptors] = {};
    int receivedCount_ = 0;
    int given_[wire::kMaxDescriptors] = {};
    int givenCount_ = 0;
    std::uint32_t refusedPid_ = 0;
};

}  // namespace zor::os::posix
