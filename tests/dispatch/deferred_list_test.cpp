// The deferred list: the run on the dispatch thread (DoTDL) and the writer
// unit that queues into it. The area is a heap block of exactly the size the
// host created (see heap_area_os.h), so that any access outside it is caught
// by AddressSanitizer in the native build.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "common/heap_area_os.h"
#include "common/test_host.h"
#include "modules/deferred_list_writer.h"

namespace zor {
namespace {

// Calls of the fake modules, in order.
struct Call {
    std::uint32_t module;  // 'A', 'B', ...
    std::uint32_t code;
    std::uint32_t func;
    std::uint32_t size;
    std::uint32_t firstByte;
    std::uint32_t context;
};
std::vector<Call> g_calls;

template <std::uint32_t Id>
std::uint32_t FakeEntry(std::uint32_t code, std::uintptr_t arg) {
    Call c{Id, code, 0, 0, 0, 0};
    if (code == ZOR_FN_EXEC_ISR_FUNC) {
        c.context = RunningHost()->caller.GetThreadContext(os::current_thread_id());
        // Queued packets follow each other unpadded: read them bytewise.
        const auto* p = reinterpret_cast<const unsigned char*>(arg);
        std::memcpy(&c.func, p, 4);
        std::memcpy(&c.size, p + 4, 4);
        c.firstByte = c.size ? p[8] : 0;
    }
    g_calls.push_back(c);
    return code == ZOR_FN_EXEC_ISR_FUNC ? 1000 * Id + c.func : 0;
}

class TdlTest : public ::testing::Test {
protected:
    static constexpr std::uint32_t kPid = 4242;
    TdlTest() { g_calls.clear(); }

    void MakeArea(std::uint32_t queueBytes = 4096) {
        ASSERT_NE(h.shm.SysMem(zor::os::process_peer(), os::current_process_id(), ZOR_SSA_QUEUE + queueBytes), 0u);
        area = h.shm.Area();
        size = h.shm.AreaSize();
    }
    template <std::uint32_t Id>
    std::uint32_t AddFake() { return test::AddFakeIsr(h, &FakeEntry<Id>); }
    std::uint32_t Word(std::uint32_t offset) { return TdlWord(area, offset).load(); }
    void SetWord(std::uint32_t offset, std::uint32_t v) { TdlWord(area, offset).store(v); }
    std::uint32_t Result(std::uint32_t k) { return Word(ZOR_SSA_RESULTS + 4 * k); }
    bool QueueEmpty() { return Word(ZOR_SSA_ENTRY_COUNT) == 0 && Word(ZOR_SSA_BYTES_USED) == 0; }

    // Writes a raw entry the way a client process might, without any check.
    void PutRaw(std::uint32_t offset, std::uint32_t module, std::uint32_t resultIndex,
                std::uint32_t func, std::uint32_t sizeWord) {
        const ZorTdlEntry e{kPid, module, 0, resultIndex, func, sizeWord};
        std::memcpy(area + ZOR_SSA_QUEUE + offset, &e, sizeof e);
    }
    TdlStatus Append(std::uint32_t module, std::uint32_t func, const void* data, std::uint32_t n,
                     bool want = false, TdlTicket* t = nullptr, std::uint32_t waitMs = 50) {
        TdlTicket local;
        return TdlAppend(area, size, kPid, module, func, data, n, want, t ? t : &local, waitMs);
    }

    test::HeapAreaOs fake;  // before the host: the host releases its area first
    test::TestHost th;
    Host& h = th.host();
    test::TestLog& log = th.log();
    unsigned char* area = nullptr;
    std::uint32_t size = 0;
};

TEST_F(TdlTest, EntriesRunInOrderWithTheirPacketAndContextUpToAFreedSlot) {
    h.deferredList.Run();  // no area yet: nothing to do
    MakeArea();
    const std::uint32_t a = AddFake<'A'>();
    const std::uint32_t b = AddFake<'B'>();
    const unsigned char d1[3] = {7, 8, 9};
    TdlTicket t1, t2;
    ASSERT_EQ(Append(a, 11, d1, 3, true, &t1), TdlStatus::kQueued);
    ASSERT_EQ(Append(b, 22, nullptr, 0, true, &t2), TdlStatus::kQueued);
    ASSERT_EQ(Append(a, 33, d1 + 1, 1), TdlStatus::kQueued);  // result not wanted
    EXPECT_EQ(Word(ZOR_SSA_BYTES_USED), 3u * 24 + 4);
    for (std::uint32_t k = 3; k < ZOR_SSA_RESULT_SLOTS; ++k) SetWord(ZOR_SSA_RESULTS + 4 * k, 0xEEEEEEEE);

    h.deferredList.Run();
    ASSERT_EQ(g_calls.size(), 3u);
    EXPECT_EQ((std::vector<std::uint32_t>{'A', 11, 3, 7}),
              (std::vector<std::uint32_t>{g_calls[0].module, g_calls[0].func, g_calls[0].size, g_calls[0].firstByte}));
    EXPECT_EQ((std::vector<std::uint32_t>{'B', 22, 0}),
              (std::vector<std::uint32_t>{g_calls[1].module, g_calls[1].func, g_calls[1].size}));
    EXPECT_EQ((std::vector<std::uint32_t>{'A', 33, 8}),
              (std::vector<std::uint32_t>{g_calls[2].module, g_calls[2].func, g_calls[2].firstByte}));
    EXPECT_EQ(Result(t1.slot), 'A' * 1000u + 11);
    EXPECT_EQ(Result(t2.slot), 'B' * 1000u + 22);
    // The entry without a result slot stored nothing anywhere.
    for (std::uint32_t k = 3; k < ZOR_SSA_RESULT_SLOTS; ++k) ASSERT_EQ(Result(k), 0xEEEEEEEEu) << k;
    EXPECT_TRUE(QueueEmpty());
    EXPECT_EQ(Word(ZOR_SSA_RUN_COUNTER), 1u);
    EXPECT_EQ(Word(ZOR_SSA_SYNC_TDL), 0u);
    for (const Call& c : g_calls) EXPECT_EQ(c.context, kPid);  // the writer's process

    // A freed slot drops its entry and every entry behind it, silently.
    g_calls.clear();
    const std::uint32_t c = AddFake<'C'>();
    TdlTicket tc;
    Append(a, 1, nullptr, 0);
    Append(b, 2, nullptr, 0);
    Append(c, 3, nullptr, 0, true, &tc);
    h.slots.Free(b);
    h.deferredList.Run();
    EXPECT_EQ(g_calls.size(), 1u);
    EXPECT_EQ(Result(tc.slot), 0u);  // cleared when reserved, never written
    EXPECT_TRUE(TdlResultReady(area, size, tc));  // the waiter is released with 0
    EXPECT_TRUE(QueueEmpty());
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(TdlTest, AtAnEventTheRunPrecedesTheIsrsUnlessSyncTdlIsHeld) {
    MakeArea();
    const std::uint32_t a = AddFake<'A'>();
    const std::uint32_t b = AddFake<'B'>();
    h.slots[b].priority.store(0);  // B is the first ISR
    TdlTicket t;
    Append(a, 5, nullptr, 0, true, &t);
    SetWord(ZOR_SSA_SYNC_TDL, 1);
    test::IrqThread irq;
    irq.Fire(1);
    EXPECT_EQ(log.Count("ZOR: DoTDL skipps due to SyncTDL=1\n"), 1u);
    ASSERT_EQ(g_calls.size(), 2u);  // the ISRs' Interrupt only
    EXPECT_EQ(g_calls[0].code, static_cast<std::uint32_t>(ZOR_FN_INTERRUPT));
    EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 1u);
    EXPECT_EQ(Word(ZOR_SSA_RUN_COUNTER), 0u);
    EXPECT_EQ(Word(ZOR_SSA_SYNC_TDL), 1u);
    EXPECT_FALSE(TdlResultReady(area, size, t));  // a skipped pass completes no waiter

    SetWord(ZOR_SSA_SYNC_TDL, 0);
    irq.Fire(2);
    ASSERT_EQ(g_calls.size(), 5u);
    EXPECT_EQ(g_calls[2].code, static_cast<std::uint32_t>(ZOR_FN_EXEC_ISR_FUNC));
    EXPECT_EQ(g_calls[2].func, 5u);
    EXPECT_EQ(g_calls[3].module, 'B');
    EXPECT_EQ(g_calls[4].module, 'A');
    std::uint32_t r = 0;
    EXPECT_TRUE(TdlWait(area, size, t, 1000, 1000, &r));
    EXPECT_EQ(r, 'A' * 1000u + 5);
    EXPECT_EQ(area[ZOR_SSA_RESULT_FLAGS + t.slot] & 1, 0);
    EXPECT_TRUE(QueueEmpty());
}

// Every word of the queue may hold anything a client wrote. Nothing may be
// read or written outside the area, and the queue must work again after.
TEST_F(TdlTest, HostileQueueWordsEndThePassInsideTheArea) {
    MakeArea(72);  // three empty entries
    const std::uint32_t a = AddFake<'A'>();
    auto overrun = [](int entry, int offset) {
        return "ZOR: DoTDL: entry " + std::to_string(entry) + " at queue offset " +
               std::to_string(offset) + " runs past the queue (72 bytes)! Rest of the list dropped.\n\r";
    };
    struct Case {
        const char* what;
        std::vector<std::vector<std::uint32_t>> entries;  // offset, result index, func, size word
        std::uint32_t count;
        std::size_t calls;
        std::string line;
    };
    const Case cases[] = {
        {"an argument length past the end", {{0, 0, 1, 49}}, 1, 0, overrun(0, 0)},
        {"a length that wraps the position", {{0, 0, 1, 0xFFFFFFF0}}, 1, 0, overrun(0, 0)},
        {"a count larger than the queue holds", {{0, 0, 10, 0}, {24, 0, 11, 0}, {48, 0, 12, 0}},
         0xFFFFFFFF, 3, overrun(3, 72)},
        {"a header that straddles the end", {{0, 0, 1, 28}}, 2, 1, overrun(1, 52)},
        {"result index 1024", {{0, 1024, 1, 0}}, 1, 1, "ZOR: DoTDL: result index 1024 of ISR #"},
        {"result index -1", {{0, 0xFFFFFFFF, 1, 0}}, 1, 1, "ZOR: DoTDL: result index 4294967295 of ISR #"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        log.Clear();
        g_calls.clear();
        for (const auto& e : c.entries) PutRaw(e[0], a, e[1], e[2], e[3]);
        SetWord(ZOR_SSA_ENTRY_COUNT, c.count);
        h.deferredList.Run();
        EXPECT_EQ(g_calls.size(), c.calls);  // called up to the bad entry, results dropped
        EXPECT_TRUE(log.ContainsSubstr(c.line));
        EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 0u);
        EXPECT_EQ(Word(ZOR_SSA_SYNC_TDL), 0u);
    }
    SetWord(ZOR_SSA_BYTES_USED, 0xFFFFFF00);  // a stray word with an empty queue is cleared
    h.deferredList.Run();
    EXPECT_EQ(Word(ZOR_SSA_BYTES_USED), 0u);
    g_calls.clear();
    EXPECT_EQ(Append(a, 99, nullptr, 0), TdlStatus::kQueued);
    h.deferredList.Run();
    ASSERT_EQ(g_calls.size(), 1u);
    EXPECT_EQ(g_calls[0].func, 99u);
}

// ------------------------------------------------------------------ writer

TEST_F(TdlTest, WriterTrustsNoClientWord) {
    MakeArea(100);
    const unsigned char d[5] = {1, 2, 3, 4, 5};
    ASSERT_EQ(Append(17, 0xAB, d, 5), TdlStatus::kQueued);
    ASSERT_EQ(Append(18, 0xCD, d, 2), TdlStatus::kQueued);
    ASSERT_EQ(Append(1, 0, area, 22, false, nullptr, 200), TdlStatus::kTimeout);  // full: 24 + 22 > 45 left
    EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 2u);
    h.deferredList.Run();

    std::vector<unsigned char> data(200, 0x5A);
    SetWord(ZOR_SSA_CAPACITY, 0xFFFFFFFF);  // a client claims more than there is
    EXPECT_EQ(Append(1, 0, data.data(), 77), TdlStatus::kTooLarge);
    EXPECT_EQ(Append(1, 0, data.data(), 0xFFFFFFF0), TdlStatus::kTooLarge);
    SetWord(ZOR_SSA_CAPACITY, 50);  // or less: then the word counts
    EXPECT_EQ(Append(1, 0, data.data(), 27), TdlStatus::kTooLarge);
    SetWord(ZOR_SSA_BYTES_USED, 0xFFFFFFF0);  // beyond the queue, with no entry
    EXPECT_EQ(Append(1, 0, data.data(), 4), TdlStatus::kTimeout);
    h.deferredList.Run();
    SetWord(ZOR_SSA_SYNC_TDL, 1);
    EXPECT_EQ(Append(1, 0, data.data(), 4), TdlStatus::kTimeout);
    EXPECT_EQ(Word(ZOR_SSA_SYNC_TDL), 1u);
    SetWord(ZOR_SSA_SYNC_TDL, 0);
    EXPECT_EQ(Append(1, 0, data.data(), 26), TdlStatus::kQueued);
}

}  // namespace
}  // namespace zor
