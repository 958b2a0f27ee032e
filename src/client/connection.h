// The state behind a ZorConnection, and the small platform interface the
// client API is written against. The API itself (commands, ExecISRFunc,
// pipe requests) is the same on every platform; client/win32 talks to the
// host's window, client/posix to its command socket.
#pragma once

#include <cstdint>
#include <mutex>

#include "zor/zor_client.h"

namespace zor::client {

// A handle this process owns: a Windows HANDLE, or a POSIX descriptor
// (never 0: descriptor 0 is moved up when a platform call returns it).
// 0 means none.
using Handle = std::uint64_t;

// The platform's link to one host (window and process, or socket).
struct Link;

}  // namespace zor::client

struct ZorConnection {
    std::uint32_t host_pid = 0;
    std::uint32_t timeout_ms = ZOR_CLIENT_DEFAULT_TIMEOUT_MS;
    zor::client::Link* link = nullptr;

    std::mutex lock;       // system area mapping, pipe set-up and tear-down
    std::mutex pipe_lock;  // one pipe request in flight

    ZorView area{};  // the system area, bounded by what is mapped
    std::uint32_t area_bytes = 0;

    zor::client::Handle request_write = 0;  // we write frames here
    zor::client::Handle reply_read = 0;     // the host's answers arrive here
    bool pipe_broken = false;               // out of step after a time-out
    bool client_added = false;              // command 11 sent and not yet undone
    unsigned char* frame = nullptr;         // one frame buffer, allocated on first use
};

namespace zor::client {

// ----- implemented per platform

// Finds the host (the one of process `host_pid`, or any when by_pid is
// false) and fills c->link and c->host_pid. ZOR_E_NO_HOST when none runs.
int Attach(ZorConnection* c, std::uint32_t host_pid, bool by_pid);
void Detach(ZorConnection* c);
int ListHosts(std::uint32_t* pids, std::uint32_t cap, std::uint32_t* count);
bool HostAlive(ZorConnection* c);

// One command with a bounded wait; timeout_ms 0 = the connection's.
int Send(ZorConnection* c, std::uint32_t command, const void* payload, std::uint32_t size,
         std::uint32_t* result, std::uint32_t timeout_ms = 0);
// A command whose answer names a shared-memory handle (commands 1, 3, 15):
// *handle gets it, owned by the caller (0 when the host gave none).
int SendForHandle(ZorConnection* c, std::uint32_t command, const void* payload,
                  std::uint32_t size, Handle* handle, std::uint32_t timeout_ms = 0);

// Maps shared memory; takes ownership of `handle`. `want` bounds the view
// (0 = all there is); never more than the object really holds.
int MapWhole(Handle handle, std::uint32_t want, ZorView* out);
void Unmap(ZorView* v);
// Maps the statistics area of host `host_pid` (or another of its read-only
// areas, by name prefix) for reading, whole; ZOR_E_NO_HOST when there is none.
int MapStats(std::uint32_t host_pid, ZorView* out, const char* prefix = ZOR_STATS_NAME_PREFIX);

// The two pipes of a client: requests go from request_write to the host's
// request_read, answers from the host's reply_write to reply_read.
struct PipeSet {
    Handle request_read = 0, request_write = 0, reply_read = 0, reply_write = 0;
};
// `request_bytes`: the largest frame, which must fit the request pipe.
int PipeCreate(PipeSet* p, std::uint32_t request_bytes);
// Command 8: hands the host its two ends (it keeps copies of its own).
int PipeHandOver(ZorConnection* c, Handle request_read, Handle reply_write);
// Writes a whole frame within the connection's time-out.
int PipeWrite(ZorConnection* c, Handle h, const void* data, std::uint32_t size);
// Waits up to timeout_ms for the 4-byte answer and reads it.
int PipeReadAnswer(ZorConnection* c, Handle h, std::uint32_t* answer, std::uint32_t timeout_ms);
void CloseOwned(Handle h);

std::uint32_t SelfPid();
// Milliseconds on a monotonic clock, for deadlines and spin-then-sleep waits.
double NowMs();
// Spin-then-sleep pacing: yields while `since` is younger than 2 ms (a
// quick answer costs no sleep granularity), then sleeps 1 ms per round.
void Pace(double since);

}  // namespace zor::client
