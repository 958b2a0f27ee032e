// ISR registration and unregistration: what the modules are told and in
// which order, replacement, pending starts, the slot limit, refusal of bad
// payloads, and the release of every resource on each failure path.
#include <gtest/gtest.h>

#include "common/test_host.h"
#include "common/heap_area_os.h"

namespace zor::test {
namespace {

using Codes = std::vector<std::uint32_t>;

TEST_F(HostTest, RegistrationNumbersStartsAndAnnouncesTheModuleAndTheSameNameReplacesIt) {
    TestIsr a("test_isr"), b("test_isr_b");
    const std::uint32_t sa = RegisterIsr(h, "test_isr");
    ASSERT_EQ(1u, sa);
    EXPECT_TRUE(log.Contains("Register DLL " + Utf8(ModuleFileName("test_isr")) + "\n\r"));
    auto calls = a.Calls();
    ASSERT_EQ(3u, calls.size());
    EXPECT_EQ(sa, calls[0].arg);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(&ServiceProc), calls[1].arg);
    EXPECT_EQ(0u, calls[2].arg);  // no shared memory
    EXPECT_EQ(1u, h.slots[sa].priority.load());
    EXPECT_NE(0u, h.lockedNames.Find(a.FileName()));  // the image is locked
    EXPECT_EQ(1u, h.sysLocker.Count());

    a.Reset();
    const std::uint32_t sb = RegisterIsr(h, "test_isr_b", 8192);
    EXPECT_EQ((Codes{ZOR_FN_ATTACH}), a.Codes());
    EXPECT_EQ(sb, a.Calls()[0].arg);
    EXPECT_EQ(0u, b.CountOf(ZOR_FN_ATTACH));

    // The same name again replaces the old instance: detached from itself and
    // shut down before the new instance starts.
    a.Reset();
    const std::u16string name = ModuleFileName("test_isr");
    EXPECT_EQ(sa, RegisterIsr(h, "test_isr"));
    EXPECT_TRUE(log.Contains("ZOR: ISR '" + Utf8(name) + "' already registered! Unregistering old version...\n\r"));
    EXPECT_EQ((Codes{ZOR_FN_DETACH, ZOR_FN_SHUTDOWN, ZOR_FN_SET_ISR_HANDLE, ZOR_FN_SET_SERVICE_PROC,
                     ZOR_FN_INITIALIZE}),
              a.Codes());
    EXPECT_EQ(sa, h.registry.FindModule(name.c_str()));
    EXPECT_EQ(3u, h.sysLocker.Count());  // the old instance let go of its image
}

TEST_F(HostTest, WithAllSlotsTakenRegistrationFailsWithTheListMessage) {
    for (std::uint32_t i = 1; i < SlotTable::kSlots; ++i) {
        ASSERT_EQ(i, h.slots.Alloc());
        h.slots[i].kind.store(kKindIrq);  // left alone by unregistration
        h.slots[i].inUse.store(1);
    }
    EXPECT_EQ(0u, RegisterIsr(h, "test_isr"));
    EXPECT_TRUE(log.Contains("ZOR: Failed to add '" + Utf8(ModuleFileName("test_isr")) +
                             "' to internal list\n\r"));
    for (std::uint32_t i = 1; i < SlotTable::kSlots; ++i) h.slots.Free(i);
}

TEST_F(HostTest, PendingStartsAreRetriedAfterEveryLaterRegistrationUntilTheyStart) {
    TestIsr pending("test_isr"), b("test_isr_b"), c("test_isr_c");
    pending.SetPending(1);
    const std::uint32_t sp = RegisterIsr(h, "test_isr");
    ASSERT_NE(0u, sp);
    EXPECT_EQ(1u, h.slots[sp].startPending.load());
    EXPECT_EQ(2u, pending.CountOf(ZOR_FN_INITIALIZE));  // at registration, then in the pass after it
    // A module that is itself pending: the pass runs once and starts nothing.
    b.SetPending(1);
    const std::uint32_t sb = RegisterIsr(h, "test_isr_b");
    EXPECT_EQ(3u, pending.CountOf(ZOR_FN_INITIALIZE));
    EXPECT_EQ(1u, h.slots[sb].startPending.load());
    // Now b starts in the first pass, which makes a second pass.
    b.Reset();
    RegisterIsr(h, "test_isr_c");
    EXPECT_EQ(0u, h.slots[sb].startPending.load());
    EXPECT_EQ(1u, b.CountOf(ZOR_FN_INITIALIZE));
    EXPECT_EQ(5u, pending.CountOf(ZOR_FN_INITIALIZE));
    pending.SetPending(0);
    h.registry.RetryPendingStarts();
    h.registry.RetryPendingStarts();
    EXPECT_EQ(0u, h.slots[sp].startPending.load());
    EXPECT_EQ(6u, pending.CountOf(ZOR_FN_INITIALIZE));
}

TEST_F(HostTest, UnregistrationDetachesEveryModuleThenShutsTheLeavingOneDown) {
    TestIsr a("test_isr"), b("test_isr_b");
    const std::uint32_t sa = RegisterIsr(h, "test_isr");
    const std::uint32_t sb = RegisterIsr(h, "test_isr_b");
    a.Reset();
    b.Reset();
    EXPECT_EQ(0u, h.registry.UnregisterCommand(sb));
    EXPECT_TRUE(log.Contains("ZOR: Unregistering ISR '" + Utf8(ModuleFileName("test_isr_b")) + "'\n\r"));
    EXPECT_EQ((Codes{ZOR_FN_DETACH}), a.Codes());
    EXPECT_EQ((Codes{ZOR_FN_DETACH, ZOR_FN_SHUTDOWN}), b.Codes());
    EXPECT_EQ(sb, a.Calls()[0].arg);
    EXPECT_EQ(sb, b.Calls()[0].arg);
    EXPECT_EQ(0u, h.slots[sb].inUse.load());
    EXPECT_EQ(1u, h.slots[sa].inUse.load());
    EXPECT_EQ(0u, h.lockedNames.Find(b.FileName()));

    h.registry.UnregisterCommand(77);
    EXPECT_TRUE(log.Contains("ZOR: Unregistering ISR #77 failed!\n\r"));
}

// ------------------------------------------------------------ with recorded OS calls

class RecordedRegistry : public HostTest {
protected:
    ~RecordedRegistry() override { h.registry.UnloadAll(); }
    std::uint64_t Register(const char* name, std::uint32_t size) {
        fake.events.clear();
        const auto p = RegisterPayload(os::current_process_id(), size, ModuleFileName(name));
        return h.registry.RegisterISRProc(zor::os::process_peer(), p.data(), static_cast<std::uint32_t>(p.size()));
    }
    bool NothingInUse() {
        for (std::uint32_t s = 1; s < SlotTable::kSlots; ++s)
            if (h.slots[s].inUse.load()) return false;
        return h.sysLocker.Count() == 0 && fake.openProcesses == 0;
    }
    HeapAreaOs fake;
    using Events = std::vector<std::string>;
};

TEST_F(RecordedRegistry, MalformedPayloadsAreRefusedWithoutReadingPastThem) {
    // Cut before the terminator: the name runs to the end of the payload.
    const auto p = RegisterPayload(os::current_process_id(), 0, u"test_isr.xyz");
    EXPECT_EQ(0u, h.registry.RegisterISRProc(zor::os::process_peer(), p.data(), 40));
    EXPECT_TRUE(log.Contains("ZOR: RegisterISRProc: malformed request refused (40 bytes)!\n\r"));
    // 20 units is too long even with a terminator; 19 units is a name.
    const auto p20 = RegisterPayload(1, 0, u"abcdefghijklmnop.so0");
    EXPECT_EQ(0u, h.registry.RegisterISRProc(zor::os::process_peer(), p20.data(), static_cast<std::uint32_t>(p20.size())));
    EXPECT_TRUE(log.ContainsSubstr("ZOR: RegisterISRProc: module name too long"));
    EXPECT_TRUE(fake.events.empty());
    const auto p19 = RegisterPayload(1, 0, u"abcdefghijklmnop.so");
    EXPECT_EQ(0u, h.registry.RegisterISRProc(zor::os::process_peer(), p19.data(), static_cast<std::uint32_t>(p19.size())));
    EXPECT_TRUE(log.Contains("ZOR: Failed to load ISR: 'abcdefghijklmnop.so'\n\r"));
    EXPECT_TRUE(NothingInUse());
}

// The module loads first: memory is made only for a module that loaded.
TEST_F(RecordedRegistry, EachFailingStepReleasesWhatCameBefore) {
    TestIsr isr;
    const std::string head = "ZOR: RegisterISRProc of  '" + Utf8(ModuleFileName("test_isr")) + "' failed to ";
    const std::string name = Utf8(ModuleFileName("test_isr"));
    const std::string dup = head + "duplicate handle for shared memory (";
    const Events loaded = {"load", "symbol"};
    auto with = [&](Events tail) {
        Events e = loaded;
        e.insert(e.end(), tail.begin(), tail.end());
        return e;
    };
    const struct {
        const char* failing;
        Events events;
        std::string message;
    } cases[] = {
        {"load", {"load failed"}, "ZOR: Failed to load ISR: '" + name + "'\n\r"},
        {"symbol", {"load", "symbol failed", "free"}, "ZOR: Failed to locate ISR_GetSet in module '" + name + "'\n\r"},
        {"create", with({"create failed", "free"}), head + "alloc 4096 bytes shared memory!\n\r"},
        {"open", with({"create", "open failed", "free", "close mapping"}), dup},
        {"dup", with({"create", "open", "dup failed", "close process", "free", "close mapping"}), dup},
        {"map", with({"create", "open", "dup", "close process", "map failed", "open", "close in client",
                      "close process", "free", "close mapping"}),
         head + "map view of shared memory!\n\r"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.failing);
        fake.failing = c.failing;
        log.Clear();
        EXPECT_EQ(0u, Register("test_isr", 4096));
        EXPECT_EQ(c.events, fake.events);
        EXPECT_TRUE(log.ContainsSubstr(c.message));
        EXPECT_TRUE(NothingInUse());
        EXPECT_EQ(0u, h.dispatcher.paused.load());
        EXPECT_EQ(0u, isr.Count());
    }
    // Success: the view is locked and handed to Initialize, and released in reverse order.
    fake.failing.clear();
    ASSERT_NE(0u, Register("test_isr", 4096));
    EXPECT_EQ(with({"create", "open", "dup", "close process", "map"}), fake.events);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(fake.lastView), h.sysLocker.Base(0));
    fake.events.clear();
    h.registry.UnregisterCommand(1);
    EXPECT_EQ((Events{"free", "unmap", "close mapping"}), fake.events);
    EXPECT_TRUE(NothingInUse());
    // A module without the entry is unloaded again.
    EXPECT_EQ(0u, Register("noexport_isr", 0));
    EXPECT_EQ((Events{"load", "symbol", "free"}), fake.events);
    EXPECT_TRUE(log.Contains("ZOR: Failed to locate ISR_GetSet in module '" +
                             Utf8(ModuleFileName("noexport_isr")) + "'\n\r"));
    EXPECT_TRUE(NothingInUse());
}

}  // namespace
}  // namespace zor::test
