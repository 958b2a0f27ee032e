// Starting and ending the logger, choosing its file, and the crash flush.
#include <cstring>
#include <new>

#include "support/log_impl.h"
#include "support/wformat.h"

namespace zor {

// The file named by the caller, else ZOR_LOG_FILE, else LOGFILE from the
// settings; a named file that cannot be opened leaves its reason in the
// queue and the default file takes over (except for the caller's own).
void Logger::Impl::OpenFile(const char16_t* arg) {
    char16_t named[520] = u"";
    bool haveNamed = true;
    if (arg) wformat(named, 520, u"%s", arg);
    else if (os::env_get("ZOR_LOG_FILE", named, 520)) {}
    else if (settings.hasFile) wformat(named, 520, u"%s", settings.file);
    else haveNamed = false;
    if (haveNamed) {
        if (!named[0] || file.Open(named, true, startMs)) return;
        PushSelf(u"ZOR: log: cannot open '%s' (%S)\n", named, file.Failure());
        if (arg) return;
    }
    char16_t dir[520];
    if (!os::user_state_dir(dir, 260)) return;
    os::LocalTime t{};
    os::local_time(os::wall_ms() / 1000, &t);
    wformat(dir + std::char_traits<char16_t>::length(dir), 260, u"/ZOR/logs/zor-%04d%02d%02d-%02d%02d%02d-%u.log",
            t.year, t.month, t.day, t.hour, t.minute, t.second, os::current_process_id());
    if (!file.Open(dir, false, startMs)) PushSelf(u"ZOR: log: cannot open '%s' (%S)\n", dir, file.Failure());
}

// On the faulting thread, with the process about to end: waits for the
// writer to finish its pass, then writes every queued entry to the file
// and keeps the writer out.
void Logger::Impl::CrashFlush(void* self) {
    Impl& I = *static_cast<Impl*>(self);
    const double deadline = os::now_ms() + 1000;
    while (I.consuming.exchange(true, std::memory_order_acquire))
        if (os::now_ms() > deadline) return;  // the writer is the thread that faulted
    I.crashing = true;
    I.file.Freeze();
    I.Drain();
    I.ReportDrops();
    I.file.Flush();
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

    I.crashing = false;
    I.consuming.store(false, std::memory_order_relaxed);
    I.file.SetLimits(I.settings.maxFileBytes, I.settings.keepFiles);

    // The environment wins over the settings.
    char16_t env[256];
    char active[768] = "";
    const char* source = "ZOR_LOG_ACTIVE";
    if (os::env_get("ZOR_LOG_ACTIVE", env, 256)) {
        utf16_to_utf8(env, active, sizeof active);
    } else if (I.settings.hasActive) {
        utf16_to_utf8(I.settings.active, active, sizeof active);
        source = "LOGACTIVE";
    }
    const bool badActive = !SetActive(active);
    if (badActive) SetActive("all");

    // Entries from Start itself are queued before the writer runs.
    I.running.store(true, std::memory_order_release);
    if (badActive) I.PushSelf(u"ZOR: log: %S '%S' not understood, all pairs active\n", source, active);
    I.OpenFile(file);
    try {
        I.writer = std::thread([&I] { I.Run(); });
    } catch (...) {
        I.running.store(false, std::memory_order_release);
        I.file.Close();
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
    if (I.crashHook) os::set_crash_hook(nullptr, nullptr);
    I.crashHook = false;
    I.file.Close();
}

void Logger::Configure(const Settings& s) { impl_->settings = s; }

void Logger::FlushAtCrash() {
    if (!impl_->writer.joinable()) return;
    impl_->crashHook = true;
    os::set_crash_hook(&Impl::CrashFlush, impl_);
}

}  // namespace zor
