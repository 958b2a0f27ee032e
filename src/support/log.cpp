// The logger: callers format on their own stack and publish into a byte
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
#include "support/log.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <new>
#include <string>
#include <thread>

#include "os/os.h"
#include "support/wformat.h"

namespace zor {
namespace {

constexpr std::uint32_t kStateFree = 0;
constexpr std::uint32_t kStateReady = 1;
constexpr std::uint32_t kStatePad = 2;
constexpr std::size_t kMinQueueBytes = 8192;
constexpr int kLevels = 16;          // levels 0-15 have a row each
constexpr int kRows = kLevels + 1;   // the last row: every level above 15
constexpr int kQuietPasses = 100;    // 1 ms passes before backing off
constexpr auto kBusyPeriod = std::chrono::milliseconds(1);
constexpr auto kQuietPeriod = std::chrono::milliseconds(16);
constexpr auto kEndGrace = std::chrono::milliseconds(200);

struct Header {
    std::uint32_t state;
    std::uint32_t units;
    std::uint32_t level;
    std::uint32_t mask;
    std::uint32_t tid;
    std::uint32_t reserved;
    double ms;
};
constexpr std::size_t kHeaderBytes = sizeof(Header);
static_assert(kHeaderBytes == 32);

std::size_t RecordBytes(std::size_t units) { return (kHeaderBytes + units * 2 + 7) & ~std::size_t{7}; }

char* PutUnsigned(char* p, std::uint64_t v, int minDigits = 1) {
    char d[20];
    int n = 0;
    do {
        d[n++] = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v || n < minDigits);
    while (n) *p++ = d[--n];
    return p;
}

// "[<s>.<us> tid=<tid> <level>/<mask>] " by hand: the writer's per-entry
// cost bounds how long a burst the ring absorbs.
std::size_t FormatStamp(char* out, double ms, std::uint32_t tid, std::uint32_t level, std::uint32_t mask) {
    std::uint64_t us = ms > 0 ? static_cast<std::uint64_t>(ms * 1000.0 + 0.5) : 0;
    char* p = out;
    *p++ = '[';
    p = PutUnsigned(p, us / 1000000);
    *p++ = '.';
    p = PutUnsigned(p, us % 1000000, 6);
    std::memcpy(p, " tid=", 5);
    p = PutUnsigned(p + 5, tid);
    *p++ = ' ';
    if (level == Logger::kSelfLevel) {
        std::memcpy(p, "log", 3);
        p += 3;
    } else {
        p = PutUnsigned(p, level);
        *p++ = '/';
        p = PutUnsigned(p, mask);
    }
    *p++ = ']';
    *p++ = ' ';
    return static_cast<std::size_t>(p - out);
}

struct ActiveSet {
    std::uint64_t low[kRows];  // masks 0-63
    bool high[kRows];          // masks above 63
    void Fill(bool on) {
        for (int r = 0; r < kRows; ++r) low[r] = on ? ~std::uint64_t{0} : 0, high[r] = on;
    }
};

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

bool EqualsNoCase(const char* b, const char* e, const char* word) {
    for (; b < e && *word; ++b, ++word) {
        char c = *b >= 'A' && *b <= 'Z' ? static_cast<char>(*b + 32) : *b;
        if (c != *word) return false;
    }
    return b == e && !*word;
}

// '*' (-1) or a decimal number not above max.
bool ParseField(const char*& p, const char* e, int max, int* out) {
    if (p < e && *p == '*') {
        ++p;
        *out = -1;
        return true;
    }
    int v = 0, digits = 0;
    for (; p < e && *p >= '0' && *p <= '9'; ++p, ++digits) {
        v = v * 10 + (*p - '0');
        if (v > max) return false;
    }
    *out = v;
    return digits > 0;
}

bool ApplyItem(const char* b, const char* e, bool first, ActiveSet& a) {
    if (EqualsNoCase(b, e, "all") || EqualsNoCase(b, e, "*")) {
        a.Fill(true);
        return true;
    }
    if (EqualsNoCase(b, e, "none")) {
        a.Fill(false);
        return true;
    }
    bool on = true;
    if (b < e && (*b == '-' || *b == '+')) on = *b++ == '+';
    if (first) a.Fill(!on);
    int level, mask = -1;
    if (!ParseField(b, e, kLevels - 1, &level)) return false;
    if (b < e && *b == ':') {
        ++b;
        if (!ParseField(b, e, 63, &mask)) return false;
    }
    if (b != e) return false;
    for (int r = 0; r < kRows; ++r) {
        if (level >= 0 && r != level) continue;
        std::uint64_t bits = mask < 0 ? ~std::uint64_t{0} : std::uint64_t{1} << mask;
        a.low[r] = on ? a.low[r] | bits : a.low[r] & ~bits;
        if (mask < 0) a.high[r] = on;
    }
    return true;
}

bool ParseActive(const char* list, ActiveSet& a) {
    a.Fill(true);
    if (!list) return true;
    const char* p = list;
    while (IsSpace(*p)) ++p;
    if (!*p) return true;
    bool first = true;
    for (;;) {
        const char* b = p;
        while (*p && *p != ',') ++p;
        const char* e = p;
        while (b < e && IsSpace(*b)) ++b;
        while (e > b && IsSpace(e[-1])) --e;
        if (b == e || !ApplyItem(b, e, first, a)) return false;
        first = false;
        if (!*p) return true;
        ++p;
    }
}

}  // namespace

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
    std::ofstream file;
    std::string path;

    // ---- writer only
    std::uint64_t reported = 0;
    char16_t wline[kMaxLineUnits];
    char line[kMaxLineUnits * 3 + 1];
    char fileBuf[1 << 16];
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
};

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
    if (debugOut.load(std::memory_order_relaxed)) {
        if (debugLen + units + 1 > kDebugBatchUnits) FlushDebug();
        std::memcpy(debugBatch + debugLen, text, units * 2);
        debugLen += units;
    }
    std::size_t n = utf16_to_utf8(wline, line, sizeof line);
    if (file.is_open()) {
        char stamp[96];
        std::size_t k = FormatStamp(stamp, ms - startMs, tid, level, mask);
        file.write(stamp, static_cast<std::streamsize>(k));
        file.write(line, static_cast<std::streamsize>(n));
    }
    if (sink) sink(sinkCtx, level, mask, line, n);
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
        }
        if (file.is_open()) file.flush();
        lk.lock();
        done = tail.load(std::memory_order_relaxed);
        written.notify_all();
        if (stopping) return;
        quiet = any ? 0 : (quiet < kQuietPasses ? quiet + 1 : quiet);
    }
}

void Logger::Impl::OpenFile(const char16_t* arg) {
    path.clear();
    std::u16string p;
    std::time_t now = std::time(nullptr);
    std::tm lt{};
    if (std::tm* t = std::localtime(&now)) lt = *t;
    if (arg) {
        p = arg;
    } else {
        char16_t env[520];
        if (os::env_get("ZOR_LOG_FILE", env, 520)) {
            p = env;
        } else {
            char16_t dir[520];
            if (!os::user_appdata_dir(dir, 260)) return;
            wformat(dir + std::char_traits<char16_t>::length(dir), 260,
                    u"/ZOR/logs/zor-%04d%02d%02d-%02d%02d%02d-%u.log", lt.tm_year + 1900,
                    lt.tm_mon + 1, lt.tm_mday, lt.tm_hour, lt.tm_min, lt.tm_sec,
                    os::current_process_id());
            p = dir;
        }
    }
    if (p.empty()) return;
    // '/' separates on every platform; the OS layer hands out '\\'.
    for (char16_t& c : p)
        if (c == u'\\') c = u'/';
    std::filesystem::path fp(p);
    std::error_code ec;
    if (fp.has_parent_path()) std::filesystem::create_directories(fp.parent_path(), ec);
    file.rdbuf()->pubsetbuf(fileBuf, sizeof fileBuf);
    file.open(fp, std::ios::out | std::ios::binary | std::ios::trunc);
    std::string u8(p.size() * 3 + 1, '\0');
    u8.resize(utf16_to_utf8(p.c_str(), u8.data(), u8.size()));
    if (!file.is_open()) {
        PushSelf(u"ZOR: log: cannot open '%S'\n", u8.c_str());
        return;
    }
    path = u8;
    char head[160];
    int k = std::snprintf(head, sizeof head,
                          "# ZOR log: process %u, started %04d-%02d-%02d %02d:%02d:%02d local time, clock %s\n",
                          os::current_process_id(), lt.tm_year + 1900, lt.tm_mon + 1, lt.tm_mday,
                          lt.tm_hour, lt.tm_min, lt.tm_sec, os::clock_name());
    if (k > 0) file.write(head, k < static_cast<int>(sizeof head) ? k : sizeof head - 1);
}

Logger::Logger() : impl_(new Impl) {}

Logger::~Logger() {
    End();
    delete[] impl_->ring;
    delete impl_;
}

bool Logger::Start(const char16_t* file) {
    Impl& I = *impl_;
    if (I.writer.joinable()) return false;
    std::size_t want = kMinQueueBytes;
    while (want < I.queueBytes && want < (std::size_t{1} << 40)) want <<= 1;
    if (I.cap != want) {
        delete[] I.ring;
        I.cap = 0;
        I.ring = new (std::nothrow) unsigned char[want];
        if (!I.ring) return false;
        I.cap = want;
    }
    std::memset(I.ring, 0, I.cap);
    I.head.store(0, std::memory_order_relaxed);
    I.tail.store(0, std::memory_order_relaxed);
    I.dropped.store(0, std::memory_order_relaxed);
    I.reported = 0;
    I.done = 0;
    I.stop = I.flushReq = I.hold = false;
    I.startMs = os::now_ms();

    char16_t env[256];
    char active[768] = "";
    bool badActive = false;
    if (os::env_get("ZOR_LOG_ACTIVE", env, 256)) {
        utf16_to_utf8(env, active, sizeof active);
        badActive = !SetActive(active);
    }
    if (badActive || !active[0]) SetActive("all");

    // Entries from Start itself are queued before the writer runs.
    I.running.store(true, std::memory_order_release);
    if (badActive)
        I.PushSelf(u"ZOR: log: ZOR_LOG_ACTIVE '%S' not understood, all pairs active\n", active);
    I.OpenFile(file);
    try {
        I.writer = std::thread([&I] { I.Run(); });
    } catch (...) {
        I.running.store(false, std::memory_order_release);
        if (I.file.is_open()) I.file.close();
        I.path.clear();
        return false;
    }
    return true;
}

void Logger::End() {
    Impl& I = *impl_;
    if (!I.writer.joinable()) return;
    I.running.store(false, std::memory_order_release);
    {
        std::lock_guard<std::mutex> lk(I.m);
        I.stop = true;
    }
    I.wake.notify_one();
    I.writer.join();
    if (I.file.is_open()) I.file.close();
    I.path.clear();
}

void Logger::wPrintf(std::uint32_t level, std::uint32_t mask, const char16_t* fmt, ...) {
    std::va_list ap;
    va_start(ap, fmt);
    vwPrintf(level, mask, fmt, ap);
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

const char* Logger::FilePath() const { return impl_->path.c_str(); }

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
