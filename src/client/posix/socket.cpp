// Commands over the host's command socket: one datagram out (u64 command +
// payload, descriptors attached), one 8-byte datagram back (the result,
// descriptors attached), within the caller's time-out. A time-out leaves
// the socket out of step (a late answer would be taken for the next
// command's), so it is dropped and the next command connects anew.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "client/payloads.h"
#include "client/posix/link.h"
#include "os/posix/wire.h"

namespace zor::client {

namespace {

namespace wire = os::posix::wire;

struct Fds {
    int fd[wire::kMaxDescriptors];
    int n = 0;
    void CloseAll(int except = -1) {
        for (int i = 0; i < n; ++i)
            if (fd[i] != except) close(fd[i]);
        n = 0;
    }
};

void Drop(Link* l) {
    if (l->sock >= 0) close(l->sock);
    l->sock = -1;
}

int Gone(ZorConnection* c, int status) { return HostAlive(c) ? status : ZOR_E_HOST_GONE; }

// Re-arms the socket's time-outs for what is left until the deadline after a
// signal cut a call short; false once nothing is left.
bool Rearm(Link* l, double deadline) {
    const double left = deadline - NowMs();
    return left > 0 && Arm(l, static_cast<std::uint32_t>(left) + 1);
}

int SendRequest(ZorConnection* c, std::uint64_t command, const void* payload, std::uint32_t size,
                const Fds& out, double deadline) {
    Link* l = c->link;
    iovec iov[2] = {{&command, 8}, {const_cast<void*>(payload), size}};
    msghdr m{};
    m.msg_iov = iov;
    m.msg_iovlen = size ? 2 : 1;
    wire::Control ctl;
    wire::attach_descriptors(&m, &ctl, out.fd, out.n);
    for (;;) {
        if (sendmsg(l->sock, &m, MSG_NOSIGNAL) >= 0) return ZOR_OK;
        if (errno == EAGAIN || (errno == EINTR && !Rearm(l, deadline))) return Gone(c, ZOR_E_TIMEOUT);
        if (errno == EPIPE || errno == ECONNRESET) return Gone(c, ZOR_E_REFUSED);  // it closed our end
        if (errno != EINTR) return Gone(c, ZOR_E_SYSTEM);
    }
}

int ReceiveAnswer(ZorConnection* c, std::uint64_t* answer, Fds* in, double deadline) {
    Link* l = c->link;
    unsigned char buf[16];
    iovec iov{buf, sizeof buf};
    wire::Control ctl;
    for (;;) {
        msghdr m{};
        m.msg_iov = &iov;
        m.msg_iovlen = 1;
        m.msg_control = ctl.bytes;
        m.msg_controllen = sizeof ctl.bytes;
        const ssize_t n = recvmsg(l->sock, &m, MSG_CMSG_CLOEXEC);
        if (n < 0) {
            if (errno == EAGAIN || (errno == EINTR && !Rearm(l, deadline))) return Gone(c, ZOR_E_TIMEOUT);
            if (errno == EINTR) continue;
            return Gone(c, ZOR_E_REFUSED);
        }
        wire::take_descriptors(&m, in->fd, &in->n);  // more than we take are closed
        for (int i = 0; i < in->n; ++i) in->fd[i] = AboveZero(in->fd[i]);
        if (n == 0) return Gone(c, ZOR_E_REFUSED);  // the host closed our end
        if (n != 8 || (m.msg_flags & (MSG_TRUNC | MSG_CTRUNC))) return ZOR_E_SYSTEM;
        std::memcpy(answer, buf, 8);
        return ZOR_OK;
    }
}

// One command under the socket's turn: `out` goes with the request, `in`
// gets what the answer carries (closed by the caller). The host's end of
// the socket tells when it ends, so only a failure asks whether it runs.
int Exchange(ZorConnection* c, std::uint32_t command, const void* payload, std::uint32_t size,
             const Fds& out, std::uint64_t* answer, Fds* in, double deadline) {
    Link* l = c->link;
    if (l->sock < 0) {
        const double left = deadline - NowMs();
        if (left <= 0) return Gone(c, ZOR_E_TIMEOUT);
        const int st = ConnectSocket(l, static_cast<std::uint32_t>(left) + 1);
        if (st != ZOR_OK) return st == ZOR_E_UNTRUSTED ? st : ZOR_E_HOST_GONE;
    }
    int st = Rearm(l, deadline) ? SendRequest(c, command, payload, size, out, deadline) : Gone(c, ZOR_E_TIMEOUT);
    if (st == ZOR_OK) st = ReceiveAnswer(c, answer, in, deadline);
    if (st != ZOR_OK) {
        in->CloseAll();
        Drop(l);
    }
    return st;
}

int Transact(ZorConnection* c, std::uint32_t command, const void* payload, std::uint32_t size,
             const Fds& out, std::uint64_t* answer, Fds* in, std::uint32_t timeout_ms) {
    if (size > wire::kMaxPayload) return ZOR_E_TOO_LARGE;
    if (size > 0 && payload == nullptr) return ZOR_E_INVALID_ARG;
    const std::uint32_t wait = timeout_ms ? timeout_ms : c->timeout_ms;
    const double deadline = NowMs() + wait;
    if (!c->link->turn.Take(wait)) return Gone(c, ZOR_E_TIMEOUT);
    const int st = Exchange(c, command, payload, size, out, answer, in, deadline);
    c->link->turn.Give();
    return st;
}

}  // namespace

int Send(ZorConnection* c, std::uint32_t command, const void* payload, std::uint32_t size,
         std::uint32_t* result, std::uint32_t timeout_ms) {
    std::uint64_t answer = 0;
    Fds in;
    const int st = Transact(c, command, payload, size, Fds{}, &answer, &in, timeout_ms);
    in.CloseAll();
    if (st == ZOR_OK && result) *result = static_cast<std::uint32_t>(answer);
    return st;
}

int SendForHandle(ZorConnection* c, std::uint32_t command, const void* payload,
                  std::uint32_t size, Handle* handle, std::uint32_t timeout_ms) {
    *handle = 0;
    std::uint64_t answer = 0;
    Fds in;
    const int st = Transact(c, command, payload, size, Fds{}, &answer, &in, timeout_ms);
    // The answer names its descriptor by position; any other is not ours to keep.
    int keep = -1;
    if (st == ZOR_OK && answer >= 1 && answer <= static_cast<std::uint64_t>(in.n)) keep = in.fd[answer - 1];
    in.CloseAll(keep);
    if (keep > 0) *handle = static_cast<Handle>(keep);
    return st;
}

int PipeHandOver(ZorConnection* c, Handle request_read, Handle reply_write) {
    // The payload names the two descriptors by their places in the request.
    ZorPipePayload p;
    int st = build_pipe(1, 2, SelfPid(), &p);
    if (st != ZOR_OK) return st;
    Fds out;
    out.fd[0] = static_cast<int>(request_read);
    out.fd[1] = static_cast<int>(reply_write);
    out.n = 2;
    std::uint64_t answer = 0;
    Fds in;
    st = Transact(c, ZOR_CMD_PIPE_CONNECT, &p, sizeof p, out, &answer, &in, 0);
    in.CloseAll();
    return st;
}

}  // namespace zor::client
