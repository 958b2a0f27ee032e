// What the log needs besides the rest of the layer: append-only files, the
// wall clock with its local time, and the text of an error code.
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include "os/posix/posix_internal.h"

namespace zor::os {

namespace posix {

Handle file_open_append(const char16_t* path) {
    char p[PATH_MAX];
    if (!path || !to_utf8(path, p, sizeof p, true)) {
        errno = ENAMETOOLONG;
        return 0;
    }
    // A planted link must not make the host append elsewhere; the log is
    // the host's user's (and its group's) to read.
    int fd = open(p, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0640);
    return fd < 0 ? 0 : static_cast<Handle>(fd) + 1;
}

bool file_write(Handle h, const void* buf, std::uint32_t n) {
    if (!is_fd_handle(h)) {
        errno = EBADF;
        return false;
    }
    const char* p = static_cast<const char*>(buf);
    while (n) {
        ssize_t k = write(fd_of(h), p, n);
        if (k < 0 && errno == EINTR) continue;
        if (k <= 0) return false;
        p += k;
        n -= static_cast<std::uint32_t>(k);
    }
    return true;
}

}  // namespace posix

std::int64_t wall_ms() {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool local_time(std::int64_t unix_seconds, LocalTime* out) {
    std::time_t t = static_cast<std::time_t>(unix_seconds);
    std::tm tm;
    if (!localtime_r(&t, &tm)) return false;
    *out = {tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec};
    return true;
}

void error_text(std::uint32_t code, char* buf, std::size_t size) {
    if (!size) return;
    char tmp[256];
    // The GNU strerror_r may return a static string instead of filling tmp.
    const char* s = strerror_r(static_cast<int>(code), tmp, sizeof tmp);
    std::strncpy(buf, s ? s : "unknown error", size - 1);
    buf[size - 1] = 0;
}

}  // namespace zor::os
