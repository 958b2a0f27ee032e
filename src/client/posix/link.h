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
    std::timed_mutex lock;  // one command in flight on the socket
    char path[sizeof(sockaddr_un{}.sun_path)] = {};
};

// Connects a non-blocking SOCK_SEQPACKET socket to `path` within
// timeout_ms; -1 when no host listens there.
int ConnectSocket(const char* path, std::uint32_t timeout_ms);
// Moves descriptor 0 up (0 means "none" in a Handle); closes on failure.
int AboveZero(int fd);
// Waits until `fd` has `events` or the deadline (NowMs) passes; false on
// time-out. Retries on EINTR.
bool WaitFor(int fd, short events, double deadline, short* revents = nullptr);

}  // namespace zor::client
