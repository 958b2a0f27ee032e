// Client processes: ten records (record 0 never handed out), their pipes and
// one pipe thread per connected client.
#pragma once

#include <atomic>
#include <cstdint>

#include "os/os.h"

namespace zor {

struct Host;

class ClientRegistry {
public:
    static constexpr std::uint32_t kRecords = 10;

    explicit ClientRegistry(Host& host) : h_(host) {}

    std::uint32_t FindClient(std::uint32_t pid) const;
    std::uint32_t RegisterClient(std::uint32_t pid);
    std::uint32_t ConnectClientPipe(std::uint32_t index, std::uint64_t requestPipe,
                                    std::uint64_t replyPipe, std::uint32_t pid);
    std::uint32_t StopClientPipe(std::uint32_t index);
    std::uint32_t UnregisterClient(std::uint32_t pid);

private:
    Host& h_;
};

}  // namespace zor
