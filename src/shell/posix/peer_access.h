// Who may send commands to the Linux host: its own user, root, and the
// members of the group that ZOR.INI names (GROUP=<name>); how many
// connections one user may hold; and how often a refusal is logged.
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
// The host's own user and root may load modules by path.
bool PeerTrusted(const PeerAccess& access, std::uint32_t uid);

// Refusals are logged at most once a second per uid, so that a peer that
// keeps connecting cannot fill the log: the line that is written counts
// the refusals that were not.
class RefusalLog {
public:
    static constexpr int kUids = 8;
    // True when a line for `uid` is due at `nowMs`; *more gets the
    // refusals of that uid not logged since its last line.
    bool Due(std::uint32_t uid, double nowMs, std::uint32_t* more);

private:
    struct Entry {
        std::uint32_t uid = 0;
        double lastMs = -1e18;
        std::uint32_t count = 0;
    } e_[kUids];
};

}  // namespace zor::shell
