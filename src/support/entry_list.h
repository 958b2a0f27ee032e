// A list of 64-bit entries with a fixed capacity, kept in the order they
// were appended, safe for any number of threads at once without a lock: an
// interrupt-time caller may append or remove while another thread does.
//
// Each entry lives in a cell whose tag word holds its state and a ticket
// taken at the append; tickets only grow, so a tag names one entry for good
// and a reader can tell whether the value it read still belongs to it.
// Appending first reserves a place with the capacity check in the same
// atomic step; a reserved place always finds a free cell.
#pragma once

#include <atomic>
#include <cstdint>

namespace zor {

class CEntryList {
public:
    explicit CEntryList(std::uint32_t capacity);
    ~CEntryList();
    CEntryList(const CEntryList&) = delete;
    CEntryList& operator=(const CEntryList&) = delete;

    // False when full (nothing changes).
    bool AppendEntry(std::uint64_t value);
    enum class Removal { kRemoved, kNotFound, kLost };
    // Removes the oldest entry equal to `value`. kLost: matching entries
    // were seen, but other threads removed every one of them first.
    Removal RemoveEntry(std::uint64_t value);
    // The index-th oldest entry; false beyond the count.
    bool GetEntry(std::uint32_t index, std::uint64_t* value) const;
    // Removes the index-th oldest entry; false beyond the count.
    bool DelEntry(std::uint32_t index);
    // Entries appended and not removed, those being appended included.
    std::uint32_t GetNrOfEntries() const { return count_.load(std::memory_order_acquire); }
    std::uint32_t Capacity() const { return capacity_; }

private:
    enum : std::uint64_t { kFree = 0, kFilling = 1, kLive = 2, kStateMask = 3 };
    struct Cell {
        std::atomic<std::uint64_t> tag{kFree};  // ticket << 2 | state
        std::atomic<std::uint64_t> value{0};
    };
    // A live cell's value, checked against its tag; false when the cell
    // changed meanwhile.
    static bool ReadLive(const Cell& c, std::uint64_t* tag, std::uint64_t* value);
    // The cell of the index-th oldest entry and its tag; null beyond the count.
    Cell* Nth(std::uint32_t index, std::uint64_t* tag, std::uint64_t* value) const;
    bool Release(Cell& c, std::uint64_t tag);

    std::uint32_t capacity_;
    Cell* cells_;
    std::atomic<std::uint32_t> count_{0};
    std::atomic<std::uint64_t> nextTicket_{1};
};

}  // namespace zor
