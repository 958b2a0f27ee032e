// The system shared area (command 3) and per-module shared memory handed to
// further processes (command 15). The OS calls are replaced (heap_area_os.h)
// so that every failure path and its release order can be checked.
#include <gtest/gtest.h>

#include "common/test_host.h"
#include "common/heap_area_os.h"
#include "host/command_intake.h"
#include "modules/deferred_list_writer.h"

namespace zor {
namespace {

using Events = std::vector<std::string>;

class SharedMemTest : public ::testing::Test {
protected:
    static constexpr std::uint32_t kSize = ZOR_SSA_QUEUE + 1000;
    std::uint32_t Word(std::uint32_t offset) { return TdlWord(h.shm.Area(), offset).load(); }
    // Command 3 as a client sends it: the area, and the client's pid recorded.
    std::uint64_t SysMem(std::uint32_t pid, std::uint32_t size) {
        const ZorSysMemPayload p{pid, size};
        return OnCopyData(h, os::process_peer(), ZOR_CMD_SYSMEM, &p, sizeof p, DialogEnder{});
    }

    test::HeapAreaOs fake;
    test::TestHost th;
    Host& h = th.host();
    test::TestLog& log = th.log();
};

TEST_F(SharedMemTest, TheFirstRequestCreatesTheAreaAndLaterOnesShareIt) {
    EXPECT_EQ(SysMem(1, ZOR_SSA_QUEUE - 1), 0u);
    EXPECT_TRUE(log.Contains("ZOR: System shared memory of 5143 bytes refused, at least 5144 bytes needed!\n\r"));
    EXPECT_TRUE(fake.events.empty());
    EXPECT_EQ(h.config.clientCount.load(), 0u);
    const std::uint64_t first = SysMem(77, ZOR_SSA_QUEUE);  // the smallest area: an empty queue
    ASSERT_NE(first, 0u);
    EXPECT_EQ(fake.events, (Events{"create", "open", "dup", "close process", "map"}));
    unsigned char* area = h.shm.Area();
    EXPECT_EQ(fake.BlockOfRemote(first), area);  // the client sees the same bytes
    EXPECT_EQ(h.config.clientPids[0].load(), 77u);
    TdlWord(area, ZOR_SSA_ENTRY_COUNT).store(5);  // live state survives
    fake.events.clear();
    const std::uint64_t second = SysMem(2, kSize * 4);
    EXPECT_EQ(fake.events, (Events{"open", "dup", "close process"}));
    EXPECT_EQ(fake.BlockOfRemote(second), area);
    EXPECT_EQ(h.shm.AreaSize(), std::uint32_t{ZOR_SSA_QUEUE});
    EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 5u);
    EXPECT_EQ(h.config.clientPids[1].load(), 2u);  // every request records its client
    // A later failure leaves the area alone.
    fake.events.clear();
    fake.failing = "dup";
    EXPECT_EQ(SysMem(3, kSize), 0u);
    EXPECT_EQ(fake.events, (Events{"open", "dup failed", "close process"}));
    EXPECT_EQ(h.shm.Area(), area);
    EXPECT_EQ(fake.openProcesses, 0);
}

TEST_F(SharedMemTest, AFailedCreationReleasesInReverseOrderAndLeavesNothingBehind) {
    const struct {
        const char* call;
        const char* message;
        Events events;
    } cases[] = {
        {"create", "ZOR: Failed to alloc system shared memory!\n\r", {"create failed"}},
        {"open", "ZOR: Failed to duplicate handle for system shared memory!\n\r",
         {"create", "open failed", "close mapping"}},
        {"dup", "ZOR: Failed to duplicate handle for system shared memory!\n\r",
         {"create", "open", "dup failed", "close process", "close mapping"}},
        {"map", "ZOR: Failed to map view of system shared memory!\n\r",
         {"create", "open", "dup", "close process", "map failed", "close mapping"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.call);
        fake.events.clear();
        fake.failing = c.call;
        EXPECT_EQ(SysMem(7, kSize), 0u);
        EXPECT_TRUE(log.Contains(c.message));
        EXPECT_EQ(fake.events, c.events);
        EXPECT_EQ(h.shm.Area(), nullptr);
        EXPECT_EQ(h.config.clientCount.load(), 0u);
        EXPECT_EQ(fake.openProcesses, 0);
    }
    fake.failing.clear();  // a later request starts afresh
    EXPECT_NE(SysMem(7, kSize), 0u);
    EXPECT_NE(h.shm.Area(), nullptr);
}

TEST_F(SharedMemTest, ReleaseUnmapsThenClosesAndTheSequenceWordStopsBeingWritten) {
    ASSERT_NE(SysMem(1, kSize), 0u);
    fake.events.clear();
    h.shm.ReleaseArea();
    h.shm.ReleaseArea();  // nothing left to release
    EXPECT_EQ(fake.events, (Events{"unmap", "close mapping"}));
    EXPECT_EQ(h.shm.Area(), nullptr);
    test::IrqThread irq;
    irq.Fire(1);  // would write into freed memory if the view were kept
    EXPECT_EQ(h.services.Call(SERV_GetIRQTime, 0, 0, 0, 0, 0, 0, nullptr), 0);
}

// Caps on client-sized memory: one mapping, and all of them together; a
// refused module is not loaded, and no memory is made for it.
TEST_F(SharedMemTest, MemoryOverTheCapsIsRefusedBeforeAnythingIsMade) {
    test::TestIsr isr;
    h.shm.SetCaps(64 * 1024, 96 * 1024);
    fake.events.clear();  // the test's own load of the module
    const std::string name = test::Utf8(isr.FileName());
    EXPECT_EQ(test::RegisterIsr(h, "test_isr", 64 * 1024 + 1), 0u);
    EXPECT_TRUE(log.Contains("ZOR: shared memory of 65537 bytes for '" + name + "' refused: over 0 MiB (SHMMAXMB)\n\r"));
    EXPECT_TRUE(fake.events.empty());
    EXPECT_NE(SysMem(1, 64 * 1024), 0u);
    EXPECT_NE(test::RegisterIsr(h, "test_isr", 32 * 1024), 0u);  // exactly the total
    fake.events.clear();
    EXPECT_EQ(test::RegisterIsr(h, "test_isr_b", 4096), 0u);
    EXPECT_TRUE(log.ContainsSubstr("ZOR: shared memory of 4096 bytes for '"));
    EXPECT_TRUE(log.ContainsSubstr("refused: 0 MiB in use of 0 MiB (SHMTOTALMB)\n\r"));
    EXPECT_TRUE(fake.events.empty());
}

}  // namespace
}  // namespace zor
