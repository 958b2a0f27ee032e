// Who may send commands to the Linux host: its own user, root, and the
// members of the group that ZOR.INI names (GROUP=<name>).
#pragma once

#include <cstdint>

namespace zor::shell {

struct PeerAccess {
    std::uint32_t ownUid = 0;
    bool hasGroup = false;
    std::uint32_t group = 0;
};

// The peer's uid, primary gid and supplementary groups (as the kernel
// reports them for the connection).
bool PeerAllowed(const PeerAccess& access, std::uint32_t uid, std::uint32_t gid,
                 const std::uint32_t* groups, int groupCount);

}  // namespace zor::shell
