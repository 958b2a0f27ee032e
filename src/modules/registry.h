// ISR module registration and unregistration on behalf of clients, the
// lookups of commands 13 and 14, and the pending-start pass.
#pragma once

#include <cstdint>

namespace zor {

struct Host;

class Registry {
public:
    explicit Registry(Host& host) : h_(host) {}

    // Command 1. `payload`/`size` are the message bytes as received; the
    // name is read only within them. Returns the handle value valid in the
    // client, 0 on failure or without shared memory.
    std::uint64_t RegisterISRProc(const void* payload, std::uint32_t size);
    void UnregisterISR(std::uint32_t slot);
    void ReleaseModuleSlot(std::uint32_t slot);
    // Command 2: always 0.
    std::uint32_t UnregisterCommand(std::uint64_t number);
    // Command 13 with a terminated name; command 14.
    std::uint32_t FindModule(const char16_t* name) const;
    std::uint32_t ModuleInfo(std::uint64_t number) const;
    void RetryPendingStarts();
    void UnloadAll();

private:
    Host& h_;
};

}  // namespace zor
