// The pipe thread of a connected client: length-prefixed requests in, one
// 32-bit answer out per request, strictly in order.
#include <cstring>

#include "pipes/client_registry.h"
#include "support/log.h"
#include "zor/zor_module.h"

namespace zor {

namespace {

// Reads exactly n bytes, completing short reads. A failed read or one that
// moves nothing (the client closed its end) fails.
bool ReadAll(PipeJob& r, void* buf, std::uint32_t n) {
    auto* p = static_cast<unsigned char*>(buf);
    while (n) {
        std::uint32_t done = 0;
        if (!os::pipe_read(r.request, p, n, &done) ||
            done == 0 || done > n)
            return false;
        p += done;
        n -= done;
    }
    return true;
}

bool WriteAll(PipeJob& r, const void* buf, std::uint32_t n) {
    auto* p = static_cast<const unsigned char*>(buf);
    while (n) {
        std::uint32_t done = 0;
        if (!os::pipe_write(r.reply, p, n, &done) ||
            done == 0 || done > n)
            return false;
        p += done;
        n -= done;
    }
    return true;
}

// Reads and drops n bytes through the buffer: what a refused frame declared.
bool Discard(PipeJob& r, unsigned char* buffer, std::uint32_t n) {
    while (n) {
        const std::uint32_t part = n < ZOR_PIPE_BUFFER_SIZE ? n : ZOR_PIPE_BUFFER_SIZE;
        if (!ReadAll(r, buffer, part)) return false;
        n -= part;
    }
    return true;
}

// A stop cancelling right now (2) finishes before this thread goes on.
void LeaveIo(PipeJob& r) {
    for (std::uint32_t expected = 1; !r.reading.compare_exchange_weak(expected, 0, std::memory_order_acq_rel);
         expected = 1) {
    }
}

// One request-answer pass; false when any step failed.
bool ServeOne(PipeJob& r, unsigned char* buffer) {
    std::uint32_t length = 0;
    r.reading.store(1, std::memory_order_release);
    bool ok = ReadAll(r, &length, sizeof length);
    // A length the buffer cannot hold, or too short for the request header,
    // fails the pass; its bytes are still consumed, so that the next frame
    // is read from its start.
    if (ok && (length < sizeof(ZorClientRequest) || length > ZOR_PIPE_BUFFER_SIZE)) {
        Discard(r, buffer, length);
        ok = false;
    } else {
        ok = ok && ReadAll(r, buffer, length);
    }
    LeaveIo(r);
    if (!ok) return false;
    std::int32_t result = HandleClientRequest(r.owner->slots(), r.owner->caller(), buffer);
    // A client that does not read its answer must not keep a stop waiting.
    r.reading.store(1, std::memory_order_release);
    ok = WriteAll(r, &result, sizeof result);
    LeaveIo(r);
    return ok;
}

// Passes until a stop, or until too many failed.
void Serve(PipeJob& r) {
    if (r.stop.load(std::memory_order_acquire)) return;
    Logger& log = r.owner->log();
    std::uint32_t failures = 0;
    do {
        if (!ServeOne(r, r.buffer)) {
            // A read cancelled by a stop is the end, not a failure.
            if (r.stop.load(std::memory_order_acquire)) break;
            log.wPrintf(kLogTiming, u"ZOR: Pipe-Communication failed!\n\r");
            os::sleep_ms(20);
            ++failures;
        }
    } while (!r.stop.load(std::memory_order_acquire) && failures < ClientRegistry::kMaxFailures);
}

}  // namespace

std::uint32_t ClientPipeThread(void* arg) {
    PipeJob& r = *static_cast<PipeJob*>(arg);
    Serve(r);
    // A stop that gave up waiting left the job to this thread.
    if (r.state.exchange(1, std::memory_order_acq_rel) == 2) r.owner->ReleaseJob(&r, true);
    return 0;
}

}  // namespace zor
