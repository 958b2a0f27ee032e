// Loadable modules through the dynamic loader. `.irq` drivers are ELF
// shared objects like any other module.
#include <cerrno>
#include <climits>
#include <cstring>
#include <dlfcn.h>
#include <unistd.h>

#include "os/posix/posix_internal.h"

namespace zor::os::posix {

// A bare file name is looked for next to the executable first, as
// Windows searches the application directory, then the loader's own way.
Module module_load(const char16_t* path) {
    char file[PATH_MAX];
    if (!path || !to_utf8(path, file, sizeof file, true) || !file[0]) {
        errno = ENOENT;
        return nullptr;
    }
    if (!std::strchr(file, '/')) {
        char local[PATH_MAX];
        if (exe_path(local, sizeof local)) {
            char* slash = std::strrchr(local, '/');
            std::size_t dir = static_cast<std::size_t>(slash - local) + 1;
            if (dir + std::strlen(file) < sizeof local) {
                std::strcpy(local + dir, file);
                if (access(local, F_OK) == 0) {
                    if (void* m = dlopen(local, RTLD_NOW | RTLD_LOCAL)) return m;
                    errno = ENOEXEC;
                    return nullptr;
                }
            }
        }
    }
    void* m = dlopen(file, RTLD_NOW | RTLD_LOCAL);
    if (!m) errno = access(file, F_OK) == 0 || !std::strchr(file, '/') ? ENOEXEC : ENOENT;
    return m;
}

void* module_symbol(Module m, const char* name) {
    if (!m || !name) {
        errno = EINVAL;
        return nullptr;
    }
    dlerror();
    void* p = dlsym(m, name);
    if (!p) errno = ENOENT;
    return p;
}

bool module_free(Module m) {
    if (!m) {
        errno = EINVAL;
        return false;
    }
    return dlclose(m) == 0;
}

}  // namespace zor::os::posix
