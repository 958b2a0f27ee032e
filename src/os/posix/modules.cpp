// Loadable modules through the dynamic loader. `.irq` drivers are ELF
// shared objects like any other module.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <unistd.h>

#include "os/posix/posix_internal.h"

namespace zor::os::posix {

namespace {
// The loader's reason for the last failure on this thread (dlerror's text is
// gone once read, and the next dlopen overwrites it).
thread_local char t_loadError[512];

void NoteLoadError(const char* why) {
    std::snprintf(t_loadError, sizeof t_loadError, "%s", why ? why : "unknown reason");
}

void* open_if_there(const char* path, bool* there) {
    *there = access(path, F_OK) == 0;
    void* m = *there ? dlopen(path, RTLD_NOW | RTLD_LOCAL) : nullptr;
    if (*there && !m) NoteLoadError(dlerror());
    return m;
}
}  // namespace

// A bare file name is searched like Windows does it: the program's folder
// (/usr/lib/zor for the packaged host), then the system's places (the
// loader's own search), then the current directory. A path with a directory
// is opened as it is.
Module module_load(const char16_t* path) {
    char file[PATH_MAX];
    t_loadError[0] = '\0';
    if (!path || !to_utf8(path, file, sizeof file, true) || !file[0]) {
        NoteLoadError("no file name");
        errno = ENOENT;
        return nullptr;
    }
    bool there = false;
    if (std::strchr(file, '/')) {
        void* m = open_if_there(file, &there);
        if (!m && !there) NoteLoadError("no such file");
        if (!m) errno = there ? ENOEXEC : ENOENT;
        return m;
    }
    // Only the folder of this path counts: the executable's, or the package's.
    char local[PATH_MAX] = "/usr/lib/zor/zor";
    if (runs_from_usr_bin() || exe_path(local, sizeof local)) {
        std::size_t dir = static_cast<std::size_t>(std::strrchr(local, '/') - local) + 1;
        if (dir + std::strlen(file) < sizeof local) {
            std::strcpy(local + dir, file);
            if (void* m = open_if_there(local, &there)) return m;
            if (there) {
                errno = ENOEXEC;  // found but not loadable: no further search
                return nullptr;
            }
        }
    }
    if (void* m = dlopen(file, RTLD_NOW | RTLD_LOCAL)) return m;
    // Kept unless the current directory has the file: a dependency the
    // loader found missing is the reason worth telling.
    NoteLoadError(dlerror());
    char here[PATH_MAX + 2] = "./";
    std::strcpy(here + 2, file);
    void* m = open_if_there(here, &there);
    if (!m) errno = there ? ENOEXEC : ENOENT;
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

namespace zor::os {

std::uint32_t module_load_error(char* buf, std::uint32_t size) {
    if (!buf || size == 0) return 0;
    std::snprintf(buf, size, "%s", posix::t_loadError);
    return static_cast<std::uint32_t>(std::strlen(buf));
}

}  // namespace zor::os
