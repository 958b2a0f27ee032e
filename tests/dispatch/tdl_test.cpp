// The deferred list: the run on the dispatch thread (DoTDL) and the writer
// unit that queues into it. The area is a heap block of exactly the size the
// host created (see heap_area_os.h), so that any access outside it is caught
// by AddressSanitizer in the native build.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <vector>

#include "../modules/heap_area_os.h"
#include "common/test_host.h"
#include "modules/tdl_writer.h"
#include "support/wstr.h"

namespace zor {
namespace {

using test::HeapAreaOs;
using test::TestHost;

// Calls of the fake modules, in order.
struct Call {
    std::uint32_t module;  // 'A', 'B', ...
    std::uint32_t code;
    std::uint32_t func;
    std::uint32_t size;
    std::uint32_t firstByte;
    std::uint32_t context;
    std::uint32_t stamp;
};
std::vector<Call> g_calls;
std::uint32_t g_stamp = 0;

template <std::uint32_t Id>
std::uint32_t FakeEntry(std::uint32_t code, std::uintptr_t arg) {
    Call c{Id, code, 0, 0, 0, 0, ++g_stamp};
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

    void SetUp() override {
        g_calls.clear();
        g_stamp = 0;
    }

    // Creates the area with `queueBytes` bytes of queue.
    void MakeArea(std::uint32_t queueBytes = 4096) {
        ASSERT_NE(h.shm.SysMem(os::current_process_id(), ZOR_SSA_QUEUE + queueBytes), 0u);
        area = h.shm.Area();
        size = h.shm.AreaSize();
    }

    std::uint32_t AddFake(ZorGetSetProc entry, const char16_t* name) {
        const std::uint32_t s = h.slots.Alloc();
        ModuleSlot& slot = h.slots[s];
        slot.kind.store(kKindIsr);
        slot.number.store(s);
        wcopy(slot.name, 20, name);
        slot.entry.store(entry);
        slot.inUse.store(1);
        h.dispatcher.InvalidateDispatchOrder();
        return s;
    }

    std::uint32_t Word(std::uint32_t offset) { return TdlWord(area, offset).load(); }
    void SetWord(std::uint32_t offset, std::uint32_t v) { TdlWord(area, offset).store(v); }
    std::uint32_t Result(std::uint32_t k) { return Word(ZOR_SSA_RESULTS + 4 * k); }

    // Writes a raw entry the way a client process might, without any check.
    void PutRaw(std::uint32_t offset, std::uint32_t module, std::uint32_t resultIndex,
                std::uint32_t func, std::uint32_t sizeWord) {
        const ZorTdlEntry e{kPid, module, 0, resultIndex, func, sizeWord};
        std::memcpy(area + ZOR_SSA_QUEUE + offset, &e, sizeof e);
    }

    TdlStatus Append(std::uint32_t module, std::uint32_t func, const void* data,
                     std::uint32_t n, bool want = false, TdlTicket* t = nullptr,
                     std::uint32_t waitMs = 50) {
        TdlTicket local;
        return TdlAppend(area, size, kPid, module, func, data, n, want, t ? t : &local, waitMs);
    }

    HeapAreaOs fake;  // before the host: the host releases its area first
    TestHost th;
    Host& h = th.host();
    test::TestLog& log = th.log();
    unsigned char* area = nullptr;
    std::uint32_t size = 0;
};

TEST_F(TdlTest, EmptyRunAdvancesTheCounterAndLeavesTheLockFree) {
    h.dispatcher.DoTDL();  // no area yet: nothing to do
    MakeArea();
    h.dispatcher.DoTDL();
    h.dispatcher.DoTDL();
    EXPECT_EQ(Word(ZOR_SSA_RUN_COUNTER), 2u);
    EXPECT_EQ(Word(ZOR_SSA_SYNC_TDL), 0u);
    EXPECT_TRUE(g_calls.empty());
}

TEST_F(TdlTest, EntriesRunInOrderWithTheirPacketAndContextAndLeaveTheQueueEmpty) {
    MakeArea();
    const std::uint32_t a = AddFake(&FakeEntry<'A'>, u"fake_a");
    const std::uint32_t b = AddFake(&FakeEntry<'B'>, u"fake_b");
    const unsigned char d1[3] = {7, 8, 9};
    TdlTicket t1, t2;
    ASSERT_EQ(Append(a, 11, d1, 3, true, &t1), TdlStatus::kQueued);
    ASSERT_EQ(Append(b, 22, nullptr, 0, true, &t2), TdlStatus::kQueued);
    ASSERT_EQ(Append(a, 33, d1 + 1, 1), TdlStatus::kQueued);  // result not wanted
    EXPECT_EQ(Word(ZOR_SSA_BYTES_USED), 3u * 24 + 4);
    for (std::uint32_t k = 0; k < ZOR_SSA_RESULT_SLOTS; ++k)
        if (k != t1.slot && k != t2.slot) SetWord(ZOR_SSA_RESULTS + 4 * k, 0xEEEEEEEE);

    h.dispatcher.DoTDL();

    ASSERT_EQ(g_calls.size(), 3u);
    EXPECT_EQ(g_calls[0].module, 'A');
    EXPECT_EQ(g_calls[0].func, 11u);
    EXPECT_EQ(g_calls[0].size, 3u);
    EXPECT_EQ(g_calls[0].firstByte, 7u);
    EXPECT_EQ(g_calls[1].module, 'B');
    EXPECT_EQ(g_calls[1].size, 0u);
    EXPECT_EQ(g_calls[2].func, 33u);
    EXPECT_EQ(g_calls[2].firstByte, 8u);
    EXPECT_EQ(Result(t1.slot), 'A' * 1000u + 11);
    EXPECT_EQ(Result(t2.slot), 'B' * 1000u + 22);
    // The entry without a result slot stored nothing anywhere.
    for (std::uint32_t k = 0; k < ZOR_SSA_RESULT_SLOTS; ++k)
        if (k != t1.slot && k != t2.slot) ASSERT_EQ(Result(k), 0xEEEEEEEEu) << k;
    EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 0u);
    EXPECT_EQ(Word(ZOR_SSA_BYTES_USED), 0u);
    EXPECT_EQ(Word(ZOR_SSA_RUN_COUNTER), 1u);
    EXPECT_EQ(Word(ZOR_SSA_SYNC_TDL), 0u);
    for (const Call& c : g_calls) EXPECT_EQ(c.context, kPid);  // the writer's process
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(TdlTest, AFreedSlotDropsItsEntryAndEveryEntryBehindIt) {
    MakeArea();
    const std::uint32_t a = AddFake(&FakeEntry<'A'>, u"fake_a");
    const std::uint32_t b = AddFake(&FakeEntry<'B'>, u"fake_b");
    const std::uint32_t c = AddFake(&FakeEntry<'C'>, u"fake_c");
    TdlTicket ta, tb, tc;
    Append(a, 1, nullptr, 0, true, &ta);
    Append(b, 2, nullptr, 0, true, &tb);
    Append(c, 3, nullptr, 0, true, &tc);
    h.slots.Free(b);

    h.dispatcher.DoTDL();

    ASSERT_EQ(g_calls.size(), 1u);
    EXPECT_EQ(g_calls[0].module, 'A');
    EXPECT_EQ(Result(ta.slot), 'A' * 1000u + 1);
    EXPECT_EQ(Result(tc.slot), 0u);  // cleared when reserved, never written
    EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 0u);
    EXPECT_EQ(Word(ZOR_SSA_BYTES_USED), 0u);
    EXPECT_TRUE(TdlResultReady(area, size, tc));  // the waiter is released with 0
    EXPECT_TRUE(log.Lines().empty());               // dropped silently
}

TEST_F(TdlTest, HeldSyncTdlAtEventTimeSkipsThePassButNotTheIsrs) {
    MakeArea();
    const std::uint32_t a = AddFake(&FakeEntry<'A'>, u"fake_a");
    Append(a, 5, nullptr, 0);
    SetWord(ZOR_SSA_SYNC_TDL, 1);
    test::IrqThread irq;

    irq.Fire(1);

    EXPECT_EQ(log.Count("ZOR: DoTDL skipps due to SyncTDL=1\n"), 1u);
    ASSERT_EQ(g_calls.size(), 1u);  // the ISR's Interrupt only
    EXPECT_EQ(g_calls[0].code, static_cast<std::uint32_t>(ZOR_FN_INTERRUPT));
    EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 1u);
    EXPECT_EQ(Word(ZOR_SSA_RUN_COUNTER), 0u);
    EXPECT_EQ(Word(ZOR_SSA_SYNC_TDL), 1u);

    SetWord(ZOR_SSA_SYNC_TDL, 0);
    irq.Fire(2);
    ASSERT_EQ(g_calls.size(), 3u);
    EXPECT_EQ(g_calls[1].code, static_cast<std::uint32_t>(ZOR_FN_EXEC_ISR_FUNC));
    EXPECT_EQ(g_calls[1].func, 5u);
    EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 0u);
}

TEST_F(TdlTest, DeferredCallsRunBeforeTheFirstIsrOfTheSameEvent) {
    MakeArea();
    const std::uint32_t a = AddFake(&FakeEntry<'A'>, u"fake_a");
    const std::uint32_t b = AddFake(&FakeEntry<'B'>, u"fake_b");
    h.slots[b].priority.store(0);  // B is the first ISR
    Append(a, 1, nullptr, 0);
    test::IrqThread irq;
    irq.Fire(1);
    ASSERT_EQ(g_calls.size(), 3u);
    EXPECT_EQ(g_calls[0].code, static_cast<std::uint32_t>(ZOR_FN_EXEC_ISR_FUNC));
    EXPECT_EQ(g_calls[1].module, 'B');
    EXPECT_EQ(g_calls[2].module, 'A');
}

// Every word of the queue may hold anything a client wrote. Nothing may be
// read or written outside the area, and the queue must work again after.
TEST_F(TdlTest, HostileQueueWordsEndThePassInsideTheArea) {
    const std::uint32_t queueBytes = 72;  // three empty entries
    MakeArea(queueBytes);
    const std::uint32_t a = AddFake(&FakeEntry<'A'>, u"fake_a");
    const std::string overrun =
        "ZOR: DoTDL: entry 0 at queue offset 0 runs past the queue (72 bytes)! Rest of the list dropped.\n\r";
    {
        SCOPED_TRACE("an argument length past the end");
        PutRaw(0, a, 0, 1, 49);
        SetWord(ZOR_SSA_ENTRY_COUNT, 1);
        h.dispatcher.DoTDL();
        EXPECT_TRUE(g_calls.empty());
        EXPECT_EQ(log.Count(overrun), 1u);
        EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 0u);
        EXPECT_EQ(Word(ZOR_SSA_SYNC_TDL), 0u);
    }
    {
        SCOPED_TRACE("a length that wraps the position");
        PutRaw(0, a, 0, 1, 0xFFFFFFF0);
        SetWord(ZOR_SSA_ENTRY_COUNT, 1);
        h.dispatcher.DoTDL();
        EXPECT_TRUE(g_calls.empty());
        EXPECT_EQ(log.Count(overrun), 2u);
    }
    {
        SCOPED_TRACE("a count larger than the queue holds");
        for (std::uint32_t i = 0; i < 3; ++i) PutRaw(24 * i, a, 0, 10 + i, 0);
        SetWord(ZOR_SSA_ENTRY_COUNT, 0xFFFFFFFF);
        h.dispatcher.DoTDL();
        ASSERT_EQ(g_calls.size(), 3u);
        EXPECT_EQ(g_calls[2].func, 12u);
        EXPECT_TRUE(log.Contains(
            "ZOR: DoTDL: entry 3 at queue offset 72 runs past the queue (72 bytes)! Rest of the list dropped.\n\r"));
        g_calls.clear();
    }
    {
        SCOPED_TRACE("a header that straddles the end");
        PutRaw(0, a, 0, 1, 28);  // 52 bytes: the next header would need 24 of 20
        SetWord(ZOR_SSA_ENTRY_COUNT, 2);
        h.dispatcher.DoTDL();
        EXPECT_EQ(g_calls.size(), 1u);
        EXPECT_TRUE(log.Contains(
            "ZOR: DoTDL: entry 1 at queue offset 52 runs past the queue (72 bytes)! Rest of the list dropped.\n\r"));
        g_calls.clear();
    }
    {
        SCOPED_TRACE("result indexes outside the 1024 slots");
        PutRaw(0, a, 1024, 1, 0);
        PutRaw(24, a, 0xFFFFFFFF, 2, 0);
        SetWord(ZOR_SSA_ENTRY_COUNT, 2);
        h.dispatcher.DoTDL();
        EXPECT_EQ(g_calls.size(), 2u);  // called, result dropped
        EXPECT_TRUE(log.ContainsSubstr("ZOR: DoTDL: result index 1024 of ISR #"));
        EXPECT_TRUE(log.ContainsSubstr("ZOR: DoTDL: result index 4294967295 of ISR #"));
        g_calls.clear();
    }
    {
        SCOPED_TRACE("a stray bytes-used word with an empty queue is cleared");
        SetWord(ZOR_SSA_BYTES_USED, 0xFFFFFF00);
        SetWord(ZOR_SSA_ENTRY_COUNT, 0);
        h.dispatcher.DoTDL();
        EXPECT_EQ(Word(ZOR_SSA_BYTES_USED), 0u);
    }
    // The queue works as before.
    EXPECT_EQ(Append(a, 99, nullptr, 0), TdlStatus::kQueued);
    h.dispatcher.DoTDL();
    ASSERT_EQ(g_calls.size(), 1u);
    EXPECT_EQ(g_calls[0].func, 99u);
}

// ------------------------------------------------------------------ writer

TEST_F(TdlTest, WriterLaysEntriesBackToBack) {
    MakeArea();
    const unsigned char d[5] = {1, 2, 3, 4, 5};
    TdlTicket t1, t2;
    ASSERT_EQ(Append(17, 0xAB, d, 5, false, &t1), TdlStatus::kQueued);
    ASSERT_EQ(Append(18, 0xCD, d, 2, true, &t2), TdlStatus::kQueued);
    ZorTdlEntry e;
    std::memcpy(&e, area + ZOR_SSA_QUEUE, sizeof e);
    EXPECT_EQ(e.context, kPid);
    EXPECT_EQ(e.isr_handle, 17u);
    EXPECT_EQ(e.reserved, 0u);
    EXPECT_EQ(e.result_index, 0u);
    EXPECT_EQ(e.func, 0xABu);
    EXPECT_EQ(e.size, 5u);
    EXPECT_EQ(std::memcmp(area + ZOR_SSA_QUEUE + 24, d, 5), 0);
    std::memcpy(&e, area + ZOR_SSA_QUEUE + 29, sizeof e);
    EXPECT_EQ(e.isr_handle, 18u);
    EXPECT_EQ(e.result_index, 1u);
    EXPECT_EQ(t2.slot, 1u);
    EXPECT_EQ(t2.offset, 29u);
    EXPECT_EQ(area[ZOR_SSA_RESULT_FLAGS + 1] & 1, 1);
    EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 2u);
    EXPECT_EQ(Word(ZOR_SSA_BYTES_USED), 29u + 26);
    EXPECT_EQ(Word(ZOR_SSA_SYNC_TDL), 0u);
}

TEST_F(TdlTest, WriterHonoursTheSmallerOfCapacityWordAndRealQueue) {
    MakeArea(100);
    std::vector<unsigned char> data(200, 0x5A);
    EXPECT_EQ(Append(1, 0, data.data(), 77), TdlStatus::kTooLarge);
    EXPECT_EQ(Append(1, 0, data.data(), 0xFFFFFFF0), TdlStatus::kTooLarge);
    EXPECT_EQ(Append(1, 0, data.data(), 76), TdlStatus::kQueued);  // 24 + 76 = capacity
    h.dispatcher.DoTDL();
    SetWord(ZOR_SSA_CAPACITY, 0xFFFFFFFF);  // a client claims more than there is
    EXPECT_EQ(Append(1, 0, data.data(), 77), TdlStatus::kTooLarge);
    SetWord(ZOR_SSA_CAPACITY, 50);  // or less: then the word counts
    EXPECT_EQ(Append(1, 0, data.data(), 27), TdlStatus::kTooLarge);
    EXPECT_EQ(Append(1, 0, data.data(), 26), TdlStatus::kQueued);
}

TEST_F(TdlTest, WriterRefusesAfterItsWaitWhenNoRoomOrLockHeld) {
    MakeArea(100);
    {
        SCOPED_TRACE("full, non-empty queue");
        ASSERT_EQ(Append(1, 0, nullptr, 60), TdlStatus::kBadData);  // null data
        ASSERT_EQ(Append(1, 0, area, 60), TdlStatus::kQueued);
        const std::uint32_t t0 = os::tick_ms();
        EXPECT_EQ(Append(1, 0, area, 20, false, nullptr, 200), TdlStatus::kTimeout);
        EXPECT_GE(os::tick_ms() - t0, 190u);
        EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 1u);
        EXPECT_EQ(Word(ZOR_SSA_BYTES_USED), 84u);
        h.dispatcher.DoTDL();
    }
    {
        SCOPED_TRACE("bytes used beyond the queue with no entry");
        SetWord(ZOR_SSA_BYTES_USED, 0xFFFFFFF0);
        EXPECT_EQ(Append(1, 0, area, 4), TdlStatus::kTimeout);
        EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 0u);
        h.dispatcher.DoTDL();
    }
    {
        SCOPED_TRACE("SyncTDL held");
        SetWord(ZOR_SSA_SYNC_TDL, 1);
        EXPECT_EQ(Append(1, 0, area, 4), TdlStatus::kTimeout);
        EXPECT_EQ(Word(ZOR_SSA_SYNC_TDL), 1u);
        EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 0u);
        SetWord(ZOR_SSA_SYNC_TDL, 0);
    }
    {
        SCOPED_TRACE("unreadable argument bytes");
        EXPECT_EQ(Append(1, 0, reinterpret_cast<const void*>(std::uintptr_t{16}), 4),
                  TdlStatus::kBadData);
        EXPECT_EQ(Word(ZOR_SSA_SYNC_TDL), 0u);  // the lock was given back
        EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 0u);
    }
    EXPECT_EQ(Append(1, 0, area, 76), TdlStatus::kQueued);
}

TEST_F(TdlTest, ResultSlotsSkipReservedFlagsAndOverflowWithoutLosingTheEntry) {
    MakeArea(1024 * 24 + 24);
    area[ZOR_SSA_RESULT_FLAGS + 1] = 0xFF;  // reserved by someone else
    TdlTicket t;
    ASSERT_EQ(Append(1, 0, nullptr, 0, true, &t), TdlStatus::kQueued);
    EXPECT_EQ(t.slot, 2u);
    for (std::uint32_t k = 3; k < ZOR_SSA_RESULT_SLOTS; ++k)
        ASSERT_EQ(Append(1, 0, nullptr, 0, true), TdlStatus::kQueued) << k;
    ASSERT_EQ(Append(1, 0, nullptr, 0, true, &t), TdlStatus::kQueuedNoSlot);
    EXPECT_EQ(t.slot, 0u);
    EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 1023u);
    EXPECT_EQ(area[ZOR_SSA_RESULT_FLAGS + 0], 0);  // slot 0 is never reserved
    t.slot = 500;
    TdlTakeResult(area, size, t);
    EXPECT_EQ(area[ZOR_SSA_RESULT_FLAGS + 500] & 1, 0);
    EXPECT_EQ(Append(1, 0, nullptr, 0, true, &t), TdlStatus::kQueued);
    EXPECT_EQ(t.slot, 500u);
}

TEST_F(TdlTest, AWaiterThatGivesUpKeepsTheLaterRunOutOfItsSlot) {
    MakeArea();
    const std::uint32_t a = AddFake(&FakeEntry<'A'>, u"fake_a");
    TdlTicket t;
    ASSERT_EQ(Append(a, 1, nullptr, 0, true, &t), TdlStatus::kQueued);
    std::uint32_t r = 1;
    EXPECT_FALSE(TdlWait(area, size, t, 30, 30, &r));
    EXPECT_EQ(r, 0u);
    EXPECT_EQ(area[ZOR_SSA_RESULT_FLAGS + t.slot] & 1, 0);  // freed
    TdlTicket next;
    ASSERT_EQ(Append(a, 2, nullptr, 0, true, &next), TdlStatus::kQueued);
    EXPECT_EQ(next.slot, t.slot);  // handed out again
    SetWord(ZOR_SSA_RESULTS + 4 * t.slot, 0);
    // Make the new requester's entry vanish: only the abandoned one may write.
    SetWord(ZOR_SSA_ENTRY_COUNT, 1);
    h.dispatcher.DoTDL();
    ASSERT_EQ(g_calls.size(), 1u);  // the abandoned entry still ran ...
    EXPECT_EQ(Result(next.slot), 0u);  // ... without writing the slot
}

TEST_F(TdlTest, AWaiterCompletesOnTheRunAfterItsEntryWasQueued) {
    MakeArea();
    const std::uint32_t a = AddFake(&FakeEntry<'A'>, u"fake_a");
    TdlTicket t;
    ASSERT_EQ(Append(a, 3, nullptr, 0, true, &t), TdlStatus::kQueued);
    EXPECT_FALSE(TdlResultReady(area, size, t));
    SetWord(ZOR_SSA_SYNC_TDL, 1);  // a skipped pass does not complete it
    h.dispatcher.DoTDL();
    EXPECT_FALSE(TdlResultReady(area, size, t));
    SetWord(ZOR_SSA_SYNC_TDL, 0);
    h.dispatcher.DoTDL();
    std::uint32_t r = 0;
    EXPECT_TRUE(TdlWait(area, size, t, 1000, 1000, &r));
    EXPECT_EQ(r, 'A' * 1000u + 3);
    EXPECT_EQ(area[ZOR_SSA_RESULT_FLAGS + t.slot] & 1, 0);
}

}  // namespace
}  // namespace zor
