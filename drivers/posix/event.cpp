// event.irq on Linux: events from a device that reports interrupts through
// reads, as a UIO device (/dev/uioN) does, configured in [EVENTIRQ] of the
// ZOR.INI beside the executable:
//   DEVICE=<path>  each read of SIZE bytes (default 4, what UIO wants)
//                  returning is one event; a read of at least 4 bytes
//                  carries the device's interrupt count in its first u32,
//                  which becomes the sequence number, so the host's gap
//                  check shows interrupts lost on the way.
//   DEVICE=uio:<name> / uio:pci:<domain:bus:dev.fn>  the UIO device of that
//                  name or PCI address, looked up at every open (uioN
//                  numbers change between boots).
//   REENABLE=auto  (default) for a UIO device as 1, otherwise as 0.
//   REENABLE=1     after each event write a u32 1 to the device (UIO drivers
//                  with irqcontrol); where that fails with ENOSYS or EINVAL
//                  on a PCI device, switch to pci for good.
//   REENABLE=pci   after each event clear the INTx disable bit of the PCI
//                  command register (uio_pci_generic).
//   REENABLE=0     never unmask.
//   EVENT=<name>   a named event is a Windows object: refused here, logged.
//   PENDING        accepted for the same file on both systems; one read at a
//                  time is what a character device serves.
//
// The unmasking follows the event's ISRs, which acknowledge the device, and
// precedes the next wait: an interrupt raised during dispatch comes next.
// While paused nothing acknowledges the device, so the line of a dropped
// event stays masked until delivering resumes.
// The thread waits in poll() on the device and on an eventfd, so that an
// unloading ends the wait at once. A source that fails (a read or write
// fails, the device hangs up or goes away) is logged once and counted, and
// the thread opens it again a second later, and every second until it
// opens, and logs that; a device missing at start is waited for the same
// way. The event thread is the host's dispatch thread. The read buffer is
// allocated at Initialize: the per-event path allocates nothing.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <new>

#include "os/os.h"
#include "os/posix/posix_internal.h"
#include "driver_entry.h"
#include "uio.h"
#include "zor/zor_module.h"

namespace {

namespace os = zor::os;

constexpr std::uint32_t kInitBadConfig = 1;
constexpr std::uint32_t kInitNoThread = 3;
constexpr int kReopenMs = 1000;
constexpr std::uint32_t kDefaultPending = 4;
constexpr std::uint32_t kDefaultSize = 4;

struct Driver {
    std::atomic<ZorInterruptProc> entry{nullptr};
    EventCounters counts;
    std::atomic<std::uint32_t> tid{0};
    char source[PATH_MAX] = {};  // DEVICE= as written
    uio::Device device;           // what it named at the latest open
    std::uint32_t size = kDefaultSize;
    uio::Reenable reenable = uio::Reenable::kAuto;  // as configured
    uio::Reenable mode = uio::Reenable::kOff;       // in force for the open device
    bool pciForGood = false;      // irqcontrol was missing: config space from now on
    int fd = -1;    // the device; the thread's own once it runs
    int config = -1;  // its PCI config space, when unmasked there
    int stop = -1;  // eventfd: readable once unloading
    int wake = -1;  // eventfd: readable when delivering resumes
    bool held = false;  // an event was dropped while paused: its line stays masked
    pthread_t thread{};
    bool running = false;
    unsigned char* buffer = nullptr;
    std::uint32_t sequence = 0;
};

Driver g;

// One line into the host's log (stderr outside a host that exports it).
void Log(std::uint32_t mask, const char* fmt, ...) {
    static const auto log = reinterpret_cast<ZorLogProc>(dlsym(RTLD_DEFAULT, ZOR_LOG_EXPORT_NAME));
    char line[600];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    char16_t wide[600];
    if (log && os::posix::to_utf16(line, wide, 600)) {
        log(2, mask, reinterpret_cast<const std::uint16_t*>(wide));
    } else {
        std::fputs(line, stderr);
    }
}

bool ReadReenable(const char16_t* ini) {
    char16_t text16[16];
    char text[16];
    os::ini_read_string(u"EVENTIRQ", u"REENABLE", u"auto", text16, 16, ini);
    os::posix::to_utf8(text16, text, sizeof text, false);
    if (uio::ParseReenable(text, &g.reenable)) return true;
    Log(1, "ZOR: event.irq: REENABLE=%s in [EVENTIRQ] is not 0, 1, pci or auto\n\r", text);
    return false;
}

bool ReadConfig() {
    char16_t ini[PATH_MAX];
    char iniPath[PATH_MAX];
    if (!os::startup_dir(ini, PATH_MAX - 8)) return false;
    std::uint32_t n = 0;
    while (ini[n]) ++n;
    std::memcpy(ini + n, u"\\ZOR.INI", sizeof u"\\ZOR.INI");
    os::posix::to_utf8(ini, iniPath, sizeof iniPath, true);
    char16_t event[PATH_MAX], device[PATH_MAX];
    os::ini_read_string(u"EVENTIRQ", u"EVENT", u"", event, PATH_MAX, ini);
    os::ini_read_string(u"EVENTIRQ", u"DEVICE", u"", device, PATH_MAX, ini);
    if (event[0] && !device[0]) {
        Log(1, "ZOR: event.irq: EVENT in [EVENTIRQ] of '%s' names a Windows event; use DEVICE=<path> on Linux\n\r",
            iniPath);
        return false;
    }
    if (event[0]) {
        Log(1, "ZOR: event.irq: EVENT and DEVICE both set in [EVENTIRQ] of '%s'; one of them only\n\r", iniPath);
        return false;
    }
    if (!device[0]) {
        Log(1, "ZOR: event.irq: neither EVENT nor DEVICE set in [EVENTIRQ] of '%s'\n\r", iniPath);
        return false;
    }
    os::posix::to_utf8(device, g.source, sizeof g.source, false);
    const auto pending = static_cast<std::int32_t>(os::ini_read_int(u"EVENTIRQ", u"PENDING", kDefaultPending, ini));
    const auto size = static_cast<std::int32_t>(os::ini_read_int(u"EVENTIRQ", u"SIZE", kDefaultSize, ini));
    if (pending < 1 || pending > static_cast<std::int32_t>(ZOR_EVENT_MAX_PENDING)) {
        Log(1, "ZOR: event.irq: PENDING=%d in [EVENTIRQ] is not within 1..%u\n\r", pending, ZOR_EVENT_MAX_PENDING);
        return false;
    }
    if (size < 1 || size > static_cast<std::int32_t>(ZOR_EVENT_MAX_SIZE)) {
        Log(1, "ZOR: event.irq: SIZE=%d in [EVENTIRQ] is not within 1..%u\n\r", size, ZOR_EVENT_MAX_SIZE);
        return false;
    }
    g.size = static_cast<std::uint32_t>(size);
    return ReadReenable(ini);
}

void CloseSource() {
    if (g.fd >= 0) close(g.fd);
    if (g.config >= 0) close(g.config);
    g.fd = g.config = -1;
    g.held = false;  // opening unmasks
}

// irqcontrol is missing: a PCI device is unmasked through its config space
// from now on, which the log says once.
bool SwitchToPci(int error) {
    g.config = uio::OpenPciConfig(g.device);
    if (g.config < 0) return false;
    g.mode = uio::Reenable::kPci;
    if (!g.pciForGood) {
        g.pciForGood = true;
        Log(6, "ZOR: event.irq: device '%s' has no irqcontrol (error %d): unmasking its interrupt through PCI "
               "config space from now on\n\r", g.source, error);
    }
    return true;
}

// REENABLE=auto on a UIO device that is neither PCI nor has irqcontrol:
// its kernel driver does not mask the line, so there is nothing to undo.
bool LeaveMasking(int error) {
    g.mode = uio::Reenable::kOff;
    Log(6, "ZOR: event.irq: device '%s' has no irqcontrol (error %d) and is not PCI: not unmasking it\n\r", g.source,
        error);
    return true;
}

// Lets the device interrupt again. False with `*error` when it failed.
bool Unmask(int* error) {
    static const std::uint32_t one = 1;
    switch (g.mode) {
    case uio::Reenable::kWrite:
        if (write(g.fd, &one, 4) == 4) return true;
        *error = errno;
        if (!uio::NoIrqControl(*error)) return false;
        if (SwitchToPci(*error)) return Unmask(error);
        return g.reenable == uio::Reenable::kAuto && LeaveMasking(*error);
    case uio::Reenable::kPci:
        if (uio::UnmaskIntx(g.config)) return true;
        *error = errno;
        return false;
    default:
        return true;
    }
}

// Finds and opens the device, read and write where allowed (a UIO device
// takes the unmasking write), and unmasks it: an interrupt that came while
// nobody listened has left the line masked. False with `*error`.
bool OpenSource(int* error) {
    CloseSource();
    if ((*error = uio::Resolve(g.source, &g.device)) != 0) return false;
    g.fd = open(g.device.dev, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (g.fd < 0 && (errno == EACCES || errno == EPERM || errno == EROFS))
        g.fd = open(g.device.dev, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (g.fd < 0) {
        *error = errno;
        return false;
    }
    g.mode = g.reenable;
    if (g.mode == uio::Reenable::kAuto) g.mode = g.device.sysfs[0] ? uio::Reenable::kWrite : uio::Reenable::kOff;
    if (g.mode == uio::Reenable::kWrite && g.pciForGood) g.mode = uio::Reenable::kPci;
    if (g.mode == uio::Reenable::kPci && g.config < 0 && (g.config = uio::OpenPciConfig(g.device)) < 0) {
        *error = errno;
        CloseSource();
        return false;
    }
    if (!Unmask(error)) {
        CloseSource();
        return false;
    }
    if (std::strncmp(g.source, "uio:", 4) == 0) Log(6, "ZOR: event.irq: '%s' is %s\n\r", g.source, g.device.dev);
    return true;
}

// False when paused: the event is dropped.
bool Deliver(std::uint32_t sequence) {
    if (!g.counts.delivering.load(std::memory_order_acquire)) return false;
    g.sequence = sequence;
    if (ZorInterruptProc entry = g.entry.load(std::memory_order_acquire)) entry(sequence);
    g.counts.delivered.fetch_add(1, std::memory_order_relaxed);
    return true;
}

// One completed read: the event, then the re-enabling write. False with
// `*error` when the source failed.
bool Take(int* error) {
    const ssize_t got = read(g.fd, g.buffer, g.size);
    if (got < 0) {
        if (errno == EAGAIN || errno == EINTR) return true;  // woken without data
        *error = errno;
        return false;
    }
    if (got == 0) {  // the other end is gone: nothing will come again
        *error = EPIPE;
        return false;
    }
    std::uint32_t sequence = g.sequence + 1;
    if (got >= 4) std::memcpy(&sequence, g.buffer, 4);
    if (Deliver(sequence) || g.mode == uio::Reenable::kOff) return Unmask(error);
    // No ISR acknowledged the device: unmasked, a level-triggered line would
    // interrupt again at once, for as long as the pause lasts. It stays
    // masked until delivering resumes; what it raises meanwhile then arrives
    // as one event, after a gap in the count.
    g.held = true;
    return true;
}

// Delivering resumed: a line held masked during the pause is unmasked.
bool Resumed(int* error) {
    std::uint64_t n;
    if (read(g.wake, &n, sizeof n) < 0 && errno != EAGAIN) {
        *error = errno;
        return false;
    }
    if (!g.held || !g.counts.delivering.load(std::memory_order_acquire)) return true;
    g.held = false;
    return Unmask(error);
}

// False: the source failed with `*error`. True: stop was asked.
bool Serve(int* error) {
    for (;;) {
        pollfd p[3] = {{g.stop, POLLIN, 0}, {g.fd, POLLIN, 0}, {g.wake, POLLIN, 0}};
        if (poll(p, 3, -1) < 0) {
            if (errno == EINTR) continue;
            *error = errno;
            return false;
        }
        if (p[0].revents) return true;
        if (p[1].revents & POLLNVAL) {
            *error = EBADF;
            return false;
        }
        if (p[1].revents && !Take(error)) return false;
        if (p[2].revents && !Resumed(error)) return false;
    }
}

// Logs and counts a failure, drops the source; the thread opens it again.
void Lost(int error) {
    const std::uint32_t n = g.counts.failures.fetch_add(1, std::memory_order_relaxed) + 1;
    Log(1, "ZOR: event.irq: device '%s' failed with error %d (failure %u), opening it again\n\r", g.source, error, n);
    CloseSource();
}

bool Stopping(int timeoutMs) {
    pollfd p{g.stop, POLLIN, 0};
    return poll(&p, 1, timeoutMs) > 0;
}

void* EventThread(void*) {
    g.tid.store(static_cast<std::uint32_t>(syscall(SYS_gettid)), std::memory_order_release);
    while (!Stopping(0)) {
        if (g.fd < 0) {
            int error = 0;
            if (!OpenSource(&error)) {  // logged when it failed; quiet while it stays away
                Stopping(kReopenMs);
                continue;
            }
            Log(6, "ZOR: event.irq: device '%s' open again\n\r", g.source);
        }
        int error = 0;
        if (Serve(&error)) break;
        Lost(error);
        Stopping(kReopenMs);  // a device that fails at once must not spin at real-time priority
    }
    return nullptr;
}

void CloseAll() {
    CloseSource();
    if (g.stop >= 0) close(g.stop);
    if (g.wake >= 0) close(g.wake);
    delete[] g.buffer;
    g.stop = g.wake = -1;
    g.buffer = nullptr;
    g.tid.store(0, std::memory_order_release);
}

std::uint32_t Start() {
    if (g.running) return ZOR_INIT_OK;
    if (!ReadConfig()) return kInitBadConfig;
    g.pciForGood = false;
    int error = 0;
    if (!OpenSource(&error)) {  // the thread opens it once it is there
        const std::uint32_t n = g.counts.failures.fetch_add(1, std::memory_order_relaxed) + 1;
        Log(1, "ZOR: event.irq: device '%s' does not open (error %d, failure %u), opening it again every second\n\r",
            g.source, error, n);
    }
    g.stop = eventfd(0, EFD_CLOEXEC);
    g.wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    g.buffer = new (std::nothrow) unsigned char[g.size];
    if (g.stop < 0 || g.wake < 0 || !g.buffer || pthread_create(&g.thread, nullptr, &EventThread, nullptr) != 0) {
        CloseAll();
        return kInitNoThread;
    }
    g.running = true;
    while (g.tid.load(std::memory_order_acquire) == 0) sched_yield();  // GS_GET_THREAD follows at once
    return ZOR_INIT_OK;
}

void Stop() {
    if (!g.running) return;
    const std::uint64_t one = 1;
    if (write(g.stop, &one, sizeof one) != sizeof one) return;  // cannot happen below 2^64 - 1 writes
    pthread_join(g.thread, nullptr);
    g.running = false;
    CloseAll();
}

std::uint32_t Query() { return g.counts.Query(); }
// A resume wakes the event thread, which may hold a line masked.
std::uint32_t Control(std::uint32_t value) {
    const std::uint32_t answer = g.counts.Control(value);
    const std::uint64_t one = 1;
    if (value == ZOR_EVENT_RESUME && g.wake >= 0 && write(g.wake, &one, sizeof one) != sizeof one)
        Log(1, "ZOR: event.irq: resuming did not reach the event thread (error %d)\n\r", errno);
    return answer;
}
void SetEntry(ZorInterruptProc entry) { g.entry.store(entry, std::memory_order_release); }
std::uint32_t ThreadId() { return g.tid.load(std::memory_order_acquire); }

}  // namespace

ZOR_EXPORT uint32_t IRQ_GetSet(uint32_t code, uintptr_t arg) {
    static constexpr DriverParts kParts{Start, Stop, SetEntry, ThreadId, Query, Control};
    return DriverGetSet(kParts, code, arg);
}
