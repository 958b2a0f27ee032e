#include "shell/posix/peer_access.h"

namespace zor::shell {

bool PeerAllowed(const PeerAccess& access, std::uint32_t uid, std::uint32_t gid,
                 const std::uint32_t* groups, int groupCount) {
    if (PeerTrusted(access, uid)) return true;
    if (!access.hasGroup) return false;
    if (gid == access.group) return true;
    for (int i = 0; i < groupCount; ++i)
        if (groups[i] == access.group) return true;
    return false;
}

bool PeerTrusted(const PeerAccess& access, std::uint32_t uid) { return uid == access.ownUid || uid == 0; }

bool RefusalLog::Due(std::uint32_t uid, double nowMs, std::uint32_t* more) {
    // The uid's entry, else the one logged longest ago.
    Entry* e = &e_[0];
    for (Entry& c : e_) {
        if (c.uid == uid) {
            e = &c;
            break;
        }
        if (c.lastMs < e->lastMs) e = &c;
    }
    if (e->uid != uid) *e = Entry{uid, -1e18, 0};
    if (nowMs - e->lastMs < 1000.0) {
        ++e->count;
        return false;
    }
    *more = e->count;
    e->count = 0;
    e->lastMs = nowMs;
    return true;
}

}  // namespace zor::shell
