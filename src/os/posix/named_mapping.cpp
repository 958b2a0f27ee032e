// Named mappings as POSIX shared-memory objects, and the wall clock.
// "Local\ZOR.stats.12" becomes "/ZOR.stats.12"; the object is made with
// mode 0644, so other processes can open it for reading only, while this
// process keeps the descriptor it created it with.
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
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

}  // namespace zor::os
