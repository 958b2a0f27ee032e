// The process that sent the command being served, as its handler reaches
// it: open it by pid, duplicate handles into it and out of it, and take a
// duplicate back. A handler gets its peer as a parameter.
//
// Windows (and the native test builds): the peer is any process by pid,
// through the table of fallible calls, so tests can make each step fail.
// Linux: the command socket's peer (src/shell/posix) is exactly the process
// the kernel names at the other end, and handles are the descriptors that
// travel with its datagram.
#pragma once

#include <cstdint>

#include "os/os.h"

namespace zor::os {

class Peer {
public:
    // The process `pid` as this peer may reach it; 0 when refused.
    virtual Handle Open(std::uint32_t pid) = 0;
    // `h` of this process into the peer; *remote gets the value valid there.
    virtual bool DupTo(Handle process, Handle h, std::uint64_t* remote) = 0;
    // A value valid in the peer into this process.
    virtual bool DupFrom(Handle process, std::uint64_t remote, Handle* h) = 0;
    // Takes back what DupTo gave.
    virtual bool CloseIn(Handle process, std::uint64_t remote) = 0;
    // Ends what Open returned.
    virtual void Close(Handle process) = 0;
    // True when `pid` is this peer, for commands that name a client by pid
    // without reaching it (9, 11, 12).
    virtual bool Is(std::uint32_t pid) = 0;
    // True when the peer is the host's own user (or root): it may load a
    // module from any path, as the host's user itself could. Others may
    // only name a protected file of the module folder.
    virtual bool Trusted() const = 0;
    // The kernel's word for who the peer is, for log lines (0 when unknown).
    virtual std::uint32_t Pid() const = 0;
    virtual std::uint32_t Uid() const = 0;

protected:
    ~Peer() = default;
};

// Processes reached by pid through `calls`: any pid, and always trusted
// (Windows messages come from the host's desktop; tests are the host).
Peer& process_peer();

}  // namespace zor::os
