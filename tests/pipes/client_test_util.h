// Shared by the client tests: a host, a fake module in a real slot, and a
// client's two pipes created in this process.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <vector>

#include "common/test_host.h"
#include "host/host.h"
#include "os/os.h"
#include "os/peer.h"

namespace zor::test {

// The next 32-bit word from a pipe; 0xDEADDEAD when it ends first.
inline std::uint32_t ReadWord(os::Handle pipe) {
    std::uint32_t v = 0;
    auto* p = reinterpret_cast<unsigned char*>(&v);
    for (std::uint32_t got = 0, done = 0; got < 4; got += done)
        if (!os::pipe_read(pipe, p + got, 4 - got, &done)) return 0xDEADDEADu;
    return v;
}

// The module behind the slot: sums the body bytes the test announced.
struct FakeModule {
    static inline std::atomic<std::uint32_t> bodyLength{0};
    static inline std::atomic<std::uint32_t> calls{0};
    static inline std::atomic<bool> block{false};

    static std::uint32_t Entry(std::uint32_t code, std::uintptr_t arg) {
        if (code != ZOR_FN_EXEC_REMOTE_FUNC) return 0;
        ++calls;
        while (block.load()) os::sleep_ms(1);
        const auto* body = reinterpret_cast<const unsigned char*>(arg);
        std::uint32_t sum = 0;
        for (std::uint32_t i = 0; i < bodyLength.load(); ++i) sum += body[i];
        return sum ^ 0x5A000000u;
    }
    static void Reset() { bodyLength = 0, calls = 0, block = false; }
};

class ClientFixture : public ::testing::Test {
protected:
    void SetUp() override {
        FakeModule::Reset();
        slot_ = AddFakeIsr(*host_, &FakeModule::Entry);
        ASSERT_NE(slot_, 0u);
        ASSERT_TRUE(os::pipe_create(&reqRead_, &reqWrite_));
        ASSERT_TRUE(os::pipe_create(&repRead_, &repWrite_));
    }
    void TearDown() override {
        host_->clients.StopAll();
        for (os::Handle* h : {&reqRead_, &reqWrite_, &repRead_, &repWrite_})
            if (*h) os::handle_close(*h);
    }

    // Hands the host its duplicates of the two ends, as command 8 does, and
    // drops this side's copies of them.
    void Connect(std::uint32_t index) {
        host_->clients.ConnectClientPipe(zor::os::process_peer(), index, reqRead_, repWrite_, os::current_process_id());
        os::handle_close(reqRead_);
        os::handle_close(repWrite_);
        reqRead_ = repWrite_ = 0;
    }
    void SendRaw(const void* p, std::uint32_t n) {
        std::uint32_t done = 0;
        ASSERT_TRUE(os::pipe_write(reqWrite_, p, n, &done));
    }
    void SendLength(std::uint32_t length) { SendRaw(&length, 4); }
    // A whole frame: length, header (tag 0, module, reserved), body.
    void SendRequest(std::uint32_t module, const std::vector<unsigned char>& body) {
        std::vector<unsigned char> frame(4 + 12 + body.size());
        std::uint32_t length = static_cast<std::uint32_t>(12 + body.size());
        std::memcpy(frame.data(), &length, 4);
        std::memcpy(frame.data() + 8, &module, 4);
        if (!body.empty()) std::memcpy(frame.data() + 16, body.data(), body.size());
        FakeModule::bodyLength = static_cast<std::uint32_t>(body.size());
        SendRaw(frame.data(), static_cast<std::uint32_t>(frame.size()));
    }
    std::uint32_t Answer() { return ReadWord(repRead_); }
    static std::uint32_t Expected(const std::vector<unsigned char>& body) {
        std::uint32_t sum = 0;
        for (unsigned char c : body) sum += c;
        return sum ^ 0x5A000000u;
    }
    // True when the record's pipe thread has ended within the time.
    bool ThreadEnds(std::uint32_t index, std::uint32_t ms) {
        os::Thread t = host_->clients.Record(index).pipeThread.load();
        return t && os::thread_wait(t, ms) == 0;
    }
    std::size_t Failures() { return log_.Count("ZOR: Pipe-Communication failed!\n\r"); }

    TestLog log_;
    std::unique_ptr<Host> host_ = std::make_unique<Host>(log_.log());
    std::uint32_t slot_ = 0;
    os::Handle reqRead_ = 0, reqWrite_ = 0, repRead_ = 0, repWrite_ = 0;
};

}  // namespace zor::test
