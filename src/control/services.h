// The service entry offered to modules: built-in services 1..14; other
// codes go to the services that modules installed (custom_services.h).
// Nothing here takes a lock: any thread may call.
//
// Choices beyond the numbered contract:
//  - SERV_GetIRQTime answers 0 while no system shared area exists.
//  - SERV_InstallService refuses an owner number of 100 or more (it names
//    a slot) with 0xFFFFFFFF and a log line.
//  - ExecISRFunc refuses (0, logged) when there is no system shared area to
//    queue into, and when the argument bytes cannot be read.
//  - A waiting ExecISRFunc gives up after kExecWaitLimitMs without a run
//    (for example a host whose IRQ driver delivers no events) and returns 0
//    with a log line; its entry may still run later, without a result.
#pragma once

#include <atomic>
#include <cstdint>

#include "zor/zor_module.h"

namespace zor {

class Caller;
class CustomServices;
class Dispatcher;
class IrqDriver;
class Logger;
class SharedMemory;
class SlotTable;

class Services {
public:
    // Both two-second waits of a queued ExecISRFunc (room, SyncTDL).
    static constexpr std::uint32_t kQueueWaitMs = 2000;
    // How long a waiting ExecISRFunc waits for the run of its entry.
    static constexpr std::uint32_t kExecWaitLimitMs = 10000;

    Services(Logger& log, SlotTable& slots, SharedMemory& shm, Caller& caller,
             Dispatcher& dispatcher, IrqDriver& irq, CustomServices& custom)
        : log_(log), slots_(slots), shm_(shm), caller_(caller), dispatcher_(dispatcher),
          irq_(irq), custom_(custom) {}
    Services(const Services&) = delete;
    Services& operator=(const Services&) = delete;

    // `caller` is the return address of the ServiceProc call.
    std::int64_t Call(std::uint32_t code, std::uintptr_t a1, std::uintptr_t a2,
                      std::uintptr_t a3, std::uintptr_t a4, std::uintptr_t a5,
                      std::uintptr_t a6, const void* caller);
    // ExecISRFunc (service 6).
    std::int32_t ExecISRFunc(std::uint32_t module, std::uint32_t code, const void* data,
                             std::uint32_t size, std::uint32_t wait);
private:
    std::int64_t MemoryService(std::uint32_t code, std::uintptr_t a1, std::uintptr_t a2,
                               std::uintptr_t a3);
    std::int64_t SetISRPrio(std::uintptr_t a1, std::uintptr_t a2);
    std::int64_t GetISRName(std::uintptr_t a1);
    std::int32_t ExecDirect(std::uint32_t module, std::uint32_t code, const void* data,
                            std::uint32_t size);
    std::int32_t ExecQueued(std::uint32_t module, std::uint32_t code, const void* data,
                            std::uint32_t size, std::uint32_t wait);

    Logger& log_;
    SlotTable& slots_;
    SharedMemory& shm_;
    Caller& caller_;
    Dispatcher& dispatcher_;
    IrqDriver& irq_;
    CustomServices& custom_;
};

}  // namespace zor
