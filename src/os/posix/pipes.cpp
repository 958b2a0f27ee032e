// Blocking reads and writes on pipe ends.
//
// A read (and on this layer's threads a write) waits in ppoll() with the
// cancel signal unblocked only there, so a cancel that arrives just before
// the wait is not lost: the signal stays pending until ppoll() starts and
// then ends it at once.
#include <cerrno>
#include <csignal>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include "os/posix/posix_internal.h"

namespace zor::os::posix {

namespace {

void ignore_sigpipe() {
    static std::once_flag once;
    std::call_once(once, [] {
        // A write to a pipe whose reader is gone fails with EPIPE, as on
        // Windows, instead of ending the process.
        struct sigaction sa{}, old{};
        sigaction(SIGPIPE, nullptr, &old);
        if (old.sa_handler == SIG_DFL && !(old.sa_flags & SA_SIGINFO)) {
            sa.sa_handler = SIG_IGN;
            sigaction(SIGPIPE, &sa, nullptr);
        }
    });
}

bool plain_read(int fd, void* buf, std::uint32_t n, ssize_t* r) {
    do *r = read(fd, buf, n);
    while (*r < 0 && errno == EINTR);
    return *r >= 0;
}

// The signal mask for ppoll() on this thread: the cancel signal, blocked
// here for good at the first call (two system calls fewer per transfer than
// blocking and restoring it around each), unblocked only during the wait. A
// cancel that comes after a wait ended stays pending and ends the next wait
// early once, which then looks at the state and waits again.
const sigset_t* wait_mask() {
    thread_local sigset_t during;
    thread_local bool made = false;
    if (!made) {
        sigset_t sig;
        sigemptyset(&sig);
        sigaddset(&sig, cancel_signal());
        pthread_sigmask(SIG_BLOCK, &sig, &during);
        sigdelset(&during, cancel_signal());
        made = true;
    }
    return &during;
}

// Waits in ppoll() for `events` on fd, then moves bytes with op(); a
// cancel ends the wait with ECANCELED.
template <typename Op>
bool cancellable(IoCancel* c, int fd, short events, Op op, ssize_t* r) {
    const sigset_t* during = wait_mask();
    c->state.store(IoCancel::kWaiting);
    bool ok = false;
    for (;;) {
        if (c->state.load() == IoCancel::kCancelled) {
            errno = ECANCELED;
            break;
        }
        pollfd p{fd, events, 0};
        if (ppoll(&p, 1, nullptr, during) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        *r = op();
        if (*r >= 0) {
            ok = true;
            break;
        }
        if (errno != EINTR && errno != EAGAIN) break;
    }
    int e = errno;
    c->state.store(IoCancel::kIdle);
    errno = e;
    return ok;
}

}  // namespace

// ReadFile on a pipe: waits for data, returns what is there (at most n).
// The writer's end closed gives failure with EPIPE (ERROR_BROKEN_PIPE).
bool pipe_read(Handle h, void* buf, std::uint32_t n, std::uint32_t* done) {
    if (done) *done = 0;
    if (!is_fd_handle(h)) {
        errno = EBADF;
        return false;
    }
    if (n == 0) return true;
    ssize_t r = -1;
    IoCancel* c = current_io_cancel();
    const int fd = fd_of(h);
    if (!(c ? cancellable(c, fd, POLLIN, [&] { return read(fd, buf, n); }, &r) : plain_read(fd, buf, n, &r)))
        return false;
    if (r == 0) {
        errno = EPIPE;
        return false;
    }
    if (done) *done = static_cast<std::uint32_t>(r);
    return true;
}

// WriteFile on a blocking pipe: everything is written or the call fails.
bool pipe_write(Handle h, const void* buf, std::uint32_t n, std::uint32_t* done) {
    if (done) *done = 0;
    if (!is_fd_handle(h)) {
        errno = EBADF;
        return false;
    }
    ignore_sigpipe();
    const char* p = static_cast<const char*>(buf);
    const int fd = fd_of(h);
    IoCancel* c = current_io_cancel();
    std::uint32_t sent = 0;
    while (sent < n) {
        // A thread of this layer waits until the pipe has room, so that a
        // cancel also ends a write to a reader that does not read.
        ssize_t w = -1;
        auto once = [&] { return write(fd, p + sent, n - sent); };
        if (c ? !cancellable(c, fd, POLLOUT, once, &w) : (w = once()) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        sent += static_cast<std::uint32_t>(w);
    }
    if (done) *done = sent;
    return sent == n;
}

}  // namespace zor::os::posix
