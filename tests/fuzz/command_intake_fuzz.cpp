// WM_COPYDATA commands through the real intake: one flag byte, the 8-byte
// dwData (any value), then the payload, handed over as a block of exactly
// its size so that any read beyond it is an AddressSanitizer error.
// Flag bit 0 puts this process's id into the command's pid field (so that
// memory and handles are really handed out; the harness then closes the
// handle the client would own); bit 1 registers test_isr first.
#include <cstdint>
#include <memory>

#include "common/fuzz_host.h"
#include "common/test_host.h"
#include "host/command_intake.h"
#include "os/os.h"
#include "os/peer.h"

namespace {

// Where each command keeps a process id, -1 where it has none. Command 8
// is left to the foreign pid: with this process it would take arbitrary
// descriptors of the fuzzer itself as the client's pipes.
int PidOffset(std::uint64_t cmd) {
    switch (cmd) {
        case ZOR_CMD_ISR_REGISTER: case ZOR_CMD_SYSMEM: case ZOR_CMD_PIPE_DISCONNECT:
        case ZOR_CMD_CLIENT_ADD: case ZOR_CMD_CLIENT_REMOVE: case ZOR_CMD_GET_ISR_MEM:
            return 0;
        default:
            return -1;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zor::test::FuzzBytes in{data, size};
    const auto flags = in.Take<std::uint8_t>();
    const auto cmd = in.Take<std::uint64_t>();
    std::unique_ptr<std::uint8_t[]> payload(new std::uint8_t[in.n ? in.n : 1]);
    if (in.n) std::memcpy(payload.get(), in.p, in.n);
    const bool own = (flags & 1) && PidOffset(cmd) >= 0 && in.n >= 4;
    if (own) {
        const std::uint32_t pid = zor::os::current_process_id();
        std::memcpy(payload.get() + PidOffset(cmd), &pid, 4);
    }
    zor::test::FuzzHost fh;
    if (flags & 2) {
        zor::test::RegisterIsr(fh.host, "test_isr");
        // Its echo trusts the body length in the caller's tag; a fuzzed tag must not lead it astray.
        zor::test::TestIsr("test_isr").SetAnswer(ZOR_FN_EXEC_REMOTE_FUNC, 1);
    }
    int ended = 0;
    zor::DialogEnder ender{&ended, [](void* c, std::intptr_t) { ++*static_cast<int*>(c); }};
    const std::uint32_t r = zor::OnCopyData(fh.host, zor::os::process_peer(), cmd, payload.get(),
                                            static_cast<std::uint32_t>(in.n), ender);
    // The client's copy of a handed-out handle is the client's to close.
    if (own && r != 0 &&
        (cmd == ZOR_CMD_ISR_REGISTER || cmd == ZOR_CMD_SYSMEM || cmd == ZOR_CMD_GET_ISR_MEM))
        zor::os::handle_close(r);
    return 0;
}
