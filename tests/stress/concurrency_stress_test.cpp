// All of the host's threads at once, for ThreadSanitizer: one dispatches at
// full speed; one registers and unregisters an ISR module, changes
// priorities and blocks; one queues deferred calls with and without
// waiting; one connects, uses and stops client pipes. Runs for
// ZOR_STRESS_SECONDS (default 30).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "common/test_host.h"

namespace zor {
namespace {

using Clock = std::chrono::steady_clock;

TEST(Stress, EveryThreadAtOnce) {
    const char* env = std::getenv("ZOR_STRESS_SECONDS");
    const auto until = Clock::now() + std::chrono::seconds(env ? std::atoi(env) : 30);
    test::TestHost th(true);
    Host& h = th.host();
    ASSERT_NE(0u, h.shm.SysMem(zor::os::process_peer(), os::current_process_id(), ZOR_SSA_QUEUE + 4096));
    const std::uint32_t a = test::RegisterIsr(h, "test_isr");
    ASSERT_NE(0u, a);
    test::TestIsr isr;
    // Kept loaded by the test: ThreadSanitizer does not see the unmapping of
    // an unloaded library and would take a fresh load's initialisation for
    // a race with the calls into the previous one.
    test::TestModule keepB("test_isr_b");
    isr.SetAnswer(ZOR_FN_EXEC_ISR_FUNC, 77);
    std::atomic<bool> stop{false};
    std::atomic<std::uint64_t> events{0}, dispatched{0}, refused{0}, answered{0}, gaveUp{0}, pipeCalls{0};

    std::thread dispatch([&] {
        for (std::uint32_t seq = 1; !stop; ++seq) {
            events.fetch_add(1);
            (h.dispatcher.OnInterrupt(seq) == 0 ? dispatched : refused).fetch_add(1);
        }
    });
    std::thread registry([&] {
        for (std::uint32_t i = 0; !stop; ++i) {
            const std::uint32_t b = test::RegisterIsr(h, "test_isr_b");
            h.services.Call(SERV_SetISRPrio, b, i % 7, 0, 0, 0, 0, nullptr);
            h.services.Call(SERV_SetISRPrio, a, i % 5, 0, 0, 0, 0, nullptr);
            h.dispatcher.BlockISR(a, i % 2);
            if (b) h.registry.UnregisterCommand(b);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));  // let events through
        }
        h.dispatcher.BlockISR(a, 0);
    });
    std::thread deferred([&] {
        for (std::uint32_t i = 0; !stop; ++i) {
            const auto start = Clock::now();
            std::uint32_t data = i;
            const std::int32_t r = h.services.ExecISRFunc(a, 9, &data, 4, i % 2);
            const auto bound = std::chrono::milliseconds(Services::kExecWaitLimitMs + 2 * Services::kQueueWaitMs + 2000);
            EXPECT_LT(Clock::now() - start, bound) << "a queued call neither answered nor refused in time";
            if (i % 2) (r == 77 ? answered : gaveUp).fetch_add(1);
        }
    });
    std::thread pipes([&] {
        const std::uint32_t pid = os::current_process_id();
        while (!stop) {
            os::Handle reqR = 0, reqW = 0, repR = 0, repW = 0;
            ASSERT_TRUE(os::pipe_create(&reqR, &reqW) && os::pipe_create(&repR, &repW));
            const std::uint32_t index = h.clients.RegisterClient(pid);
            h.clients.ConnectClientPipe(zor::os::process_peer(), index, reqR, repW, pid);
            os::handle_close(repW);  // the host holds its own copy
            repW = 0;
            const std::uint32_t frame[4] = {12, 0, a, 0};
            std::uint32_t done = 0, answer = 0;
            if (index != 0 && h.clients.Record(index).pipeThread.load() != 0 &&
                os::pipe_write(reqW, frame, sizeof frame, &done) && os::pipe_read(repR, &answer, 4, &done))
                pipeCalls.fetch_add(1);
            h.clients.StopClientPipe(index);
            h.clients.UnregisterClient(pid);
            for (os::Handle x : {reqR, reqW, repR}) os::handle_close(x);
        }
    });

    while (Clock::now() < until) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    stop = true;
    for (std::thread* t : {&registry, &deferred, &pipes, &dispatch}) t->join();
    std::printf("events %llu = dispatched %llu + refused %llu; waited calls %llu answered, %llu refused; %llu pipe calls\n",
                (unsigned long long)events, (unsigned long long)dispatched, (unsigned long long)refused,
                (unsigned long long)answered, (unsigned long long)gaveUp, (unsigned long long)pipeCalls);
    EXPECT_EQ(events.load(), dispatched.load() + refused.load());
    EXPECT_GT(dispatched.load(), 0u);
    EXPECT_GT(pipeCalls.load(), 0u);
}

}  // namespace
}  // namespace zor
