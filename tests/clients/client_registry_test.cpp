// The client table: registration, pipe connection, stop and removal,
// including the failure paths of the connection.
#include "client_test_util.h"

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

// Failure paths of the connection, with the platform calls replaced.
struct Injected {
    static inline int dupCalls = 0;
    static inline int failDupAt = 0;  // 1 = the request end, 2 = the reply end
    static inline os::Handle process = 0;
    static inline std::vector<os::Handle> closed;

    static os::Handle Open(std::uint32_t pid) { return process = os::native_calls().process_open(pid); }
    static bool Dup(os::Handle p, std::uint64_t remote, os::Handle* h) {
        if (++dupCalls == failDupAt) return false;
        return os::native_calls().handle_dup_from(p, remote, h);
    }
    static bool Close(os::Handle h) {
        closed.push_back(h);
        return os::native_calls().handle_close(h);
    }
};

class RegistryInjected : public ClientFixture {
protected:
    void SetUp() override {
        ClientFixture::SetUp();
        Injected::dupCalls = 0;
        Injected::closed.clear();
        os::calls.process_open = &Injected::Open;
        os::calls.handle_dup_from = &Injected::Dup;
        os::calls.handle_close = &Injected::Close;
    }
    void TearDown() override {
        os::calls = os::native_calls();
        ClientFixture::TearDown();
    }
};

TEST_F(RegistryInjected, AFailedDuplicationStartsNoThreadAndClosesTheProcess) {
    ClientRegistry& c = host_->clients;
    std::uint32_t i = c.RegisterClient(os::current_process_id());

    Injected::failDupAt = 1;
    EXPECT_EQ(c.ConnectClientPipe(i, reqRead_, repWrite_, os::current_process_id()), 0u);
    EXPECT_EQ(c.Record(i).pipeThread.load(), 0u);
    EXPECT_EQ(c.Record(i).requestPipe.load(), 0u);
    EXPECT_EQ(Injected::closed, std::vector<os::Handle>{Injected::process});

    // The reply end fails: the request end already duplicated is closed too.
    Injected::dupCalls = 0;
    Injected::failDupAt = 2;
    Injected::closed.clear();
    EXPECT_EQ(c.ConnectClientPipe(i, reqRead_, repWrite_, os::current_process_id()), 0u);
    EXPECT_EQ(c.Record(i).pipeThread.load(), 0u);
    EXPECT_EQ(c.Record(i).requestPipe.load(), 0u);
    EXPECT_EQ(c.Record(i).replyPipe.load(), 0u);
    ASSERT_EQ(Injected::closed.size(), 2u);
    EXPECT_EQ(Injected::closed[0], Injected::process);
    EXPECT_TRUE(log_.Lines().empty());
}

}  // namespace
}  // namespace zor::test
