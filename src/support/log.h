// The logging facility: wPrintf with UTF-16 formats, one UTF-8 file per host
// run, and never a blocked caller. Lines go through a bounded lock-free queue
// to a writer thread; when the queue is full a line is dropped and counted,
// and the count is written once the queue has room again.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>

namespace zor {

class Logger {
public:
    // Receives each written entry (text exactly as formatted, UTF-8), on the
    // writer thread. Used by tests and by the dialog-less tools.
    using Sink = void (*)(void* ctx, std::uint32_t level, std::uint32_t mask,
                          const char* utf8, std::size_t len);

    Logger();
    ~Logger();  // ends the log if still running
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    // Logger_Start: opens the log of this run. The file is ZOR_LOG_FILE when
    // set, else the default (see the README); the active pairs come from
    // ZOR_LOG_ACTIVE (default: all). `file` overrides both the variable and
    // the default; an empty string means no file at all.
    bool Start(const char16_t* file = nullptr);
    // Logger_End: writes everything queued, then closes.
    void End();

    void wPrintf(std::uint32_t level, std::uint32_t mask, const char16_t* fmt, ...);
    void vwPrintf(std::uint32_t level, std::uint32_t mask, const char16_t* fmt,
                  std::va_list ap);
    bool wPrintf_IsUserLevelActive(std::uint32_t level, std::uint32_t mask) const;

    // Same syntax as ZOR_LOG_ACTIVE; replaces the active set.
    bool SetActive(const char* spec);
    void SetSink(Sink sink, void* ctx);
    // Blocks until every entry queued before the call has been written.
    void Flush();
    std::uint64_t Dropped() const;
    // Path of the open log file (UTF-8), empty when none.
    const char* FilePath() const;

    struct Impl;

private:
    Impl* impl_;
};

}  // namespace zor
