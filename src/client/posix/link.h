// The POSIX link to one host: its command socket and, where the kernel has
// them, a process descriptor that tells when the host has ended (a zombie
// still answers kill(pid, 0)).
#pragma once

#include <sys/un.h>

#include <mutex>

#include "client/connection.h"

namespace zor::client {

struct Link {
    int sock = -1;   // -1 after a time-out: the next command connects anew
    int pidfd = -1;  // -1 where pidfd_open is missing
    std::uint32_t armed_ms = 0;  // the socket's send and receive time-outs
    std::timed_mutex lock;  // one command in flight on the socket
    char path[sizeof(sockaddr_un{}.sun_path)] = {};
};

// Connects l->sock, a blocking SOCK_SEQPACKET socket, to l->path within
// timeout_ms; false (sock -1) when no host listens there.
bool ConnectSocket(Link* l, std::uint32_t timeout_ms);
// Sets the socket's send and receive time-outs (kept while unchanged), so
// that a command costs two system calls, as on a bare socket.
bool Arm(Link* l, std::uint32_t ms);
// Moves descriptor 0 up (0 means "none" in a Handle); closes on failure.
int AboveZero(int fd);
// Waits until `fd` has `events` (or hangs up) or the deadline (NowMs)
// passes; false on time-out.
bool WaitFor(int fd, short events, double deadline);

}  // namespace zor::client
