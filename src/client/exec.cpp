// ExecISRFunc from a client process: the request is queued in the system
// area with the host's own writer (modules/deferred_list_writer), so client and host
// follow one set of rules for SyncTDL, result slots and bounds. What is
// added here is the client's view of time: a deadline of the caller's
// choosing and a host that may end while we wait.
#include "client/connection.h"
#include "modules/deferred_list_writer.h"
#include "os/os.h"

namespace {

// Short waits for room and for SyncTDL; the outer loop retries them until
// the caller's deadline, checking the host in between.
constexpr std::uint32_t kRoomWaitMs = 20;
constexpr std::uint32_t kLockWaitMs = 50;

bool Expired(double t0, std::uint32_t limit) { return zor::client::NowMs() - t0 >= limit; }

int Queue(ZorConnection* c, unsigned char* area, std::uint32_t module, std::uint32_t func,
          const void* data, std::uint32_t size, bool want, std::uint32_t limit,
          zor::TdlTicket* ticket) {
    const double t0 = zor::client::NowMs();
    for (;;) {
        switch (zor::TdlAppend(area, c->area_bytes, zor::client::SelfPid(), module, func, data,
                               size, want, ticket, kRoomWaitMs)) {
        case zor::TdlStatus::kQueued: return ZOR_OK;
        case zor::TdlStatus::kQueuedNoSlot: return want ? ZOR_E_NO_SLOT : ZOR_OK;
        case zor::TdlStatus::kTooLarge: return ZOR_E_TOO_LARGE;
        case zor::TdlStatus::kNoArea: return ZOR_E_SYSTEM;
        case zor::TdlStatus::kBadData: return ZOR_E_INVALID_ARG;
        case zor::TdlStatus::kTimeout: break;
        }
        if (!zor::client::HostAlive(c)) return ZOR_E_HOST_GONE;
        if (Expired(t0, limit)) return ZOR_E_QUEUE_FULL;
    }
}

int Await(ZorConnection* c, unsigned char* area, const zor::TdlTicket& ticket,
          std::uint32_t wait_ms, std::uint32_t* result) {
    const double t0 = zor::client::NowMs();
    for (unsigned rounds = 0;;) {
        const std::uint32_t runs = zor::TdlRunCount(area, c->area_bytes);
        if (zor::TdlResultReady(area, c->area_bytes, ticket)) {
            *result = zor::TdlTakeResult(area, c->area_bytes, ticket);
            return ZOR_OK;
        }
        const double waited = zor::client::NowMs() - t0;
        if (waited >= wait_ms) break;
        // A 1 kHz source answers within a millisecond: spin briefly, then
        // sleep until the next run where the host can wake us (Linux), else
        // pace; now and then, not while spinning, ask whether the host is
        // still there.
        if (waited < 0.05) {
            zor::os::spin_pause();
            continue;
        }
        if (!zor::TdlSleepUntilRun(area, c->area_bytes, runs, 10)) zor::client::Pace(t0);
        if ((++rounds & 63) == 0 && !zor::client::HostAlive(c)) break;
    }
    // Give up: the writer clears the entry's slot under SyncTDL so that a
    // late run cannot write into a slot handed to someone else.
    if (zor::TdlWait(area, c->area_bytes, ticket, 0, kLockWaitMs, result)) return ZOR_OK;
    return zor::client::HostAlive(c) ? ZOR_E_TIMEOUT : ZOR_E_HOST_GONE;
}

}  // namespace

extern "C" int zor_exec_isr_func(ZorConnection* c, uint32_t module, uint32_t func,
                                 const void* data, uint32_t size, uint32_t wait_ms,
                                 uint32_t* result) {
    if (c == nullptr || (size > 0 && data == nullptr)) return ZOR_E_INVALID_ARG;
    if (module == 0 || module >= 100) return ZOR_E_NOT_REGISTERED;
    std::uint32_t dummy;
    if (result == nullptr) result = &dummy;
    *result = 0;
    int st = zor_system_area(c, 0, nullptr);
    if (st != ZOR_OK) return st;
    auto* area = static_cast<unsigned char*>(c->area.base);
    zor::TdlTicket ticket;
    const std::uint32_t limit = wait_ms ? wait_ms : c->timeout_ms;
    st = Queue(c, area, module, func, data, size, wait_ms != 0, limit, &ticket);
    if (st != ZOR_OK) return st;
    if (wait_ms == 0) {
        *result = 1;
        return ZOR_OK;
    }
    return Await(c, area, ticket, wait_ms, result);
}
