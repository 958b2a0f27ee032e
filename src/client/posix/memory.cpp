// Shared memory the host hands out as descriptors (memfd), and its
// statistics area, a POSIX shared-memory object it alone may write.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "client/connection.h"
#include "client/posix/link.h"

namespace zor::client {

namespace {

// The object's size, bounded to what a view can describe; 0 when unknown.
std::uint32_t ObjectSize(int fd) {
    struct stat st;
    if (fstat(fd, &st) != 0 || st.st_size <= 0) return 0;
    return st.st_size > 0xFFFFFFFF ? 0xFFFFFFFFu : static_cast<std::uint32_t>(st.st_size);
}

}  // namespace

int MapWhole(Handle handle, std::uint32_t want, ZorView* out) {
    std::memset(out, 0, sizeof *out);
    if (handle == 0) return ZOR_E_REFUSED;
    const int fd = static_cast<int>(handle);
    // Bound ourselves by what is really there: the host may hand out a
    // smaller object than the one asked for.
    std::uint32_t size = ObjectSize(fd);
    if (want != 0 && want < size) size = want;
    void* base = size ? mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
    if (base == MAP_FAILED) {
        close(fd);
        return size ? ZOR_E_SYSTEM : ZOR_E_REFUSED;
    }
    out->base = base;
    out->size = size;
    out->handle = handle;
    return ZOR_OK;
}

void Unmap(ZorView* v) {
    if (v == nullptr) return;
    if (v->base) munmap(v->base, v->size);
    if (v->handle) close(static_cast<int>(v->handle));
    std::memset(v, 0, sizeof *v);
}

int MapStats(std::uint32_t host_pid, ZorView* out, const char* prefix) {
    // The object's name is the last part of the host's mapping name.
    if (const char* p = std::strrchr(prefix, '\\')) prefix = p + 1;
    char name[64];
    std::snprintf(name, sizeof name, "/%s%u", prefix, static_cast<unsigned>(host_pid));
    const int fd = shm_open(name, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return ZOR_E_NO_HOST;
    // Anyone may make an object under the host's name: it must be the
    // host's user's (the owner of /proc/<pid>).
    char proc[32];
    std::snprintf(proc, sizeof proc, "/proc/%u", static_cast<unsigned>(host_pid));
    struct stat host, object;
    if (stat(proc, &host) != 0 || fstat(fd, &object) != 0 || host.st_uid != object.st_uid) {
        NoteUntrusted(0, fstat(fd, &object) == 0 ? static_cast<std::uint32_t>(object.st_uid) : 0);
        close(fd);
        return ZOR_E_UNTRUSTED;
    }
    // Size 0: the host has made the object but not sized it yet.
    const std::uint32_t size = ObjectSize(fd);
    void* base = size ? mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0) : MAP_FAILED;
    close(fd);
    if (base == MAP_FAILED) return size ? ZOR_E_SYSTEM : ZOR_E_NO_HOST;
    out->base = base;
    out->size = size;
    out->handle = 0;  // the mapping needs no descriptor
    return ZOR_OK;
}

}  // namespace zor::client
