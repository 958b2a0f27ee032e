// The flight recorder end to end inside one process: the host's writer on
// its published ring, the client library's reader on the same bytes. What
// the dispatch records, that a reader slower than the writer is told what it
// lost and never gets a torn record, and that bad headers are refused.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "common/test_host.h"
#include "common/test_log.h"
#include "dispatch/flight_recorder.h"
#include "zor/zor_client.h"

namespace zor {
namespace {

ZorView ViewOf(const FlightRecorder& r) {
    ZorView v{};
    v.base = const_cast<ZorTrace*>(r.Area());
    v.size = static_cast<std::uint32_t>(r.AreaBytes());
    return v;
}

// Record n as the writer below makes it: every field follows from n. With
// `base` calls more, fewer records fit the ring than its index holds, so
// that records are overwritten in place, not only dropped from the index.
void WriteRecord(FlightRecorder& r, std::uint32_t n, std::uint32_t base = 0) {
    const std::uint32_t calls = base + n % 5;
    const double t0 = n * 1.0;
    r.Begin(n, t0, calls);
    r.Deferred(t0 + 0.001 * (n % 7));
    for (std::uint32_t c = 0; c < calls; ++c) r.Call(1 + c, t0 + (c ? 0.01 * c : 0.001 * (n % 7)), t0 + 0.01 * (c + 1), c & 1);
    r.End(t0 + 0.5);
}

// True when a copy is record n as WriteRecord wrote it (times within the
// nanosecond lost to rounding).
bool Consistent(const ZorTraceEvent& e, std::uint64_t n, std::uint32_t base = 0) {
    auto near = [](std::uint32_t got, std::uint64_t want) { return got + 2 >= want && got <= want + 2; };
    bool ok = e.head.generation == n + 1 && e.head.sequence == n && e.head.calls == base + n % 5 &&
              near(e.head.deferred_ns, 1000 * (n % 7)) && near(e.head.event_ns, 500000) &&
              e.head.late_ns == ZOR_TRACE_LATE_UNKNOWN;
    for (std::uint32_t c = 0; ok && c < e.head.calls; ++c)
        ok = e.call[c].slot == 1 + c && e.call[c].flags == (c & 1) &&
             near(e.call[c].start_ns, c ? 10000 * c : 1000 * (n % 7)) &&
             near(e.call[c].start_ns + e.call[c].duration_ns, 10000 * (c + 1));
    return ok;
}

TEST(FlightRecorder, KeepsTheLastRecordsAndRefusesOlderOrFutureOnes) {
    test::TestLog log;
    FlightRecorder r(log.log());
    ASSERT_TRUE(r.Publish(10));  // held to the minimum
    const ZorView v = ViewOf(r);
    ASSERT_EQ(r.Area()->capacity, ZOR_TRACE_MIN_EVENTS);
    constexpr std::uint32_t kWritten = 3 * ZOR_TRACE_MIN_EVENTS + 5;
    for (std::uint32_t n = 0; n < kWritten; ++n) WriteRecord(r, n);
    EXPECT_EQ(r.Area()->written, kWritten);
    ZorTraceEvent e;
    for (std::uint64_t n = 0; n < kWritten; ++n) {
        const int st = zor_trace_copy(r.Area(), &v, n, &e);
        if (n + ZOR_TRACE_MIN_EVENTS < kWritten) {
            EXPECT_EQ(st, ZOR_E_OVERWRITTEN) << n;
        } else {
            ASSERT_EQ(st, ZOR_OK) << n;
            EXPECT_TRUE(Consistent(e, n)) << n;
        }
    }
    EXPECT_EQ(zor_trace_copy(r.Area(), &v, kWritten, &e), ZOR_E_INVALID_ARG);
}

TEST(FlightRecorder, ASlowReaderLearnsWhatItLostAndNeverGetsATornRecord) {
    test::TestLog log;
    FlightRecorder r(log.log());
    ASSERT_TRUE(r.Publish(ZOR_TRACE_MIN_EVENTS));
    const ZorView v = ViewOf(r);
    std::atomic<bool> stop{false};
    constexpr std::uint32_t kBase = 60;
    std::thread writer([&] {
        for (std::uint32_t n = 0; !stop.load(std::memory_order_relaxed); ++n) WriteRecord(r, n, kBase);
    });
    std::uint64_t ok = 0, lost = 0, torn = 0;
    ZorTraceEvent e;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while ((ok < 1000 || lost < 1000) && std::chrono::steady_clock::now() < until) {
        const std::uint64_t written = __atomic_load_n(&r.Area()->written, __ATOMIC_ACQUIRE);
        // The oldest records are the ones the writer is overwriting now.
        for (std::uint64_t n = written > 30 ? written - 30 : 0; n < written; n += 3) {
            const int st = zor_trace_copy(r.Area(), &v, n, &e);
            if (st == ZOR_OK) ++ok, torn += !Consistent(e, n, kBase);
            else if (st == ZOR_E_OVERWRITTEN) ++lost;
            else ADD_FAILURE() << "status " << st;
        }
    }
    stop = true;
    writer.join();
    EXPECT_EQ(torn, 0u);
    EXPECT_GT(ok, 0u);
    EXPECT_GT(lost, 0u);
}

TEST(FlightRecorder, HeadersThatReachPastTheMappingAreRefused) {
    test::TestLog log;
    FlightRecorder r(log.log());
    ASSERT_TRUE(r.Publish(ZOR_TRACE_MIN_EVENTS));
    for (std::uint32_t n = 0; n < 10; ++n) WriteRecord(r, n);
    struct Case {
        const char* what;
        std::size_t offset;
        std::uint64_t value;
        std::uint32_t viewBytes;  // 0: the whole copy
    } cases[] = {
        {"intact", 0, 0, 0},
        {"view shorter than the header", 0, 0, sizeof(ZorTrace) - 8},
        {"view shorter than the ring", 0, 0, 4096},
        {"other layout", offsetof(ZorTrace, layout), 2, 0},
        {"capacity past the end", offsetof(ZorTrace, capacity), 0x7FFFFFFF, 0},
        {"ring past the end", offsetof(ZorTrace, data_offset), 0x7FFFFFF8, 0},
        {"ring too small for a record", offsetof(ZorTrace, data_bytes), 64, 0},
        {"record across the ring's end", sizeof(ZorTrace) + 8 * 3, r.Area()->data_bytes - 8u, 0},
        {"record position not aligned", sizeof(ZorTrace) + 8 * 3, 4, 0},
    };
    for (const Case& c : cases) {
        std::vector<std::uint64_t> copy(r.AreaBytes() / 8);
        std::memcpy(copy.data(), r.Area(), r.AreaBytes());
        auto* bytes = reinterpret_cast<unsigned char*>(copy.data());
        const std::uint32_t narrow = static_cast<std::uint32_t>(c.value);
        if (c.offset >= sizeof(ZorTrace)) std::memcpy(bytes + c.offset, &c.value, 8);
        else if (c.offset) std::memcpy(bytes + c.offset, &narrow, 4);
        ZorView v{};
        v.base = copy.data();
        v.size = c.viewBytes ? c.viewBytes : static_cast<std::uint32_t>(r.AreaBytes());
        ZorTraceEvent e;
        const int st = zor_trace_copy(reinterpret_cast<const ZorTrace*>(copy.data()), &v, 3, &e);
        EXPECT_EQ(st, c.offset == 0 && c.viewBytes == 0 ? ZOR_OK : ZOR_E_LAYOUT) << c.what;
    }
}

TEST(FlightRecorder, TheDispatchRecordsEachCallWithinItsEvent) {
    test::TestHost th;
    Host& h = th.host();
    ASSERT_TRUE(h.recorder.Publish(ZOR_TRACE_MIN_EVENTS));
    const std::uint32_t a = test::RegisterIsr(h, "test_isr");
    const std::uint32_t b = test::RegisterIsr(h, "test_isr_b");
    const std::uint32_t blocked = test::RegisterIsr(h, "test_isr_c");
    h.dispatcher.BlockISR(blocked, 1);
    test::TestIsr faulting("test_isr_b");
    faulting.SetFault(ZOR_FN_INTERRUPT);
    test::TestIsr slow("test_isr");
    slow.SetDelay(ZOR_FN_INTERRUPT, 300);
    test::IrqThread irq;
    for (std::uint32_t seq = 7; seq < 10; ++seq) irq.Fire(seq);
    const ZorView v = ViewOf(h.recorder);
    ASSERT_EQ(h.recorder.Area()->written, 3u);
    ZorTraceEvent e;
    ASSERT_EQ(zor_trace_copy(h.recorder.Area(), &v, 2, &e), ZOR_OK);
    EXPECT_EQ(e.head.sequence, 9u);
    EXPECT_EQ(e.head.late_ns, ZOR_TRACE_LATE_UNKNOWN);  // no driver, no deadline
    ASSERT_EQ(e.head.calls, 2u);                       // the blocked one is not called
    EXPECT_EQ(e.call[0].slot, a);
    EXPECT_EQ(e.call[0].flags, 0u);
    EXPECT_GE(e.call[0].duration_ns, 300000u);
    EXPECT_EQ(e.call[1].slot, b);
    EXPECT_EQ(e.call[1].flags, ZOR_TRACE_CALL_FAULT);
    EXPECT_GE(e.call[0].start_ns, e.head.deferred_ns);
    EXPECT_GE(e.call[1].start_ns, e.call[0].start_ns + e.call[0].duration_ns);
    EXPECT_LE(e.call[1].start_ns + e.call[1].duration_ns, e.head.event_ns + 1);
}

}  // namespace
}  // namespace zor
