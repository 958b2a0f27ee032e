// The client's pipe to its host: two anonymous pipes whose host ends are
// handed over with command 8, length-prefixed requests, 32-bit answers.
//
// The request pipe is made large enough for the biggest frame where the
// platform allows, and a frame is only written when the previous answer has
// been read, so a write does not wait for the host; the answer is awaited
// against a deadline while watching the host (client/<platform>).
#include <cstring>
#include <new>

#include "client/connection.h"
#include "client/payloads.h"

using namespace zor::client;

namespace {

constexpr std::uint32_t kFrameMax = 4 + ZOR_PIPE_BUFFER_SIZE;

void ClosePipeHandles(ZorConnection* c) {
    CloseOwned(c->request_write);
    CloseOwned(c->reply_read);
    c->request_write = c->reply_read = 0;
    c->pipe_broken = false;
}

int OpenPipes(ZorConnection* c) {
    if (c->frame == nullptr) c->frame = new (std::nothrow) unsigned char[kFrameMax];
    if (c->frame == nullptr) return ZOR_E_SYSTEM;
    int st = c->client_added ? ZOR_OK : zor_client_add(c, nullptr);
    PipeSet p;
    if (st == ZOR_OK) st = PipeCreate(&p, kFrameMax);
    if (st != ZOR_OK) return st;
    c->request_write = p.request_write;
    c->reply_read = p.reply_read;
    st = PipeHandOver(c, p.request_read, p.reply_write);
    // The host has taken its ends during the command. Dropping ours lets a
    // dead host show as a broken pipe instead of silence.
    CloseOwned(p.request_read);
    CloseOwned(p.reply_write);
    return st;
}

}  // namespace

extern "C" {

int zor_pipe_open(ZorConnection* c) {
    if (c == nullptr) return ZOR_E_INVALID_ARG;
    std::scoped_lock hold(c->lock, c->pipe_lock);
    if (c->request_write != 0 && !c->pipe_broken) return ZOR_OK;
    ClosePipeHandles(c);
    int st = OpenPipes(c);
    if (st != ZOR_OK) ClosePipeHandles(c);
    return st;
}

int zor_pipe_call(ZorConnection* c, uint32_t module, uint32_t caller_tag, const void* body,
                  uint32_t size, uint32_t* result) {
    if (c == nullptr || result == nullptr) return ZOR_E_INVALID_ARG;
    *result = 0;
    if (size > ZOR_CLIENT_MAX_BODY) return ZOR_E_TOO_LARGE;
    std::lock_guard hold(c->pipe_lock);
    if (c->request_write == 0) return ZOR_E_NOT_CONNECTED;
    if (c->pipe_broken) return ZOR_E_PIPE;
    int st = build_frame(module, caller_tag, body, size, c->frame, kFrameMax);
    if (st != ZOR_OK) return st;
    st = PipeWrite(c, c->request_write, c->frame, static_cast<std::uint32_t>(frame_bytes(size)));
    std::uint32_t answer = 0;
    if (st == ZOR_OK) st = PipeReadAnswer(c, c->reply_read, &answer, c->timeout_ms);
    if (st != ZOR_OK) {
        // A late answer would be taken for the next request's.
        c->pipe_broken = true;
        return st;
    }
    *result = answer;
    return request_status(answer);
}

int zor_pipe_close(ZorConnection* c) {
    if (c == nullptr) return ZOR_E_INVALID_ARG;
    std::scoped_lock hold(c->lock, c->pipe_lock);
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
    return st;
}

}  // extern "C"
