// The Linux host's own process: locked memory.
#include "os/posix/process_setup.h"

#include <cerrno>
#include <cstring>
#include <sys/mman.h>

namespace zor::os::posix {

bool lock_memory(char* why, std::size_t cap) {
    if (mlockall(MCL_CURRENT | MCL_FUTURE) == 0) return true;
    std::strncpy(why, std::strerror(errno), cap - 1);
    why[cap - 1] = 0;
    return false;
}

}  // namespace zor::os::posix
