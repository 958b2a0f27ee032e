// uio_pci_isr: the ISR of a PCI card that Linux hands to user space with
// uio_pci_generic, and a template for your own card. Linux only.
//
// The host's event.irq waits on the card's /dev/uioN, calls this module's
// Interrupt once per interrupt, and unmasks the card's line when every ISR
// has returned. The card keeps its line asserted until it is acknowledged,
// so acknowledging is this module's job: an unacknowledged card would
// interrupt again the moment the line is unmasked.
//
// The card here is QEMU's teaching device "edu" (PCI 1234:11e8). For yours,
// change the four constants below to its IDs and registers.
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "uio_pci_isr/uio_pci_shared.h"
#include "zor/zor_module.h"

namespace {

constexpr unsigned kVendor = 0x1234, kDevice = 0x11e8;  // the card's PCI IDs
constexpr std::size_t kStatus = 0x24;                   // BAR0: pending interrupt bits
constexpr std::size_t kAcknowledge = 0x64;              // BAR0: write bits to clear them
constexpr std::size_t kBarBytes = 4096;                 // what we map of BAR0

// Published by Initialize (Interrupt may run before it): our shared memory
// and the card's registers, each null until then or when missing.
std::atomic<UioPciShared*> g_shm{nullptr};
std::atomic<volatile std::uint32_t*> g_bar{nullptr};

std::uint64_t NowNs() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return std::uint64_t(t.tv_sec) * 1000000000ull + std::uint64_t(t.tv_nsec);
}

unsigned ReadHex(const char* dir, const char* file) {
    char path[512], text[32] = {};
    std::snprintf(path, sizeof path, "%s/%s", dir, file);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    const ssize_t n = read(fd, text, sizeof text - 1);
    close(fd);
    return n > 0 ? unsigned(std::strtoul(text, nullptr, 16)) : 0;
}

// Finds the card among the UIO devices by its PCI IDs (uioN numbers change
// between boots) and maps its BAR0 through sysfs. uio_pci_generic lists no
// maps/ of its own, so resource0 it is; a UIO driver that does list maps
// (/sys/class/uio/uioN/maps/map0) is mapped from /dev/uioN at offset 0.
volatile std::uint32_t* MapCard() {
    DIR* d = opendir("/sys/class/uio");
    if (!d) return nullptr;
    void* bar = MAP_FAILED;
    while (dirent* e = readdir(d)) {
        char dir[300];
        std::snprintf(dir, sizeof dir, "/sys/class/uio/%s/device", e->d_name);
        if (e->d_name[0] == '.' || ReadHex(dir, "vendor") != kVendor || ReadHex(dir, "device") != kDevice) continue;
        char path[320];
        std::snprintf(path, sizeof path, "%s/resource0", dir);
        const int fd = open(path, O_RDWR | O_SYNC | O_CLOEXEC);
        if (fd < 0) continue;
        bar = mmap(nullptr, kBarBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);  // the mapping stays
        if (bar != MAP_FAILED) break;
    }
    closedir(d);
    return bar == MAP_FAILED ? nullptr : static_cast<volatile std::uint32_t*>(bar);
}

// On the host's main thread: system calls are fine here, not in Interrupt.
std::uint32_t OnInitialize(uintptr_t view) {
    volatile std::uint32_t* bar = g_bar.load(std::memory_order_relaxed);
    if (!bar) bar = MapCard();
    auto* s = reinterpret_cast<UioPciShared*>(view);
    if (s) {  // register with at least sizeof(UioPciShared) bytes
        std::memset(s, 0, sizeof *s);
        s->magic = UIO_PCI_MAGIC;
        s->version = UIO_PCI_VERSION;
        s->mapped = bar ? 1 : 0;
        s->card_id = bar ? bar[0] : 0;
    }
    g_bar.store(bar, std::memory_order_release);
    g_shm.store(s, std::memory_order_release);
    return ZOR_INIT_OK;
}

// On the dispatch thread, once per interrupt: two register accesses and a
// few stores. No system call, no lock, no allocation.
std::uint32_t OnInterrupt(std::uint32_t sequence) {
    const std::uint64_t entry = NowNs();
    volatile std::uint32_t* bar = g_bar.load(std::memory_order_acquire);
    std::uint32_t status = 0;
    if (bar) {  // acknowledge first, with or without shared memory
        status = bar[kStatus / 4];
        if (status) bar[kAcknowledge / 4] = status;  // the card drops its line
    }
    UioPciShared* s = g_shm.load(std::memory_order_acquire);
    if (!s) return 0;
    if (s->calls && sequence != s->last_sequence + 1) s->gaps = s->gaps + 1;
    if (status) {
        s->acknowledged = s->acknowledged + 1;
        s->last_status = status;
    } else {
        s->spurious = s->spurious + 1;
    }
    s->last_sequence = sequence;
    s->entry_ns = entry;
    std::atomic_ref<std::uint32_t>(s->calls).store(s->calls + 1, std::memory_order_release);
    return 0;
}

}  // namespace

ZOR_EXPORT uint32_t ISR_GetSet(uint32_t code, uintptr_t arg) {
    switch (code) {
    case ZOR_FN_INITIALIZE: return OnInitialize(arg);
    case ZOR_FN_INTERRUPT: return OnInterrupt(static_cast<std::uint32_t>(arg));
    case ZOR_FN_SHUTDOWN:
        g_shm.store(nullptr, std::memory_order_release);  // the host unmaps the block after this
        if (volatile std::uint32_t* bar = g_bar.exchange(nullptr)) munmap(const_cast<std::uint32_t*>(bar), kBarBytes);
        return 0;
    default: return 0;
    }
}
