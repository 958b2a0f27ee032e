// Reading a host's flight recorder as it fills: every record since the last
// look, copied whole or counted as lost (overwritten before or while it was
// read). The host never waits for this reader.
#include "trace_feed.h"

#include <cstdio>

#include "stats_view.h"

namespace zorctl {

TraceFeed::~TraceFeed() {
    zor_unmap(&view_);
    zor_unmap(&statsView_);
}

int TraceFeed::Open(std::uint32_t pid) {
    pid_ = pid;
    const int st = zor_trace_map(pid, &trace_, &view_);
    if (st == ZOR_E_LAYOUT) {
        std::fprintf(stderr, "zorctl: the flight recorder of host %lu has a layout or bounds this zorctl does not read "
                             "(it reads layout %u)\n", static_cast<unsigned long>(pid), ZOR_TRACE_LAYOUT);
        return 2;
    }
    if (st != ZOR_OK) {
        std::fprintf(stderr, "zorctl: no flight recorder for host %lu: %s\n", static_cast<unsigned long>(pid),
                     st == ZOR_E_NO_HOST ? "the host runs without one (TRACEEVENTS=0, see its log) or has ended"
                                         : zor_strerror(st));
        return st == ZOR_E_NO_HOST ? 3 : 1;
    }
    capacity_ = trace_->capacity;  // checked by zor_trace_map against the mapping
    // Only for the modules' names: without the area they are numbers.
    if (zor_stats_map(pid, &stats_, &statsView_) != ZOR_OK) stats_ = nullptr;
    next_ = Written();
    return 0;
}

std::uint64_t TraceFeed::Written() const { return __atomic_load_n(&trace_->written, __ATOMIC_ACQUIRE); }

void TraceFeed::From(std::uint64_t first) { next_ = first; }

std::uint64_t TraceFeed::Oldest() const {
    const std::uint64_t w = Written(), cap = capacity_;
    return w > cap ? w - cap : 0;
}

std::size_t TraceFeed::Poll(std::deque<TraceEvent>* out) {
    const std::uint64_t written = Written();
    if (next_ + capacity_ < written) {
        lost_ += written - capacity_ - next_;
        next_ = written - capacity_;
    }
    std::size_t added = 0;
    ZorTraceEvent ev;
    for (; next_ < written; ++next_) {
        const int st = zor_trace_copy(trace_, &view_, next_, &ev);
        if (st != ZOR_OK) {
            ++lost_;
            continue;
        }
        TraceEvent e;
        e.head = ev.head;
        e.calls.assign(ev.call, ev.call + ev.head.calls);
        out->push_back(std::move(e));
        ++added;
    }
    return added;
}

std::vector<std::string> TraceFeed::Names() const {
    std::vector<std::string> names(ZOR_STATS_SLOTS);
    if (!stats_) return names;
    auto copy = std::make_unique<ZorStats>();
    zor_stats_copy(stats_, copy.get());
    for (std::uint32_t i = 0; i < ZOR_STATS_SLOTS; ++i)
        if (copy->slots[i].number == i) names[i] = Utf8(copy->slots[i].name, 20);
    return names;
}

}  // namespace zorctl
