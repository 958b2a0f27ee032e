#include "shell/posix/peer_access.h"

namespace zor::shell {

bool PeerAllowed(const PeerAccess& access, std::uint32_t uid, std::uint32_t gid,
                 const std::uint32_t* groups, int groupCount) {
    if (uid == access.ownUid || uid == 0) return true;
    if (!access.hasGroup) return false;
    if (gid == access.group) return true;
    for (int i = 0; i < groupCount; ++i)
        if (groups[i] == access.group) return true;
    return false;
}

}  // namespace zor::shell
