// Command intake: the WM_COPYDATA commands 1..15 of client processes, run on
// the dialog's thread one at a time.
//
// Every command reads its payload only within the cbData bytes that really
// arrived. A payload too short for the fields a command reads is refused
// with the command's failure value and the line
//   "ZOR: command %d: payload of %u bytes too short\n\r"        (level 2, mask 1)
// and a module name (commands 1 and 13) without a terminator inside the
// payload with
//   "ZOR: command %d: name not terminated in %u bytes\n\r"      (level 2, mask 1).
// The command table (FindCommand) holds each command's minimum payload and
// failure value: 0 for every command except 5, whose failure value is
// 0xFFFFFFFF (as for an unknown module).
//
// Command 5 hands the module a private copy of the cbData bytes (the module
// may write into the body; nothing of it travels back).
#pragma once

#include <cstdint>

#include "os/peer.h"

namespace zor {

struct Host;

// How command 4 ends the dialog (with result 1). Null `end` does nothing.
struct DialogEnder {
    void* ctx = nullptr;
    void (*end)(void* ctx, std::intptr_t result) = nullptr;
};

// One command as it arrived: the payload (read only within `size` bytes),
// the process that sent it, and how command 4 ends the dialog.
struct CommandRequest {
    Host& host;
    os::Peer& peer;
    const unsigned char* data;
    std::uint32_t size;
    const DialogEnder& ender;
};

struct Command {
    std::uint32_t number;
    // Bytes the handler reads; a named command's name starts at byte 16
    // and its terminator must lie inside the payload too.
    std::uint32_t minPayload;
    bool named;
    // The answer to a request that is refused before the handler runs.
    std::uint32_t failure;
    std::uint32_t (*handle)(const CommandRequest& request);
};

// The table's entry for a command, null for 0, 10, 16 and above.
const Command* FindCommand(std::uint64_t number);

// The message result for one WM_COPYDATA record (or one datagram), sent by
// `peer`. `data` may be null only with cbData 0.
std::uint32_t OnCopyData(Host& host, os::Peer& peer, std::uint64_t dwData, const void* data,
                         std::uint32_t cbData, const DialogEnder& ender);

}  // namespace zor
