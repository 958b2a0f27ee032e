// The Linux host's command socket, for the tests of what only Linux has:
// raw datagrams and the peers' credentials.
#pragma once

#include <sys/types.h>

#include "e2e_support.h"

namespace zor::e2e {

struct ZorInstance::Proc {
    pid_t pid = 0;
    int status = -1;  // once reaped
    std::string out, err;
};

// The host's socket file.
std::string SocketPath(const ZorInstance& zor);
// One datagram as it is, through a connection of its own; the u64 answer,
// or ~0 when none came (descriptors in it are closed).
std::uint64_t SendDatagram(const std::string& socket, const std::vector<unsigned char>& bytes);

}  // namespace zor::e2e
