// The fault guard against the hard cases of real driver code, all raised
// inside a loaded module (tests/testmods/fault_lib): code without unwind
// information, a stack pointer outside the thread's stack, deep and
// cleanup-carrying frames, a fault inside the C library on the module's
// behalf, and the registers a caller relies on after a caught fault.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <tuple>

#include "os/os.h"

namespace os = zor::os;

namespace {

std::u16string ModuleFile(const void* address) {
    os::Region r{};
    char16_t name[1024];
    if (!os::region_query(address, &r) || !os::module_file_name(r.alloc_base, name, 1024))
        return u"unknown";
    std::u16string path(name);
    std::size_t s = path.find_last_of(u"\\/");
    std::u16string file = s == std::u16string::npos ? path : path.substr(s + 1);
    for (char16_t& c : file)
        if (c >= u'A' && c <= u'Z') c += 32;
    return file;
}

std::u16string FaultLibFile() { return std::u16string(u"fault_lib") + ZOR_MODULE_SUFFIX; }

// An address that is never mapped, hidden from the compiler.
volatile int* volatile kBad = reinterpret_cast<volatile int*>(16);

class FaultLib : public ::testing::Test {
protected:
    void SetUp() override {
        lib_ = os::module_load(FaultLibFile().c_str());
        ASSERT_NE(lib_, nullptr);
        noUnwind = Get<void (*)()>("fault_lib_no_unwind");
        privateStack = Get<void (*)(void*, std::size_t)>("fault_lib_private_stack");
        deep = Get<int (*)(int, volatile int*)>("fault_lib_deep");
        withCleanup = Get<void (*)(volatile int*)>("fault_lib_with_cleanup");
        asmCallsCleanup = Get<void (*)(volatile int*)>("fault_lib_asm_calls_cleanup");
        copyFrom = Get<void (*)(const void*)>("fault_lib_copy_from");
        clobber = Get<void (*)()>("fault_lib_clobber_and_fault");
        keptAcross = Get<std::uint32_t (*)(void (*)())>("fault_lib_registers_kept_across");
    }
    void TearDown() override {
        if (lib_) {
            EXPECT_TRUE(os::module_free(lib_));
        }
    }
    template <class F>
    F Get(const char* name) {
        void* p = os::module_symbol(lib_, name);
        EXPECT_NE(p, nullptr) << name;
        return reinterpret_cast<F>(p);
    }

    // Runs f(args...) under a guard and expects a caught fault named after
    // the module; the thread must be able to go on with a normal call.
    template <class F, class... A>
    void ExpectCaughtInModule(F f, A... args) {
        struct Call {
            F f;
            std::tuple<A...> args;
        } call{f, {args...}};
        os::Fault fault{};
        EXPECT_FALSE(os::guarded_run([](void* p) {
            auto* c = static_cast<Call*>(p);
            std::apply(c->f, c->args);
        }, &call, &fault));
        EXPECT_NE(fault.code, 0u);
        EXPECT_EQ(ModuleFile(fault.address), FaultLibFile());
        int n = 0;
        EXPECT_TRUE(os::guarded_run([](void* p) { ++*static_cast<int*>(p); }, &n, &fault));
        EXPECT_EQ(n, 1);
    }

    os::Module lib_ = nullptr;

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

// Hand-written code: no unwind information, words on the stack that are
// not return addresses, or a stack of its own; also as the caller of
// compiled code that faults.
TEST_F(FaultLib, HandWrittenCodeIsCaughtAndNamed) {
    for (int i = 0; i < 3; ++i) ExpectCaughtInModule(noUnwind);
    for (int i = 0; i < 3; ++i) ExpectCaughtInModule(asmCallsCleanup, kBad);
    auto stack = std::make_unique<char[]>(64 * 1024);
    for (int i = 0; i < 3; ++i) ExpectCaughtInModule(privateStack, static_cast<void*>(stack.get()), std::size_t{64 * 1024});
}

// Compiled code: a fault 50 frames down, and one inside a frame that the
// language runtime would clean up when unwound.
TEST_F(FaultLib, DeepAndCleanupFramesAreCaughtAndNamed) {
    ExpectCaughtInModule(deep, 50, kBad);
    ExpectCaughtInModule(withCleanup, kBad);
    int value = 7;
    os::Fault fault{};
    struct Call {
        FaultLib* t;
        int* v;
        int result;
    } call{this, &value, 0};
    EXPECT_TRUE(os::guarded_run([](void* p) {
        auto* c = static_cast<Call*>(p);
        c->result = c->t->deep(50, c->v);
    }, &call, &fault));
    EXPECT_EQ(call.result, 57);
}

// The C library faults on the module's behalf: still the module's fault.
TEST_F(FaultLib, FaultInsideTheCLibraryIsCaught) {
    struct Call {
        void (*copy)(const void*);
    } call{copyFrom};
    os::Fault fault{};
    EXPECT_FALSE(os::guarded_run([](void* p) { static_cast<Call*>(p)->copy(const_cast<int*>(kBad)); }, &call, &fault));
    EXPECT_NE(fault.code, 0u);
    EXPECT_NE(fault.address, nullptr);
}

// The code around a guarded call keeps values in the registers that every
// callee must preserve; a module that trashes them and faults must not
// leak that into its caller.
struct Kept {
    static inline void (*clobber)() = nullptr;
    static inline bool caught = false;
    static void Run() {
        os::Fault f{};
        caught = !os::guarded_run([](void*) { clobber(); }, nullptr, &f);
    }
};

TEST_F(FaultLib, CalleeKeptRegistersSurviveACaughtFault) {
    Kept::clobber = clobber;
    Kept::caught = false;
    EXPECT_EQ(keptAcross(Kept::Run), 0u) << "bits: rbx rbp r12 r13 r14 r15";
    EXPECT_TRUE(Kept::caught);
}

// Two threads fault in hand-written and deep code at the same time, while a
// third makes normal guarded calls that must never see a fault.
TEST_F(FaultLib, ThreadsFaultConcurrentlyWithoutDisturbingEachOther) {
    struct Shared {
        FaultLib* t;
        std::atomic<int> caught{0};
        std::atomic<int> wrong{0};
        std::atomic<bool> stop{false};
        std::atomic<int> clean{0};
    } shared;
    shared.t = this;
    auto faulter = [](void* p) -> std::uint32_t {
        auto* s = static_cast<Shared*>(p);
        auto stack = std::make_unique<char[]>(64 * 1024);
        struct Call {
            FaultLib* t;
            char* stack;
            int i;
        } call{s->t, stack.get(), 0};
        for (call.i = 0; call.i < 1000; ++call.i) {
            os::Fault f{};
            bool ok = os::guarded_run([](void* q) {
                auto* c = static_cast<Call*>(q);
                switch (c->i % 3) {
                    case 0: c->t->noUnwind(); break;
                    case 1: c->t->privateStack(c->stack, 64 * 1024); break;
                    default: c->t->deep(20, kBad); break;
                }
            }, &call, &f);
            if (!ok) ++s->caught;
            if (ok || f.code == 0) ++s->wrong;
        }
        return 0;
    };
    auto cleaner = [](void* p) -> std::uint32_t {
        auto* s = static_cast<Shared*>(p);
        while (!s->stop.load()) {
            int n = 0;
            os::Fault f{};
            if (!os::guarded_run([](void* q) { ++*static_cast<int*>(q); }, &n, &f) || n != 1) ++s->wrong;
            ++s->clean;
        }
        return 0;
    };
    os::Thread a = os::thread_create(faulter, &shared);
    os::Thread b = os::thread_create(faulter, &shared);
    os::Thread c = os::thread_create(cleaner, &shared);
    ASSERT_NE(a, 0u);
    ASSERT_NE(b, 0u);
    ASSERT_NE(c, 0u);
    EXPECT_EQ(os::thread_wait(a, 120000), 0u);
    EXPECT_EQ(os::thread_wait(b, 120000), 0u);
    shared.stop = true;
    EXPECT_EQ(os::thread_wait(c, 10000), 0u);
    for (os::Thread t : {a, b, c}) os::thread_close(t);
    EXPECT_EQ(shared.caught.load(), 2000);
    EXPECT_EQ(shared.wrong.load(), 0);
    EXPECT_GT(shared.clean.load(), 0);
}

}  // namespace
