// The one IRQ driver: loading, registration, unregistration, priorities,
// and the forwarding of commands 6 and 7. Also the driver selection at
// start-up.
#pragma once

#include <atomic>
#include <cstdint>

namespace zor {

struct Host;

class IrqDriver {
public:
    explicit IrqDriver(Host& host) : h_(host) {}

    std::uint32_t LoadIRQ(const char16_t* directory, const char16_t* fileName, bool strict);
    std::uint32_t RegisterIRQ(const char16_t* path, bool strict);
    void UnregisterIRQ();
    void SetIrqPriority(std::uint32_t level);
    void ResetIrqPriority();
    // Commands 6 and 7 (and service 9): 1000 / 0 without a driver.
    std::uint32_t Query();
    std::uint32_t Control(std::uint32_t value);
    // True when CurrentIrqSlot names an in-use kind-1 slot with an entry.
    bool Loaded() const;
    std::uint32_t CurrentIrqSlot() const { return currentSlot_.load(std::memory_order_acquire); }
    std::uint32_t PriorityLevel() const { return priorityLevel_; }

private:
    Host& h_;
    std::atomic<std::uint32_t> currentSlot_{0};
    std::uint32_t priorityLevel_ = 0xFFFFFFFF;
};

}  // namespace zor
