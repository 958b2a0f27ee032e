// The flight recorder's ring: its creation, the claim of a record's room
// and the completion of a record. The per-call hooks are inline in the
// header.
#include "dispatch/flight_recorder.h"

#include <cstring>

#include "support/log.h"
#include "support/wformat.h"

namespace zor {

namespace {

constexpr std::uint32_t kCallBytes = sizeof(ZorTraceRingCall);

static_assert(sizeof(ZorTraceRecord) == ZOR_TRACE_RECORD_BYTES && kCallBytes == 24 &&
                  sizeof(ZorTrace) % 8 == 0,
              "records are written in 8-byte words");

std::uint32_t RecordBytes(std::uint32_t calls) { return ZOR_TRACE_RECORD_BYTES + calls * kCallBytes; }

}  // namespace

bool FlightRecorder::Publish(std::uint32_t events) {
    if (Area()) return true;
    if (events == 0) {
        log_.wPrintf(kLogTrace, u"ZOR: flight recorder off (TRACEEVENTS=0)\n\r");
        return false;
    }
    capacity_ = events < ZOR_TRACE_MIN_EVENTS ? ZOR_TRACE_MIN_EVENTS
                : events > ZOR_TRACE_MAX_EVENTS ? ZOR_TRACE_MAX_EVENTS : events;
    dataBytes_ = capacity_ * RecordBytes(ZOR_TRACE_TYPICAL_CALLS);
    const std::uint32_t indexBytes = capacity_ * 8;
    bytes_ = sizeof(ZorTrace) + indexBytes + dataBytes_;
    const auto size = static_cast<std::uint32_t>(bytes_);
    wformat(name_, 40, u"Local\\ZOR.trace.%u", static_cast<unsigned>(os::current_process_id()));
    bool existed = false;
    const os::Handle h = os::mapping_create_named(name_, size, &existed);
    void* view = h ? os::mapping_map(h, size) : nullptr;
    if (view == nullptr) {
        log_.wPrintf(kLogError, u"ZOR: flight recorder '%s' not created%s (%08x)! Running without it.\n\r", name_,
                     existed ? u", the name is taken" : u"", static_cast<unsigned>(os::last_error()));
        if (h) {
            os::handle_close(h);
            os::mapping_remove_name(name_);
        }
        return false;
    }
    mapping_ = h;
    auto* t = static_cast<ZorTrace*>(view);
    std::memset(t, 0, bytes_);  // nobody can read it before the magic is set
    t->layout = ZOR_TRACE_LAYOUT;
    t->size = size;
    t->host_pid = os::current_process_id();
    t->capacity = capacity_;
    t->data_bytes = dataBytes_;
    t->index_offset = sizeof(ZorTrace);
    t->data_offset = sizeof(ZorTrace) + indexBytes;
    index_ = reinterpret_cast<std::uint64_t*>(reinterpret_cast<unsigned char*>(t) + t->index_offset);
    data_ = reinterpret_cast<unsigned char*>(t) + t->data_offset;
    next_ = number_ = 0;
    nextOffset_ = indexSlot_ = 0;
    std::atomic_ref<std::uint32_t>(t->magic).store(ZOR_TRACE_MAGIC, std::memory_order_release);
    area_.store(t, std::memory_order_release);
    log_.wPrintf(kLogTrace, u"ZOR: flight recorder in '%s' (%u events, %u bytes, read-only for others)\n\r",
                 name_, static_cast<unsigned>(capacity_), static_cast<unsigned>(size));
    return true;
}

void FlightRecorder::Release() {
    ZorTrace* t = area_.exchange(nullptr, std::memory_order_acq_rel);
    if (t == nullptr) return;
    os::mapping_unmap(t, static_cast<std::uint32_t>(bytes_));
    os::handle_close(mapping_);
    mapping_ = 0;
    os::mapping_remove_name(name_);
}

void FlightRecorder::End(double endMs) {
    if (!cur_) return;
    const double arrivalNs = arrivalMs_ * 1e6;
    Put(cur_[0], number_ + 1);
    Put(cur_[1], sequence_ | std::uint64_t{calls_} << 32);
    Put(cur_[2], arrivalNs > 0 ? static_cast<std::uint64_t>(arrivalNs) : 0);
    Put(cur_[3], lateNs_ | std::uint64_t{Ns(deferredMs_ - arrivalMs_)} << 32);
    Put(cur_[4], Ns(endMs - arrivalMs_));
    Put(index_[indexSlot_], next_);
    ++number_;
    if (++indexSlot_ == capacity_) indexSlot_ = 0;
    std::atomic_ref<std::uint64_t>(area_.load(std::memory_order_relaxed)->written)
        .store(number_, std::memory_order_release);
    const std::uint32_t used = RecordBytes(calls_);
    next_ += used;
    nextOffset_ += used;
    cur_ = nullptr;
    room_ = 0;
}

}  // namespace zor
