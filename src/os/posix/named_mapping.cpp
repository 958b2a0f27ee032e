// Named mappings as POSIX shared-memory objects, and the wall clock.
// "Local\ZOR.stats.12" becomes "/ZOR.stats.12"; the object is made with
// mode 0644, so other processes can open it for reading only, while this
// process keeps the descriptor it created it with.
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "os/posix/posix_internal.h"

namespace zor::os {

namespace {
bool ShmName(const char16_t* name, char* out, std::size_t cap) {
    const char16_t* base = name;
    for (const char16_t* p = name; *p; ++p)
        if (*p == u'\\') base = p + 1;
    out[0] = '/';
    return posix::to_utf8(base, out + 1, cap - 1, false);
}
}  // namespace

namespace posix {

Handle mapping_create_named(const char16_t* name, std::uint32_t size, bool* existed) {
    *existed = false;
    char shm[256];
    if (size == 0 || !ShmName(name, shm, sizeof shm)) {
        errno = EINVAL;
        return 0;
    }
    int fd = shm_open(shm, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        *existed = errno == EEXIST;
        return 0;
    }
    if (ftruncate(fd, size) != 0) {
        int e = errno;
        close(fd);
        shm_unlink(shm);
        errno = e;
        return 0;
    }
    return static_cast<Handle>(fd) + 1;
}

}  // namespace posix

void mapping_remove_name(const char16_t* name) {
    char shm[256];
    if (ShmName(name, shm, sizeof shm)) shm_unlink(shm);
}

bool mapping_name_left_by_us(const char16_t* name) {
    char shm[256];
    if (!ShmName(name, shm, sizeof shm)) return false;
    const int fd = shm_open(shm, O_RDONLY | O_CLOEXEC | O_NOFOLLOW, 0);
    if (fd < 0) return false;
    struct stat st;
    const bool ours = fstat(fd, &st) == 0 && st.st_uid == geteuid();
    close(fd);
    return ours;
}

void mapping_display_name(const char16_t* name, char16_t* out, std::uint32_t size) {
    char shm[256], path[300];
    if (size == 0) return;
    out[0] = 0;
    if (!ShmName(name, shm, sizeof shm)) return;
    std::snprintf(path, sizeof path, "/dev/shm%s", shm);
    // The host's names are ASCII.
    std::uint32_t i = 0;
    for (; path[i] && i + 1 < size; ++i) out[i] = static_cast<unsigned char>(path[i]);
    out[i] = 0;
}

}  // namespace zor::os
