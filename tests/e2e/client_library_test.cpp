// The client library against a real host running the timer driver: every
// command's round trip, the mapped memories, the pipe, ExecISRFunc from a
// client process, and the refusals a user meets (no host, a hung host, a
// host that dies during a call, unknown modules, oversized data).
#include <cstring>
#include <thread>
#include <vector>

#include "client_support.h"
#include "latency_isr/latency_shared.h"

using zor::clienttest::Host;

namespace {

class ClientLibrary : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(host_.Start(L"client_library_e2e.log")) << "zor.exe did not show its window";
        c_ = host_.conn();
    }
    // Registers the sample module with room for its histogram.
    std::uint32_t RegisterLatency(ZorView* shm) {
        std::uint32_t mod = 0;
        EXPECT_EQ(zor_register_module(c_, "latency_isr.dll", sizeof(LatencyShared), &mod, shm), ZOR_OK);
        return mod;
    }
    Host host_;
    ZorConnection* c_ = nullptr;
};

TEST_F(ClientLibrary, ModuleLifecycleThroughEveryLookupCommand) {
    ZorView shm{};
    const std::uint32_t mod = RegisterLatency(&shm);
    ASSERT_GE(mod, 1u);
    ASSERT_NE(shm.base, nullptr);
    ASSERT_GE(shm.size, sizeof(LatencyShared));
    // Initialize ran inside the registration and wrote into the memory we see.
    auto* live = static_cast<volatile LatencyShared*>(shm.base);
    EXPECT_EQ(live->magic, LATENCY_MAGIC);

    std::uint32_t found = 0, size = 0;
    EXPECT_EQ(zor_find_module(c_, "LATENCY_ISR.DLL", &found), ZOR_OK);
    EXPECT_EQ(found, mod);
    EXPECT_EQ(zor_module_info(c_, mod, &size), ZOR_OK);
    EXPECT_EQ(size, sizeof(LatencyShared));

    // A second mapping (command 15) shows the same bytes.
    ZorView again{};
    ASSERT_EQ(zor_module_memory(c_, mod, 0, &again), ZOR_OK);
    EXPECT_EQ(static_cast<LatencyShared*>(again.base)->magic, LATENCY_MAGIC);
    zor_unmap(&again);
    EXPECT_EQ(again.base, nullptr);

    // Registering the same name again replaces the module.
    ZorView shm2{};
    const std::uint32_t mod2 = RegisterLatency(&shm2);
    EXPECT_GE(mod2, 1u);

    EXPECT_EQ(zor_unregister_module(c_, mod2), ZOR_OK);
    EXPECT_EQ(zor_find_module(c_, "latency_isr.dll", &found), ZOR_E_NOT_REGISTERED);
    zor_unmap(&shm);
    zor_unmap(&shm2);
}

TEST_F(ClientLibrary, RequestsByCommandAndByPipeReachTheModule) {
    ZorView shm{};
    const std::uint32_t mod = RegisterLatency(&shm);
    ASSERT_GE(mod, 1u);
    Sleep(200);  // some events, so the answer (intervals counted) is non-zero
    std::uint32_t byCommand = 0, byPipe = 0;
    const unsigned char body[4] = {1, 2, 3, 4};
    ASSERT_EQ(zor_module_call(c_, mod, 0, body, sizeof body, &byCommand), ZOR_OK);
    EXPECT_GT(byCommand, 0u);

    ASSERT_EQ(zor_pipe_open(c_), ZOR_OK);
    ASSERT_EQ(zor_pipe_call(c_, mod, 7, body, sizeof body, &byPipe), ZOR_OK);
    EXPECT_GE(byPipe, byCommand);
    // An unknown module is answered, and the pipe stays in step.
    std::uint32_t r = 0;
    EXPECT_EQ(zor_pipe_call(c_, 97, 0, nullptr, 0, &r), ZOR_E_NOT_REGISTERED);
    EXPECT_EQ(r, 0xFFFFFFFFu);
    EXPECT_EQ(zor_module_call(c_, 97, 0, nullptr, 0, &r), ZOR_E_NOT_REGISTERED);
    for (int i = 0; i < 50; ++i) ASSERT_EQ(zor_pipe_call(c_, mod, 0, body, 1, &r), ZOR_OK) << i;
    // Too large for the host's receive buffer: refused here, nothing sent.
    std::vector<unsigned char> big(ZOR_CLIENT_MAX_BODY + 1);
    EXPECT_EQ(zor_pipe_call(c_, mod, 0, big.data(), static_cast<std::uint32_t>(big.size()), &r),
              ZOR_E_TOO_LARGE);
    EXPECT_EQ(zor_module_call(c_, mod, 0, big.data(), static_cast<std::uint32_t>(big.size()), &r),
              ZOR_E_TOO_LARGE);
    EXPECT_EQ(zor_pipe_call(c_, mod, 0, body, 1, &r), ZOR_OK);
    EXPECT_EQ(zor_pipe_close(c_), ZOR_OK);
    EXPECT_EQ(zor_pipe_call(c_, mod, 0, body, 1, &r), ZOR_E_NOT_CONNECTED);
    EXPECT_EQ(zor_unregister_module(c_, mod), ZOR_OK);
    zor_unmap(&shm);
}

TEST_F(ClientLibrary, ExecIsrFuncRunsOnTheDispatchThreadAndAnswers) {
    ZorView shm{};
    const std::uint32_t mod = RegisterLatency(&shm);
    ASSERT_GE(mod, 1u);
    auto* live = static_cast<volatile LatencyShared*>(shm.base);
    std::uint32_t seq0 = 0, seq1 = 0, run = 0;
    ASSERT_EQ(zor_read_counters(c_, &seq0, &run), ZOR_OK);
    Sleep(300);
    ASSERT_EQ(zor_read_counters(c_, &seq1, &run), ZOR_OK);
    EXPECT_GT(seq1 - seq0, 100u) << "the timer driver delivers about 1000 events a second";

    std::uint32_t resets = 0;
    ASSERT_EQ(zor_exec_isr_func(c_, mod, LATENCY_FN_RESET, nullptr, 0, 3000, &resets), ZOR_OK);
    EXPECT_EQ(resets, 1u);
    EXPECT_LT(live->events, 100u);
    Sleep(1000);
    std::uint32_t intervals = 0;
    ASSERT_EQ(zor_exec_isr_func(c_, mod, LATENCY_FN_EVENTS, nullptr, 0, 3000, &intervals), ZOR_OK);
    // A loaded machine dispatches fewer events than the timer's 1000 periods
    // (the driver then skips sequence numbers), never more.
    EXPECT_GT(intervals, 100u);
    EXPECT_LT(intervals, 1500u);

    // Without waiting: queued, answered 1; many callers at once each get
    // their own result slot.
    std::uint32_t r = 0;
    EXPECT_EQ(zor_exec_isr_func(c_, mod, LATENCY_FN_EVENTS, nullptr, 0, 0, &r), ZOR_OK);
    EXPECT_EQ(r, 1u);
    std::vector<std::thread> ts;
    std::vector<int> st(8, 1);
    for (int i = 0; i < 8; ++i)
        ts.emplace_back([&, i] {
            std::uint32_t x;
            st[i] = zor_exec_isr_func(c_, mod, LATENCY_FN_EVENTS, "abc", 3, 3000, &x);
        });
    for (auto& t : ts) t.join();
    for (int i = 0; i < 8; ++i) EXPECT_EQ(st[i], ZOR_OK) << i;

    // Bigger than the whole queue: refused before anything is queued.
    std::vector<unsigned char> big(ZOR_CLIENT_DEFAULT_AREA_SIZE);
    EXPECT_EQ(zor_exec_isr_func(c_, mod, 1, big.data(), static_cast<std::uint32_t>(big.size()), 0, &r),
              ZOR_E_TOO_LARGE);
    EXPECT_EQ(zor_exec_isr_func(c_, 0, 1, nullptr, 0, 100, &r), ZOR_E_NOT_REGISTERED);
    EXPECT_EQ(zor_unregister_module(c_, mod), ZOR_OK);
    zor_unmap(&shm);
}

TEST_F(ClientLibrary, RefusalsComeAsStatusesNeverAsHangs) {
    std::uint32_t mod = 0, v = 0;
    EXPECT_EQ(zor_register_module(c_, "no_such_module.dll", 0, &mod, nullptr), ZOR_E_REFUSED);
    EXPECT_EQ(zor_register_module(c_, "a_name_far_too_long.dll", 0, &mod, nullptr), ZOR_E_NAME_TOO_LONG);
    EXPECT_EQ(zor_find_module(c_, "no_such_module.dll", &mod), ZOR_E_NOT_REGISTERED);
    EXPECT_EQ(zor_module_memory(c_, 98, 0, nullptr), ZOR_E_INVALID_ARG);
    ZorView none{};
    EXPECT_NE(zor_module_memory(c_, 98, 0, &none), ZOR_OK);
    EXPECT_EQ(none.base, nullptr);
    // The shipped ZOR.INI loads the timer driver: its query value is the
    // period in microseconds, and control sets it, answering the old one.
    EXPECT_EQ(zor_irq_query(c_, &v), ZOR_OK);
    EXPECT_EQ(v, 1000u);
    std::uint32_t old = 0;
    EXPECT_EQ(zor_irq_control(c_, 2000, &old), ZOR_OK);
    EXPECT_EQ(old, 1000u);
    EXPECT_EQ(zor_irq_query(c_, &v), ZOR_OK);
    EXPECT_EQ(v, 2000u);
    EXPECT_EQ(zor_irq_control(c_, 1000, &old), ZOR_OK);

    // A host process id without a host window.
    ZorConnection* other = nullptr;
    EXPECT_EQ(zor_connect_pid(&other, GetCurrentProcessId(), 500), ZOR_E_NO_HOST);
    EXPECT_EQ(other, nullptr);
}

TEST_F(ClientLibrary, AHostThatDiesDuringAWaitEndsTheWait) {
    ZorView shm{};
    const std::uint32_t mod = RegisterLatency(&shm);
    ASSERT_GE(mod, 1u);
    const ZorSystemSharedArea* area = nullptr;
    ASSERT_EQ(zor_system_area(c_, 0, &area), ZOR_OK);
    ASSERT_EQ(zor_pipe_open(c_), ZOR_OK);
    // Hold the queue's lock as a stuck writer would: nothing can be queued.
    auto* sync = reinterpret_cast<volatile LONG*>(const_cast<std::uint32_t*>(&area->sync_tdl));
    ASSERT_EQ(InterlockedExchange(sync, 1), 0);
    std::thread killer([&] {
        Sleep(400);
        host_.Kill();
    });
    const ULONGLONG t0 = GetTickCount64();
    std::uint32_t r = 0;
    const int st = zor_exec_isr_func(c_, mod, LATENCY_FN_EVENTS, nullptr, 0, 20000, &r);
    const ULONGLONG took = GetTickCount64() - t0;
    killer.join();
    InterlockedExchange(sync, 0);
    EXPECT_EQ(st, ZOR_E_HOST_GONE);
    EXPECT_LT(took, 5000u);
    // Every later call says so at once.
    EXPECT_EQ(zor_irq_query(c_, &r), ZOR_E_HOST_GONE);
    EXPECT_EQ(zor_module_call(c_, mod, 0, nullptr, 0, &r), ZOR_E_HOST_GONE);
    EXPECT_EQ(zor_pipe_call(c_, mod, 0, "x", 1, &r), ZOR_E_HOST_GONE);
    EXPECT_EQ(zor_host_alive(c_), 0);
    zor_unmap(&shm);
}

// A window that looks like a host and never answers.
INT_PTR CALLBACK HungProc(HWND, UINT msg, WPARAM, LPARAM) {
    if (msg == WM_COPYDATA) {
        Sleep(3000);
        return TRUE;
    }
    return msg == WM_INITDIALOG;
}

TEST(ClientLibraryHung, AHungHostTimesOutWithinTheConnectionsTimeout) {
    HWND ready = nullptr;
    std::thread ui([&] {
        struct {
            DLGTEMPLATE t;
            WORD menu, cls, title[16];
        } tpl{};
        tpl.t.style = WS_POPUP;
        const wchar_t* cap = L"" ZOR_WINDOW_CAPTION;
        for (int i = 0; cap[i]; ++i) tpl.title[i] = cap[i];
        HWND h = CreateDialogIndirectParamW(nullptr, &tpl.t, nullptr, HungProc, 0);
        ready = h ? h : HWND(-1);
        MSG m;
        while (h && GetMessageW(&m, nullptr, 0, 0) > 0) {
            if (m.message == WM_APP) break;
            DispatchMessageW(&m);
        }
        if (h) DestroyWindow(h);
    });
    while (ready == nullptr) Sleep(5);
    ASSERT_NE(ready, HWND(-1));
    ZorConnection* c = nullptr;
    ASSERT_EQ(zor_connect_pid(&c, GetCurrentProcessId(), 300), ZOR_OK);
    std::uint32_t v = 0;
    const ULONGLONG t0 = GetTickCount64();
    EXPECT_EQ(zor_irq_query(c, &v), ZOR_E_TIMEOUT);
    EXPECT_LT(GetTickCount64() - t0, 2000u);
    zor_disconnect(c);
    PostThreadMessageW(GetWindowThreadProcessId(ready, nullptr), WM_APP, 0, 0);
    ui.join();
}

}  // namespace
