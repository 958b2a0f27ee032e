// The stderr sink: terminal or journal.
#include "shell/posix/stderr_log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zor::shell {

namespace {

bool g_journal = false;

bool StderrIsJournal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    unsigned long long dev = 0, ino = 0;
    struct stat st;
    return stream && std::sscanf(stream, "%llu:%llu", &dev, &ino) == 2 && fstat(STDERR_FILENO, &st) == 0 &&
           st.st_dev == dev && st.st_ino == ino;
}

// Every line gets its prefix in the journal; control characters are shown.
void Sink(void*, std::uint32_t level, std::uint32_t mask, const char* utf8, std::size_t len) {
    if (level != 0 && mask > 1 && level != Logger::kSelfLevel) return;
    char shown[4096];
    const std::size_t m = TerminalText(utf8, len, shown, sizeof shown);
    char out[4608];
    std::size_t n = 0;
    bool lineStart = true;
    const int prio = SyslogLevel(level, mask, len >= 2 ? utf8 : "");
    for (std::size_t i = 0; i < m && n + 5 < sizeof out; ++i) {
        if (lineStart && g_journal) n += static_cast<std::size_t>(std::snprintf(out + n, 4, "<%d>", prio));
        out[n++] = shown[i];
        lineStart = shown[i] == '\n';
    }
    if (n == 0) return;
    if (out[n - 1] != '\n') out[n++] = '\n';
    (void)!write(STDERR_FILENO, out, n);
}

}  // namespace

std::size_t TerminalText(const char* utf8, std::size_t len, char* out, std::size_t cap) {
    static const char kHex[] = "0123456789abcdef";
    std::size_t n = 0;
    for (std::size_t i = 0; i < len; ++i) {
        const auto c = static_cast<unsigned char>(utf8[i]);
        // C1 controls are U+0080..U+009F: 0xC2 0x80..0x9F in UTF-8.
        const bool c1 = c == 0xC2 && i + 1 < len && static_cast<unsigned char>(utf8[i + 1]) < 0xA0;
        if (c == '\r') continue;
        if ((c < 0x20 && c != '\n' && c != '\t') || c == 0x7F || c1) {
            const unsigned v = c1 ? static_cast<unsigned char>(utf8[++i]) : c;
            if (n + 4 > cap) break;
            out[n++] = '\\';
            out[n++] = 'x';
            out[n++] = kHex[v >> 4];
            out[n++] = kHex[v & 15];
        } else if (n < cap) {
            out[n++] = static_cast<char>(c);
        }
    }
    return n;
}

// The configuration lines (SZINI, SZINIW, SZEXE) share mask 0 with the
// faults but report no trouble.
int SyslogLevel(std::uint32_t level, std::uint32_t mask, const char* text) {
    if (level == Logger::kSelfLevel || mask == 1) return 4;
    return mask == 0 && std::strncmp(text, "SZ", 2) != 0 ? 3 : 5;
}

void AttachStderr(Logger& log) {
    g_journal = StderrIsJournal();
    if (g_journal || isatty(STDERR_FILENO)) log.SetSink(Sink, nullptr);
}

void StderrLine(int syslogLevel, const char* text) {
    if (g_journal) std::fprintf(stderr, "<%d>%s\n", syslogLevel, text);
    else std::fprintf(stderr, "%s\n", text);
}

}  // namespace zor::shell
