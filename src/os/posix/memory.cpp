// Memory regions as VirtualQuery describes them, read from /proc/self/maps
// on every call (nothing cached that could go stale), with a fixed buffer.
//
// Mapping to Windows terms:
// - protection: ---p → PAGE_NOACCESS, r-- → READONLY, rw- → READWRITE,
//   r-x → EXECUTE_READ, rwx → EXECUTE_READWRITE;
// - type: mappings of a file that is mapped executable somewhere (a loaded
//   ELF object) are MEM_IMAGE with the object's lowest mapping address as
//   allocation base (= dladdr's dli_fbase, where the ELF header is); other
//   file or shared mappings are MEM_MAPPED, anonymous ones MEM_PRIVATE,
//   both with their own start as allocation base;
// - addresses between mappings inside the application range form a free
//   region (PAGE_NOACCESS, type 0, allocation base 0), so that a walk over
//   the address space steps over holes as it does on Windows.
// As with VirtualQuery, the region reported starts at the page holding the
// address and ends where its mapping ends.
#include <cerrno>
#include <climits>
#include <dlfcn.h>
#include <link.h>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "os/posix/posix_internal.h"

namespace zor::os {

namespace {

constexpr std::uint64_t kAppLo = 0x10000;
constexpr std::uint64_t kAppHi = 0x7fffffffefffull;
constexpr std::uint64_t kPage = 4096;
constexpr std::uint32_t kMemPrivate = 0x20000;
constexpr std::uint32_t kMemMapped = 0x40000;

struct MapLine {
    std::uint64_t start, end, offset, inode;
    std::uint32_t dev;
    bool r, w, x, shared;
    const char* path;  // valid until the next line
};

// Reads /proc/self/maps line by line into a fixed buffer.
class MapsReader {
public:
    MapsReader() { fd_ = open("/proc/self/maps", O_RDONLY | O_CLOEXEC); }
    ~MapsReader() {
        if (fd_ >= 0) close(fd_);
    }
    bool ok() const { return fd_ >= 0; }
    bool next(MapLine* m) {
        for (;;) {
            char* line = take_line();
            if (!line) return false;
            if (parse(line, m)) return true;
        }
    }

private:
    char* take_line() {
        for (;;) {
            if (char* nl = static_cast<char*>(std::memchr(buf_ + pos_, '\n', len_ - pos_))) {
                char* line = buf_ + pos_;
                *nl = 0;
                pos_ = static_cast<std::size_t>(nl - buf_) + 1;
                return line;
            }
            std::memmove(buf_, buf_ + pos_, len_ - pos_);
            len_ -= pos_;
            pos_ = 0;
            if (len_ == sizeof buf_ - 1) len_ = 0;  // an absurdly long line: drop it
            ssize_t n;
            do n = read(fd_, buf_ + len_, sizeof buf_ - 1 - len_);
            while (n < 0 && errno == EINTR);
            if (n <= 0) {
                if (len_ == 0) return nullptr;
                buf_[len_] = '\n';  // last line without an end
                ++len_;
                continue;
            }
            len_ += static_cast<std::size_t>(n);
        }
    }

    static std::uint64_t hex(const char** p) {
        std::uint64_t v = 0;
        for (;; ++*p) {
            char c = **p;
            int d = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
            if (d < 0) return v;
            v = v * 16 + static_cast<std::uint64_t>(d);
        }
    }

    static bool parse(const char* p, MapLine* m) {
        m->start = hex(&p);
        if (*p++ != '-') return false;
        m->end = hex(&p);
        if (*p++ != ' ' || std::strlen(p) < 5) return false;
        m->r = p[0] == 'r';
        m->w = p[1] == 'w';
        m->x = p[2] == 'x';
        m->shared = p[3] == 's';
        p += 5;
        m->offset = hex(&p);
        ++p;
        std::uint64_t major = hex(&p);
        ++p;
        std::uint64_t minor = hex(&p);
        m->dev = static_cast<std::uint32_t>(major << 20 | minor);
        m->inode = 0;
        while (*p == ' ') ++p;
        while (*p >= '0' && *p <= '9') m->inode = m->inode * 10 + static_cast<std::uint64_t>(*p++ - '0');
        while (*p == ' ') ++p;
        m->path = p;
        return m->end > m->start;
    }

    int fd_ = -1;
    std::size_t pos_ = 0, len_ = 0;
    char buf_[8192];
};

std::uint32_t protection(const MapLine& m) {
    if (!m.r && !m.w && !m.x) return kPageNoAccess;
    if (m.x) return m.w ? 0x40 : m.r ? 0x20 : 0x10;
    return m.w ? 0x04 : 0x02;
}

bool same_file(const MapLine& a, std::uint32_t dev, std::uint64_t inode) {
    return a.inode == inode && a.dev == dev;
}

// For a file mapping: whether the file is a loaded object (mapped
// executable somewhere) and the lowest address it is mapped at.
bool image_base(std::uint32_t dev, std::uint64_t inode, std::uint64_t* base) {
    MapsReader maps;
    MapLine m;
    bool exec = false;
    *base = ~std::uint64_t{0};
    while (maps.next(&m)) {
        if (!same_file(m, dev, inode) || m.shared) continue;
        exec |= m.x;
        if (m.start < *base) *base = m.start;
    }
    return exec;
}

}  // namespace

bool region_query(const void* addr, Region* out) {
    std::uint64_t a = reinterpret_cast<std::uint64_t>(addr);
    if (a > kAppHi) {  // the kernel's pages (vsyscall) are no application memory
        errno = EINVAL;
        return false;
    }
    MapsReader maps;
    if (!maps.ok()) return false;
    MapLine m;
    std::uint64_t hole_hi = kAppHi + 1;
    while (maps.next(&m)) {
        if (a >= m.end) continue;
        if (a < m.start) {
            hole_hi = m.start;
            break;
        }
        out->base = a & ~(kPage - 1);
        out->size = m.end - out->base;
        out->protect = protection(m);
        out->alloc_base = m.start;
        out->type = kMemPrivate;
        if (m.inode != 0) {
            out->type = kMemMapped;
            std::uint32_t dev = m.dev;
            std::uint64_t inode = m.inode, base;
            if (!m.shared && image_base(dev, inode, &base)) {
                out->type = kMemImage;
                out->alloc_base = base;
            }
        }
        return true;
    }
    if (a < kAppLo) {
        errno = EINVAL;
        return false;
    }
    out->base = a & ~(kPage - 1);
    out->size = (hole_hi > kAppHi + 1 ? kAppHi + 1 : hole_hi) - out->base;
    out->alloc_base = 0;
    out->protect = kPageNoAccess;
    out->type = 0;
    return true;
}

void app_address_range(std::uint64_t* lo, std::uint64_t* hi) {
    *lo = kAppLo;
    *hi = kAppHi;
}

// The base must be where a loaded object starts (its lowest mapping), as
// GetModuleFileNameW wants a module handle. 0 is a free region's base and
// has no name. The path is returned with '\\' separators like every path
// the layer hands out, cut to the buffer and terminated.
std::uint32_t module_file_name(std::uint64_t alloc_base, char16_t* buf, std::uint32_t size) {
    if (!buf || size == 0) return 0;
    buf[0] = 0;
    char path[PATH_MAX];
    path[0] = 0;
    {
        MapsReader maps;
        MapLine m;
        std::uint32_t dev = 0;
        std::uint64_t inode = 0;
        while (maps.next(&m)) {
            if (m.start == alloc_base && m.inode != 0 && !m.shared && m.path[0] == '/') {
                dev = m.dev;
                inode = m.inode;
                std::strncpy(path, m.path, sizeof path - 1);
                path[sizeof path - 1] = 0;
                // A file replaced on disk while loaded keeps its name.
                static const char kDeleted[] = " (deleted)";
                std::size_t n = std::strlen(path), k = sizeof kDeleted - 1;
                if (n > k && std::strcmp(path + n - k, kDeleted) == 0) path[n - k] = 0;
                break;
            }
        }
        std::uint64_t base;
        if (!path[0] || !image_base(dev, inode, &base) || base != alloc_base) {
            errno = ENOENT;  // ERROR_MOD_NOT_FOUND
            return 0;
        }
    }
    // Cut to the buffer like GetModuleFileNameW.
    char16_t wide[PATH_MAX];
    if (!posix::to_utf16_path(path, wide, PATH_MAX)) {
        errno = ERANGE;
        return 0;
    }
    std::uint32_t n = 0;
    for (; wide[n] && n + 1 < size; ++n) buf[n] = wide[n];
    buf[n] = 0;
    if (wide[n]) errno = ERANGE;  // ERROR_INSUFFICIENT_BUFFER
    return n;
}

namespace {
struct Holder {
    std::uint64_t addr;
    const char* name;  // the loader's name; "" for the main program
    bool found;
};

// Which loaded object has a segment holding the address: the loader's list
// of objects and their program headers, no symbol search (dladdr looks for
// the nearest symbol too, tens of microseconds in a large library).
int find_holder(dl_phdr_info* info, std::size_t, void* arg) {
    auto* h = static_cast<Holder*>(arg);
    for (ElfW(Half) i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& ph = info->dlpi_phdr[i];
        const std::uint64_t lo = info->dlpi_addr + ph.p_vaddr;
        if (ph.p_type == PT_LOAD && h->addr >= lo && h->addr - lo < ph.p_memsz) {
            h->name = info->dlpi_name ? info->dlpi_name : "";
            h->found = true;
            return 1;
        }
    }
    return 0;
}
}  // namespace

// The loader's own table answers without reading /proc/self/maps (a fault
// report then costs microseconds, not a walk of every mapping). The main
// program has no name there: the kernel's link to the executable, read at
// the first call, names it.
// An address in no loaded object has no module; only names the loader
// keeps relative (a dlopen by relative path, the vDSO) fall back to the walk.
std::uint32_t module_name_of(const void* addr, char16_t* buf, std::uint32_t size) {
    if (!buf || size == 0) return 0;
    buf[0] = 0;
    Holder h{reinterpret_cast<std::uint64_t>(addr), nullptr, false};
    if (!dl_iterate_phdr(&find_holder, &h) || !h.found) return 0;
    const char* name = h.name;
    if (!name[0]) {
        // Read once, as the loader keeps the names of the others.
        static char exe[PATH_MAX];
        static const bool known = posix::exe_path(exe, sizeof exe);
        if (!known) return 0;
        name = exe;
    }
    if (name[0] == '/') {
        char16_t wide[PATH_MAX];
        if (!posix::to_utf16_path(name, wide, PATH_MAX)) return 0;
        std::uint32_t n = 0;
        for (; wide[n] && n + 1 < size; ++n) buf[n] = wide[n];
        buf[n] = 0;
        return n;
    }
    Region r;
    if (!region_query(addr, &r)) return 0;
    return module_file_name(r.alloc_base, buf, size);
}

}  // namespace zor::os
