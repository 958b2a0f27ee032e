// Resident memory and open descriptors of this process, from /proc.
#include <dirent.h>
#include <unistd.h>

#include <cstdio>

#include "os/os.h"

namespace zor::os {

std::uint64_t resident_bytes() {
    unsigned long long pages = 0, resident = 0;
    std::FILE* f = std::fopen("/proc/self/statm", "r");
    if (!f) return 0;
    const int n = std::fscanf(f, "%llu %llu", &pages, &resident);
    std::fclose(f);
    return n == 2 ? resident * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)) : 0;
}

std::uint32_t open_handle_count() {
    DIR* d = opendir("/proc/self/fd");
    if (!d) return 0;
    std::uint32_t n = 0;
    while (dirent* e = readdir(d))
        if (e->d_name[0] != '.') ++n;
    closedir(d);
    return n - 1;  // the directory being read
}

}  // namespace zor::os
