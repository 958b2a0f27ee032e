#include "support/entry_list.h"

#include <algorithm>
#include <new>
#include <utility>
#include <vector>

namespace zor {

// The storage is taken once here; a failed allocation leaves a list of
// capacity 0 that refuses every append.
CEntryList::CEntryList(std::uint32_t capacity)
    : capacity_(capacity), cells_(capacity ? new (std::nothrow) Cell[capacity] : nullptr) {
    if (!cells_) capacity_ = 0;
}

CEntryList::~CEntryList() { delete[] cells_; }

bool CEntryList::AppendEntry(std::uint64_t value) {
    std::uint32_t n = count_.load(std::memory_order_relaxed);
    do {
        if (n >= capacity_) return false;
    } while (!count_.compare_exchange_weak(n, n + 1, std::memory_order_acq_rel,
                                           std::memory_order_relaxed));
    const std::uint64_t ticket = nextTicket_.fetch_add(1, std::memory_order_relaxed);
    // Every cell that is not free is counted, so the reservation leaves one
    // free; a pass may miss it only while other threads take and give cells.
    for (;;) {
        for (std::uint32_t i = 0; i < capacity_; ++i) {
            Cell& c = cells_[i];
            std::uint64_t tag = c.tag.load(std::memory_order_relaxed);
            if ((tag & kStateMask) != kFree ||
                !c.tag.compare_exchange_strong(tag, ticket << 2 | kFilling, std::memory_order_acquire))
                continue;
            // Release: a reader that sees this value also sees the cell taken.
            c.value.store(value, std::memory_order_release);
            c.tag.store(ticket << 2 | kLive, std::memory_order_release);
            return true;
        }
    }
}

bool CEntryList::ReadLive(const Cell& c, std::uint64_t* tag, std::uint64_t* value) {
    *tag = c.tag.load(std::memory_order_acquire);
    if ((*tag & kStateMask) != kLive) return false;
    *value = c.value.load(std::memory_order_acquire);
    return c.tag.load(std::memory_order_relaxed) == *tag;
}

// The cell is freed before the count drops, so that the count never
// undercounts the cells in use.
bool CEntryList::Release(Cell& c, std::uint64_t tag) {
    if (!c.tag.compare_exchange_strong(tag, (tag & ~kStateMask) | kFree, std::memory_order_acq_rel))
        return false;
    count_.fetch_sub(1, std::memory_order_release);
    return true;
}

CEntryList::Removal CEntryList::RemoveEntry(std::uint64_t value) {
    bool seen = false;
    for (;;) {
        Cell* oldest = nullptr;
        std::uint64_t oldestTag = 0;
        for (std::uint32_t i = 0; i < capacity_; ++i) {
            std::uint64_t tag = 0, v = 0;
            if (ReadLive(cells_[i], &tag, &v) && v == value && (!oldest || tag < oldestTag)) {
                oldest = &cells_[i];
                oldestTag = tag;
            }
        }
        if (!oldest) return seen ? Removal::kLost : Removal::kNotFound;
        if (Release(*oldest, oldestTag)) return Removal::kRemoved;
        seen = true;  // another thread took it: look again
    }
}

// Not for interrupt time: it sorts a copy of the live entries.
CEntryList::Cell* CEntryList::Nth(std::uint32_t index, std::uint64_t* tag,
                                  std::uint64_t* value) const {
    struct Seen {
        std::uint64_t tag, value;
        Cell* cell;
    };
    std::vector<Seen> live;
    for (std::uint32_t i = 0; i < capacity_; ++i) {
        Seen s{0, 0, &cells_[i]};
        if (ReadLive(cells_[i], &s.tag, &s.value)) live.push_back(s);
    }
    if (index >= live.size()) return nullptr;
    std::nth_element(live.begin(), live.begin() + index, live.end(),
                     [](const Seen& a, const Seen& b) { return a.tag < b.tag; });
    *tag = live[index].tag;
    *value = live[index].value;
    return live[index].cell;
}

bool CEntryList::GetEntry(std::uint32_t index, std::uint64_t* value) const {
    std::uint64_t tag = 0;
    return Nth(index, &tag, value) != nullptr;
}

bool CEntryList::DelEntry(std::uint32_t index) {
    std::uint64_t tag = 0, value = 0;
    Cell* c = Nth(index, &tag, &value);
    return c != nullptr && Release(*c, tag);
}

}  // namespace zor
