// The hardware rig's generator, run inside the guest: raises interrupts on
// QEMU's edu card (PCI 1234:11e8) and reads what the kernel, the host and
// uio_pci_isr made of them.
//
//   hw_gen isr N [GAPS]  N interrupts, each raised once the previous one was
//                        acknowledged and the line unmasked; fails unless the
//                        kernel counted N, the ISR was called N times and
//                        acknowledged N, with at most GAPS sequence gaps
//                        (default 0). Prints raise-to-ISR-entry percentiles.
//   hw_gen bare N        the same against a bare UIO reader of our own (read,
//                        acknowledge, unmask), with no host running.
//   hw_gen raise B       raises B times at once, waiting for nothing.
//   hw_gen state         the kernel's count, the ISR's counts, whether the
//                        line is masked.
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "uio_pci_isr/uio_pci_shared.h"
#include "zor/zor_client.h"

namespace {

constexpr std::size_t kStatus = 0x24 / 4, kRaise = 0x60 / 4, kAck = 0x64 / 4;
constexpr std::uint64_t kWaitNs = 2000000000ull;

std::uint64_t NowNs() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return std::uint64_t(t.tv_sec) * 1000000000ull + std::uint64_t(t.tv_nsec);
}

[[noreturn]] void Fail(const std::string& why) {
    std::printf("hw_gen: %s\n", why.c_str());
    std::exit(1);
}

std::string ReadText(const std::string& path) {
    char buf[256] = {};
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) return "";
    const ssize_t n = read(fd, buf, sizeof buf - 1);
    close(fd);
    return n > 0 ? std::string(buf, std::size_t(n)) : "";
}

// The card: its sysfs folder, registers, config space and interrupt line.
struct Card {
    std::string dir;
    volatile std::uint32_t* bar = nullptr;
    int config = -1;
    std::string irq;

    Card() {
        DIR* d = opendir("/sys/bus/pci/devices");
        while (dirent* e = d ? readdir(d) : nullptr) {
            const std::string p = std::string("/sys/bus/pci/devices/") + e->d_name;
            if (std::strtoul(ReadText(p + "/vendor").c_str(), nullptr, 16) == 0x1234 &&
                std::strtoul(ReadText(p + "/device").c_str(), nullptr, 16) == 0x11e8)
                dir = p;
        }
        if (d) closedir(d);
        if (dir.empty()) Fail("no edu card (PCI 1234:11e8)");
        const int fd = open((dir + "/resource0").c_str(), O_RDWR | O_SYNC);
        void* m = fd < 0 ? MAP_FAILED : mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (m == MAP_FAILED) Fail("cannot map the card's BAR0");
        close(fd);
        bar = static_cast<volatile std::uint32_t*>(m);
        config = open((dir + "/config").c_str(), O_RDWR);
        irq = std::to_string(std::atoi(ReadText(dir + "/irq").c_str()));
    }
    bool Masked() const {
        std::uint16_t command = 0;
        return pread(config, &command, 2, 4) == 2 && (command & 0x400);
    }
    void Unmask() const {
        std::uint16_t command = 0;
        if (pread(config, &command, 2, 4) == 2 && (command & 0x400)) {
            command = std::uint16_t(command & ~0x400);
            if (pwrite(config, &command, 2, 4) != 2) Fail("cannot write the command register");
        }
    }
    // The kernel's count of this line, all CPUs.
    std::uint64_t Kernel() const {
        std::FILE* f = std::fopen("/proc/interrupts", "r");
        char line[1024];
        std::uint64_t sum = 0;
        const std::string key = irq + ":";
        while (f && std::fgets(line, sizeof line, f)) {
            char* p = line;
            while (*p == ' ') ++p;
            if (std::strncmp(p, key.c_str(), key.size()) != 0) continue;
            p += key.size();
            for (char* end; (sum += std::strtoull(p, &end, 10), end != p); p = end) {}
        }
        if (f) std::fclose(f);
        return sum;
    }
    // Polls gently: config reads go through the emulator's big lock, and a
    // tight loop of them would slow the very unmasking it waits for.
    void WaitUnmasked() const {
        const std::uint64_t until = NowNs() + kWaitNs;
        while (Masked()) {
            if (NowNs() > until) Fail("the line stayed masked");
            usleep(20);
        }
    }
};

struct Percentiles {
    std::vector<std::uint64_t> ns;
    std::string Text() {
        std::sort(ns.begin(), ns.end());
        const auto at = [&](std::size_t permille) { return ns.empty() ? 0.0 : ns[ns.size() * permille / 1000] / 1e3; };
        char out[96];
        std::snprintf(out, sizeof out, "p50_us=%.1f p99_us=%.1f", at(500), at(990));
        return out;
    }
};

UioPciShared* MapIsr() {
    ZorConnection* c = nullptr;
    std::uint32_t module = 0;
    static ZorView view{};
    if (zor_connect(&c, 3000) != ZOR_OK) Fail("no host answers");
    if (zor_find_module(c, "uio_pci_isr.so", &module) != ZOR_OK) Fail("uio_pci_isr.so is not registered");
    if (zor_module_memory(c, module, sizeof(UioPciShared), &view) != ZOR_OK) Fail("cannot map the ISR's memory");
    zor_disconnect(c);
    auto* s = static_cast<UioPciShared*>(view.base);
    if (s->magic != UIO_PCI_MAGIC || !s->mapped) Fail("the ISR did not find the card");
    return s;
}

std::uint32_t Load(const std::uint32_t& word) {
    return std::atomic_ref<const std::uint32_t>(word).load(std::memory_order_acquire);
}

int Isr(const Card& card, int n, std::uint32_t maxGaps) {
    UioPciShared* s = MapIsr();
    const std::uint64_t kernel0 = card.Kernel();
    const std::uint32_t calls0 = Load(s->calls), ack0 = s->acknowledged, gaps0 = s->gaps;
    Percentiles lat;
    for (int i = 0; i < n; ++i) {
        card.WaitUnmasked();
        const std::uint64_t raised = NowNs();
        card.bar[kRaise] = 1;
        while (Load(s->calls) == calls0 + std::uint32_t(i))
            if (NowNs() - raised > kWaitNs) Fail("interrupt " + std::to_string(i + 1) + " never reached the ISR");
        lat.ns.push_back(s->entry_ns - raised);
    }
    card.WaitUnmasked();
    const std::uint64_t kernel = card.Kernel() - kernel0;
    const std::uint32_t calls = Load(s->calls) - calls0, ack = s->acknowledged - ack0, gaps = s->gaps - gaps0;
    std::printf("isr raised=%d kernel=%llu calls=%u acknowledged=%u gaps=%u %s\n", n, (unsigned long long)kernel,
                calls, ack, gaps, lat.Text().c_str());
    return kernel == std::uint64_t(n) && calls == std::uint32_t(n) && ack == std::uint32_t(n) && gaps <= maxGaps ? 0 : 1;
}

// A bare reader: read, acknowledge, unmask, as a program without the host would.
int Bare(const Card& card, int n) {
    DIR* d = opendir((card.dir + "/uio").c_str());
    std::string node;
    while (dirent* e = d ? readdir(d) : nullptr)
        if (std::strncmp(e->d_name, "uio", 3) == 0) node = std::string("/dev/") + e->d_name;
    if (d) closedir(d);
    const int fd = node.empty() ? -1 : open(node.c_str(), O_RDWR);
    if (fd < 0) Fail("the card has no UIO node");
    std::atomic<std::uint32_t> seen{0};
    std::atomic<std::uint64_t> entry{0};
    std::thread reader([&] {
        const sched_param fifo{90};  // where the host's ramp puts its event thread
        pthread_setschedparam(pthread_self(), SCHED_FIFO, &fifo);
        for (std::uint32_t count; seen.load() < std::uint32_t(n) && read(fd, &count, 4) == 4;) {
            entry.store(NowNs());
            card.bar[kAck] = card.bar[kStatus];
            card.Unmask();
            seen.fetch_add(1, std::memory_order_release);
        }
    });
    card.Unmask();
    Percentiles lat;
    for (int i = 0; i < n; ++i) {
        const std::uint64_t raised = NowNs();
        card.bar[kRaise] = 1;
        while (seen.load(std::memory_order_acquire) == std::uint32_t(i))
            if (NowNs() - raised > kWaitNs) Fail("the bare reader missed interrupt " + std::to_string(i + 1));
        lat.ns.push_back(entry.load() - raised);
        card.WaitUnmasked();  // as the host's run waits
    }
    reader.join();
    close(fd);
    std::printf("bare raised=%d %s\n", n, lat.Text().c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string cmd = argc > 1 ? argv[1] : "";
    const int n = argc > 2 ? std::atoi(argv[2]) : 0;
    Card card;
    if (cmd == "isr" && n > 0) return Isr(card, n, argc > 3 ? std::uint32_t(std::atoi(argv[3])) : 0);
    if (cmd == "bare" && n > 0) return Bare(card, n);
    if (cmd == "raise" && n > 0) {
        for (int i = 0; i < n; ++i) card.bar[kRaise] = 1;
        return 0;
    }
    if (cmd == "state") {
        UioPciShared* s = MapIsr();
        std::printf("kernel=%llu calls=%u acknowledged=%u gaps=%u masked=%d\n", (unsigned long long)card.Kernel(),
                    Load(s->calls), s->acknowledged, s->gaps, card.Masked() ? 1 : 0);
        return 0;
    }
    std::printf("usage: hw_gen isr N [GAPS] | bare N | raise B | state\n");
    return 2;
}
