// The system shared area (command 3) and per-ISR shared memory (command 15).
//
// The system area is created by the first command 3 with the size that
// request names and is never resized; later requests get another handle to
// the same mapping. A first request for fewer than ZOR_SSA_MIN_SIZE bytes is
// refused (result 0, logged): such an area could not hold its own header.
// Every access the host makes is bounded by the size it created (AreaSize),
// never by a word a client can write.
#pragma once

#include <atomic>
#include <cstdint>

#include "os/os.h"
#include "os/peer.h"

namespace zor {

class CCritSec;
class Logger;
class SlotTable;

class SharedMemory {
public:
    SharedMemory(Logger& log, CCritSec& funcs, const SlotTable& slots)
        : log_(log), funcs_(funcs), slots_(slots) {}
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    // Caps on client-sized memory (ZOR.INI SHMMAXMB, SHMTOTALMB): bytes of
    // one mapping and of all of them together (the system area and every
    // module's); 0: no cap.
    static constexpr std::uint64_t kDefaultMaxBytes = 256ull << 20;
    static constexpr std::uint64_t kDefaultTotalBytes = 1024ull << 20;
    void SetCaps(std::uint64_t maxBytes, std::uint64_t totalBytes) {
        maxBytes_ = maxBytes;
        totalBytes_ = totalBytes;
    }
    // True when `size` more bytes stay within the caps; otherwise false
    // after a line naming `what`. Under csecFuncs.
    bool Fits(std::uint32_t size, const char16_t* what) const;

    // Command 3: handle value valid in `pid`, 0 on failure.
    std::uint64_t SysMem(os::Peer& peer, std::uint32_t pid, std::uint32_t size);
    // Unmaps and closes the system area (takes csecFuncs).
    void ReleaseArea();
    // Command 15.
    std::uint64_t GetIsrMem(os::Peer& peer, std::uint32_t pid, std::uint64_t number);

    // The host's view of the area and the size the host created it with
    // (never a size word that a client can write). Null / 0 when absent.
    // The view is published after the size and after the area's header
    // has been initialised.
    unsigned char* Area() const { return view_.load(std::memory_order_acquire); }
    std::uint32_t AreaSize() const { return size_.load(std::memory_order_relaxed); }
    os::Handle Mapping() const { return mapping_; }

private:
    void ReleaseLocked();

    Logger& log_;
    CCritSec& funcs_;
    const SlotTable& slots_;
    std::uint64_t maxBytes_ = kDefaultMaxBytes, totalBytes_ = kDefaultTotalBytes;
    os::Handle mapping_ = 0;  // written only under csecFuncs
    std::atomic<unsigned char*> view_{nullptr};
    std::atomic<std::uint32_t> size_{0};
};

}  // namespace zor
