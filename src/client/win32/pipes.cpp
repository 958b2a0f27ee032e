// The client's pipes on Windows: anonymous pipes, whose host ends travel as
// handle values in command 8 (the host duplicates them from us).
//
// Anonymous pipes have no time-outs, so the answer is awaited by polling
// the reply pipe (PeekNamedPipe) against a deadline while watching the
// host process.
#include <windows.h>

#include "client/connection.h"
#include "client/payloads.h"

namespace zor::client {

namespace {

HANDLE H(Handle h) { return reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(h)); }
Handle Own(HANDLE h) { return reinterpret_cast<std::uintptr_t>(h); }

}  // namespace

int PipeCreate(PipeSet* p, std::uint32_t request_bytes) {
    HANDLE rr = nullptr, rw = nullptr, ar = nullptr, aw = nullptr;
    if (!CreatePipe(&rr, &rw, nullptr, request_bytes + 64)) return ZOR_E_SYSTEM;
    if (!CreatePipe(&ar, &aw, nullptr, 64)) {
        CloseHandle(rr);
        CloseHandle(rw);
        return ZOR_E_SYSTEM;
    }
    *p = PipeSet{Own(rr), Own(rw), Own(ar), Own(aw)};
    return ZOR_OK;
}

int PipeHandOver(ZorConnection* c, Handle request_read, Handle reply_write) {
    ZorPipePayload p;
    int st = build_pipe(request_read, reply_write, SelfPid(), &p);
    return st == ZOR_OK ? Send(c, ZOR_CMD_PIPE_CONNECT, &p, sizeof p, nullptr) : st;
}

int PipeWrite(ZorConnection* c, Handle h, const void* data, std::uint32_t size) {
    DWORD done = 0;
    if (WriteFile(H(h), data, size, &done, nullptr) && done == size) return ZOR_OK;
    return HostAlive(c) ? ZOR_E_PIPE : ZOR_E_HOST_GONE;
}

int PipeReadAnswer(ZorConnection* c, Handle h, std::uint32_t* answer, std::uint32_t timeout_ms) {
    const double t0 = NowMs();
    for (unsigned rounds = 1;; ++rounds) {
        DWORD avail = 0;
        if (!PeekNamedPipe(H(h), nullptr, 0, nullptr, &avail, nullptr))
            return HostAlive(c) ? ZOR_E_PIPE : ZOR_E_HOST_GONE;
        if (avail >= 4) break;
        if (NowMs() - t0 >= timeout_ms) return HostAlive(c) ? ZOR_E_TIMEOUT : ZOR_E_HOST_GONE;
        // A quick module answers within a fraction of a millisecond: yield
        // at first, then sleep so that a slow one costs no CPU.
        Pace(t0);
        if ((rounds & 63) == 0 && !HostAlive(c)) return ZOR_E_HOST_GONE;
    }
    DWORD done = 0;
    return ReadFile(H(h), answer, 4, &done, nullptr) && done == 4 ? ZOR_OK : ZOR_E_PIPE;
}

void CloseOwned(Handle h) {
    if (h) CloseHandle(H(h));
}

}  // namespace zor::client
