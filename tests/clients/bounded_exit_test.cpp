// Shut-down with pipe threads stuck in a module that does not return: the
// threads share one bounded wait, and what they use is left in place.
#include "clients/client_test_util.h"

namespace zor::test {
namespace {

struct Waits {
    static inline std::atomic<std::uint32_t> total{0};
    // A stuck thread: the wait is counted and reported over at once.
    static std::uint32_t Wait(os::Thread t, std::uint32_t ms) {
        if (!FakeModule::block) return os::native_calls().thread_wait(t, ms);
        total += ms;
        return os::kWaitTimeout;
    }
};

class BoundedExit : public ClientFixture {};

TEST_F(BoundedExit, ThreadsStuckInAModuleShareOneWaitAndKeepTheirRecords) {
    FakeModule::block = true;
    os::Handle req2Read = 0, req2Write = 0, rep2Read = 0, rep2Write = 0;
    ASSERT_TRUE(os::pipe_create(&req2Read, &req2Write) && os::pipe_create(&rep2Read, &rep2Write));
    const std::uint32_t pid = os::current_process_id();
    const std::uint32_t i = host_->clients.RegisterClient(pid);
    host_->clients.ConnectClientPipe(0, req2Read, rep2Write, pid);  // record 0: an unregistered pid
    Connect(i);
    SendRequest(slot_, {1});
    const std::uint32_t frame[4] = {12, 0, slot_, 0};
    std::uint32_t done = 0;
    ASSERT_TRUE(os::pipe_write(req2Write, frame, 16, &done));
    while (FakeModule::calls < 2) os::sleep_ms(1);

    Waits::total = 0;
    os::calls.thread_wait = &Waits::Wait;
    EXPECT_FALSE(host_->clients.StopAll());
    os::calls = os::native_calls();
    EXPECT_LE(Waits::total.load(), ClientRegistry::kStopWaitMs);
    for (std::uint32_t r : {0u, i}) {
        EXPECT_NE(host_->clients.Record(r).pipeThread.load(), 0u) << r;
        EXPECT_NE(host_->clients.Record(r).replyPipe.load(), 0u) << r;
    }
    // The module returns after all: both requests are answered.
    FakeModule::block = false;
    EXPECT_EQ(Answer(), Expected({1}));
    EXPECT_TRUE(host_->clients.StopAll());
    for (os::Handle h : {req2Read, req2Write, rep2Read, rep2Write}) os::handle_close(h);
}

}  // namespace
}  // namespace zor::test
