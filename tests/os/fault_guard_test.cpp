// The fault guard against the hard cases of real driver code, all raised
// inside loaded modules: code without unwind information, a stack pointer
// outside the thread's stack, deep and cleanup-carrying frames, a fault in
// the C library on a module's behalf, the registers a caller relies on, and
// on Windows the faults that a module or the system handles itself.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "common/module_names.h"
#include "common/test_host.h"
#include "os/os.h"

namespace os = zor::os;
using zor::test::kBadAddress;
using zor::test::ModuleFileOf;

namespace {

// Runs f() under a guard; true when it returned normally.
template <class F>
bool Guard(F f, os::Fault* fault) {
    return os::guarded_run([](void* p) { (*static_cast<F*>(p))(); }, &f, fault);
}

// After a caught fault the thread goes on with normal guarded calls.
void ExpectGuardStillWorks() {
    os::Fault f{};
    EXPECT_FALSE(Guard([] { (void)*kBadAddress; }, &f));
    EXPECT_NE(f.code, 0u);
    int n = 0;
    EXPECT_TRUE(Guard([&] { ++n; }, &f));
    EXPECT_EQ(n, 1);
}

// A test module opened by the test, and its exports.
struct Lib : zor::test::TestModule {
    using TestModule::TestModule;
    template <class F>
    void Get(F& f, const char* symbol) {
        f = Fn<F>(symbol);
        EXPECT_NE(reinterpret_cast<void*>(f), nullptr) << symbol;
    }
    std::u16string File() const { return FileName(); }
};

// Registers a callee keeps: the code around a guarded call holds values
// there; a module that trashes them and faults must not leak that out.
struct Kept {
    static inline void (*clobber)() = nullptr;
    static inline bool caught = false;
    static void Run() {
        os::Fault f{};
        caught = !Guard([] { clobber(); }, &f);
    }
    static std::uint32_t Changed(std::uint32_t (*keptAcross)(void (*)()), void (*c)()) {
        clobber = c;
        caught = false;
        std::uint32_t bits = keptAcross(Run);
        EXPECT_TRUE(caught);
        return bits;
    }
};

class FaultLib : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(lib.Loaded());
        lib.Get(noUnwind, "fault_lib_no_unwind");
        lib.Get(privateStack, "fault_lib_private_stack");
        lib.Get(deep, "fault_lib_deep");
        lib.Get(withCleanup, "fault_lib_with_cleanup");
        lib.Get(asmCallsCleanup, "fault_lib_asm_calls_cleanup");
        lib.Get(copyFrom, "fault_lib_copy_from");
        lib.Get(clobber, "fault_lib_clobber_and_fault");
        lib.Get(keptAcross, "fault_lib_registers_kept_across");
    }
    // Expects f() to fault, caught and named after the module.
    template <class F>
    void ExpectCaughtInModule(F f) {
        os::Fault fault{};
        EXPECT_FALSE(Guard(f, &fault));
        EXPECT_NE(fault.code, 0u);
        EXPECT_EQ(ModuleFileOf(fault.address), lib.File());
        ExpectGuardStillWorks();
    }

    Lib lib{"fault_lib"};

public:
    void (*noUnwind)() = nullptr;
    void (*privateStack)(void*, std::size_t) = nullptr;
    int (*deep)(int, volatile int*) = nullptr;
    void (*withCleanup)(volatile int*) = nullptr;
    void (*asmCallsCleanup)(volatile int*) = nullptr;
    void (*copyFrom)(const void*) = nullptr;
    void (*clobber)() = nullptr;
    std::uint32_t (*keptAcross)(void (*)()) = nullptr;
};

// Hand-written code (no unwind information, words on the stack that are
// not return addresses, a stack of its own, or calling compiled code that
// faults) and compiled code (50 frames down, or in a frame the language
// runtime would clean up).
TEST_F(FaultLib, FaultsInAnyKindOfModuleCodeAreCaughtAndNamed) {
    auto stack = std::make_unique<char[]>(64 * 1024);
    for (int i = 0; i < 3; ++i) {
        ExpectCaughtInModule([&] { noUnwind(); });
        ExpectCaughtInModule([&] { asmCallsCleanup(kBadAddress); });
        ExpectCaughtInModule([&] { privateStack(stack.get(), 64 * 1024); });
    }
    ExpectCaughtInModule([&] { deep(50, kBadAddress); });
    ExpectCaughtInModule([&] { withCleanup(kBadAddress); });
    int value = 7, result = 0;
    os::Fault fault{};
    EXPECT_TRUE(Guard([&] { result = deep(50, &value); }, &fault));
    EXPECT_EQ(result, 57);

    // The C library faults on the module's behalf: still caught.
    EXPECT_FALSE(Guard([&] { copyFrom(const_cast<int*>(kBadAddress)); }, &fault));
    EXPECT_NE(fault.code, 0u);
    EXPECT_NE(fault.address, nullptr);
}

TEST_F(FaultLib, CalleeKeptRegistersSurviveACaughtFault) {
    EXPECT_EQ(Kept::Changed(keptAcross, clobber), 0u) << "bits: rbx rbp r12 r13 r14 r15";
}

// Two threads fault in hand-written and deep code at the same time: each
// fault is caught on its own thread, and nothing is caught twice or lost.
TEST_F(FaultLib, ThreadsFaultConcurrentlyWithoutDisturbingEachOther) {
    static FaultLib* t;
    static std::atomic<int> caught, wrong;
    t = this, caught = 0, wrong = 0;
    auto faulter = [](void*) -> std::uint32_t {
        auto stack = std::make_unique<char[]>(64 * 1024);
        for (int i = 0; i < 1000; ++i) {
            os::Fault f{};
            int n = 0;
            const bool ok = Guard([&] {
                if (i % 4 == 0) t->noUnwind();
                if (i % 4 == 1) t->privateStack(stack.get(), 64 * 1024);
                if (i % 4 == 2) t->deep(20, kBadAddress);
                ++n;
            }, &f);
            caught += !ok;
            wrong += ok != (i % 4 == 3) || (ok && n != 1) || (!ok && f.code == 0);
        }
        return 0;
    };
    os::Thread a = os::thread_create(faulter, nullptr), b = os::thread_create(faulter, nullptr);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(os::thread_wait(a, 120000) + os::thread_wait(b, 120000), 0u);
    os::thread_close(a), os::thread_close(b);
    EXPECT_EQ(caught.load(), 1500);
    EXPECT_EQ(wrong.load(), 0);
}

void IllegalInstruction() { __builtin_trap(); }
void DivideByZero() {
    asm volatile("xorl %%ecx, %%ecx\n\tmovl $1, %%eax\n\txorl %%edx, %%edx\n\tdivl %%ecx"
                 ::: "eax", "ecx", "edx");
}
int Recurse(volatile char* p, int depth) {
    volatile char frame[4096];
    frame[0] = *p;
    if (depth == -1) return frame[0];
    return Recurse(frame, depth + 1) + frame[1];
}
void Overflow() {
    char c = 0;
    Recurse(&c, 0);
}

// The other machine faults, a stack overflow twice (its guard page must come
// back), and guards nested as when an ISR calls a service that guards its own
// calls: the innermost catches, and afterwards the outer one is active again.
TEST(OsFaultGuard, EveryKindOfFaultIsCaughtAndNestedGuardsCatchInnermost) {
    for (void (*body)() : {IllegalInstruction, DivideByZero, Overflow, Overflow}) {
        os::Fault f{};
        EXPECT_FALSE(Guard(body, &f));
        EXPECT_NE(f.code, 0u);
        ExpectGuardStillWorks();
    }
    os::Fault outer{}, inner{};
    bool innerOk = true;
    EXPECT_TRUE(Guard([&] { innerOk = Guard([] { (void)*kBadAddress; }, &inner); }, &outer));
    EXPECT_FALSE(innerOk);
    EXPECT_FALSE(Guard([&] {
        Guard([] {}, &inner);
        (void)*kBadAddress;
    }, &outer));
}

// Structured exception handling on Windows (the module exists only in
// Windows builds; elsewhere these tests are skipped).
constexpr std::uint32_t kAccessViolation = 0xC0000005;
constexpr std::uint32_t kExecuteHandler = 1, kContinueSearch = 0;

struct SehLib : Lib {
    SehLib() : Lib("win32_seh_lib") {
        if (!Loaded()) return;
        Get(setAnswer, "seh_lib_set_answer");
        Get(filterCalls, "seh_lib_filter_calls");
        Get(readOwn, "seh_lib_read_own");
        Get(probe, "seh_lib_probe");
        Get(raise, "seh_lib_raise");
        Get(throwIt, "seh_lib_throw");
        Get(guardedFault, "seh_lib_guarded_fault");
    }
    void (*setAnswer)(std::int32_t) = nullptr;
    std::int32_t (*filterCalls)() = nullptr;
    int (*readOwn)(volatile int*) = nullptr;
    int (*probe)(const void*) = nullptr;
    void (*raise)(std::uint32_t, std::uint32_t) = nullptr;
    void (*throwIt)() = nullptr;
    std::uint32_t (*guardedFault)() = nullptr;
};

class Win32Seh : public ::testing::Test {
protected:
    void SetUp() override {
        if (!lib) GTEST_SKIP() << "no structured exception handling on this platform";
    }
    // The system probes a pointer under its own handler: a bad one is
    // answered, not raised to the guard.
    void ExpectProbeAnswers(SehLib& l) {
        int result = 0;
        os::Fault f{};
        EXPECT_TRUE(Guard([&] { result = l.probe(const_cast<int*>(kBadAddress)); }, &f));
        EXPECT_NE(result, 0);
        EXPECT_TRUE(Guard([&] { result = l.probe(&result); }, &f));
        EXPECT_EQ(result, 0);
    }
    std::unique_ptr<SehLib> lib = [] {
        auto l = std::make_unique<SehLib>();
        return l->Loaded() ? std::move(l) : nullptr;
    }();
};

TEST_F(Win32Seh, FaultsThatTheModuleOrTheSystemHandlesStayTheirs) {
    int result = 0;
    os::Fault f{};
    // The module's own handler takes the fault; the guard sees nothing.
    lib->setAnswer(kExecuteHandler);
    std::int32_t before = lib->filterCalls();
    EXPECT_TRUE(Guard([&] { result = lib->readOwn(kBadAddress); }, &f));
    EXPECT_EQ(result, -1);
    EXPECT_EQ(lib->filterCalls(), before + 1);
    // Twice, with a fault caught by the guard in between.
    for (int i = 0; i < 2; ++i) {
        ExpectProbeAnswers(*lib);
        ExpectGuardStillWorks();
    }
    // A handler that passes the fault on leaves it to the guard, once.
    lib->setAnswer(kContinueSearch);
    before = lib->filterCalls();
    EXPECT_FALSE(Guard([&] { result = lib->readOwn(kBadAddress); }, &f));
    EXPECT_EQ(f.code, kAccessViolation);
    EXPECT_EQ(ModuleFileOf(f.address), lib->File());
    EXPECT_EQ(lib->filterCalls(), before + 1);
    lib->setAnswer(kExecuteHandler);
    ExpectGuardStillWorks();
}

TEST_F(Win32Seh, ExceptionsThatNobodyHandlesAreCaughtWithTheirCode) {
    constexpr std::uint32_t kNoncontinuable = 1, kGccThrow = 0x20474343;
    struct Case {
        std::uint32_t code, flags;
    } cases[] = {{0xE0001234, 0}, {0xE0005678, kNoncontinuable}, {kGccThrow, 0}};
    for (const Case& c : cases) {
        os::Fault f{};
        // One that cannot be continued has to be unwound to the guard.
        EXPECT_FALSE(Guard([&] { c.code == kGccThrow ? lib->throwIt() : lib->raise(c.code, c.flags); }, &f));
        EXPECT_EQ(f.code, c.code);
        ExpectGuardStillWorks();
    }
}

// A library with its own copy of the guard installs and removes its own
// handler; once it is unloaded, faults elsewhere are dispatched as before.
TEST_F(Win32Seh, ALibraryWithItsOwnGuardCanBeUnloaded) {
    EXPECT_EQ(lib->guardedFault(), kAccessViolation);
    lib.reset();
    ExpectGuardStillWorks();
    SehLib again;
    ASSERT_TRUE(again.Loaded());
    ExpectProbeAnswers(again);
    EXPECT_EQ(again.guardedFault(), kAccessViolation);
}

}  // namespace
