// The logger's state, shared by its files: log.cpp (the queue and the
// writer) and log_start.cpp (start, end, choosing the file, the crash
// flush).
//
// Callers format on their own stack and publish into a byte
// ring; one writer thread per logger drains the ring to the outputs.
//
// Ring protocol (many producers, one consumer). Positions grow without
// bound; a position's byte is ring[pos & (cap-1)]. A record is a 32-byte
// header followed by the UTF-16 text, 8-byte aligned, always contiguous: when
// it does not fit before the end of the ring, the producer also reserves the
// rest of the lap and marks it as padding. Producers reserve with a CAS on
// `head` after checking the space against `tail`, fill the record and
// publish it by storing its state word (release). The writer reads the state
// at `tail` (acquire); 0 means nothing more is published yet. After using a
// record the writer zeroes its bytes (so that a later state word reads 0
// until published) and releases the space by storing `tail` (release).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "os/os.h"
#include "support/log.h"
#include "support/log_active.h"
#include "support/log_file.h"

namespace zor {
namespace logdetail {

inline constexpr std::uint32_t kStateFree = 0;
inline constexpr std::uint32_t kStateReady = 1;
inline constexpr std::uint32_t kStatePad = 2;
inline constexpr std::size_t kMinQueueBytes = 8192;
inline constexpr int kQuietPasses = 100;  // 1 ms passes before backing off
inline constexpr auto kBusyPeriod = std::chrono::milliseconds(1);
inline constexpr auto kQuietPeriod = std::chrono::milliseconds(16);
inline constexpr auto kEndGrace = std::chrono::milliseconds(200);

struct Header {
    std::uint32_t state;
    std::uint32_t units;
    std::uint32_t level;
    std::uint32_t mask;
    std::uint32_t tid;
    std::uint32_t reserved;
    double ms;
};
inline constexpr std::size_t kHeaderBytes = sizeof(Header);
static_assert(kHeaderBytes == 32);

inline std::size_t RecordBytes(std::size_t units) { return (kHeaderBytes + units * 2 + 7) & ~std::size_t{7}; }

}  // namespace logdetail

// Only log.cpp and log_start.cpp include this file.
using namespace logdetail;

struct Logger::Impl {
    // ---- read by every caller
    std::atomic<bool> running{false};
    unsigned char* ring = nullptr;
    std::size_t cap = 0;
    double startMs = 0;
    std::atomic<std::uint64_t> lowMask[kRows];
    std::atomic<bool> highMask[kRows];
    alignas(64) std::atomic<std::uint64_t> head{0};
    alignas(64) std::atomic<std::uint64_t> tail{0};
    alignas(64) std::atomic<std::uint64_t> dropped{0};

    // ---- controlling thread and writer
    std::size_t queueBytes = kDefaultQueueBytes;
    std::atomic<bool> debugOut{true};
    std::thread writer;
    std::mutex m;  // stop, flushReq, hold, done
    std::condition_variable wake, written;
    bool stop = false, flushReq = false, hold = false;
    std::uint64_t done = 0;
    std::mutex sinkM;  // held by the writer while it writes entries
    Sink sink = nullptr;
    void* sinkCtx = nullptr;
    Settings settings;

    // ---- the consumer: the writer thread, or the crash hook once the
    // writer has let go of `consuming`
    std::atomic<bool> consuming{false};
    bool crashing = false;
    bool crashHook = false;  // this logger's CrashFlush is the process's hook
    LogFile file;
    std::uint64_t reported = 0;
    char16_t wline[kMaxLineUnits];
    char line[kMaxLineUnits * 3 + 1];
    // Entries for os::debug_output, joined per pass: one call can cost
    // hundreds of microseconds (it raises an exception for a debugger).
    static constexpr std::size_t kDebugBatchUnits = 8192;
    char16_t debugBatch[kDebugBatchUnits];
    std::size_t debugLen = 0;

    Impl() { StoreActive(ActiveSet{}, true); }

    void StoreActive(ActiveSet a, bool all = false) {
        if (all) a.Fill(true);
        for (int r = 0; r < kRows; ++r) {
            lowMask[r].store(a.low[r], std::memory_order_relaxed);
            highMask[r].store(a.high[r], std::memory_order_relaxed);
        }
    }
    bool IsActive(std::uint32_t level, std::uint32_t mask) const {
        int r = level < kLevels ? static_cast<int>(level) : kLevels;
        if (mask < 64) return (lowMask[r].load(std::memory_order_relaxed) >> mask) & 1;
        return highMask[r].load(std::memory_order_relaxed);
    }
    std::atomic_ref<std::uint32_t> StateAt(std::size_t off) {
        return std::atomic_ref<std::uint32_t>(*reinterpret_cast<std::uint32_t*>(ring + off));
    }

    void Push(std::uint32_t level, std::uint32_t mask, std::uint32_t tid, double ms,
              const char16_t* text, std::size_t units);
    bool Drain();
    void Emit(std::uint32_t level, std::uint32_t mask, std::uint32_t tid, double ms,
              const char16_t* text, std::size_t units);
    void ReportDrops();
    void FlushDebug();
    void Run();
    void OpenFile(const char16_t* file);
    void PushSelf(const char16_t* fmt, ...);
    static void CrashFlush(void* self);
};

}  // namespace zor
