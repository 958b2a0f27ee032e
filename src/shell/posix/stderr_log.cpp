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

// Every line gets its prefix in the journal; carriage returns go.
void Sink(void*, std::uint32_t level, std::uint32_t mask, const char* utf8, std::size_t len) {
    if (level != 0 && mask > 1 && level != Logger::kSelfLevel) return;
    char out[2560];
    std::size_t n = 0;
    bool lineStart = true;
    const int prio = SyslogLevel(level, mask, len >= 2 ? utf8 : "");
    for (std::size_t i = 0; i < len && n + 5 < sizeof out; ++i) {
        if (utf8[i] == '\r') continue;
        if (lineStart && g_journal) n += static_cast<std::size_t>(std::snprintf(out + n, 4, "<%d>", prio));
        out[n++] = utf8[i];
        lineStart = utf8[i] == '\n';
    }
    if (n == 0) return;
    if (out[n - 1] != '\n') out[n++] = '\n';
    (void)!write(STDERR_FILENO, out, n);
}

}  // namespace

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
