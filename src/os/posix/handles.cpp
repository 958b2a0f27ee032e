// Shared memory, process handles, handle duplication and pipes.
//
// Mappings are memfd files mapped MAP_SHARED and sealed against shrinking
// (a client holding the descriptor cannot cut the pages from under the
// host's view); a Handle is the descriptor + 1. Duplicating into or from
// the calling process is dup(). Only the calling process can be opened
// here; the Linux host reaches a client through its command socket's peer
// (socket_peer.h). Any other process id fails with EPERM.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "os/posix/posix_internal.h"

namespace zor::os {

namespace posix {

namespace {
bool valid_fd(Handle h) {
    if (!is_fd_handle(h)) {
        errno = EBADF;
        return false;
    }
    return true;
}

// A process handle is the process id with a tag.
bool own_process(Handle process) {
    if ((process & kProcessTag) && (process & ~kProcessTag) == static_cast<std::uint64_t>(getpid())) return true;
    errno = EPERM;
    return false;
}

bool duplicate(int fd, Handle* out) {
    int d = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (d < 0) return false;
    *out = static_cast<Handle>(d) + 1;
    return true;
}
}  // namespace

// Like CreateFileMapping on the paging file, the size must not be 0.
Handle mapping_create(std::uint32_t size) {
    if (size == 0) {
        errno = EINVAL;
        return 0;
    }
    int fd = memfd_create("zor", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0) return 0;
    if (ftruncate(fd, size) != 0 || fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_SEAL) != 0) {
        int e = errno;
        close(fd);
        errno = e;
        return 0;
    }
    return static_cast<Handle>(fd) + 1;
}

// Size 0 maps the whole object; a view larger than the object fails
// instead of faulting later.
void* mapping_map(Handle mapping, std::uint32_t size) {
    if (!valid_fd(mapping)) return nullptr;
    struct stat st;
    if (fstat(fd_of(mapping), &st) != 0) return nullptr;
    std::uint64_t want = size ? size : static_cast<std::uint64_t>(st.st_size);
    if (want == 0 || want > static_cast<std::uint64_t>(st.st_size)) {
        errno = EINVAL;
        return nullptr;
    }
    void* v = mmap(nullptr, want, PROT_READ | PROT_WRITE, MAP_SHARED, fd_of(mapping), 0);
    return v == MAP_FAILED ? nullptr : v;
}

// UnmapViewOfFile needs no size; here 0 means "the whole view at `view`".
bool mapping_unmap(void* view, std::uint32_t size) {
    if (!view) {
        errno = EINVAL;
        return false;
    }
    std::uint64_t n = size;
    if (n == 0) {
        Region r;
        if (!region_query(view, &r) || r.type == 0) {
            errno = EINVAL;
            return false;
        }
        n = r.base + r.size - reinterpret_cast<std::uint64_t>(view);
    }
    return munmap(view, n) == 0;
}

Handle process_open(std::uint32_t pid) {
    if (pid != static_cast<std::uint32_t>(getpid())) {
        errno = process_alive(pid) ? EPERM : ESRCH;
        return 0;
    }
    return kProcessTag | pid;
}

bool handle_dup_to(Handle process, Handle h, std::uint64_t* remote) {
    if (!own_process(process) || !valid_fd(h)) return false;
    return duplicate(fd_of(h), remote);
}

bool handle_dup_from(Handle process, std::uint64_t remote, Handle* h) {
    if (!own_process(process) || !valid_fd(remote)) return false;
    return duplicate(fd_of(remote), h);
}

bool handle_close(Handle h) {
    if (h == kCurrentThread) return true;  // pseudo handle, like CloseHandle
    if (h & kThreadTag) return thread_handle_close(h);
    if (h & kProcessTag) return own_process(h);
    if (!valid_fd(h)) return false;
    return close(fd_of(h)) == 0;
}

bool handle_close_in(Handle process, std::uint64_t remote) {
    return own_process(process) && handle_close(remote);
}

}  // namespace posix

bool pipe_create(Handle* read_end, Handle* write_end) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return false;
    *read_end = static_cast<Handle>(fds[0]) + 1;
    *write_end = static_cast<Handle>(fds[1]) + 1;
    return true;
}

}  // namespace zor::os
