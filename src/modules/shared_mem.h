// The system shared area (command 3) and per-ISR shared memory (command 15).
#pragma once

#include <atomic>
#include <cstdint>

#include "os/os.h"

namespace zor {

struct Host;

class SharedMemory {
public:
    explicit SharedMemory(Host& host) : h_(host) {}

    // Command 3: handle value valid in `pid`, 0 on failure.
    std::uint64_t SysMem(std::uint32_t pid, std::uint32_t size);
    void ReleaseArea();
    // Command 15.
    std::uint64_t GetIsrMem(std::uint32_t pid, std::uint64_t number);

    // The host's view of the area and the size the host created it with
    // (never a size word that a client can write). Null / 0 when absent.
    unsigned char* Area() const { return view_.load(std::memory_order_acquire); }
    std::uint32_t AreaSize() const { return size_; }

private:
    Host& h_;
    os::Handle mapping_ = 0;
    std::atomic<unsigned char*> view_{nullptr};
    std::uint32_t size_ = 0;
};

}  // namespace zor
