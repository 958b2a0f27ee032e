// libFuzzer entry for the command intake: the first 8 bytes pick the
// command, the rest is the payload, handed over as a block of exactly its
// size so that any read beyond it is an AddressSanitizer error.
//
// Not part of the regular build (it needs clang's fuzzer runtime):
//   CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja \
//       -DCMAKE_BUILD_TYPE=Debug -DZOR_SANITIZE=address,undefined,fuzzer-no-link
//   ninja -C build/fuzz zor_core
//   clang++ -std=c++20 -g -fsanitize=fuzzer,address,undefined -Isrc -Iinclude \
//       tests/fuzz/command_intake_fuzz.cpp build/fuzz/libzor_core.a build/fuzz/libzor_os.a \
//       -ldl -lpthread -o build/fuzz/command_intake_fuzz
//   build/fuzz/command_intake_fuzz -max_total_time=60
//
// Commands 3 and 15 (memory for arbitrary process ids) and 4 (ends the
// dialog) are left out; everything else runs against one long-lived host.
#include <cstdint>
#include <cstring>
#include <memory>

#include "host/command_intake.h"
#include "host/host.h"

namespace {

zor::Host& TheHost() {
    static zor::Logger* log = [] {
        auto* l = new zor::Logger;
        l->SetDebugOutput(false);
        l->Start(u"");
        l->SetActive("none");
        return l;
    }();
    static zor::Host* host = new zor::Host(*log);
    return *host;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 8) return 0;
    std::uint64_t cmd;
    std::memcpy(&cmd, data, 8);
    if (cmd == ZOR_CMD_SYSMEM || cmd == ZOR_CMD_GET_ISR_MEM || cmd == ZOR_CMD_QUIT) return 0;
    std::size_t n = size - 8;
    std::unique_ptr<std::uint8_t[]> payload(new std::uint8_t[n ? n : 1]);
    if (n) std::memcpy(payload.get(), data + 8, n);
    zor::Host& host = TheHost();
    zor::OnCopyData(host, cmd, payload.get(), static_cast<std::uint32_t>(n), zor::DialogEnder{});
    host.clients.StopAll();
    return 0;
}
