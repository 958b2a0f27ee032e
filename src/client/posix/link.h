// The POSIX link to one host: its command socket and, where the kernel has
// them, a process descriptor that tells when the host has ended (a zombie
// still answers kill(pid, 0)).
#pragma once

#include <sys/un.h>

#include <condition_variable>
#include <mutex>

#include "client/connection.h"

namespace zor::client {

// One command at a time on a socket; waiting for the turn is bounded. (A
// condition variable rather than std::timed_mutex, whose timed lock the
// thread sanitizer does not see.)
class Turn {
public:
    bool Take(std::uint32_t wait_ms) {
        std::unique_lock hold(m_);
        if (!cv_.wait_for(hold, std::chrono::milliseconds(wait_ms), [this] { return !busy_; })) return false;
        busy_ = true;
        return true;
    }
    void Give() {
        {
            std::lock_guard hold(m_);
            busy_ = false;
        }
        cv_.notify_one();
    }

private:
    std::mutex m_;
    std::condition_variable cv_;
    bool busy_ = false;
};

struct Link {
    int sock = -1;   // -1 after a time-out: the next command connects anew
    int pidfd = -1;  // -1 where pidfd_open is missing
    std::uint32_t armed_ms = 0;  // the socket's send and receive time-outs
    Turn turn;       // one command in flight on the socket
    char path[sizeof(sockaddr_un{}.sun_path)] = {};
};

// Connects l->sock, a blocking SOCK_SEQPACKET socket, to l->path within
// timeout_ms and checks whom it reached (zor_connect); ZOR_E_NO_HOST when
// no host listens there, ZOR_E_UNTRUSTED when another user answers (sock
// -1 either way).
int ConnectSocket(Link* l, std::uint32_t timeout_ms);
// Records who answered when a check failed, for zor_untrusted_peer().
void NoteUntrusted(std::uint32_t pid, std::uint32_t uid);
// Sets the socket's send and receive time-outs (kept while unchanged), so
// that a command costs two system calls, as on a bare socket.
bool Arm(Link* l, std::uint32_t ms);
// Moves descriptor 0 up (0 means "none" in a Handle); closes on failure.
int AboveZero(int fd);
// Waits until `fd` has `events` (or hangs up) or the deadline (NowMs)
// passes; false on time-out.
bool WaitFor(int fd, short events, double deadline);

}  // namespace zor::client
