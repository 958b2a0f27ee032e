// The logger's queue and writer thread; the ring protocol is described in
// log_impl.h.
#include <cstring>
#include <new>

#include "support/log_impl.h"
#include "support/wformat.h"

namespace zor {

void Logger::Impl::Push(std::uint32_t level, std::uint32_t mask, std::uint32_t tid, double ms,
                        const char16_t* text, std::size_t units) {
    const std::size_t size = RecordBytes(units);
    std::uint64_t h = head.load(std::memory_order_relaxed);
    std::uint64_t pad;
    for (;;) {
        std::uint64_t t = tail.load(std::memory_order_acquire);
        if (h < t) {  // our head is stale: others reserved and it was written since
            h = head.load(std::memory_order_relaxed);
            continue;
        }
        std::size_t off = h & (cap - 1);
        pad = off + size > cap ? cap - off : 0;
        if (h + pad + size - t > cap) {
            dropped.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        if (head.compare_exchange_weak(h, h + pad + size, std::memory_order_relaxed)) break;
    }
    if (pad) StateAt(h & (cap - 1)).store(kStatePad, std::memory_order_release);
    std::size_t off = (h + pad) & (cap - 1);
    Header hd{kStateFree, static_cast<std::uint32_t>(units), level, mask, tid, 0, ms};
    std::memcpy(ring + off + 4, reinterpret_cast<const char*>(&hd) + 4, kHeaderBytes - 4);
    std::memcpy(ring + off + kHeaderBytes, text, units * 2);
    StateAt(off).store(kStateReady, std::memory_order_release);
}

void Logger::Impl::PushSelf(const char16_t* fmt, ...) {
    char16_t buf[kMaxLineUnits];
    std::va_list ap;
    va_start(ap, fmt);
    std::size_t n = vwformat(buf, kMaxLineUnits, fmt, ap);
    va_end(ap);
    Push(kSelfLevel, kSelfLevel, os::current_thread_id(), os::now_ms(), buf, n);
}

// Writes every published record from `tail` on; true when there was one.
bool Logger::Impl::Drain() {
    std::uint64_t t = tail.load(std::memory_order_relaxed);
    bool any = false;
    for (;;) {
        std::size_t off = t & (cap - 1);
        std::uint32_t state = StateAt(off).load(std::memory_order_acquire);
        if (state == kStateFree) break;
        std::size_t len = cap - off;
        if (state == kStateReady) {
            Header hd;
            std::memcpy(&hd, ring + off, kHeaderBytes);
            len = RecordBytes(hd.units);
            Emit(hd.level, hd.mask, hd.tid, hd.ms,
                 reinterpret_cast<const char16_t*>(ring + off + kHeaderBytes), hd.units);
            any = true;
        }
        std::memset(ring + off, 0, len);
        t += len;
        tail.store(t, std::memory_order_release);
    }
    return any;
}

void Logger::Impl::Emit(std::uint32_t level, std::uint32_t mask, std::uint32_t tid, double ms,
                        const char16_t* text, std::size_t units) {
    std::memcpy(wline, text, units * 2);
    wline[units] = 0;
    if (debugOut.load(std::memory_order_relaxed) && !crashing) {
        if (debugLen + units + 1 > kDebugBatchUnits) FlushDebug();
        std::memcpy(debugBatch + debugLen, text, units * 2);
        debugLen += units;
    }
    std::size_t n = utf16_to_utf8(wline, line, sizeof line);
    if (file.HasPath()) file.Add(ms, tid, level, mask, line, n);
    if (sink && !crashing) sink(sinkCtx, level, mask, line, n);
}

void Logger::Impl::FlushDebug() {
    if (!debugLen) return;
    debugBatch[debugLen] = 0;
    os::debug_output(debugBatch);
    debugLen = 0;
}

void Logger::Impl::ReportDrops() {
    std::uint64_t d = dropped.load(std::memory_order_relaxed);
    if (d == reported) return;
    char16_t msg[64];
    std::size_t n = wformat(msg, 64, u"ZOR: log dropped %llu lines\n",
                            static_cast<unsigned long long>(d - reported));
    reported = d;
    Emit(kSelfLevel, kSelfLevel, os::current_thread_id(), os::now_ms(), msg, n);
}

void Logger::Impl::Run() {
    int quiet = 0;
    std::unique_lock<std::mutex> lk(m);
    for (;;) {
        if (!stop && !flushReq) wake.wait_for(lk, quiet < kQuietPasses ? kBusyPeriod : kQuietPeriod);
        flushReq = false;
        const bool stopping = stop;
        if (hold && !stopping) {
            written.notify_all();
            continue;
        }
        lk.unlock();
        bool any;
        {
            std::lock_guard<std::mutex> sl(sinkM);
            while (consuming.exchange(true, std::memory_order_acquire)) std::this_thread::yield();
            any = Drain();
            if (stopping) {
                // Callers that passed the running check just before End
                // finish their copy within microseconds.
                auto deadline = std::chrono::steady_clock::now() + kEndGrace;
                while (tail.load(std::memory_order_relaxed) != head.load(std::memory_order_acquire) &&
                       std::chrono::steady_clock::now() < deadline) {
                    std::this_thread::yield();
                    Drain();
                }
            }
            ReportDrops();
            FlushDebug();
            file.Flush();
            consuming.store(false, std::memory_order_release);
        }
        lk.lock();
        done = tail.load(std::memory_order_relaxed);
        written.notify_all();
        if (stopping) return;
        quiet = any ? 0 : (quiet < kQuietPasses ? quiet + 1 : quiet);
    }
}

void Logger::wPrintf(std::uint32_t level, std::uint32_t mask, const char16_t* fmt, ...) {
    std::va_list ap;
    va_start(ap, fmt);
    vwPrintf(level, mask, fmt, ap);
    va_end(ap);
}

void Logger::wPrintf(LogKind kind, const char16_t* fmt, ...) {
    std::va_list ap;
    va_start(ap, fmt);
    vwPrintf(kind.level, kind.mask, fmt, ap);
    va_end(ap);
}

void Logger::vwPrintf(std::uint32_t level, std::uint32_t mask, const char16_t* fmt, std::va_list ap) {
    Impl& I = *impl_;
    if (!I.IsActive(level, mask) || !I.running.load(std::memory_order_acquire)) return;
    double ms = os::now_ms();
    char16_t buf[kMaxLineUnits];
    std::size_t n = vwformat(buf, kMaxLineUnits, fmt, ap);
    I.Push(level, mask, os::current_thread_id(), ms, buf, n);
}

bool Logger::wPrintf_IsUserLevelActive(std::uint32_t level, std::uint32_t mask) const {
    return impl_->running.load(std::memory_order_acquire) && impl_->IsActive(level, mask);
}

bool Logger::SetActive(const char* list) {
    ActiveSet a;
    if (!ParseActive(list, a)) return false;
    impl_->StoreActive(a);
    return true;
}

void Logger::SetSink(Sink sink, void* ctx) {
    std::lock_guard<std::mutex> lk(impl_->sinkM);
    impl_->sink = sink;
    impl_->sinkCtx = ctx;
}

void Logger::Flush() {
    Impl& I = *impl_;
    if (!I.writer.joinable()) return;
    const std::uint64_t target = I.head.load(std::memory_order_acquire);
    std::unique_lock<std::mutex> lk(I.m);
    while (I.done < target && !I.hold && !I.stop) {
        I.flushReq = true;
        I.wake.notify_one();
        I.written.wait_for(lk, std::chrono::milliseconds(5));
    }
}

std::uint64_t Logger::Dropped() const { return impl_->dropped.load(std::memory_order_relaxed); }

const char* Logger::FilePath() const { return impl_->file.Path(); }

void Logger::SetQueueBytes(std::size_t bytes) { impl_->queueBytes = bytes; }

void Logger::SetDebugOutput(bool on) { impl_->debugOut.store(on, std::memory_order_relaxed); }

void Logger::HoldWriter(bool hold) {
    Impl& I = *impl_;
    {
        std::lock_guard<std::mutex> lk(I.m);
        I.hold = hold;
        I.flushReq = true;
    }
    I.wake.notify_one();
}

}  // namespace zor
