// ISR registration and unregistration: what the modules are told and in
// which order, replacement, pending starts, the slot limit, refusal of bad
// payloads, and the release of every resource on each failure path.
#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "common/test_host.h"

namespace zor {
namespace {

using test::CountingIsr;
using test::HostTest;
using test::ModuleFileName;
using test::RegisterIsr;
using test::RegisterPayload;
using test::TestModule;

std::string Utf8(const std::u16string& s) { return std::string(s.begin(), s.end()); }

// ------------------------------------------------------------ os call recording
// Every resource call of the registry, recorded in order; any one can be made
// to fail.
struct OsRecord {
    std::mutex m;
    std::vector<std::string> events;
    os::Handle mapping = 0;
    void* view = nullptr;
    std::string failing;
    void Add(std::string e) {
        std::lock_guard<std::mutex> lk(m);
        events.push_back(std::move(e));
    }
    bool Fails(const char* what) { return failing == what; }
};
OsRecord* g_rec = nullptr;

os::Module RecLoad(const char16_t* p) {
    g_rec->Add("load");
    return g_rec->Fails("load") ? nullptr : os::native_calls().module_load(p);
}
void* RecSymbol(os::Module m, const char* n) {
    if (std::strcmp(n, ZOR_ISR_EXPORT_NAME) == 0) g_rec->Add("symbol");
    return g_rec->Fails("symbol") ? nullptr : os::native_calls().module_symbol(m, n);
}
bool RecFree(os::Module m) {
    g_rec->Add("free");
    return os::native_calls().module_free(m);
}
os::Handle RecCreate(std::uint32_t size) {
    g_rec->Add("create");
    if (g_rec->Fails("create")) return 0;
    return g_rec->mapping = os::native_calls().mapping_create(size);
}
void* RecMap(os::Handle h, std::uint32_t size) {
    g_rec->Add("map");
    if (g_rec->Fails("map")) return nullptr;
    return g_rec->view = os::native_calls().mapping_map(h, size);
}
bool RecUnmap(void* v, std::uint32_t size) {
    g_rec->Add(v == g_rec->view ? "unmap" : "unmap?");
    return os::native_calls().mapping_unmap(v, size);
}
os::Handle RecOpen(std::uint32_t pid) {
    g_rec->Add("open");
    return g_rec->Fails("open") ? 0 : os::native_calls().process_open(pid);
}
bool RecDup(os::Handle p, os::Handle h, std::uint64_t* r) {
    g_rec->Add("dup");
    return g_rec->Fails("dup") ? false : os::native_calls().handle_dup_to(p, h, r);
}
bool RecClose(os::Handle h) {
    g_rec->Add(h == g_rec->mapping ? "close mapping" : "close process");
    return os::native_calls().handle_close(h);
}

class RecordedRegistry : public HostTest {
protected:
    RecordedRegistry() {
        g_rec = &rec;
        os::calls.module_load = RecLoad;
        os::calls.module_symbol = RecSymbol;
        os::calls.module_free = RecFree;
        os::calls.mapping_create = RecCreate;
        os::calls.mapping_map = RecMap;
        os::calls.mapping_unmap = RecUnmap;
        os::calls.process_open = RecOpen;
        os::calls.handle_dup_to = RecDup;
        os::calls.handle_close = RecClose;
    }
    ~RecordedRegistry() override {
        h.registry.UnloadAll();
        os::calls = os::native_calls();
        g_rec = nullptr;
    }
    std::uint64_t Register(const char* name, std::uint32_t size) {
        const auto p = RegisterPayload(os::current_process_id(), size, ModuleFileName(name));
        return h.registry.RegisterISRProc(p.data(), static_cast<std::uint32_t>(p.size()));
    }
    bool NothingInUse() {
        for (std::uint32_t s = 1; s < SlotTable::kSlots; ++s)
            if (h.slots[s].inUse.load()) return false;
        return h.sysLocker.Count() == 0;
    }
    OsRecord rec;
};

using Events = std::vector<std::string>;

// ------------------------------------------------------------ registration

TEST_F(HostTest, RegistrationHandsTheModuleItsNumberServiceEntryAndStartsIt) {
    CountingIsr isr;
    const std::uint32_t slot = RegisterIsr(h, "counting_isr");
    ASSERT_EQ(1u, slot);
    EXPECT_TRUE(log.Contains("Register DLL " + Utf8(ModuleFileName("counting_isr")) + "\n\r"));

    const auto calls = isr.Calls();
    ASSERT_EQ(3u, calls.size());
    EXPECT_EQ(ZOR_FN_SET_ISR_HANDLE, calls[0].code);
    EXPECT_EQ(slot, calls[0].arg);
    EXPECT_EQ(ZOR_FN_SET_SERVICE_PROC, calls[1].code);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(&ServiceProc), calls[1].arg);
    EXPECT_EQ(ZOR_FN_INITIALIZE, calls[2].code);
    EXPECT_EQ(0u, calls[2].arg);  // no shared memory

    const ModuleSlot& s = h.slots[slot];
    EXPECT_EQ(kKindIsr, s.kind.load());
    EXPECT_EQ(slot, s.number.load());
    EXPECT_EQ(1u, s.priority.load());
    EXPECT_NE(nullptr, s.locker);
    EXPECT_EQ(0u, s.startPending.load());
    // The module's image is recorded in the system page locker.
    EXPECT_NE(0u, h.lockedNames.Find(isr.FileName()));
    EXPECT_EQ(1u, h.sysLocker.Count());
}

TEST_F(HostTest, ANewModuleIsAnnouncedToTheOthersButNotToItself) {
    CountingIsr a("counting_isr"), b("counting_isr_b");
    const std::uint32_t sa = RegisterIsr(h, "counting_isr");
    a.Reset();
    const std::uint32_t sb = RegisterIsr(h, "counting_isr_b");
    ASSERT_EQ(2u, sb);
    const auto callsA = a.Calls();
    ASSERT_EQ(1u, callsA.size());
    EXPECT_EQ(ZOR_FN_ATTACH, callsA[0].code);
    EXPECT_EQ(sb, callsA[0].arg);
    EXPECT_EQ(0u, b.CountOf(ZOR_FN_ATTACH));
    (void)sa;
}

TEST_F(HostTest, RegisteringTheSameNameReplacesTheOldModule) {
    CountingIsr isr;
    const std::uint32_t first = RegisterIsr(h, "counting_isr");
    isr.Reset();
    // The same file again (names compare ignoring case; file systems may not).
    const std::u16string upper = ModuleFileName("counting_isr");
    const auto p = RegisterPayload(os::current_process_id(), 0, upper);
    h.registry.RegisterISRProc(p.data(), static_cast<std::uint32_t>(p.size()));

    EXPECT_TRUE(log.Contains("ZOR: ISR '" + Utf8(upper) +
                             "' already registered! Unregistering old version...\n\r"));
    // Detached from itself and shut down before the new instance starts.
    EXPECT_EQ((std::vector<std::uint32_t>{ZOR_FN_DETACH, ZOR_FN_SHUTDOWN, ZOR_FN_SET_ISR_HANDLE,
                                          ZOR_FN_SET_SERVICE_PROC, ZOR_FN_INITIALIZE}),
              isr.Codes());
    EXPECT_EQ(first, h.registry.FindModule(upper.c_str()));
    std::uint32_t inUse = 0;
    for (std::uint32_t s = 1; s < SlotTable::kSlots; ++s) inUse += h.slots[s].inUse.load();
    EXPECT_EQ(1u, inUse);
    EXPECT_EQ(1u, h.sysLocker.Count());
}

TEST_F(HostTest, WithAllSlotsTakenRegistrationFailsWithTheListMessage) {
    for (std::uint32_t i = 1; i < SlotTable::kSlots; ++i) {
        ASSERT_EQ(i, h.slots.Alloc());
        h.slots[i].kind.store(kKindIrq);  // left alone by unregistration
        h.slots[i].inUse.store(1);
    }
    const auto p = RegisterPayload(os::current_process_id(), 0, ModuleFileName("counting_isr"));
    EXPECT_EQ(0u, h.registry.RegisterISRProc(p.data(), static_cast<std::uint32_t>(p.size())));
    EXPECT_TRUE(log.Contains("ZOR: Failed to add '" + Utf8(ModuleFileName("counting_isr")) +
                             "' to internal list\n\r"));
    for (std::uint32_t i = 1; i < SlotTable::kSlots; ++i) h.slots.Free(i);
}

TEST_F(HostTest, PendingStartsAreRetriedAfterEveryLaterRegistrationUntilTheyStart) {
    TestModule pending("pending_isr");
    auto reset = pending.Fn<void (*)()>("PendingIsr_Reset");
    auto ready = pending.Fn<void (*)(std::uint32_t)>("PendingIsr_SetReady");
    auto inits = pending.Fn<std::uint32_t (*)()>("PendingIsr_Inits");
    reset();
    CountingIsr b("counting_isr_b"), c("counting_isr_c");

    const std::uint32_t sp = RegisterIsr(h, "pending_isr");
    ASSERT_NE(0u, sp);
    EXPECT_EQ(1u, h.slots[sp].startPending.load());
    EXPECT_EQ(2u, inits());  // at registration, then once in the pass that follows it

    // A module that is itself pending: the pass runs once and starts nothing.
    b.SetAnswer(ZOR_FN_INITIALIZE, ZOR_INIT_PENDING);
    const std::uint32_t sb = RegisterIsr(h, "counting_isr_b");
    EXPECT_EQ(3u, inits());
    EXPECT_EQ(1u, h.slots[sb].startPending.load());

    // Now b starts in the first pass, which makes a second pass.
    b.Reset();  // answers 0 again
    RegisterIsr(h, "counting_isr_c");
    EXPECT_EQ(0u, h.slots[sb].startPending.load());
    EXPECT_EQ(1u, b.CountOf(ZOR_FN_INITIALIZE));
    EXPECT_EQ(5u, inits());
    EXPECT_EQ(1u, h.slots[sp].startPending.load());

    ready(1);
    h.registry.RetryPendingStarts();
    EXPECT_EQ(0u, h.slots[sp].startPending.load());
    EXPECT_EQ(6u, inits());
    h.registry.RetryPendingStarts();
    EXPECT_EQ(6u, inits());
}

// ------------------------------------------------------------ lookups

TEST_F(HostTest, LookupsByNameAndByNumber) {
    EXPECT_EQ(0u, h.registry.FindModule(u"counting_isr"));
    CountingIsr a("counting_isr"), b("counting_isr_b"), c("counting_isr_c");
    RegisterIsr(h, "counting_isr");
    const std::uint32_t sb = RegisterIsr(h, "counting_isr_b", 8192);
    RegisterIsr(h, "counting_isr_c");
    ASSERT_EQ(2u, sb);
    const std::u16string shout = ModuleFileName("COUNTING_isr_B");
    EXPECT_EQ(sb, h.registry.FindModule(shout.c_str()));
    EXPECT_EQ(8192u, h.registry.ModuleInfo(sb));
    EXPECT_EQ(0u, h.registry.ModuleInfo(1));
    EXPECT_EQ(0u, h.registry.ModuleInfo(4));

    // A released slot is not found by name but keeps its number and size.
    EXPECT_EQ(0u, h.registry.UnregisterCommand(sb));
    EXPECT_EQ(0u, h.registry.FindModule(shout.c_str()));
    EXPECT_EQ(8192u, h.registry.ModuleInfo(sb));
}

// ------------------------------------------------------------ unregistration

TEST_F(HostTest, UnregistrationDetachesEveryModuleIncludingTheLeavingOneThenShutsItDown) {
    CountingIsr a("counting_isr"), b("counting_isr_b");
    RegisterIsr(h, "counting_isr");
    const std::uint32_t sb = RegisterIsr(h, "counting_isr_b");
    a.Reset();
    b.Reset();
    log.Clear();

    EXPECT_EQ(0u, h.registry.UnregisterCommand(sb));
    EXPECT_TRUE(log.Contains("ZOR: Unregistering ISR '" + Utf8(ModuleFileName("counting_isr_b")) + "'\n\r"));
    ASSERT_EQ(1u, a.Count());
    EXPECT_EQ(ZOR_FN_DETACH, a.Calls()[0].code);
    EXPECT_EQ(sb, a.Calls()[0].arg);
    const auto callsB = b.Calls();
    ASSERT_EQ(2u, callsB.size());
    EXPECT_EQ(ZOR_FN_DETACH, callsB[0].code);
    EXPECT_EQ(sb, callsB[0].arg);
    EXPECT_EQ(ZOR_FN_SHUTDOWN, callsB[1].code);
    EXPECT_EQ(0u, h.slots[sb].inUse.load());
    EXPECT_EQ(0u, h.lockedNames.Find(b.FileName()));
    EXPECT_EQ(2u, h.slots.HighWater() + 0u);  // slot 1 still in use
}

TEST_F(HostTest, UnregisteringUnknownOrForeignNumbersChangesNothing) {
    CountingIsr isr;
    const std::uint32_t slot = RegisterIsr(h, "counting_isr");
    log.Clear();
    h.registry.UnregisterCommand(77);
    EXPECT_TRUE(log.Contains("ZOR: Unregistering ISR #77 failed!\n\r"));
    // A driver slot is not an ISR: matched, but left alone.
    const std::uint32_t irq = h.slots.Alloc();
    h.slots[irq].number.store(irq);
    h.slots[irq].kind.store(kKindIrq);
    h.slots[irq].inUse.store(1);
    h.registry.UnregisterCommand(irq);
    EXPECT_EQ(1u, h.slots[irq].inUse.load());
    h.registry.UnregisterISR(0);
    h.registry.UnregisterISR(100);
    EXPECT_EQ(1u, h.slots[slot].inUse.load());
    h.slots.Free(irq);
}

TEST_F(HostTest, UnregistrationRemovesTheModulesCustomServices) {
    CountingIsr isr;
    const std::uint32_t slot = RegisterIsr(h, "counting_isr");
    auto fn = [](std::uint32_t, std::uintptr_t, std::uintptr_t, std::uintptr_t, std::uintptr_t,
                 std::uintptr_t, std::uintptr_t) -> std::uint32_t { return 1234; };
    ASSERT_EQ(0u, h.services.InstallService(slot, 0x500, fn));
    EXPECT_EQ(1234, h.services.Call(0x500, 0, 0, 0, 0, 0, 0, nullptr));
    h.registry.UnregisterCommand(slot);
    EXPECT_EQ(0, h.services.Call(0x500, 0, 0, 0, 0, 0, 0, nullptr));
}

// ------------------------------------------------------------ bad payloads

TEST_F(RecordedRegistry, MalformedPayloadsAreRefusedWithoutReadingPastThem) {
    const auto p = RegisterPayload(os::current_process_id(), 0, u"counting_isr.xyz");
    ASSERT_EQ(50u, p.size());
    // Cut before the terminator: the name runs to the end of the payload.
    EXPECT_EQ(0u, h.registry.RegisterISRProc(p.data(), static_cast<std::uint32_t>(p.size() - 2)));
    EXPECT_EQ(0u, h.registry.RegisterISRProc(p.data(), 16));
    EXPECT_EQ(0u, h.registry.RegisterISRProc(p.data(), 3));
    EXPECT_EQ(0u, h.registry.RegisterISRProc(nullptr, 100));
    for (const char* size : {"48", "16", "3", "100"}) {
        EXPECT_TRUE(log.Contains(std::string("ZOR: RegisterISRProc: malformed request refused (") +
                                 size + " bytes)!\n\r"))
            << size;
    }

    // 20 units is too long even with a terminator; 19 units is a name.
    const auto p20 = RegisterPayload(1, 0, u"abcdefghijklmnop.so0");
    EXPECT_EQ(0u, h.registry.RegisterISRProc(p20.data(), static_cast<std::uint32_t>(p20.size())));
    EXPECT_TRUE(log.ContainsSubstr("ZOR: RegisterISRProc: module name too long"));
    EXPECT_TRUE(rec.events.empty());
    const auto p19 = RegisterPayload(1, 0, u"abcdefghijklmnop.so");
    EXPECT_EQ(0u, h.registry.RegisterISRProc(p19.data(), static_cast<std::uint32_t>(p19.size())));
    EXPECT_TRUE(log.Contains("ZOR: Failed to load ISR: 'abcdefghijklmnop.so'\n\r"));
    EXPECT_TRUE(NothingInUse());
}

// ------------------------------------------------------------ shared memory and release order

TEST_F(RecordedRegistry, SharedMemoryIsMappedLockedAndHandedToTheModule) {
    CountingIsr isr;
    rec.events.clear();
    const std::uint64_t remote = Register("counting_isr", 4096);
    EXPECT_NE(0u, remote);
    EXPECT_EQ((Events{"create", "open", "dup", "close process", "map", "load", "symbol"}),
              rec.events);
    const auto calls = isr.Calls();
    ASSERT_EQ(3u, calls.size());
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(rec.view), calls[2].arg);  // Initialize
    // The view and the module image are both in the system locker.
    ASSERT_EQ(2u, h.sysLocker.Count());
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(rec.view), h.sysLocker.Base(0));

    rec.events.clear();
    h.registry.UnregisterCommand(1);
    EXPECT_EQ((Events{"free", "unmap", "close mapping"}), rec.events);
    EXPECT_TRUE(NothingInUse());
}

TEST_F(RecordedRegistry, EachFailingStepReleasesWhatCameBeforeInReverseOrder) {
    CountingIsr isr;
    const std::string name = Utf8(ModuleFileName("counting_isr"));
    struct Case {
        const char* failing;
        Events events;
        std::string message;
    };
    const Case cases[] = {
        {"create", {"create"},
         "ZOR: RegisterISRProc of  '" + name + "' failed to alloc 4096 bytes shared memory!\n\r"},
        {"open", {"create", "open", "close mapping"},
         "ZOR: RegisterISRProc of  '" + name + "' failed to duplicate handle for shared memory ("},
        {"dup", {"create", "open", "dup", "close process", "close mapping"},
         "ZOR: RegisterISRProc of  '" + name + "' failed to duplicate handle for shared memory ("},
        {"map", {"create", "open", "dup", "close process", "map", "close mapping"},
         "ZOR: RegisterISRProc of  '" + name + "' failed to map view of shared memory!\n\r"},
        {"load", {"create", "open", "dup", "close process", "map", "load", "unmap", "close mapping"},
         "ZOR: Failed to load ISR: '" + name + "'\n\r"},
        {"symbol",
         {"create", "open", "dup", "close process", "map", "load", "symbol", "free", "unmap",
          "close mapping"},
         "ZOR: Failed to locate ISR_GetSet in module '" + name + "'\n\r"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.failing);
        rec.events.clear();
        rec.failing = c.failing;
        log.Clear();
        EXPECT_EQ(0u, Register("counting_isr", 4096));
        EXPECT_EQ(c.events, rec.events);
        EXPECT_TRUE(log.ContainsSubstr(c.message));
        EXPECT_TRUE(NothingInUse());
        EXPECT_EQ(0u, h.dispatcher.paused.load());
        EXPECT_EQ(0u, isr.Count());
    }
}

TEST_F(RecordedRegistry, AModuleWithoutTheEntryIsUnloadedAgain) {
    EXPECT_EQ(0u, Register("noexport_isr", 0));
    EXPECT_EQ((Events{"load", "symbol", "free"}), rec.events);
    EXPECT_TRUE(log.Contains("ZOR: Failed to locate ISR_GetSet in module '" +
                             Utf8(ModuleFileName("noexport_isr")) + "'\n\r"));
    EXPECT_TRUE(NothingInUse());
}

// ------------------------------------------------------------ preparation and shutdown

TEST(RegistryLifecycle, PreparedTablesLockTheHostImageAndUnloadAllUndoesEverything) {
    test::TestHost th(true);
    Host& h = th.host();
    EXPECT_EQ(os::processor_count(), h.dispatcher.processorCount.load());
    ASSERT_EQ(1u, h.sysLocker.Count());  // the host's own image
    const std::uint32_t hostNames = [&] {
        std::uint32_t n = 0;
        for (std::uint32_t i = 1; i < LockedNames::kSlots; ++i) n += h.lockedNames.Slot(i)[0] != 0;
        return n;
    }();
    EXPECT_EQ(1u, hostNames);

    CountingIsr a("counting_isr"), b("counting_isr_b");
    RegisterIsr(h, "counting_isr");
    RegisterIsr(h, "counting_isr_b");
    h.registry.UnloadAll();
    EXPECT_EQ(1u, a.CountOf(ZOR_FN_SHUTDOWN));
    EXPECT_EQ(1u, b.CountOf(ZOR_FN_SHUTDOWN));
    EXPECT_EQ(0u, h.slots.HighWater());
    EXPECT_EQ(0u, h.sysLocker.Count());
    for (std::uint32_t i = 1; i < LockedNames::kSlots; ++i) EXPECT_EQ(0, h.lockedNames.Slot(i)[0]);
}

}  // namespace
}  // namespace zor
