#include "host/host.h"

#include <atomic>

namespace zor {

namespace {
std::atomic<Host*> g_running{nullptr};
}

Host::Host(Logger& logger)
    : log(logger),
      sysLocker(logger, lockedNames),
      shm(logger, csecFuncs, slots),
      stats(logger, slots),
      recorder(logger),
      caller(logger, slots, shm, stats, dispatchThread),
      deferredList(logger, shm, slots, caller, stats),
      dispatcher(logger, slots, shm, stats, caller, deferredList, dispatchThread, lockedNames,
                 recorder),
      watchdog(logger, caller, slots, stats, dispatchThread),
      customServices(logger, slots),
      irq(logger, csecFuncs, slots, caller, dispatcher, watchdog, customServices, sysLocker,
          lockedNames),
      services(logger, slots, shm, caller, dispatcher, irq, customServices),
      registry(logger, csecFuncs, slots, caller, dispatcher, shm, customServices, irq, sysLocker,
               lockedNames, stopwatches),
      clients(logger, csecFuncs, slots, caller) {}

Host::~Host() {
    Host* self = this;
    g_running.compare_exchange_strong(self, nullptr);
}

std::uint32_t SelectAndLoadIrq(Host& h, const SelectionUi& ui) {
    const Config& c = h.config;
    const DriverChoice choice{c.szExe, c.szIni, c.szIniW, c.lastIrqName, c.fallbackIrqName};
    return SelectAndLoadIrq(h.irq, h.stats, h.log, choice, ui);
}

Host* RunningHost() { return g_running.load(std::memory_order_acquire); }
void SetRunningHost(Host* host) { g_running.store(host, std::memory_order_release); }

}  // namespace zor

extern "C" std::uint32_t OnInterrupt(std::uint32_t sequence) {
    zor::Host* h = zor::RunningHost();
    return h ? h->dispatcher.OnInterrupt(sequence) : 1;
}

extern "C" std::int64_t ServiceProc(std::uint32_t code, std::uintptr_t a1,
                                       std::uintptr_t a2, std::uintptr_t a3,
                                       std::uintptr_t a4, std::uintptr_t a5,
                                       std::uintptr_t a6) {
    // The return address names the calling module for unknown calls.
    const void* caller = __builtin_return_address(0);
    zor::Host* h = zor::RunningHost();
    return h ? h->services.Call(code, a1, a2, a3, a4, a5, a6, caller) : 0;
}

// Modules and drivers write into this log through the executable's export;
// the text is UTF-16, written as is (no format is applied to it).
ZOR_EXPORT void ZOR_Log(std::uint32_t level, std::uint32_t mask, const std::uint16_t* text) {
    zor::Host* h = zor::RunningHost();
    if (h && text) h->log.wPrintf(level, mask, u"%s", reinterpret_cast<const char16_t*>(text));
}
