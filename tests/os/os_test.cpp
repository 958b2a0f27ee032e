// The OS layer as the core relies on it. The same tests run against the
// Windows implementation (under Wine) and the posix one, so they use only
// os.h, the standard library and paths written with '/' for the standard
// library and '\\' for the OS layer.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <utility>
#include <string>

#include "common/module_names.h"
#include "common/scoped_env.h"
#include "os/os.h"

namespace os = zor::os;
namespace fs = std::filesystem;
using zor::test::ModuleFileOf;

namespace {

std::u16string Widen(const char* s) {
    std::u16string w;
    while (*s) w += static_cast<char16_t>(static_cast<unsigned char>(*s++));
    return w;
}

std::u16string Slashed(std::u16string p, char16_t sep) {
    for (char16_t& c : p)
        if (c == u'/' || c == u'\\') c = sep;
    return p;
}

std::u16string FilePart(const std::u16string& p) {
    std::size_t s = p.find_last_of(u"\\/");
    return s == std::u16string::npos ? p : p.substr(s + 1);
}

bool StartsWithNoCase(const std::u16string& s, const std::u16string& prefix) {
    if (s.size() < prefix.size()) return false;
    for (std::size_t i = 0; i < prefix.size(); ++i) {
        char16_t a = s[i], b = prefix[i];
        if (a >= u'A' && a <= u'Z') a += 32;
        if (b >= u'A' && b <= u'Z') b += 32;
        if (a != b) return false;
    }
    return true;
}

// A fresh folder next to the test program, removed at the end of a test.
class TempDir {
public:
    TempDir() {
        char16_t dir[1024];
        EXPECT_TRUE(os::startup_dir(dir, 1024));
        path_ = std::u16string(dir) + u"\\os_test_" +
                Widen(std::to_string(os::current_process_id()).c_str());
        fs::remove_all(Fs(u""));
        fs::create_directories(Fs(u""));
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(Fs(u""), ec);
    }
    // The path as the core writes it, for the OS layer.
    std::u16string operator()(const std::u16string& name) const { return path_ + u"\\" + name; }
    // The same path for the standard library.
    fs::path Fs(const std::u16string& name) const {
        return fs::path(Slashed(name.empty() ? path_ : (*this)(name), u'/'));
    }
    void Write(const std::u16string& name, const std::string& bytes) const {
        std::ofstream f(Fs(name), std::ios::binary);
        f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }

private:
    std::u16string path_;
};

std::u16string IniString(const std::u16string& file, const char16_t* section,
                         const char16_t* key, const char16_t* def = u"-",
                         std::uint32_t size = 260) {
    char16_t out[260];
    std::uint32_t n = os::ini_read_string(section, key, def, out, size, file.c_str());
    EXPECT_EQ(n, std::u16string(out).size());
    return out;
}

// ------------------------------------------------------------ time, identity

TEST(OsTime, ClocksAdvanceTogetherAndNeverGoBack) {
    double t0 = os::now_ms();
    std::uint32_t k0 = os::tick_ms();
    double last = t0;
    for (int i = 0; i < 100000; ++i) {
        double t = os::now_ms();
        ASSERT_GE(t, last);
        last = t;
    }
    os::sleep_ms(30);
    double elapsed = os::now_ms() - t0;
    std::uint32_t ticks = os::tick_ms() - k0;  // wraps like GetTickCount
    EXPECT_GE(elapsed, 29.0);
    EXPECT_GE(ticks, 20u);
    EXPECT_LT(ticks, static_cast<std::uint32_t>(elapsed) + 50u);
    EXPECT_NE(os::clock_name()[0], 0);
}

TEST(OsIdentity, ProcessesAndThreads) {
    EXPECT_TRUE(os::process_alive(os::current_process_id()));
    EXPECT_FALSE(os::process_alive(0x7FFFFFF0u));
    EXPECT_GE(os::processor_count(), 1u);

    static std::uint32_t other;
    os::Thread t = os::thread_create([](void*) -> std::uint32_t {
        other = os::current_thread_id();
        return 0;
    }, nullptr);
    ASSERT_NE(t, 0u);
    ASSERT_EQ(os::thread_wait(t, 10000), 0u);
    EXPECT_TRUE(os::thread_close(t));
    EXPECT_NE(other, 0u);
    EXPECT_NE(other, os::current_thread_id());
}

// ------------------------------------------------------------ configuration

TEST(OsIni, LookupFollowsProfileRules) {
    TempDir dir;
    dir.Write(u"a.ini",
              "ORPHAN=before any section\r\n"
              "[Other]\r\n"
              "LASTIRQ=other.irq\r\n"
              "  [init]  \r\n"
              "; LASTIRQ=commented.irq\r\n"
              "  LastIrq  =   \" spaced.irq \"  \r\n"
              "LASTIRQ=second.irq\r\n"
              "Single='one'\n"
              "Lone=\"\n"
              "Empty=\n"
              "Inner = a = b\n"
              "[INIT]\n"
              "LATE=in a second INIT section\n");
    std::u16string f = dir(u"a.ini");
    EXPECT_EQ(IniString(f, u"INIT", u"LASTIRQ"), u" spaced.irq ");  // first one, quotes off
    EXPECT_EQ(IniString(f, u"Init", u"lastirq"), u" spaced.irq ");
    EXPECT_EQ(IniString(f, u"OTHER", u"LASTIRQ"), u"other.irq");
    EXPECT_EQ(IniString(f, u"INIT", u"SINGLE"), u"one");
    EXPECT_EQ(IniString(f, u"INIT", u"LONE"), u"\"");
    EXPECT_EQ(IniString(f, u"INIT", u"EMPTY"), u"");
    EXPECT_EQ(IniString(f, u"INIT", u"INNER"), u"a = b");
    EXPECT_EQ(IniString(f, u"INIT", u"ORPHAN"), u"-");
    EXPECT_EQ(IniString(f, u"INIT", u"MISSING", u"default"), u"default");
    EXPECT_EQ(IniString(f, u"NOSECTION", u"LASTIRQ", u"d"), u"d");
    EXPECT_EQ(IniString(dir(u"absent.ini"), u"INIT", u"LASTIRQ", u"d"), u"d");
}

TEST(OsIni, ValueIsCutToTheBufferAndTerminated) {
    TempDir dir;
    dir.Write(u"cut.ini", "[INIT]\nDLLDIR=abcdefgh\n");
    std::u16string f = dir(u"cut.ini");
    char16_t out[8];
    std::memset(out, 0x55, sizeof out);
    EXPECT_EQ(os::ini_read_string(u"INIT", u"DLLDIR", u"", out, 5, f.c_str()), 4u);
    EXPECT_EQ(std::u16string(out), u"abcd");
    EXPECT_EQ(out[5], 0x5555);  // nothing written past the buffer
    EXPECT_EQ(os::ini_read_string(u"INIT", u"DLLDIR", u"", out, 1, f.c_str()), 0u);
    EXPECT_EQ(out[0], 0);
    EXPECT_EQ(IniString(f, u"INIT", u"NONE", u"defaultvalue", 4), u"def");
}

TEST(OsIni, Utf16AndUtf8WithByteOrderMarks) {
    TempDir dir;
    std::u16string text = u"\xFEFF[INIT]\r\nLASTIRQ=Gr\u00FC\u00DFe.irq\r\n";
    std::string bytes;
    for (char16_t c : text) {
        bytes += static_cast<char>(c & 0xFF);
        bytes += static_cast<char>(c >> 8);
    }
    dir.Write(u"u16.ini", bytes);
    EXPECT_EQ(IniString(dir(u"u16.ini"), u"INIT", u"LASTIRQ"), u"Gr\u00FC\u00DFe.irq");
    dir.Write(u"u8.ini", "\xEF\xBB\xBF[INIT]\nLASTIRQ=plain.irq\n");
    EXPECT_EQ(IniString(dir(u"u8.ini"), u"INIT", u"LASTIRQ"), u"plain.irq");
}

TEST(OsIni, IntegersReadTheLeadingNumber) {
    TempDir dir;
    dir.Write(u"n.ini",
              "[INIT]\nA=12\nB= -3 \nC=7abc\nD=abc\nE=\nF=0x1fz\nG=\"42\"\nH=-0x10\n");
    std::u16string f = dir(u"n.ini");
    // D is not a number, E is empty; prefixes as the system's number parser reads them.
    const std::pair<const char16_t*, std::int32_t> cases[] = {
        {u"A", 12}, {u"B", -3}, {u"C", 7}, {u"D", 0}, {u"E", 99},
        {u"F", 31}, {u"G", 42}, {u"H", -16}, {u"MISSING", 99}};
    for (const auto& [key, want] : cases)
        EXPECT_EQ(os::ini_read_int(u"INIT", key, 99, f.c_str()), static_cast<std::uint32_t>(want)) << static_cast<char>(key[0]);
    EXPECT_EQ(os::ini_read_int(u"INIT", u"A", -1, dir(u"none.ini").c_str()),
              static_cast<std::uint32_t>(-1));
}

// ------------------------------------------------------------ files, folders, environment

TEST(OsFiles, EnumerationMatchesWithoutCaseAndSkipsFolders) {
    TempDir dir;
    for (const char16_t* n : {u"a.IRQ", u"b.irq", u"c.dll", u"d.irq.bak", u"[x].irq"})
        dir.Write(n, "x");
    fs::create_directories(dir.Fs(u"e.irq"));
    std::set<std::u16string> seen;
    os::enumerate_files((dir(u"*.irq")).c_str(), [](void* ctx, const char16_t* name) {
        static_cast<std::set<std::u16string>*>(ctx)->insert(name);
    }, &seen);
    EXPECT_EQ(seen, (std::set<std::u16string>{u"a.IRQ", u"b.irq", u"[x].irq"}));

    seen.clear();
    os::enumerate_files((dir(u"nothing") + u"\\*.irq").c_str(), [](void* ctx, const char16_t* n) {
        static_cast<std::set<std::u16string>*>(ctx)->insert(n);
    }, &seen);
    EXPECT_TRUE(seen.empty());
}

TEST(OsFiles, StartupDirIsTheTestProgramsFolder) {
    char16_t dir[1024];
    ASSERT_TRUE(os::startup_dir(dir, 1024));
    std::u16string d = Slashed(dir, u'/');
    std::u16string expected = Widen(ZOR_TEST_BIN_DIR);
    ASSERT_FALSE(d.empty());
    EXPECT_NE(d.back(), u'/');
    ASSERT_GE(d.size(), expected.size());
    EXPECT_EQ(d.substr(d.size() - expected.size()), expected);  // Wine adds a drive letter
    char16_t tiny[4];
    EXPECT_FALSE(os::startup_dir(tiny, 4));
}

TEST(OsFiles, EnvironmentAndAppData) {
    char16_t buf[260];
    ASSERT_TRUE(os::env_set("ZOR_OS_TEST_VAR", u"v\u00E4lue"));
    ASSERT_TRUE(os::env_get("ZOR_OS_TEST_VAR", buf, 260));
    EXPECT_EQ(std::u16string(buf), u"v\u00E4lue");
    EXPECT_FALSE(os::env_get("ZOR_OS_TEST_VAR", buf, 3));  // does not fit
    ASSERT_TRUE(os::env_set("ZOR_OS_TEST_VAR", nullptr));
    EXPECT_FALSE(os::env_get("ZOR_OS_TEST_VAR", buf, 260));

    zor::test::ScopedEnv appdata("APPDATA", u"\\zor\\appdata\\");
    ASSERT_TRUE(os::user_appdata_dir(buf, 260));
    EXPECT_EQ(std::u16string(buf), u"\\zor\\appdata");  // no trailing separator
}

// ------------------------------------------------------------ memory regions, modules

void CodeMarker() {}

bool LooksLikeImageHeader(std::uint64_t base) {
    const auto* b = reinterpret_cast<const unsigned char*>(base);
    return (b[0] == 'M' && b[1] == 'Z') || (b[0] == 0x7F && b[1] == 'E');
}

bool Executable(std::uint32_t protect) { return (protect & 0xF0) != 0; }

TEST(OsRegions, StackHeapCodeAndHoles) {
    os::Region r{};
    int local = 0;
    ASSERT_TRUE(os::region_query(&local, &r));
    auto a = reinterpret_cast<std::uint64_t>(&local);
    EXPECT_LE(r.base, a);
    EXPECT_GT(r.base + r.size, a);
    EXPECT_LE(r.alloc_base, r.base);
    EXPECT_NE(r.type, os::kMemImage);
    EXPECT_EQ(r.protect & os::kPageNoAccess, 0u);

    auto heap = std::make_unique<char[]>(100);
    ASSERT_TRUE(os::region_query(heap.get(), &r));
    EXPECT_NE(r.type, os::kMemImage);
    EXPECT_FALSE(Executable(r.protect));

    // The walk of the page locker: code lies in an image whose allocation
    // base is the module handle, where the image header is.
    ASSERT_TRUE(os::region_query(reinterpret_cast<const void*>(&CodeMarker), &r));
    EXPECT_EQ(r.type, os::kMemImage);
    EXPECT_TRUE(Executable(r.protect));
    EXPECT_LE(r.alloc_base, r.base);
    EXPECT_TRUE(LooksLikeImageHeader(r.alloc_base));
    char16_t name[1024];
    ASSERT_GT(os::module_file_name(r.alloc_base, name, 1024), 0u);
    EXPECT_TRUE(StartsWithNoCase(FilePart(name), u"os_tests"));
    EXPECT_EQ(os::module_file_name(0, name, 1024), 0u);  // a free region's base
    EXPECT_EQ(os::module_file_name(r.alloc_base + 1, name, 1024), 0u);  // not a module start
    EXPECT_EQ(os::module_file_name(r.alloc_base, name, 4), 3u);         // cut, terminated
    EXPECT_EQ(std::u16string(name).size(), 3u);

    // A view that was unmapped leaves a hole: a free, no-access region.
    os::Handle m = os::mapping_create(65536);
    ASSERT_NE(m, 0u);
    void* v = os::mapping_map(m, 65536);
    ASSERT_NE(v, nullptr);
    ASSERT_TRUE(os::mapping_unmap(v, 65536));
    EXPECT_TRUE(os::handle_close(m));
    ASSERT_TRUE(os::region_query(v, &r));
    EXPECT_NE(r.protect & os::kPageNoAccess, 0u);
    EXPECT_EQ(r.type, 0u);
    EXPECT_EQ(r.alloc_base, 0u);

    std::uint64_t lo, hi;
    os::app_address_range(&lo, &hi);
    EXPECT_LT(lo, a);
    EXPECT_GT(hi, a);
    EXPECT_FALSE(os::region_query(reinterpret_cast<const void*>(hi + 1), &r));
}

std::u16string ProbePath();

// The report of loaded modules walks the whole range region by region and
// reads the header of every image start: it must step over holes, end,
// and meet each loaded module once.
TEST(OsRegions, AWalkOverTheRangeMeetsEveryLoadedModuleOnce) {
    os::Module m = os::module_load(ProbePath().c_str());
    ASSERT_NE(m, nullptr);
    std::uint64_t lo, hi;
    os::app_address_range(&lo, &hi);
    int program = 0, probe = 0, regions = 0;
    for (std::uint64_t a = lo; a < hi; ++regions) {
        os::Region r{};
        if (!os::region_query(reinterpret_cast<const void*>(a), &r)) break;
        ASSERT_GT(r.base + r.size, a);
        a = r.base + r.size;
        if (r.type != os::kMemImage || (r.protect & (os::kPageNoAccess | os::kPageGuard)) ||
            r.base != r.alloc_base)
            continue;
        ASSERT_TRUE(LooksLikeImageHeader(r.base));
        char16_t name[1024];
        ASSERT_GT(os::module_file_name(r.base, name, 1024), 0u);
        program += StartsWithNoCase(FilePart(name), u"os_tests");
        probe += StartsWithNoCase(FilePart(name), u"os_probe_lib");
    }
    EXPECT_GT(regions, 3);
    EXPECT_EQ(program, 1);
    EXPECT_EQ(probe, 1);
    EXPECT_TRUE(os::module_free(m));
}

std::u16string ProbePath() {
    return Slashed(Widen(ZOR_TEST_BIN_DIR), u'\\') + u"\\os_probe_lib" + ZOR_MODULE_SUFFIX;
}

TEST(OsModules, LoadCallNameAndFree) {
    os::Module m = os::module_load(ProbePath().c_str());
    ASSERT_NE(m, nullptr);
    auto add = reinterpret_cast<std::uint32_t (*)(std::uint32_t, std::uint32_t)>(
        os::module_symbol(m, "os_probe_add"));
    ASSERT_NE(add, nullptr);
    EXPECT_EQ(add(40, 2), 42u);
    EXPECT_EQ(os::module_symbol(m, "os_probe_missing"), nullptr);

    // A bare name is found in the program's folder; the same module again.
    os::Module again = os::module_load((std::u16string(u"os_probe_lib") + ZOR_MODULE_SUFFIX).c_str());
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(os::module_symbol(again, "os_probe_add"), reinterpret_cast<void*>(add));
    EXPECT_TRUE(os::module_free(again));
    EXPECT_TRUE(os::module_free(m));

    EXPECT_EQ(os::module_load(u"no_such_module_anywhere.so"), nullptr);
    EXPECT_EQ(os::module_load((Slashed(Widen(ZOR_TEST_BIN_DIR), u'\\') + u"\\nothing.irq").c_str()),
              nullptr);
}

// ------------------------------------------------------------ fault guard

volatile std::uint32_t* const kBadPointer = reinterpret_cast<std::uint32_t*>(16);

void ReadBad(void*) { (void)*kBadPointer; }
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
    EXPECT_TRUE(os::guarded_run(Nothing, &calls, &f));
    EXPECT_EQ(calls, 1);

    using Body = void (*)(void*);
    for (Body body : {ReadBad, IllegalInstruction, DivideByZero, ReadBad}) {
        f = {};
        EXPECT_FALSE(os::guarded_run(body, nullptr, &f));
        EXPECT_NE(f.code, 0u);
        EXPECT_TRUE(StartsWithNoCase(ModuleFileOf(f.address), u"os_tests"));
    }
    // A stack overflow, twice: the guard must be usable again afterwards.
    for (int i = 0; i < 2; ++i) EXPECT_FALSE(os::guarded_run(Overflow, nullptr, &f));
    EXPECT_TRUE(os::guarded_run(Nothing, &calls, &f));
    EXPECT_EQ(calls, 2);
}

TEST(OsFaultGuard, FaultsInsideAModuleNameTheModule) {
    os::Module m = os::module_load(ProbePath().c_str());
    ASSERT_NE(m, nullptr);
    struct Probe {
        void (*write)(volatile std::uint32_t*);
        void (*call)(void (*)());
    } probe{reinterpret_cast<void (*)(volatile std::uint32_t*)>(os::module_symbol(m, "os_probe_write")),
            reinterpret_cast<void (*)(void (*)())>(os::module_symbol(m, "os_probe_call"))};
    ASSERT_NE(probe.write, nullptr);
    ASSERT_NE(probe.call, nullptr);
    os::Fault f{};
    EXPECT_FALSE(os::guarded_run([](void* p) { static_cast<Probe*>(p)->write(kBadPointer); },
                                 &probe, &f));
    EXPECT_TRUE(StartsWithNoCase(ModuleFileOf(f.address), u"os_probe_lib"));
    // A call through null has no code address: the caller inside the module is named.
    f = {};
    EXPECT_FALSE(os::guarded_run([](void* p) { static_cast<Probe*>(p)->call(nullptr); }, &probe, &f));
    EXPECT_TRUE(StartsWithNoCase(ModuleFileOf(f.address), u"os_probe_lib"));
    EXPECT_TRUE(os::module_free(m));
}

TEST(OsFaultGuard, NestedGuardsCatchAtTheInnermostLevel) {
    struct Ctx {
        bool inner_result = true;
        os::Fault inner{};
        int after = 0;
    } ctx;
    os::Fault outer{};
    EXPECT_TRUE(os::guarded_run([](void* p) {
        auto* c = static_cast<Ctx*>(p);
        c->inner_result = os::guarded_run(ReadBad, nullptr, &c->inner);
        c->after = 1;
    }, &ctx, &outer));
    EXPECT_FALSE(ctx.inner_result);
    EXPECT_EQ(ctx.after, 1);
    // After the inner fault the outer guard is still the active one.
    EXPECT_FALSE(os::guarded_run([](void*) {
        static int n;
        os::Fault ignored;
        os::guarded_run(Nothing, &n, &ignored);
        ReadBad(nullptr);
    }, nullptr, &outer));
}

// ------------------------------------------------------------ mappings and handles

TEST(OsMappings, ViewsAndDuplicatesShareTheBytes) {
    os::Handle m = os::mapping_create(8192);
    ASSERT_NE(m, 0u);
    auto* a = static_cast<std::uint32_t*>(os::mapping_map(m, 8192));
    auto* b = static_cast<std::uint32_t*>(os::mapping_map(m, 8192));
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_NE(a, b);
    EXPECT_EQ(a[2047], 0u);  // fresh mappings are zero
    a[0] = 0xC0FFEE;
    a[2047] = 7;
    EXPECT_EQ(b[0], 0xC0FFEEu);
    EXPECT_EQ(b[2047], 7u);

    // Into "a client" (this process) and back, as registration does.
    os::Handle self = os::process_open(os::current_process_id());
    ASSERT_NE(self, 0u);
    std::uint64_t remote = 0;
    ASSERT_TRUE(os::handle_dup_to(self, m, &remote));
    EXPECT_NE(remote, 0u);
    os::Handle back = 0;
    ASSERT_TRUE(os::handle_dup_from(self, remote, &back));
    EXPECT_TRUE(os::handle_close(self));
    EXPECT_TRUE(os::handle_close(m));  // the duplicates keep the mapping
    auto* c = static_cast<std::uint32_t*>(os::mapping_map(back, 8192));
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c[0], 0xC0FFEEu);

    EXPECT_TRUE(os::mapping_unmap(a, 8192));
    EXPECT_TRUE(os::mapping_unmap(b, 8192));
    EXPECT_TRUE(os::mapping_unmap(c, 8192));
    EXPECT_TRUE(os::handle_close(back));
    EXPECT_TRUE(os::handle_close(remote));
    EXPECT_FALSE(os::handle_close(0));
}

// ------------------------------------------------------------ pipes and threads

struct ReadJob {
    os::Handle pipe;
    char buf[16] = {};
    std::uint32_t done = 99;
    bool ok = true;
};

std::uint32_t ReadOnce(void* p) {
    auto* j = static_cast<ReadJob*>(p);
    j->ok = os::pipe_read(j->pipe, j->buf, sizeof j->buf, &j->done);
    return 5;
}

TEST(OsPipes, ReadWriteAndTheWritersEnd) {
    os::Handle r = 0, w = 0;
    ASSERT_TRUE(os::pipe_create(&r, &w));
    std::uint32_t done = 0;
    ASSERT_TRUE(os::pipe_write(w, "hello", 5, &done));
    EXPECT_EQ(done, 5u);
    char buf[16] = {};
    ASSERT_TRUE(os::pipe_read(r, buf, 3, &done));
    EXPECT_EQ(done, 3u);
    ASSERT_TRUE(os::pipe_read(r, buf + 3, sizeof buf - 3, &done));
    EXPECT_EQ(done, 2u);
    EXPECT_STREQ(buf, "hello");

    // A reader waiting in another thread gets the data, then the closed end.
    ReadJob job{r};
    os::Thread t = os::thread_create(ReadOnce, &job);
    ASSERT_NE(t, 0u);
    ASSERT_TRUE(os::pipe_write(w, "ab", 2, &done));
    ASSERT_EQ(os::thread_wait(t, 10000), 0u);
    os::thread_close(t);
    EXPECT_TRUE(job.ok);
    EXPECT_EQ(job.done, 2u);
    EXPECT_TRUE(os::handle_close(w));
    EXPECT_FALSE(os::pipe_read(r, buf, sizeof buf, &done));
    EXPECT_EQ(done, 0u);
    EXPECT_TRUE(os::handle_close(r));
}

TEST(OsPipes, ABlockedReadCanBeCancelled) {
    os::Handle r = 0, w = 0;
    ASSERT_TRUE(os::pipe_create(&r, &w));
    ReadJob job{r};
    os::Thread t = os::thread_create(ReadOnce, &job);
    ASSERT_NE(t, 0u);
    EXPECT_EQ(os::thread_wait(t, 50), os::kWaitTimeout);  // still blocked
    // Cancelling succeeds once the thread is really waiting in the read.
    bool cancelled = false;
    for (int i = 0; i < 1000 && !cancelled; ++i) {
        cancelled = os::thread_cancel_io(t);
        if (!cancelled) os::sleep_ms(5);
    }
    EXPECT_TRUE(cancelled);
    ASSERT_EQ(os::thread_wait(t, 10000), 0u);
    EXPECT_FALSE(job.ok);
    EXPECT_EQ(job.done, 0u);
    EXPECT_FALSE(os::thread_cancel_io(t));  // nothing left to cancel
    EXPECT_TRUE(os::thread_close(t));

    // The pipe still works afterwards.
    std::uint32_t done = 0;
    char c = 0;
    ASSERT_TRUE(os::pipe_write(w, "z", 1, &done));
    ASSERT_TRUE(os::pipe_read(r, &c, 1, &done));
    EXPECT_EQ(c, 'z');
    os::handle_close(r);
    os::handle_close(w);
}

TEST(OsThreads, HandlesOutliveOrPrecedeTheThread) {
    // Closing the handle of a running thread lets it run to its end.
    static std::atomic<int> stage{0};
    stage = 0;
    os::Thread t = os::thread_create([](void*) -> std::uint32_t {
        while (stage.load() == 0) os::sleep_ms(1);
        stage = 2;
        return 0;
    }, nullptr);
    ASSERT_NE(t, 0u);
    EXPECT_EQ(os::thread_wait(t, 20), os::kWaitTimeout);
    EXPECT_TRUE(os::thread_close(t));
    stage = 1;
    for (int i = 0; i < 5000 && stage.load() != 2; ++i) os::sleep_ms(1);
    EXPECT_EQ(stage.load(), 2);

    // Waiting again after the end answers at once, as often as asked.
    int ran = 0;
    t = os::thread_create([](void* p) -> std::uint32_t { ++*static_cast<int*>(p); return 0; }, &ran);
    ASSERT_NE(t, 0u);
    EXPECT_EQ(os::thread_wait(t, 10000), 0u);
    EXPECT_EQ(os::thread_wait(t, 0), 0u);
    EXPECT_EQ(ran, 1);
    EXPECT_TRUE(os::thread_close(t));
}

}  // namespace
