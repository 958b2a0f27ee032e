// Which thread is the dispatch thread: the first that calls OnInterrupt
// after the IRQ driver's registration. Read by the guarded call (slow calls
// are logged only there) and by SERV_IsISRThread.
#pragma once

#include <atomic>
#include <cstdint>

#include "os/os.h"

namespace zor {

class DispatchThread {
public:
    // The id is asked for only while none is recorded: on some platforms it
    // costs a system call.
    void Note() {
        if (id_.load(std::memory_order_relaxed) == 0)
            id_.store(os::current_thread_id(), std::memory_order_relaxed);
    }
    bool IsCurrent() const { return os::current_thread_id() == id_.load(std::memory_order_relaxed); }
    std::uint32_t Id() const { return id_.load(std::memory_order_relaxed); }
    void Reset() { id_.store(0, std::memory_order_relaxed); }

private:
    std::atomic<std::uint32_t> id_{0};
};

}  // namespace zor
