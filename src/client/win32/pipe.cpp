// The client's pipe to its host: two anonymous pipes whose host ends are
// handed over with command 8, length-prefixed requests, 32-bit answers.
//
// Anonymous pipes have no time-outs, so the answer is awaited by polling
// the reply pipe (PeekNamedPipe) against a deadline while watching the
// host process. The request pipe is made large enough for the biggest
// frame, and a frame is only written when the previous answer has been
// read, so a write never waits for the host either.
#include <cstring>

#include "client/payloads.h"
#include "client/win32/connection.h"

using namespace zor::client;

namespace {

constexpr DWORD kFrameMax = 4 + ZOR_PIPE_BUFFER_SIZE;

void ClosePipeHandles(ZorConnection* c) {
    if (c->request_write) CloseHandle(c->request_write);
    if (c->reply_read) CloseHandle(c->reply_read);
    c->request_write = c->reply_read = nullptr;
    c->pipe_broken = false;
}

// Waits for the 4-byte answer until the deadline; ZOR_OK when it is there.
int AwaitAnswer(ZorConnection* c, DWORD timeout_ms) {
    const double t0 = NowMs();
    for (unsigned rounds = 1;; ++rounds) {
        DWORD avail = 0;
        if (!PeekNamedPipe(c->reply_read, nullptr, 0, nullptr, &avail, nullptr))
            return HostAlive(c) ? ZOR_E_PIPE : ZOR_E_HOST_GONE;
        if (avail >= 4) return ZOR_OK;
        if (NowMs() - t0 >= timeout_ms) return HostAlive(c) ? ZOR_E_TIMEOUT : ZOR_E_HOST_GONE;
        // A quick module answers within a fraction of a millisecond: yield
        // at first, then sleep so that a slow one costs no CPU.
        Pace(t0);
        if ((rounds & 63) == 0 && !HostAlive(c)) return ZOR_E_HOST_GONE;
    }
}

}  // namespace

extern "C" {

int zor_pipe_open(ZorConnection* c) {
    if (c == nullptr) return ZOR_E_INVALID_ARG;
    EnterCriticalSection(&c->lock);
    EnterCriticalSection(&c->pipe_lock);
    int st = ZOR_OK;
    if (c->request_write == nullptr || c->pipe_broken) {
        ClosePipeHandles(c);
        if (c->frame == nullptr) c->frame = new (std::nothrow) unsigned char[kFrameMax];
        if (c->frame == nullptr) st = ZOR_E_SYSTEM;
        if (st == ZOR_OK && !c->client_added) st = zor_client_add(c, nullptr);
        HANDLE req_read = nullptr, rep_write = nullptr;
        if (st == ZOR_OK && !CreatePipe(&req_read, &c->request_write, nullptr, kFrameMax + 64))
            st = ZOR_E_SYSTEM;
        if (st == ZOR_OK && !CreatePipe(&c->reply_read, &rep_write, nullptr, 64))
            st = ZOR_E_SYSTEM;
        ZorPipePayload p;
        if (st == ZOR_OK)
            st = build_pipe(reinterpret_cast<std::uintptr_t>(req_read),
                            reinterpret_cast<std::uintptr_t>(rep_write), SelfPid(), &p);
        if (st == ZOR_OK) st = Send(c, ZOR_CMD_PIPE_CONNECT, &p, sizeof p, nullptr);
        // The host has duplicated its ends during the command. Dropping ours
        // lets a dead host show as a broken pipe instead of silence.
        if (req_read) CloseHandle(req_read);
        if (rep_write) CloseHandle(rep_write);
        if (st != ZOR_OK) ClosePipeHandles(c);
    }
    LeaveCriticalSection(&c->pipe_lock);
    LeaveCriticalSection(&c->lock);
    return st;
}

int zor_pipe_call(ZorConnection* c, uint32_t module, uint32_t caller_tag, const void* body,
                  uint32_t size, uint32_t* result) {
    if (c == nullptr || result == nullptr) return ZOR_E_INVALID_ARG;
    *result = 0;
    if (size > ZOR_CLIENT_MAX_BODY) return ZOR_E_TOO_LARGE;
    EnterCriticalSection(&c->pipe_lock);
    int st = ZOR_OK;
    if (c->request_write == nullptr) st = ZOR_E_NOT_CONNECTED;
    else if (c->pipe_broken) st = ZOR_E_PIPE;
    if (st == ZOR_OK) st = build_frame(module, caller_tag, body, size, c->frame, kFrameMax);
    if (st == ZOR_OK) {
        const DWORD n = static_cast<DWORD>(frame_bytes(size));
        DWORD done = 0;
        if (!WriteFile(c->request_write, c->frame, n, &done, nullptr) || done != n)
            st = HostAlive(c) ? ZOR_E_PIPE : ZOR_E_HOST_GONE;
        if (st == ZOR_OK) st = AwaitAnswer(c, c->timeout_ms);
        std::uint32_t answer = 0;
        if (st == ZOR_OK && (!ReadFile(c->reply_read, &answer, 4, &done, nullptr) || done != 4))
            st = ZOR_E_PIPE;
        if (st == ZOR_OK) {
            *result = answer;
            st = request_status(answer);
        } else {
            // A late answer would be taken for the next request's.
            c->pipe_broken = true;
        }
    }
    LeaveCriticalSection(&c->pipe_lock);
    return st;
}

int zor_pipe_close(ZorConnection* c) {
    if (c == nullptr) return ZOR_E_INVALID_ARG;
    EnterCriticalSection(&c->lock);
    EnterCriticalSection(&c->pipe_lock);
    int st = ZOR_OK;
    if (c->request_write) {
        std::uint32_t pid = SelfPid();
        // The host waits up to ten seconds for a pipe thread blocked on us.
        std::uint32_t wait = c->timeout_ms < 12000 ? 12000 : c->timeout_ms;
        st = Send(c, ZOR_CMD_PIPE_DISCONNECT, &pid, sizeof pid, nullptr, wait);
        ClosePipeHandles(c);
    }
    if (c->client_added) {
        int rst = zor_client_remove(c);
        if (st == ZOR_OK && rst != ZOR_E_NOT_CONNECTED) st = rst;
    }
    LeaveCriticalSection(&c->pipe_lock);
    LeaveCriticalSection(&c->lock);
    return st;
}

}  // extern "C"
