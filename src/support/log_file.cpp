// The log's file on the writer thread: see log_file.h.
#include "support/log_file.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <vector>

#include "support/wformat.h"
#include "zor/zor_version.h"

namespace zor {
namespace {

namespace fs = std::filesystem;

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

std::string Utf8(const std::u16string& s) {
    std::string u8(s.size() * 3 + 1, '\0');
    u8.resize(utf16_to_utf8(s.c_str(), u8.data(), u8.size()));
    return u8;
}

std::u16string Stem(const std::u16string& p) { return fs::path(p).stem().u16string(); }
std::u16string Ext(const std::u16string& p) { return fs::path(p).extension().u16string(); }

}  // namespace

void LogFile::SetLimits(std::uint64_t maxBytes, std::uint32_t keep) {
    maxBytes_ = maxBytes;
    keep_ = keep;
}

bool LogFile::Open(const char16_t* path, bool fixed, double startMs) {
    Close();
    path_ = path;
    // '/' separates on every platform; the OS layer hands out '\\'.
    std::replace(path_.begin(), path_.end(), u'\\', u'/');
    first_ = path_;
    fixed_ = fixed;
    part_ = 1;
    startMs_ = startMs;
    lost_ = 0;
    reason_[0] = 0;
    wallOffsetMs_ = static_cast<double>(os::wall_ms()) - os::now_ms();
    std::error_code ec;
    fs::path fp(path_);
    if (fp.has_parent_path()) fs::create_directories(fp.parent_path(), ec);
    needHeader_ = true;
    if (!OpenCurrent()) return false;
    DeleteOldFiles();
    Flush();  // the first entry shows at once
    return true;
}

bool LogFile::OpenCurrent() {
    h_ = os::file_open_append(path_.c_str());
    if (!h_) {
        Fail("cannot open", os::last_error());
        return false;
    }
    std::error_code ec;
    size_ = fs::file_size(fs::path(path_), ec);
    if (ec) size_ = 0;
    pathU8_ = Utf8(path_);
    char text[700];
    std::snprintf(text, sizeof text, "ZOR: log file '%s', ZOR %s, process %u, clock %s\n", pathU8_.c_str(),
                  ZOR_VERSION_STRING, os::current_process_id(), os::clock_name());
    header_ = text;
    return true;
}

void LogFile::Close() {
    if (path_.empty()) return;
    Flush();
    if (h_) os::handle_close(h_);
    h_ = 0;
    path_.clear();
    pathU8_.clear();
}

void LogFile::Add(double ms, std::uint32_t tid, std::uint32_t level, std::uint32_t mask, const char* text,
                  std::size_t n) {
    char stamp[96];
    std::size_t k = Stamp(stamp, ms, tid, level, mask);
    const std::uint64_t pending = size_ + len_ + (needHeader_ ? header_.size() + 64 : 0);
    if (!frozen_ && h_ && maxBytes_ && pending + k + n > maxBytes_ && size_ + len_ > 0) {
        Flush();
        if (h_) Rotate();
    }
    if (len_ + k + n > sizeof buf_) Flush();
    std::memcpy(buf_ + len_, stamp, k);
    std::memcpy(buf_ + len_ + k, text, n);
    len_ += k + n;
    ++bufEntries_;
}

void LogFile::Flush() {
    if (!len_ && !needHeader_) return;
    if (!h_ && !path_.empty() && !frozen_) OpenCurrent();
    if (!h_) {
        lost_ += bufEntries_;
    } else {
        // The file's first entry, then the news of what it missed.
        char pre[1024];
        std::size_t k = 0;
        if (needHeader_) k += SelfEntry(pre, sizeof pre, header_.c_str());
        if (lost_) {
            char text[300];
            std::snprintf(text, sizeof text, "ZOR: log file: %llu entries lost (%s)\n",
                          static_cast<unsigned long long>(lost_), reason_);
            k += SelfEntry(pre + k, sizeof pre - k, text);
        }
        if (WriteAll(pre, k) && WriteAll(buf_, len_)) {
            size_ += k + len_;
            lost_ = 0;
            needHeader_ = false;
        } else {
            lost_ += bufEntries_;
            Fail("write failed", os::last_error());
        }
    }
    len_ = 0;
    bufEntries_ = 0;
    wallOffsetMs_ = static_cast<double>(os::wall_ms()) - os::now_ms();
}

bool LogFile::WriteAll(const char* p, std::size_t n) {
    return n == 0 || os::file_write(h_, p, static_cast<std::uint32_t>(n));
}

// A write that fails closes the file; the debugger channel hears it once,
// when the file goes from working to failing.
void LogFile::Fail(const char* what, std::uint32_t code) {
    char text[160];
    os::error_text(code, text, sizeof text);
    std::snprintf(reason_, sizeof reason_, "%s: %s", what, text);
    if (!h_) return;
    os::handle_close(h_);
    h_ = 0;
    char16_t msg[900];
    wformat(msg, 900, u"ZOR: log file '%S': %S; entries go to the debugger channel only until it works again\n",
            pathU8_.c_str(), reason_);
    os::debug_output(msg);
}

void LogFile::Rotate() {
    os::handle_close(h_);
    h_ = 0;
    const std::u16string dir = first_.substr(0, first_.rfind(u'/') + 1);  // npos + 1 == 0
    char16_t name[200];
    if (fixed_) {
        os::LocalTime t{};
        os::local_time(os::wall_ms() / 1000, &t);
        wformat(name, 200, u"%s-%04d%02d%02d-%02d%02d%02d-%u-%u%s", Stem(first_).c_str(), t.year, t.month, t.day,
                t.hour, t.minute, t.second, os::current_process_id(), part_, Ext(first_).c_str());
        std::error_code ec;
        fs::rename(fs::path(path_), fs::path(dir + name), ec);  // on failure the file just grows on
    } else {
        wformat(name, 200, u"%s-%u%s", Stem(first_).c_str(), part_ + 1, Ext(first_).c_str());
        path_ = dir + name;
    }
    ++part_;
    needHeader_ = true;
    if (OpenCurrent()) DeleteOldFiles();
}

// True for exactly the names this log gives its files after `prefix`:
// "YYYYMMDD-HHMMSS-<pid>" and "-<part>" (required for a fixed file's
// parts), then `ext`.
static bool OwnName(const std::u16string& n, std::size_t at, const std::u16string& ext, bool partRequired) {
    auto digits = [&](std::size_t min, std::size_t max) {
        std::size_t k = 0;
        while (at < n.size() && n[at] >= u'0' && n[at] <= u'9' && k < max) ++at, ++k;
        return k >= min;
    };
    auto dash = [&] { return at < n.size() && n[at++] == u'-'; };
    if (!digits(8, 8) || !dash() || !digits(6, 6) || !dash() || !digits(1, 10)) return false;
    if (n.size() >= ext.size() && at == n.size() - ext.size() && !partRequired) return n.compare(at, ext.size(), ext) == 0;
    if (!dash() || !digits(1, 10)) return false;
    return at == n.size() - ext.size() && n.compare(at, ext.size(), ext) == 0;
}

// The set kept: per-run files "zor-*.log", or the renamed parts
// "<name>-*<ext>" of a fixed file; newest first by last write. Only the
// host's user's regular files of exactly these names go.
void LogFile::DeleteOldFiles() {
    if (!keep_ || frozen_) return;
    fs::path cur(path_);
    const std::u16string prefix = fixed_ ? Stem(first_) + u"-" : u"zor-";
    const std::u16string ext = fixed_ ? Ext(first_) : u".log";
    std::vector<std::pair<fs::file_time_type, fs::path>> set;
    std::error_code ec;
    for (fs::directory_iterator it(cur.parent_path().empty() ? fs::path(".") : cur.parent_path(), ec), end;
         !ec && it != end; it.increment(ec)) {
        std::u16string n = it->path().filename().u16string();
        std::error_code e2;
        if (n.size() < prefix.size() + ext.size() || n.compare(0, prefix.size(), prefix) ||
            !OwnName(n, prefix.size(), ext, fixed_) || it->path().filename() == cur.filename() ||
            !os::file_is_own(it->path().u16string().c_str()))
            continue;
        set.emplace_back(it->last_write_time(e2), it->path());
    }
    std::sort(set.begin(), set.end(), [](const auto& a, const auto& b) { return a > b; });
    for (std::size_t i = keep_ - 1; i < set.size(); ++i) fs::remove(set[i].second, ec);
}

// "[YYYY-MM-DD HH:MM:SS.mmm S.SSSSSS tid=T L/M] " by hand: the writer's
// per-entry cost bounds how long a burst the queue absorbs.
std::size_t LogFile::Stamp(char* out, double ms, std::uint32_t tid, std::uint32_t level, std::uint32_t mask) {
    const double wall = ms + wallOffsetMs_;
    const std::int64_t wallMs = wall > 0 ? static_cast<std::int64_t>(wall) : 0;
    if (wallMs / 1000 != stampSecond_) {
        stampSecond_ = wallMs / 1000;
        os::LocalTime t{};
        os::local_time(stampSecond_, &t);
        std::snprintf(stampText_, sizeof stampText_, "%04u-%02u-%02u %02u:%02u:%02u", unsigned(t.year) % 10000,
                      unsigned(t.month) % 100, unsigned(t.day) % 100, unsigned(t.hour) % 100,
                      unsigned(t.minute) % 100, unsigned(t.second) % 100);
    }
    const double rel = ms - startMs_;
    const std::uint64_t us = rel > 0 ? static_cast<std::uint64_t>(rel * 1000.0 + 0.5) : 0;
    char* p = out;
    *p++ = '[';
    std::memcpy(p, stampText_, 19);
    p += 19;
    *p++ = '.';
    p = PutUnsigned(p, static_cast<std::uint64_t>(wallMs % 1000), 3);
    *p++ = ' ';
    p = PutUnsigned(p, us / 1000000);
    *p++ = '.';
    p = PutUnsigned(p, us % 1000000, 6);
    std::memcpy(p, " tid=", 5);
    p = PutUnsigned(p + 5, tid);
    *p++ = ' ';
    if (level == 0xFFFFFFFFu) {
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

std::size_t LogFile::SelfEntry(char* out, std::size_t cap, const char* text) {
    char stamp[96];
    std::size_t k = Stamp(stamp, os::now_ms(), os::current_thread_id(), 0xFFFFFFFFu, 0xFFFFFFFFu);
    std::size_t n = std::strlen(text);
    if (k + n > cap) return 0;
    std::memcpy(out, stamp, k);
    std::memcpy(out + k, text, n);
    return k + n;
}

}  // namespace zor
