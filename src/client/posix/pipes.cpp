// The client's pipes on POSIX: pipe2 pairs whose host ends travel with
// command 8 as descriptors. Our ends are non-blocking and waited on with
// poll, so neither a write nor the answer waits past the time-out.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "client/posix/link.h"

namespace zor::client {

namespace {

bool MakePipe(int* read_end, int* write_end) {
    int fd[2];
    if (pipe2(fd, O_CLOEXEC) != 0) return false;
    *read_end = AboveZero(fd[0]);
    *write_end = AboveZero(fd[1]);
    if (*read_end > 0 && *write_end > 0) return true;
    if (*read_end > 0) close(*read_end);
    if (*write_end > 0) close(*write_end);
    return false;
}

// write() on a pipe whose reader has gone raises SIGPIPE, which would end
// the client: it is blocked around the write, and one the write raised is
// taken back before the mask is restored. (Where the caller blocks SIGPIPE
// itself, it stays the caller's.)
ssize_t WriteQuietly(int fd, const void* data, std::size_t n) {
    sigset_t pipe_only, old;
    sigemptyset(&pipe_only);
    sigaddset(&pipe_only, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_only, &old);
    const ssize_t r = write(fd, data, n);
    const int err = errno;
    if (sigismember(&old, SIGPIPE) == 0) {
        if (r < 0 && err == EPIPE) {
            const timespec zero{0, 0};
            while (sigtimedwait(&pipe_only, nullptr, &zero) < 0 && errno == EINTR) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &old, nullptr);
    }
    errno = err;
    return r;
}

}  // namespace

int PipeCreate(PipeSet* p, std::uint32_t request_bytes) {
    int rr, rw, ar, aw;
    if (!MakePipe(&rr, &rw)) return ZOR_E_SYSTEM;
    if (!MakePipe(&ar, &aw)) {
        close(rr);
        close(rw);
        return ZOR_E_SYSTEM;
    }
    // Room for the largest frame, where the system allows it; where not, a
    // large frame is written in parts as the host reads.
    fcntl(rw, F_SETPIPE_SZ, static_cast<int>(request_bytes) + 64);
    fcntl(rw, F_SETFL, O_NONBLOCK);
    fcntl(ar, F_SETFL, O_NONBLOCK);
    *p = PipeSet{static_cast<Handle>(rr), static_cast<Handle>(rw), static_cast<Handle>(ar),
                 static_cast<Handle>(aw)};
    return ZOR_OK;
}

int PipeWrite(ZorConnection* c, Handle h, const void* data, std::uint32_t size) {
    const int fd = static_cast<int>(h);
    const double deadline = NowMs() + c->timeout_ms;
    const auto* p = static_cast<const unsigned char*>(data);
    for (std::uint32_t done = 0; done < size;) {
        const ssize_t n = WriteQuietly(fd, p + done, size - done);
        if (n > 0) {
            done += static_cast<std::uint32_t>(n);
        } else if (n < 0 && errno == EAGAIN) {
            if (!WaitFor(fd, POLLOUT, deadline)) return HostAlive(c) ? ZOR_E_TIMEOUT : ZOR_E_HOST_GONE;
        } else if (n < 0 && errno != EINTR) {
            return HostAlive(c) ? ZOR_E_PIPE : ZOR_E_HOST_GONE;
        }
    }
    return ZOR_OK;
}

int PipeReadAnswer(ZorConnection* c, Handle h, std::uint32_t* answer, std::uint32_t timeout_ms) {
    const int fd = static_cast<int>(h);
    const double deadline = NowMs() + timeout_ms;
    auto* p = reinterpret_cast<unsigned char*>(answer);
    // Wait first: the answer is hardly ever there as soon as the frame is.
    for (std::uint32_t done = 0; done < 4;) {
        if (!WaitFor(fd, POLLIN, deadline)) return HostAlive(c) ? ZOR_E_TIMEOUT : ZOR_E_HOST_GONE;
        const ssize_t n = read(fd, p + done, 4 - done);
        if (n > 0) done += static_cast<std::uint32_t>(n);
        else if (n == 0 || (errno != EAGAIN && errno != EINTR))
            return HostAlive(c) ? ZOR_E_PIPE : ZOR_E_HOST_GONE;  // the host closed its end
    }
    return ZOR_OK;
}

void CloseOwned(Handle h) {
    if (h) close(static_cast<int>(h));
}

}  // namespace zor::client
