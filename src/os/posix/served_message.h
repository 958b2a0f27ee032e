// The client request being served, as the Linux host's command socket hands
// it to the OS layer: who sent it and the descriptors it carried, and the
// descriptors that go back with the answer.
//
// While a message is served on a thread, process_open accepts exactly the
// peer's pid (the kernel's word for who is at the other end, not the
// payload's), handle_dup_from takes the request's descriptors by position
// (1-based, see wire.h), handle_dup_to adds a duplicate to the answer and
// names it by its position there, and handle_close_in takes the last one
// added back. Outside a served message only the calling process can be
// opened, as in the native test builds.
#pragma once

#include <cstdint>

#include "os/posix/wire.h"

namespace zor::os::posix {

struct ServedMessage {
    std::uint32_t peerPid = 0, peerUid = 0;
    int received[wire::kMaxDescriptors] = {};  // owned by the server
    int receivedCount = 0;
    int given[wire::kMaxDescriptors] = {};  // duplicates for the answer
    int givenCount = 0;
    // A pid that was not the peer's was asked for (0: none).
    std::uint32_t refusedPid = 0;
};

// Makes `m` the message being served on the calling thread; null ends it.
void serve_message(ServedMessage* m);
ServedMessage* served_message();

}  // namespace zor::os::posix
