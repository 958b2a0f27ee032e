// The logging facility: wPrintf with UTF-16 formats, one UTF-8 file per host
// run, and never a blocked caller. Lines go through a bounded lock-free queue
// to a writer thread; when the queue is full a line is dropped and counted,
// and the count is written once the queue has room again.
//
// The caller's side (wPrintf): checks the pair, formats into a stack buffer
// of kMaxLineUnits UTF-16 units (a longer entry is cut to kMaxLineUnits-1
// units), reserves space in a byte ring allocated once at Start (a CAS on
// the head), copies the text and publishes it. No allocation, no lock, no
// system call beyond os::now_ms() and os::current_thread_id(). When the ring
// is full the entry is dropped and counted (Dropped()).
//
// The writer thread wakes every 1 ms while entries keep coming and backs off
// to 16 ms after about 100 ms without any; so an entry reaches the outputs
// within ~1 ms during activity and within ~20 ms after a quiet spell. Flush()
// and End() write everything at once. Each entry goes, in the order queued,
//   - to the file (UTF-8): a stamp with the local wall-clock time (ms) and
//     the seconds since Start, then the text exactly as formatted (the
//     facility adds no line end; "\n\r" endings stay as they are); the
//     format, the first entry of each file, rotation and write failures are
//     described in log_file.h;
//   - to os::debug_output as the UTF-16 text; the entries of one pass are
//     joined into one call of up to 8191 units, as a call can cost
//     hundreds of microseconds under Wine; this channel also carries every
//     entry while the file cannot be written;
//   - to the sink, if one is set, as the UTF-8 text.
// After a pass in which entries had been dropped the writer adds the entry
// "ZOR: log dropped <N> lines\n" (level and mask kSelfLevel, stamp "log").
//
// The file: Start(file) with a non-empty path; else ZOR_LOG_FILE when set
// (empty: no file); else Settings::file (LOGFILE in ZOR.INI, same syntax);
// else the per-run file <per-user state folder (os::user_state_dir)>/ZOR/logs/
// zor-<YYYYMMDD-HHMMSS>-<pid>.log (local time). A named file is appended
// to, never truncated; when it cannot be opened, the entry
// "ZOR: log: cannot open '<path>' (<reason>)\n" goes to the debugger
// channel and the sink at once and, unless the path came from Start, the
// per-run file takes over and carries it too. Missing folders are
// created. '\\' and '/' both separate.
//
// FlushAtCrash: when a fault that no guard takes ends the process, the
// faulting thread writes every queued entry to the file first.
//
// Active pairs: ZOR_LOG_ACTIVE (read at Start) and SetActive take a comma
// list, applied left to right:
//   "all" or "*"          every pair active (also the default, and "" )
//   "none"                nothing active
//   "LEVEL:MASK"          activate the pair; LEVEL 0-15 or '*', MASK 0-63
//                         or '*' ('*' also covers levels above 15 and masks
//                         above 63); "LEVEL" alone means "LEVEL:*"
//   "-LEVEL:MASK"         deactivate it
// A list that starts with an activation starts from nothing active; one
// that starts with a deactivation starts from everything active. Examples:
// "0:*,2:6" only those; "-2:6" everything but 2/6; "all,-2:*,2:1" level 2
// only with mask 1 besides every other level. Spaces around items are
// ignored. A malformed list is refused (false) and changes nothing; at Start
// the logger then keeps everything active and logs
// "ZOR: log: ZOR_LOG_ACTIVE '<text>' not understood, all pairs active\n"
// (LOGACTIVE instead of ZOR_LOG_ACTIVE when the list came from Settings).
//
// Start, End, Flush, SetActive, SetSink and the tuning calls are for one
// controlling thread; wPrintf may be called from any thread at any time
// between Start and End (entries made outside are ignored).
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "support/log_file.h"

namespace zor {

// What a host line is about: the level/mask pair that LOGACTIVE filters on.
struct LogKind {
    std::uint32_t level, mask;
};
inline constexpr LogKind kLogTrace{2, 6};        // routine traces and reports
inline constexpr LogKind kLogError{2, 1};        // errors worth attention
inline constexpr LogKind kLogFault{2, 0};        // faults and internal errors
inline constexpr LogKind kLogUnknownCall{2, 2};  // unknown service calls
inline constexpr LogKind kLogTiming{0, 1};       // timing and communication warnings

// A module number or count for "%ld": a long is 32 bits on Windows, so the
// low 32 bits, signed, print the same figures everywhere.
inline long AsLong(std::uint64_t v) { return static_cast<long>(static_cast<std::int32_t>(v)); }

class Logger {
public:
    // Receives each written entry (text exactly as formatted, UTF-8), on the
    // writer thread. Used by tests and by the dialog-less tools.
    using Sink = void (*)(void* ctx, std::uint32_t level, std::uint32_t mask,
                          const char* utf8, std::size_t len);

    // What ZOR.INI may set; the environment variables win.
    struct Settings {
        char16_t file[260] = {};  // LOGFILE, used when hasFile ("": no file)
        bool hasFile = false;
        char16_t active[256] = {};  // LOGACTIVE, used when hasActive
        bool hasActive = false;
        std::uint64_t maxFileBytes = LogFile::kDefaultMaxBytes;  // 0: no cap
        std::uint32_t keepFiles = LogFile::kDefaultKeep;         // 0: keep all
    };

    Logger();
    ~Logger();  // ends the log if still running
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    // Logger_Start: opens the log of this run. The file and the active
    // pairs are chosen as described above (active pairs default: all).
    // `file` overrides every other choice; an empty string means no file
    // at all. True when the
    // writer runs, even if the file could not be opened (FilePath() is then
    // empty and an entry says so); false when already started or when the
    // writer thread cannot be created.
    bool Start(const char16_t* file = nullptr);
    // Logger_End: writes everything queued, then closes.
    void End();
    // For the next Start.
    void Configure(const Settings& settings);
    // Makes this running logger the one the process's crash hook flushes,
    // until End.
    void FlushAtCrash();

    void wPrintf(std::uint32_t level, std::uint32_t mask, const char16_t* fmt, ...);
    void vwPrintf(std::uint32_t level, std::uint32_t mask, const char16_t* fmt,
                  std::va_list ap);
    bool wPrintf_IsUserLevelActive(std::uint32_t level, std::uint32_t mask) const;
    void wPrintf(LogKind kind, const char16_t* fmt, ...);
    bool IsActive(LogKind kind) const { return wPrintf_IsUserLevelActive(kind.level, kind.mask); }

    // Same syntax as ZOR_LOG_ACTIVE; replaces the active set.
    bool SetActive(const char* list);
    // Takes effect for the next entry written; when it returns the old sink
    // is no longer being called. A sink must not call Flush, End or SetSink.
    void SetSink(Sink sink, void* ctx);
    // Blocks until every entry queued before the call has been written.
    void Flush();
    std::uint64_t Dropped() const;
    // Path of the open log file (UTF-8), empty when none.
    const char* FilePath() const;

    // Longest entry in UTF-16 units, terminator included.
    static constexpr std::size_t kMaxLineUnits = 1024;
    // Level and mask the sink sees for the logger's own entries.
    static constexpr std::uint32_t kSelfLevel = 0xFFFFFFFFu;
    static constexpr std::size_t kDefaultQueueBytes = std::size_t{1} << 20;

    // Ring size for the next Start, rounded up to a power of two
    // (at least 8 KiB). An entry takes 32 bytes + 2 per unit, rounded to 8.
    void SetQueueBytes(std::size_t bytes);
    // Entries to os::debug_output (default on).
    void SetDebugOutput(bool on);
    // Test hook: while held the writer writes nothing, so the queue fills
    // up; Flush returns at once while held.
    void HoldWriter(bool hold);

    struct Impl;

private:
    Impl* impl_;
};

}  // namespace zor
