#include "uio.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace uio {
namespace {

constexpr std::uint16_t kIntxDisable = 1u << 10;
constexpr off_t kCommand = 4;

// Joins into a fixed buffer; false when it does not fit.
bool Join(char* out, const char* a, const char* b, const char* c = "") {
    const int n = std::snprintf(out, PATH_MAX, "%s%s%s", a, b, c);
    return n > 0 && n < PATH_MAX;
}

// The first line of a small sysfs file, without its newline.
bool ReadLine(const char* path, char* out, std::size_t size) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const ssize_t got = read(fd, out, size - 1);
    close(fd);
    if (got < 0) return false;
    out[got] = 0;
    out[std::strcspn(out, "\n")] = 0;
    return true;
}

// The last component of the link `dir/device`: a PCI device's address.
bool DeviceAddress(const char* dir, char* out, std::size_t size) {
    char link[PATH_MAX], target[PATH_MAX];
    if (!Join(link, dir, "/device")) return false;
    const ssize_t n = readlink(link, target, sizeof target - 1);
    if (n <= 0) return false;
    target[n] = 0;
    const char* slash = std::strrchr(target, '/');
    const char* base = slash ? slash + 1 : target;
    if (std::strlen(base) >= size) return false;
    std::memcpy(out, base, std::strlen(base) + 1);
    return true;
}

bool Matches(const char* dir, const char* name, const char* pci) {
    char value[256];
    if (pci) return DeviceAddress(dir, value, sizeof value) && std::strcmp(value, pci) == 0;
    char path[PATH_MAX];
    return Join(path, dir, "/name") && ReadLine(path, value, sizeof value) && std::strcmp(value, name) == 0;
}

// Fills `out` for uioN (the sysfs folder's name).
bool Found(const char* node, Device* out) {
    return Join(out->sysfs, Root(), "/sys/class/uio/", node) && Join(out->dev, Root(), "/dev/", node);
}

// The first /sys/class/uio/uio* whose name or PCI address matches.
int Search(const char* name, const char* pci, Device* out) {
    char classDir[PATH_MAX];
    if (!Join(classDir, Root(), "/sys/class/uio")) return ENAMETOOLONG;
    DIR* d = opendir(classDir);
    if (!d) return ENOENT;
    int result = ENOENT;
    while (dirent* e = readdir(d)) {
        char dir[PATH_MAX];
        if (std::strncmp(e->d_name, "uio", 3) != 0 || !Join(dir, classDir, "/", e->d_name)) continue;
        if (Matches(dir, name, pci) && Found(e->d_name, out)) {
            result = 0;
            break;
        }
    }
    closedir(d);
    return result;
}

bool IsUioNode(const char* base) {
    if (std::strncmp(base, "uio", 3) != 0 || !base[3]) return false;
    for (const char* p = base + 3; *p; ++p)
        if (*p < '0' || *p > '9') return false;
    return true;
}

}  // namespace

const char* Root() {
    static const char* root = [] {
        const char* r = std::getenv("ZOR_UIO_ROOT");
        return r ? r : "";
    }();
    return root;
}

bool ParseReenable(const char* text, Reenable* out) {
    static const struct {
        const char* text;
        Reenable mode;
    } kModes[] = {{"0", Reenable::kOff}, {"1", Reenable::kWrite}, {"pci", Reenable::kPci}, {"auto", Reenable::kAuto}};
    for (const auto& m : kModes) {
        if (strcasecmp(text, m.text) == 0) {
            *out = m.mode;
            return true;
        }
    }
    return false;
}

int Resolve(const char* wanted, Device* out) {
    *out = Device{};
    if (std::strncmp(wanted, "uio:pci:", 8) == 0) {
        char address[64];
        const char* a = wanted + 8;
        // "00:04.0" means domain 0, as lspci prints it.
        const int n = std::strchr(a, ':') == std::strrchr(a, ':') ? std::snprintf(address, sizeof address, "0000:%s", a)
                                                                 : std::snprintf(address, sizeof address, "%s", a);
        if (n <= 0 || n >= static_cast<int>(sizeof address)) return ENAMETOOLONG;
        for (char* p = address; *p; ++p)
            if (*p >= 'A' && *p <= 'F') *p = static_cast<char>(*p - 'A' + 'a');
        return Search(nullptr, address, out);
    }
    if (std::strncmp(wanted, "uio:", 4) == 0) return Search(wanted + 4, nullptr, out);
    if (!Join(out->dev, wanted, "")) return ENAMETOOLONG;
    // A path (or a link such as a udev name) that ends at /dev/uioN is UIO.
    char real[PATH_MAX];
    if (realpath(wanted, real)) {
        const char* slash = std::strrchr(real, '/');
        const char* base = slash ? slash + 1 : real;
        char dir[PATH_MAX];
        if (IsUioNode(base) && Join(dir, Root(), "/sys/class/uio/", base) && access(dir, F_OK) == 0)
            Join(out->sysfs, dir, "");
    }
    return 0;
}

int OpenPciConfig(const Device& device) {
    char path[PATH_MAX];
    if (!device.sysfs[0] || !Join(path, device.sysfs, "/device/config")) {
        errno = ENODEV;
        return -1;
    }
    return open(path, O_RDWR | O_CLOEXEC);
}

bool UnmaskIntx(int configFd) {
    std::uint16_t command = 0;
    errno = EIO;  // what a short transfer reports
    if (pread(configFd, &command, 2, kCommand) != 2) return false;
    if (!(command & kIntxDisable)) return true;
    command = static_cast<std::uint16_t>(command & ~kIntxDisable);
    return pwrite(configFd, &command, 2, kCommand) == 2;
}

}  // namespace uio
