// The flight recorder: the last events in a ring that other processes may
// read (layout in zor/zor_trace.h). The hooks run on the dispatch thread and
// write the ring with plain stores: no lock, no allocation, no system call,
// no clock reading of their own (they take the dispatch loop's readings).
// Without a ring every hook is one test of a null pointer.
#pragma once

#include <atomic>
#include <cstdint>

#include "os/os.h"
#include "zor/zor_module.h"
#include "zor/zor_trace.h"

namespace zor {

class Logger;

class FlightRecorder {
public:
    explicit FlightRecorder(Logger& log) : log_(log) {}
    ~FlightRecorder() { Release(); }
    FlightRecorder(const FlightRecorder&) = delete;
    FlightRecorder& operator=(const FlightRecorder&) = delete;

    // Creates "Local\ZOR.trace.<pid>" for `events` records (0: no recorder;
    // others are held to ZOR_TRACE_MIN_EVENTS..ZOR_TRACE_MAX_EVENTS). A name
    // that already exists is refused and logged: the host runs without it.
    bool Publish(std::uint32_t events);
    void Release();
    const ZorTrace* Area() const { return area_.load(std::memory_order_acquire); }
    std::size_t AreaBytes() const { return bytes_; }

    // The IRQ driver's lateness export, or null (no driver, or one that does
    // not know its deadline). Set while no event is delivered.
    void SetLatenessSource(ZorLatenessProc proc) { lateness_.store(proc, std::memory_order_release); }

    // Dispatch thread. An event: Begin at arrival, Deferred when the first
    // call starts, one Call per ISR call, End after the last one.
    void Begin(std::uint32_t sequence, double arrivalMs, std::uint32_t calls) {
        ZorTrace* t = area_.load(std::memory_order_acquire);
        cur_ = t ? Claim(t, calls) : nullptr;
        if (!cur_) return;
        const ZorLatenessProc late = lateness_.load(std::memory_order_acquire);
        sequence_ = sequence;
        lateNs_ = late ? late() : ZOR_TRACE_LATE_UNKNOWN;
        arrivalMs_ = arrivalMs;
        calls_ = 0;
    }
    void Deferred(double startMs) {
        if (cur_) deferredNs_ = Ns(startMs - arrivalMs_);
    }
    void Call(std::uint32_t slot, double startMs, double endMs, std::uint32_t flags) {
        if (!cur_ || calls_ >= room_) return;
        const std::uint64_t start = Ns(startMs - arrivalMs_);
        Put(callWords_[2 * calls_], slot | flags << 16 | start << 32);
        Put(callWords_[2 * calls_ + 1], std::uint64_t{Ns(endMs - startMs)});
        ++calls_;
    }
    // Marks the latest call (the dispatch watchdog's aborted calls).
    void FlagLastCall(std::uint32_t flags) {
        if (!cur_ || calls_ == 0) return;
        std::uint64_t& w = callWords_[2 * (calls_ - 1)];
        Put(w, w | static_cast<std::uint64_t>(flags) << 16);
    }
    void End(double endMs);

private:
    static std::uint32_t Ns(double ms) {
        const double ns = ms * 1e6;
        return ns <= 0 ? 0u : ns >= 4294967295.0 ? 0xFFFFFFFFu : static_cast<std::uint32_t>(ns);
    }
    static void Put(std::uint64_t& w, std::uint64_t v) {
        std::atomic_ref<std::uint64_t>(w).store(v, std::memory_order_release);
    }
    // Room for a record of `calls` calls at the next position; the claim is
    // published before any of its bytes is written.
    std::uint64_t* Claim(ZorTrace* t, std::uint32_t calls);

    Logger& log_;
    std::atomic<ZorTrace*> area_{nullptr};
    std::atomic<ZorLatenessProc> lateness_{nullptr};
    std::size_t bytes_ = 0;
    os::Handle mapping_ = 0;
    char16_t name_[40] = {};
    // Fixed while published.
    std::uint64_t* index_ = nullptr;
    unsigned char* data_ = nullptr;
    std::uint32_t capacity_ = 0, dataBytes_ = 0;
    // Dispatch thread only.
    std::uint64_t* cur_ = nullptr;     // the record being written
    std::uint64_t* callWords_ = nullptr;
    std::uint64_t position_ = 0;       // absolute position of cur_
    std::uint64_t next_ = 0;           // where the next record may start
    std::uint64_t number_ = 0;         // records completed
    std::uint32_t room_ = 0, calls_ = 0, sequence_ = 0, lateNs_ = 0, deferredNs_ = 0;
    double arrivalMs_ = 0;
};

}  // namespace zor
