// The log's file, as the writer thread keeps it: entry stamps, batching,
// the size cap with rotation, the number of files kept, and recovery from
// failed writes.
//
// Each entry is one stamp and the text exactly as formatted:
//   "[YYYY-MM-DD HH:MM:SS.mmm S.SSSSSS tid=T L/M] text"
// local wall-clock time with milliseconds, then seconds since the log
// started (the fine monotonic clock), the thread, level and mask ("log"
// for the logger's own entries). The wall time is the monotonic stamp plus
// an offset re-read from the system clock on every flush, so a clock change
// shows from the next flush on and never reorders entries.
//
// Every file begins with the entry
//   "ZOR: log file '<path>', ZOR <version>, process <pid>, clock <name>\n"
// which also marks each start in a file that is appended to.
//
// Two kinds of file:
//   - a per-run file (the default) "<folder>/zor-<start>-<pid>.log"; when
//     full, the run goes on in "...-<pid>-2.log", "-3", ...; the folder's
//     "zor-*.log" files are the set kept;
//   - a fixed file "<folder>/<name><ext>" (a path the user gave), appended
//     to; when full it is renamed "<name>-<YYYYMMDD-HHMMSS>-<pid>-<n><ext>"
//     and started afresh; those renamed files are the set kept.
// A file is full when the next entry would take it beyond the cap. After
// opening and after each rotation, the oldest files of the set beyond the
// number kept (the open file included) are deleted.
//
// A failed write is never silent: the entries that did not reach the file
// are counted, the file is closed, the debugger channel is told once, and
// every later flush reopens the file; the first write that works again is
// preceded by the entry "ZOR: log file: N entries lost (reason)\n".
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "os/os.h"

namespace zor {

class LogFile {
public:
    static constexpr std::uint64_t kDefaultMaxBytes = std::uint64_t{16} << 20;
    static constexpr std::uint32_t kDefaultKeep = 10;

    LogFile() = default;
    ~LogFile() { Close(); }
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    // maxBytes 0: no cap; keep 0: nothing is deleted.
    void SetLimits(std::uint64_t maxBytes, std::uint32_t keep);
    // Opens `path` (UTF-16, '\\' or '/'), creating missing folders, as a
    // fixed or a per-run file; writes the first entry. `startMs` is the
    // monotonic origin of the stamps. False when it cannot be opened: the
    // reason is then in Failure() and later flushes retry the same path.
    bool Open(const char16_t* path, bool fixed, double startMs);
    // Writes what is buffered and closes; forgets the path.
    void Close();

    // Buffers one entry (UTF-8 text); flushes and rotates first when the
    // entry would not fit.
    void Add(double ms, std::uint32_t tid, std::uint32_t level, std::uint32_t mask, const char* text,
             std::size_t n);
    // Writes the buffered entries (see above for failures).
    void Flush();
    // For the crash path: from now on no rotation or folder work.
    void Freeze() { frozen_ = true; }

    bool HasPath() const { return !path_.empty(); }
    bool IsOpen() const { return h_ != 0; }
    // Path of the current file (UTF-8), empty when none.
    const char* Path() const { return pathU8_.c_str(); }
    // Why the last open or write failed, "" if none did.
    const char* Failure() const { return reason_; }
    // Entries that have not reached the file and are not yet announced.
    std::uint64_t Lost() const { return lost_; }

private:
    bool OpenCurrent();
    void Rotate();
    void DeleteOldFiles();
    void Fail(const char* what, std::uint32_t code);
    bool WriteAll(const char* p, std::size_t n);
    std::size_t Stamp(char* out, double ms, std::uint32_t tid, std::uint32_t level, std::uint32_t mask);
    std::size_t SelfEntry(char* out, std::size_t cap, const char* text);

    os::Handle h_ = 0;
    std::u16string path_, first_;  // current file; the run's first per-run file
    std::string pathU8_;
    bool fixed_ = false, frozen_ = false, needHeader_ = false;
    std::string header_;  // the first entry's text
    std::uint32_t part_ = 1;
    std::uint64_t maxBytes_ = kDefaultMaxBytes, size_ = 0;
    std::uint32_t keep_ = kDefaultKeep;
    double startMs_ = 0, wallOffsetMs_ = 0;
    std::int64_t stampSecond_ = -1;
    char stampText_[32] = {};  // "YYYY-MM-DD HH:MM:SS" of stampSecond_
    std::uint64_t lost_ = 0, bufEntries_ = 0;
    char reason_[200] = "";
    std::size_t len_ = 0;
    char buf_[1 << 16];
};

}  // namespace zor
