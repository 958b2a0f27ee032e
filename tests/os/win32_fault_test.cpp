// The fault guard and structured exception handling on Windows: faults that
// a module or the system handles itself stay theirs, exceptions nobody
// handles are caught, and a caught fault leaves the caller's registers and
// floating-point state intact. The module (tests/testmods/win32_seh_lib)
// exists only in Windows builds; elsewhere these tests are skipped.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "os/os.h"

namespace os = zor::os;

namespace {

constexpr std::uint32_t kAccessViolation = 0xC0000005;
constexpr std::uint32_t kNoncontinuable = 1;
constexpr std::uint32_t kExecuteHandler = 1, kContinueSearch = 0;
constexpr std::uint32_t kGccThrow = 0x20474343;  // a C++ exception of a GCC-built module

// An address that is never mapped, hidden from the compiler.
volatile int* volatile kBad = reinterpret_cast<volatile int*>(16);

std::u16string SehLibFile() { return std::u16string(u"win32_seh_lib") + ZOR_MODULE_SUFFIX; }

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

void ReadBad(void*) { (void)*kBad; }

struct SehLib {
    os::Module m = nullptr;
    void (*setAnswer)(std::int32_t) = nullptr;
    std::int32_t (*filterCalls)() = nullptr;
    int (*readOwn)(volatile int*) = nullptr;
    int (*probe)(const void*) = nullptr;
    void (*raise)(std::uint32_t, std::uint32_t) = nullptr;
    void (*throwIt)() = nullptr;
    std::uint32_t (*guardedFault)() = nullptr;
    void (*clobber)() = nullptr;
    std::uint32_t (*keptAcross)(void (*)()) = nullptr;

    template <class F>
    void Get(F& f, const char* name) {
        f = reinterpret_cast<F>(os::module_symbol(m, name));
        EXPECT_NE(reinterpret_cast<void*>(f), nullptr) << name;
    }
    bool Load() {
        m = os::module_load(SehLibFile().c_str());
        if (!m) return false;
        Get(setAnswer, "seh_lib_set_answer");
        Get(filterCalls, "seh_lib_filter_calls");
        Get(readOwn, "seh_lib_read_own");
        Get(probe, "seh_lib_probe");
        Get(raise, "seh_lib_raise");
        Get(throwIt, "seh_lib_throw");
        Get(guardedFault, "seh_lib_guarded_fault");
        Get(clobber, "seh_lib_clobber_and_fault");
        Get(keptAcross, "seh_lib_state_kept_across");
        return true;
    }
};

class Win32Seh : public ::testing::Test {
protected:
    void SetUp() override {
        if (!lib.Load()) GTEST_SKIP() << "no structured exception handling on this platform";
    }
    void TearDown() override {
        if (lib.m) {
            EXPECT_TRUE(os::module_free(lib.m));
        }
    }
    // Runs fn(lib) under a guard; true when it returned normally.
    bool Guarded(void (*fn)(SehLib&), os::Fault* fault) {
        struct Call {
            void (*fn)(SehLib&);
            SehLib* lib;
        } call{fn, &lib};
        return os::guarded_run([](void* p) {
            auto* c = static_cast<Call*>(p);
            c->fn(*c->lib);
        }, &call, fault);
    }
    void ExpectGuardStillWorks() {
        os::Fault f{};
        EXPECT_FALSE(os::guarded_run(ReadBad, nullptr, &f));
        EXPECT_EQ(f.code, kAccessViolation);
        int n = 0;
        EXPECT_TRUE(os::guarded_run([](void* p) { ++*static_cast<int*>(p); }, &n, &f));
        EXPECT_EQ(n, 1);
    }
    SehLib lib;
};

TEST_F(Win32Seh, FaultsThatTheModuleOrTheSystemHandlesStayTheirs) {
    static int result;
    os::Fault f{};

    // The module's own handler takes the fault; the guard sees nothing.
    lib.setAnswer(kExecuteHandler);
    std::int32_t before = lib.filterCalls();
    result = 0;
    EXPECT_TRUE(Guarded([](SehLib& s) { result = s.readOwn(kBad); }, &f));
    EXPECT_EQ(result, -1);
    EXPECT_EQ(lib.filterCalls(), before + 1);

    // The system probes a pointer under its own handler, twice, with a fault
    // caught by the guard in between: neither side disturbs the other.
    for (int i = 0; i < 2; ++i) {
        result = 0;
        EXPECT_TRUE(Guarded([](SehLib& s) { result = s.probe(const_cast<int*>(kBad)); }, &f));
        EXPECT_NE(result, 0);
        EXPECT_TRUE(Guarded([](SehLib& s) { result = s.probe(&result); }, &f));
        EXPECT_EQ(result, 0);
        ExpectGuardStillWorks();
    }

    // A handler that passes the fault on leaves it to the guard, once.
    lib.setAnswer(kContinueSearch);
    before = lib.filterCalls();
    EXPECT_FALSE(Guarded([](SehLib& s) { result = s.readOwn(kBad); }, &f));
    EXPECT_EQ(f.code, kAccessViolation);
    EXPECT_EQ(ModuleFile(f.address), SehLibFile());
    EXPECT_EQ(lib.filterCalls(), before + 1);
    lib.setAnswer(kExecuteHandler);
    ExpectGuardStillWorks();
}

TEST_F(Win32Seh, ExceptionsThatNobodyHandlesAreCaughtWithTheirCode) {
    os::Fault f{};
    EXPECT_FALSE(Guarded([](SehLib& s) { s.raise(0xE0001234, 0); }, &f));
    EXPECT_EQ(f.code, 0xE0001234u);

    // One that cannot be continued has to be unwound to the guard.
    EXPECT_FALSE(Guarded([](SehLib& s) { s.raise(0xE0005678, kNoncontinuable); }, &f));
    EXPECT_EQ(f.code, 0xE0005678u);
    ExpectGuardStillWorks();

    EXPECT_FALSE(Guarded([](SehLib& s) { s.throwIt(); }, &f));
    EXPECT_EQ(f.code, kGccThrow);
    ExpectGuardStillWorks();
}

// What the Windows convention makes a callee keep besides the registers
// that both conventions share (see fault_guard_test.cpp).
TEST_F(Win32Seh, RegistersAndFloatingPointStateSurviveACaughtFault) {
    static SehLib* l;
    static bool caught;
    l = &lib;
    caught = false;
    std::uint32_t changed = lib.keptAcross([] {
        os::Fault f{};
        caught = !os::guarded_run([](void*) { l->clobber(); }, nullptr, &f);
    });
    EXPECT_EQ(changed, 0u) << "bits: rsi rdi xmm6..xmm15 mxcsr x87cw df";
    EXPECT_TRUE(caught);
}

// A library with its own copy of the guard installs and removes its own
// handler; once it is unloaded, faults and exceptions elsewhere are
// dispatched as before.
TEST_F(Win32Seh, ALibraryWithItsOwnGuardCanBeUnloaded) {
    EXPECT_EQ(lib.guardedFault(), kAccessViolation);
    EXPECT_TRUE(os::module_free(lib.m));
    lib.m = nullptr;
    ExpectGuardStillWorks();
    SehLib again;
    ASSERT_TRUE(again.Load());
    static int result;
    result = 0;
    os::Fault f{};
    lib = again;
    EXPECT_TRUE(Guarded([](SehLib& s) { result = s.probe(const_cast<int*>(kBad)); }, &f));
    EXPECT_NE(result, 0);
    EXPECT_EQ(lib.guardedFault(), kAccessViolation);
}

}  // namespace
