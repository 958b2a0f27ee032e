// The system shared area (command 3) and per-module shared memory handed to
// further processes (command 15). The OS calls are replaced (heap_area_os.h)
// so that every failure path and its release order can be checked.
#include <gtest/gtest.h>

#include <cstring>

#include "common/test_host.h"
#include "modules/heap_area_os.h"
#include "modules/tdl_writer.h"

namespace zor {
namespace {

using test::HeapAreaOs;
using Events = std::vector<std::string>;

class SharedMemTest : public ::testing::Test {
protected:
    static constexpr std::uint32_t kSize = ZOR_SSA_QUEUE + 1000;

    std::uint32_t Word(std::uint32_t offset) { return TdlWord(h.shm.Area(), offset).load(); }

    HeapAreaOs fake;
    test::TestHost th;
    Host& h = th.host();
    test::TestLog& log = th.log();
};

TEST_F(SharedMemTest, FirstRequestCreatesAnInitialisedAreaAndHandsOutADuplicate) {
    const std::uint64_t remote = h.shm.SysMem(77, kSize);
    ASSERT_NE(remote, 0u);
    EXPECT_EQ(fake.Events(), (Events{"create", "open", "dup", "close process", "map"}));
    unsigned char* area = h.shm.Area();
    ASSERT_NE(area, nullptr);
    EXPECT_EQ(fake.BlockOfRemote(remote), area);  // the client sees the same bytes
    EXPECT_EQ(h.shm.AreaSize(), kSize);
    EXPECT_EQ(Word(ZOR_SSA_CAPACITY), 1000u);
    EXPECT_EQ(Word(ZOR_SSA_SYNC_TDL), 0u);
    EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 0u);
    EXPECT_EQ(Word(ZOR_SSA_BYTES_USED), 0u);
    EXPECT_EQ(h.config.clientCount.load(), 1u);
    EXPECT_EQ(h.config.clientPids[0].load(), 77u);
    EXPECT_EQ(fake.OpenProcesses(), 0);
}

TEST_F(SharedMemTest, LaterRequestsShareTheFirstAreaWhateverTheirSize) {
    const std::uint64_t first = h.shm.SysMem(1, kSize);
    unsigned char* area = h.shm.Area();
    TdlWord(area, ZOR_SSA_ENTRY_COUNT).store(5);  // live state survives
    fake.ClearEvents();
    const std::uint64_t second = h.shm.SysMem(2, kSize * 4);
    ASSERT_NE(second, 0u);
    EXPECT_NE(second, first);
    EXPECT_EQ(fake.BlockOfRemote(second), area);
    EXPECT_EQ(h.shm.AreaSize(), kSize);
    EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 5u);
    EXPECT_EQ(fake.Events(), (Events{"open", "dup", "close process"}));
}

TEST_F(SharedMemTest, AreaTooSmallForItsHeaderIsRefused) {
    EXPECT_EQ(h.shm.SysMem(1, ZOR_SSA_QUEUE - 1), 0u);
    EXPECT_EQ(h.shm.SysMem(1, 0), 0u);
    EXPECT_TRUE(fake.Events().empty());
    EXPECT_EQ(h.shm.Area(), nullptr);
    EXPECT_TRUE(log.Contains(
        "ZOR: System shared memory of 5143 bytes refused, at least 5144 bytes needed!\n\r"));
    EXPECT_EQ(h.config.clientCount.load(), 0u);
    // The smallest area has a queue of 0 bytes; nothing can be queued in it.
    ASSERT_NE(h.shm.SysMem(1, ZOR_SSA_QUEUE), 0u);
    EXPECT_EQ(Word(ZOR_SSA_CAPACITY), 0u);
    TdlTicket t;
    EXPECT_EQ(TdlAppend(h.shm.Area(), h.shm.AreaSize(), 1, 1, 0, nullptr, 0, false, &t, 10),
              TdlStatus::kTooLarge);
}

TEST_F(SharedMemTest, ClientPidsFillTenEntriesThenOverwriteTheLast) {
    for (std::uint32_t pid = 100; pid < 112; ++pid) ASSERT_NE(h.shm.SysMem(pid, kSize), 0u);
    EXPECT_EQ(h.config.clientCount.load(), 9u);
    for (std::uint32_t i = 0; i < 9; ++i) EXPECT_EQ(h.config.clientPids[i].load(), 100u + i);
    EXPECT_EQ(h.config.clientPids[9].load(), 111u);
}

struct FailCase {
    const char* call;
    const char* message;
    Events events;
};

class SharedMemFailTest : public SharedMemTest,
                          public ::testing::WithParamInterface<FailCase> {};

TEST_P(SharedMemFailTest, FailedFirstCreationLeavesNothingBehind) {
    const FailCase& c = GetParam();
    fake.Fail(c.call);
    EXPECT_EQ(h.shm.SysMem(7, kSize), 0u);
    EXPECT_TRUE(log.Contains(c.message));
    EXPECT_EQ(fake.Events(), c.events);
    EXPECT_EQ(h.shm.Area(), nullptr);
    EXPECT_EQ(h.shm.AreaSize(), 0u);
    EXPECT_EQ(h.config.clientCount.load(), 0u);
    EXPECT_EQ(fake.OpenProcesses(), 0);
    // And a later request starts afresh.
    fake.FailNothing();
    EXPECT_NE(h.shm.SysMem(7, kSize), 0u);
    EXPECT_NE(h.shm.Area(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    EachCall, SharedMemFailTest,
    ::testing::Values(
        FailCase{"create", "ZOR: Failed to alloc system shared memory!\n\r", {"create failed"}},
        FailCase{"open", "ZOR: Failed to duplicate handle for system shared memory!\n\r",
                 {"create", "open failed", "close mapping"}},
        FailCase{"dup", "ZOR: Failed to duplicate handle for system shared memory!\n\r",
                 {"create", "open", "dup failed", "close process", "close mapping"}},
        FailCase{"map", "ZOR: Failed to map view of system shared memory!\n\r",
                 {"create", "open", "dup", "close process", "map failed", "close mapping"}}),
    [](const auto& info) { return std::string(info.param.call); });

TEST_F(SharedMemTest, FailedLaterRequestLeavesTheAreaUntouched) {
    ASSERT_NE(h.shm.SysMem(1, kSize), 0u);
    unsigned char* area = h.shm.Area();
    fake.ClearEvents();
    fake.Fail("dup");  // e.g. the client process has gone
    EXPECT_EQ(h.shm.SysMem(2, kSize), 0u);
    EXPECT_EQ(fake.Events(), (Events{"open", "dup failed", "close process"}));
    EXPECT_EQ(h.shm.Area(), area);
    EXPECT_EQ(h.config.clientCount.load(), 1u);
}

TEST_F(SharedMemTest, ReleaseUnmapsThenClosesAndTheSequenceWordStopsBeingWritten) {
    ASSERT_NE(h.shm.SysMem(1, kSize), 0u);
    fake.ClearEvents();
    h.shm.ReleaseArea();
    EXPECT_EQ(fake.Events(), (Events{"unmap", "close mapping"}));
    EXPECT_EQ(h.shm.Area(), nullptr);
    EXPECT_EQ(h.shm.AreaSize(), 0u);
    h.shm.ReleaseArea();  // nothing left to release
    EXPECT_EQ(fake.Events().size(), 2u);
    test::IrqThread irq;
    irq.Fire(1);  // would write into freed memory if the view were kept
    EXPECT_EQ(h.services.Call(SERV_GetIRQTime, 0, 0, 0, 0, 0, 0, nullptr), 0);
}

// ------------------------------------------------------------------ command 15

class IsrMemTest : public SharedMemTest {
protected:
    std::uint32_t AddSlot(os::Handle mapping) {
        const std::uint32_t s = h.slots.Alloc();
        h.slots[s].number.store(s);
        h.slots[s].kind.store(kKindIsr);
        h.slots[s].mapping = mapping;
        h.slots[s].inUse.store(1);
        return s;
    }
};

TEST_F(IsrMemTest, DuplicatesTheModulesMappingIntoTheProcess) {
    const os::Handle mapping = os::mapping_create(64);
    const std::uint32_t s = AddSlot(mapping);
    AddSlot(0);
    fake.ClearEvents();
    const std::uint64_t remote = h.shm.GetIsrMem(9, s);
    ASSERT_NE(remote, 0u);
    EXPECT_EQ(fake.Events(), (Events{"open", "dup", "close process"}));
    // A released slot keeps its number and is still found.
    h.slots.Free(s);
    EXPECT_NE(h.shm.GetIsrMem(9, s), 0u);
    os::handle_close(mapping);
}

TEST_F(IsrMemTest, RefusesUnknownNumbersAndModulesWithoutSharedMemory) {
    EXPECT_EQ(h.shm.GetIsrMem(9, 1), 0u);  // no slot at all
    const std::uint32_t b = AddSlot(0);
    EXPECT_EQ(h.shm.GetIsrMem(9, 0x100000000ull + b), 0u);  // compared in 64 bits
    EXPECT_EQ(h.shm.GetIsrMem(9, 50), 0u);
    EXPECT_TRUE(fake.Events().empty());
    EXPECT_EQ(h.shm.GetIsrMem(9, b), 0u);  // no mapping: duplication fails
    EXPECT_EQ(fake.Events(), (Events{"open", "dup", "close process"}));
    EXPECT_TRUE(log.ContainsSubstr("ZOR: GetIsrMem of failed to duplicate handle for shared memory ("));
    fake.ClearEvents();
    fake.Fail("open");
    const os::Handle mapping = os::mapping_create(64);
    h.slots[b].mapping = mapping;
    EXPECT_EQ(h.shm.GetIsrMem(9, b), 0u);
    EXPECT_EQ(fake.Events(), (Events{"create", "open failed"}));
    std::size_t messages = 0;
    for (const std::string& line : log.Lines())
        messages += line.rfind("ZOR: GetIsrMem of failed to duplicate handle for shared memory (", 0) == 0;
    EXPECT_EQ(messages, 2u);
    EXPECT_EQ(fake.OpenProcesses(), 0);
    h.slots[b].mapping = 0;
    os::handle_close(mapping);
}

}  // namespace
}  // namespace zor
