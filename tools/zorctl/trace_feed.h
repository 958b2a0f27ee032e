// A host's flight recorder as zorctl reads it: mapped read-only, polled for
// the records written since the last look.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "trace.h"

namespace zorctl {

class TraceFeed {
public:
    ~TraceFeed();
    // 0 when mapped (reading starts with the next record the host writes);
    // else the exit code, with the reason on stderr.
    int Open(std::uint32_t pid);
    std::uint64_t Written() const;
    // The oldest record the ring may still hold.
    std::uint64_t Oldest() const;
    void From(std::uint64_t first);
    // Appends every record written since the last call; the number added.
    std::size_t Poll(std::deque<TraceEvent>* out);
    // Records overwritten before they could be read.
    std::uint64_t Lost() const { return lost_; }
    // The modules' names by number, from the statistics area.
    std::vector<std::string> Names() const;
    std::uint32_t Pid() const { return pid_; }

private:
    const ZorTrace* trace_ = nullptr;
    ZorView view_{};
    const ZorStats* stats_ = nullptr;
    ZorView statsView_{};
    std::uint64_t next_ = 0, lost_ = 0;
    std::uint32_t pid_ = 0, capacity_ = 0;
};

}  // namespace zorctl
