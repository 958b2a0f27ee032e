// The client table: registration, pipe connection, stop and removal, the
// failure paths of the connection with every handle counted, and a bounded
// shut-down with threads stuck in a module.
#include "client_test_util.h"
#include "common/test_host.h"

#include <thread>
#include <vector>

namespace zor::test {
namespace {

using Registry = ClientFixture;

TEST_F(Registry, NineClientsAtMostFreedRecordsReusedLowestFirstUnknownIdsIgnored) {
    ClientRegistry& c = host_->clients;
    EXPECT_EQ(c.RegisterClient(100), 1u);
    EXPECT_EQ(c.RegisterClient(100), 1u);  // twice: same record
    for (std::uint32_t pid = 101; pid <= 108; ++pid) EXPECT_EQ(c.RegisterClient(pid), pid - 99);
    EXPECT_TRUE(log_.Lines().empty());

    EXPECT_EQ(c.RegisterClient(109), 0u);
    EXPECT_EQ(log_.LinesOf(2, 1), std::vector<std::string>{"ZOR: too many clients\n"});
    EXPECT_EQ(c.FindClient(109), 0u);

    EXPECT_EQ(c.UnregisterClient(105), 1u);
    EXPECT_EQ(c.UnregisterClient(102), 1u);
    EXPECT_EQ(c.FindClient(105), 0u);
    EXPECT_EQ(c.RegisterClient(200), 3u);
    EXPECT_EQ(c.RegisterClient(201), 6u);
    EXPECT_EQ(c.FindClient(201), 6u);

    // Unknown ids and records without a pipe change nothing.
    EXPECT_EQ(c.UnregisterClient(301), 0u);
    EXPECT_EQ(c.StopClientPipe(6), 0u);
    EXPECT_EQ(c.Record(6).inUse.load(), 1u);
    EXPECT_EQ(c.Record(6).pid.load(), 201u);
    EXPECT_EQ(c.Record(6).stopRequested.load(), 0u);
    EXPECT_EQ(c.StopClientPipe(ClientRegistry::kRecords), 0u);  // out of range
}

TEST_F(Registry, UnregisteringStopsThePipeAndReleasesItsHandles) {
    ClientRegistry& c = host_->clients;
    std::uint32_t pid = os::current_process_id();
    std::uint32_t i = c.RegisterClient(pid);
    Connect(i);
    SendRequest(slot_, {});
    EXPECT_EQ(Answer(), Expected({}));
    EXPECT_EQ(c.UnregisterClient(pid), 1u);
    EXPECT_EQ(c.Record(i).inUse.load(), 0u);
    EXPECT_EQ(c.Record(i).pipeThread.load(), 0u);
    EXPECT_EQ(c.Record(i).requestPipe.load(), 0u);
    EXPECT_EQ(Failures(), 0u);
    // The host's reply end is gone: the client reads the end of its pipe.
    EXPECT_EQ(Answer(), 0xDEADDEADu);
}

// Every handle the host opens, duplicates or starts is counted, and must be
// closed again once the client's pipe is stopped or its connection failed.
struct Live {
    static inline std::atomic<int> n{0};
    static const os::Calls& N() { return os::native_calls(); }
    static os::Handle Open(std::uint32_t pid) { return Count(N().process_open(pid)); }
    static bool DupFrom(os::Handle p, std::uint64_t r, os::Handle* h) { return Count(N().handle_dup_from(p, r, h)); }
    static bool DupTo(os::Handle p, os::Handle h, std::uint64_t* r) { return Count(N().handle_dup_to(p, h, r)); }
    static os::Thread Start(os::ThreadProc f, void* a) { return Count(N().thread_create(f, a)); }
    static os::Handle Mapping(std::uint32_t size) { return Count(N().mapping_create(size)); }
    static bool Close(os::Handle h) { return Uncount(N().handle_close(h)); }
    static bool CloseIn(os::Handle p, std::uint64_t r) { return Uncount(N().handle_close_in(p, r)); }
    template <class T>
    static T Count(T made) { if (made) ++n; return made; }
    static bool Uncount(bool closed) { if (closed) --n; return closed; }
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

// Either end failing to duplicate, again and again: no thread, no handle kept.
TEST_F(HandleLeak, ConnectWithAnUnduplicableEndKeepsNothing) {
    const std::uint32_t i = host_->clients.RegisterClient(pid_);
    for (int k = 0; k < 20; ++k) {
        EXPECT_EQ(host_->clients.ConnectClientPipe(zor::os::process_peer(), i, k % 2 ? 0xBAD0 : reqRead_, k % 2 ? repWrite_ : 0xBAD0, pid_), 0u);
        EXPECT_EQ(host_->clients.Record(i).pipeThread.load(), 0u);
        EXPECT_EQ(host_->clients.Record(i).requestPipe.load(), 0u);
    }
    EXPECT_EQ(Live::n.load(), 0);
    EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(HandleLeak, ASecondConnectStopsTheFirstPipe) {
    const std::uint32_t i = host_->clients.RegisterClient(pid_);
    // A client repeating command 8 with the same pipe.
    for (int k = 0; k < 2; ++k) host_->clients.ConnectClientPipe(zor::os::process_peer(), i, reqRead_, repWrite_, pid_);
    SendRequest(slot_, {7, 8});
    EXPECT_EQ(Answer(), Expected({7, 8}));
    EXPECT_EQ(Live::n.load(), 3);  // one thread, two pipe ends
    host_->clients.StopClientPipe(i);
    EXPECT_EQ(Live::n.load(), 0);
}

TEST_F(HandleLeak, AFailedRegistrationTakesBackTheClientsHandle) {
    // Shared memory is made and handed to the client before the load fails.
    const auto payload = RegisterPayload(pid_, 4096, u"no_such_module.dll");
    EXPECT_EQ(host_->registry.RegisterISRProc(zor::os::process_peer(), payload.data(), static_cast<std::uint32_t>(payload.size())), 0u);
    // The loader's reason follows on a line of its own.
    EXPECT_TRUE(log_.ContainsSubstr("ZOR: Failed to load ISR: 'no_such_module.dll'"));
    EXPECT_TRUE(log_.ContainsSubstr("ZOR:   reason: "));
    EXPECT_EQ(Live::n.load(), 0);
}

// Shut-down with pipe threads stuck in a module that does not return: the
// threads share one bounded wait, and what they use is left in place.
struct Waits {
    static inline std::atomic<std::uint32_t> total{0};
    // A stuck thread: the wait is counted and reported over at once.
    static std::uint32_t Wait(os::Thread t, std::uint32_t ms) {
        if (!FakeModule::block) return os::native_calls().thread_wait(t, ms);
        total += ms;
        return os::kWaitTimeout;
    }
};

TEST_F(Registry, ThreadsStuckInAModuleShareOneBoundedWaitAndKeepTheirRecords) {
    FakeModule::block = true;
    os::Handle req2Read = 0, req2Write = 0, rep2Read = 0, rep2Write = 0;
    ASSERT_TRUE(os::pipe_create(&req2Read, &req2Write) && os::pipe_create(&rep2Read, &rep2Write));
    const std::uint32_t pid = os::current_process_id();
    const std::uint32_t i = host_->clients.RegisterClient(pid);
    host_->clients.ConnectClientPipe(zor::os::process_peer(), 0, req2Read, rep2Write, pid);  // record 0: an unregistered pid
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

// A client that sends and never reads its answers: the pipe thread blocks
// writing one, and a stop (command 9, or 8 again) ends that write at once.
TEST_F(Registry, AStopEndsAWriteToAClientThatDoesNotRead) {
    const std::uint32_t i = host_->clients.RegisterClient(os::current_process_id());
    Connect(i);
    std::thread feeder([this] {
        const std::uint32_t frame[4] = {12, 0, slot_, 0};
        std::uint32_t done = 0;
        while (os::pipe_write(reqWrite_, frame, 16, &done)) {}  // until the host's end goes
    });
    for (std::uint32_t seen = 0; seen != FakeModule::calls.load() || seen == 0;) {  // until the answers stop
        seen = FakeModule::calls.load();
        os::sleep_ms(300);
    }
    const double start = os::now_ms();
    host_->clients.StopClientPipe(i);
    EXPECT_LT(os::now_ms() - start, 2000.0);
    EXPECT_EQ(host_->clients.Record(i).pipeThread.load(), 0u);
    feeder.join();
}

// A request stuck in a module: command 9 waits a moment, not 10 s, and
// the thread it leaves keeps its own pipe, never the record's next one.
TEST_F(Registry, AThreadLeftByAStopAnswersOnItsOwnPipeAndEnds) {
    FakeModule::block = true;
    const std::uint32_t i = host_->clients.RegisterClient(os::current_process_id());
    const os::Handle oldReply = repRead_;
    repRead_ = 0;
    Connect(i);
    SendRequest(slot_, {7});
    while (FakeModule::calls < 1) os::sleep_ms(1);
    const double start = os::now_ms();
    host_->clients.StopClientPipe(i);
    EXPECT_LT(os::now_ms() - start, 1000.0);
    os::handle_close(reqWrite_);
    ASSERT_TRUE(os::pipe_create(&reqRead_, &reqWrite_) && os::pipe_create(&repRead_, &repWrite_));
    Connect(i);
    FakeModule::block = false;
    EXPECT_EQ(ReadWord(oldReply), Expected({7}));
    SendRequest(slot_, {9});
    EXPECT_EQ(Answer(), Expected({9}));
    EXPECT_TRUE(host_->clients.StopAll());
    os::handle_close(oldReply);
}

}  // namespace
}  // namespace zor::test
