// The fault guard's basic cases; fault_guard_test.cpp has the hard ones.
#include <gtest/gtest.h>

#include <string>

#include "common/module_names.h"
#include "common/test_log.h"
#include "os/os.h"

namespace os = zor::os;
using zor::test::ModuleFileOf;

namespace {


void ReadBad(void*) { (void)*zor::test::kBadAddress; }
void Nothing(void* ctx) { ++*static_cast<int*>(ctx); }
void IllegalInstruction(void*) { __builtin_trap(); }
void DivideByZero(void*) {
    asm volatile("xorl %%ecx, %%ecx\n\tmovl $1, %%eax\n\txorl %%edx, %%edx\n\tdivl %%ecx"
                 ::: "eax", "ecx", "edx");
}
int Recurse(volatile char* p, int depth) {
    volatile char frame[4096];
    frame[0] = *p;
    if (depth == -1) return frame[0];
    return Recurse(frame, depth + 1) + frame[1];
}
void Overflow(void*) {
    char c = 0;
    Recurse(&c, 0);
}

TEST(OsFaultGuard, MachineFaultsAreCaughtAndTheThreadGoesOn) {
    int calls = 0;
    os::Fault f{};
    using Body = void (*)(void*);
    for (Body body : {ReadBad, IllegalInstruction, DivideByZero, Overflow, Overflow}) {
        f = {};
        EXPECT_FALSE(os::guarded_run(body, nullptr, &f));
        EXPECT_NE(f.code, 0u);
        EXPECT_TRUE(ModuleFileOf(f.address).starts_with(u"os_tests") || body == Overflow);
        EXPECT_TRUE(os::guarded_run(Nothing, &calls, &f));
    }
    EXPECT_EQ(calls, 5);
}

// A call through null has no code address: the caller inside the module is named.
TEST(OsFaultGuard, ACallThroughNullNamesTheCallingModule) {
    os::Module m = os::module_load(zor::test::TestModulePath("os_probe_lib").c_str());
    ASSERT_NE(m, nullptr);
    static void (*call)(void (*)()) = reinterpret_cast<void (*)(void (*)())>(os::module_symbol(m, "os_probe_call"));
    ASSERT_NE(call, nullptr);
    os::Fault f{};
    EXPECT_FALSE(os::guarded_run([](void*) { call(nullptr); }, nullptr, &f));
    EXPECT_TRUE(ModuleFileOf(f.address).starts_with(u"os_probe_lib"));
    EXPECT_TRUE(os::module_free(m));
}

// A service called from a guarded ISR runs its own guarded calls.
TEST(OsFaultGuard, NestedGuardsCatchAtTheInnermostLevel) {
    static bool inner = true;
    static int after = 0;
    os::Fault outer{};
    EXPECT_TRUE(os::guarded_run([](void*) {
        os::Fault f{};
        inner = os::guarded_run(ReadBad, nullptr, &f);
        after = 1;
    }, nullptr, &outer));
    EXPECT_FALSE(inner);
    EXPECT_EQ(after, 1);
    // After an inner call the outer guard is still the active one.
    EXPECT_FALSE(os::guarded_run([](void*) {
        static int n;
        os::Fault ignored;
        os::guarded_run(Nothing, &n, &ignored);
        ReadBad(nullptr);
    }, nullptr, &outer));
}

}  // namespace
