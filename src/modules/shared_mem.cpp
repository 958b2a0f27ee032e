#include "modules/shared_mem.h"

#include <cstring>

#include "modules/slot_table.h"
#include "support/critsec.h"
#include "support/log.h"
#include "zor/zor_module.h"

namespace zor {

namespace {

// A fresh area: the queue is empty, free and as large as the mapping
// allows; no result slot is reserved. The fresh mapping is zero elsewhere.
void InitArea(unsigned char* area, std::uint32_t size) {
    const std::uint32_t capacity = size - ZOR_SSA_QUEUE;
    const std::uint32_t zero = 0;
    std::memcpy(area + ZOR_SSA_CAPACITY, &capacity, 4);
    std::memcpy(area + ZOR_SSA_BYTES_USED, &zero, 4);
    std::memcpy(area + ZOR_SSA_ENTRY_COUNT, &zero, 4);
    std::memcpy(area + ZOR_SSA_SYNC_TDL, &zero, 4);
    std::memset(area + ZOR_SSA_RESULT_FLAGS, 0, ZOR_SSA_RESULT_SLOTS);
}

}  // namespace

bool SharedMemory::Fits(std::uint32_t size, const char16_t* what) const {
    std::uint64_t inUse = mapping_ != 0 ? AreaSize() : 0;
    for (std::uint32_t s = 1; s < slots_.HighWater() && s < SlotTable::kSlots; ++s)
        if (slots_[s].mapping != 0) inUse += slots_[s].sharedSize;
    if (maxBytes_ != 0 && size > maxBytes_) {
        log_.wPrintf(kLogError, u"ZOR: shared memory of %u bytes for '%s' refused: over %u MiB (SHMMAXMB)\n\r", size,
                     what, static_cast<unsigned>(maxBytes_ >> 20));
        return false;
    }
    if (totalBytes_ != 0 && inUse + size > totalBytes_) {
        log_.wPrintf(kLogError,
                     u"ZOR: shared memory of %u bytes for '%s' refused: %u MiB in use of %u MiB (SHMTOTALMB)\n\r",
                     size, what, static_cast<unsigned>(inUse >> 20), static_cast<unsigned>(totalBytes_ >> 20));
        return false;
    }
    return true;
}

std::uint64_t SharedMemory::SysMem(os::Peer& peer, std::uint32_t pid, std::uint32_t size) {
    CLock lock(funcs_);
    const bool complete = mapping_ != 0 && Area() != nullptr;
    if (mapping_ == 0) {
        if (size < ZOR_SSA_MIN_SIZE) {
            log_.wPrintf(kLogFault, u"ZOR: System shared memory of %u bytes refused, at least %u bytes needed!\n\r",
                           size, ZOR_SSA_MIN_SIZE);
            return 0;
        }
        if (!Fits(size, u"system area")) return 0;
        mapping_ = os::mapping_create(size);
        if (mapping_ == 0) {
            log_.wPrintf(kLogFault, u"ZOR: Failed to alloc system shared memory!\n\r");
            if (!complete) ReleaseLocked();
            return 0;
        }
    }
    std::uint64_t remote = 0;
    const os::Handle process = peer.Open(pid);
    const bool duplicated = process != 0 && peer.DupTo(process, mapping_, &remote);
    if (process != 0) peer.Close(process);
    if (!duplicated) {
        log_.wPrintf(kLogFault, u"ZOR: Failed to duplicate handle for system shared memory!\n\r");
        if (!complete) ReleaseLocked();
        return 0;
    }
    if (Area() == nullptr) {
        auto* view = static_cast<unsigned char*>(os::mapping_map(mapping_, size));
        if (view == nullptr) {
            log_.wPrintf(kLogFault, u"ZOR: Failed to map view of system shared memory!\n\r");
            if (!complete) ReleaseLocked();
            return 0;
        }
        InitArea(view, size);
        size_.store(size, std::memory_order_relaxed);
        view_.store(view, std::memory_order_release);
    }
    return remote;
}

void SharedMemory::ReleaseArea() {
    CLock lock(funcs_);
    ReleaseLocked();
}

// Reverse order of creation: the view, then the mapping.
void SharedMemory::ReleaseLocked() {
    unsigned char* view = view_.exchange(nullptr, std::memory_order_acq_rel);
    if (view != nullptr) os::mapping_unmap(view, size_.load(std::memory_order_relaxed));
    size_.store(0, std::memory_order_relaxed);
    if (mapping_ != 0) {
        os::handle_close(mapping_);
        mapping_ = 0;
    }
}

std::uint64_t SharedMemory::GetIsrMem(os::Peer& peer, std::uint32_t pid, std::uint64_t number) {
    const std::uint32_t high = slots_.HighWater();
    if (high < 2) return 0;
    std::uint32_t slot = 0;
    for (std::uint32_t s = 1; s < high && s < SlotTable::kSlots; ++s) {
        if (slots_[s].number.load(std::memory_order_relaxed) == number) {
            slot = s;
            break;
        }
    }
    if (slot == 0) return 0;
    std::uint64_t remote = 0;
    const os::Handle process = peer.Open(pid);
    const bool duplicated =
        process != 0 && peer.DupTo(process, slots_[slot].mapping, &remote);
    if (!duplicated) {
        log_.wPrintf(kLogFault, u"ZOR: GetIsrMem of failed to duplicate handle for shared memory (%08x)!\n\r",
                       os::last_error());
    }
    if (process != 0) peer.Close(process);
    return duplicated ? remote : 0;
}

}  // namespace zor
