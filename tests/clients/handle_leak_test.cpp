// Commands a local client can repeat or botch leave no handle behind: every
// handle the host opens, duplicates or starts is counted, and must be
// closed again once the client's pipe is stopped.
#include <thread>

#include "clients/client_test_util.h"
#include "common/test_host.h"

namespace zor::test {
namespace {

// Handles the host holds (or made in a client) and has not closed.
struct Live {
    static inline std::atomic<int> n{0};
    static const os::Calls& N() { return os::native_calls(); }
    static os::Handle Open(std::uint32_t pid) { return Count(N().process_open(pid)); }
    static bool DupFrom(os::Handle p, std::uint64_t r, os::Handle* h) {
        return Count(N().handle_dup_from(p, r, h));
    }
    static bool DupTo(os::Handle p, os::Handle h, std::uint64_t* r) {
        return Count(N().handle_dup_to(p, h, r));
    }
    static os::Thread Start(os::ThreadProc f, void* a) { return Count(N().thread_create(f, a)); }
    static os::Handle Mapping(std::uint32_t size) { return Count(N().mapping_create(size)); }
    static bool Close(os::Handle h) { return Uncount(N().handle_close(h)); }
    static bool CloseIn(os::Handle p, std::uint64_t r) { return Uncount(N().handle_close_in(p, r)); }
    template <class T>
    static T Count(T made) {
        if (made) ++n;
        return made;
    }
    static bool Uncount(bool closed) {
        if (closed) --n;
        return closed;
    }
};

class HandleLeak : public ClientFixture {
protected:
    void SetUp() override {
        ClientFixture::SetUp();
        Live::n = 0;
        os::calls.process_open = &Live::Open;
        os::calls.handle_dup_from = &Live::DupFrom;
        os::calls.handle_dup_to = &Live::DupTo;
        os::calls.thread_create = &Live::Start;
        os::calls.mapping_create = &Live::Mapping;
        os::calls.handle_close = &Live::Close;
        os::calls.handle_close_in = &Live::CloseIn;
    }
    void TearDown() override {
        ClientFixture::TearDown();
        os::calls = os::native_calls();
    }
    std::uint32_t pid_ = os::current_process_id();
};

TEST_F(HandleLeak, ConnectWithAnUnduplicableReplyEndKeepsNothing) {
    const std::uint32_t i = host_->clients.RegisterClient(pid_);
    for (int k = 0; k < 20; ++k) host_->clients.ConnectClientPipe(i, reqRead_, 0xBAD0, pid_);
    EXPECT_EQ(host_->clients.Record(i).pipeThread.load(), 0u);
    EXPECT_EQ(Live::n.load(), 0);
}

TEST_F(HandleLeak, ASecondConnectStopsTheFirstPipe) {
    const std::uint32_t i = host_->clients.RegisterClient(pid_);
    // A client repeating command 8 with the same pipe.
    for (int k = 0; k < 2; ++k) host_->clients.ConnectClientPipe(i, reqRead_, repWrite_, pid_);
    SendRequest(slot_, {7, 8});
    EXPECT_EQ(Answer(), Expected({7, 8}));
    EXPECT_EQ(Live::n.load(), 3);  // one thread, two pipe ends
    host_->clients.StopClientPipe(i);
    EXPECT_EQ(Live::n.load(), 0);
}

TEST_F(HandleLeak, AFailedRegistrationTakesBackTheClientsHandle) {
    // Shared memory is made and handed to the client before the load fails.
    const auto payload = RegisterPayload(pid_, 4096, u"no_such_module.dll");
    EXPECT_EQ(host_->registry.RegisterISRProc(payload.data(), static_cast<std::uint32_t>(payload.size())),
              0u);
    EXPECT_TRUE(log_.ContainsSubstr("ZOR: Failed to load ISR: 'no_such_module.dll'"));
    EXPECT_EQ(Live::n.load(), 0);
}

}  // namespace
}  // namespace zor::test
