// Command intake: the command range, the wiring of each command, and
// payloads that are too short or malformed. Every payload is a heap block of
// exactly cbData bytes, so a read beyond it is caught by the sanitizers.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "common/test_host.h"
#include "host/command_intake.h"
#include "host/config.h"
#include "host/host.h"
#include "os/os.h"
#include "os/peer.h"

namespace {

// A payload of exactly the bytes given.
struct Block {
    explicit Block(std::size_t n) : bytes(new unsigned char[n ? n : 1]()), size(n) {}
    template <class T>
    void Put(std::size_t off, T v) { std::memcpy(bytes.get() + off, &v, sizeof v); }
    std::unique_ptr<unsigned char[]> bytes;
    std::size_t size;
};

class Intake : public ::testing::Test {
protected:
    std::uint32_t Send(std::uint64_t cmd, const Block& b) {
        return zor::OnCopyData(*host_, zor::os::process_peer(), cmd, b.bytes.get(), static_cast<std::uint32_t>(b.size), ender_);
    }
    zor::test::TestLog log_;
    std::unique_ptr<zor::Host> host_ = std::make_unique<zor::Host>(log_.log());
    zor::DialogEnder ender_{nullptr, [](void*, std::intptr_t) {}};  // no command here ends the dialog
};

// Each command of the table one byte short of what it reads: refused with
// its failure value and the log line, and the handler never runs.
TEST_F(Intake, PayloadsShorterThanTheirFieldsAreRefused) {
    int refusable = 0;
    for (std::uint64_t cmd = 0; cmd <= 16; ++cmd) {
        const zor::Command* c = zor::FindCommand(cmd);
        if (c == nullptr || c->minPayload == 0) continue;
        ++refusable;
        for (std::uint32_t size : {0u, c->minPayload - 1}) {
            log_.Clear();
            Block b(size);
            std::uint32_t r = size ? Send(cmd, b)
                                   : zor::OnCopyData(*host_, zor::os::process_peer(), cmd, nullptr, 0, ender_);
            EXPECT_EQ(r, c->failure) << "command " << cmd << " size " << size;
            EXPECT_EQ(log_.Lines(),
                      std::vector<std::string>{"ZOR: command " + std::to_string(cmd) +
                                               ": payload of " + std::to_string(size) +
                                               " bytes too short\n\r"});
        }
    }
    EXPECT_EQ(refusable, 12);  // all but 4 and 6 read a payload
    EXPECT_EQ(zor::FindCommand(ZOR_CMD_MODULE_CALL)->failure, 0xFFFFFFFFu);
    EXPECT_EQ(zor::FindCommand(ZOR_CMD_ISR_REGISTER)->minPayload, 18u);  // the name's terminator too
    EXPECT_EQ(host_->clients.FindClient(0), 0u);
    EXPECT_EQ(host_->config.clientCount.load(), 0u);
}

// The module of a command 5 may write into the body: it writes into the
// host's own copy, bounded to the bytes sent, never into the sender's.
std::atomic<unsigned char*> g_seenBody{nullptr};
std::uint32_t WritingModule(std::uint32_t code, std::uintptr_t arg) {
    if (code != ZOR_FN_EXEC_REMOTE_FUNC) return 0;
    auto* body = reinterpret_cast<unsigned char*>(arg);
    g_seenBody = body;
    std::uint32_t sum = 0;
    for (int i = 0; i < 8; ++i) sum += body[i];
    std::memset(body, 0xEE, 8);
    return sum;
}

TEST_F(Intake, ModuleCallGetsAPrivateCopyOfTheBody) {
    const std::uint32_t slot = zor::test::AddFakeIsr(*host_, &WritingModule);
    ASSERT_NE(slot, 0u);

    Block req(12 + 8);
    req.Put<std::uint32_t>(0, 0);
    req.Put<std::uint32_t>(4, slot);
    for (int i = 0; i < 8; ++i) req.bytes[12 + i] = static_cast<unsigned char>(i + 1);
    EXPECT_EQ(Send(ZOR_CMD_MODULE_CALL, req), 36u);
    EXPECT_NE(g_seenBody.load(), req.bytes.get() + 12);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(req.bytes[12 + i], i + 1);
    host_->slots.Free(slot);
}

}  // namespace
