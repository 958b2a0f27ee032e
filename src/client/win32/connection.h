// The state behind a ZorConnection and the Windows helpers the API uses.
#pragma once

#include <windows.h>

#include <cstdint>
#include <new>

#include "zor/zor_client.h"

struct ZorConnection {
    HWND hwnd = nullptr;
    DWORD host_pid = 0;
    HANDLE host_process = nullptr;  // SYNCHRONIZE: tells us when the host ends
    std::uint32_t timeout_ms = ZOR_CLIENT_DEFAULT_TIMEOUT_MS;

    CRITICAL_SECTION lock;       // system area mapping, pipe set-up and tear-down
    CRITICAL_SECTION pipe_lock;  // one pipe request in flight

    ZorView area{};              // the system area, bounded by what is mapped
    std::uint32_t area_bytes = 0;

    HANDLE request_write = nullptr;  // we write frames here
    HANDLE reply_read = nullptr;     // the host's answers arrive here
    bool pipe_broken = false;        // out of step after a time-out
    bool client_added = false;       // command 11 sent and not yet undone
    unsigned char* frame = nullptr;  // one frame buffer, allocated on first use
};

namespace zor::client {

int Open(ZorConnection** out, std::uint32_t host_pid, bool by_pid, std::uint32_t timeout_ms);
void Close(ZorConnection* c);
int ListHosts(std::uint32_t* pids, std::uint32_t cap, std::uint32_t* count);
bool HostAlive(ZorConnection* c);
// WM_COPYDATA with a bounded wait; timeout_ms 0 = the connection's.
int Send(ZorConnection* c, std::uint32_t command, const void* payload, std::uint32_t size,
         std::uint32_t* result, std::uint32_t timeout_ms = 0);
// Maps a section handle valid in this process; takes ownership of it.
int MapWhole(std::uint64_t handle, std::uint32_t want, ZorView* out);
void Unmap(ZorView* v);
std::uint32_t SelfPid();
// Milliseconds from the performance counter, for spin-then-sleep waits.
double NowMs();
// Spin-then-sleep pacing: yields while `since` is younger than 2 ms (a
// quick answer costs no sleep granularity), then sleeps 1 ms per round.
void Pace(double since);

}  // namespace zor::client
