// Which thread is the dispatch thread: the first that calls OnInterrupt
// after the IRQ driver's registration. Read by the guarded call (slow calls
// are logged only there) and by SERV_IsISRThread.
//
// Also whether it is inside an event, and which: the dispatch loop's calls
// are not counted one by one in their slots (two locked instructions per
// ISR); an unloading that finds an event running waits for that event to
// end instead (Caller::CloseSlot). Both sides use sequentially consistent
// operations: the event's start and the slot's closing are stores followed
// by loads of the other side's word.
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

    // Dispatch thread only: the event's start and end.
    void EnterEvent() { events_.fetch_add(1, std::memory_order_seq_cst); }
    void LeaveEvent() {
        events_.store(events_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }
    // Odd while an event runs; changes with every start and end.
    std::uint32_t Events() const { return events_.load(std::memory_order_seq_cst); }
    bool InEvent() const { return (Events() & 1) != 0; }

private:
    std::atomic<std::uint32_t> id_{0};
    std::atomic<std::uint32_t> events_{0};
};

}  // namespace zor
