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
// Failure values: 0 for every command except 5, whose failure value is
// 0xFFFFFFFF (as for an unknown module). Minimum payloads: 1 and 13: 18
// bytes with the name's terminator inside; 2, 14, 15: 16; 3: 8; 5: 12;
// 7, 9, 11, 12: 4; 8: 20; 4 and 6 read nothing.
//
// Command 5 hands the module a private copy of the cbData bytes (the module
// may write into the body; nothing of it travels back).
#pragma once

#include <cstdint>

namespace zor {

struct Host;

// How command 4 ends the dialog (with result 1). Null `end` does nothing.
struct DialogEnder {
    void* ctx = nullptr;
    void (*end)(void* ctx, std::intptr_t result) = nullptr;
};

// The message result for one WM_COPYDATA record. `data` may be null only
// with cbData 0.
std::uint32_t OnCopyData(Host& host, std::uint64_t dwData, const void* data,
                         std::uint32_t cbData, const DialogEnder& ender);

}  // namespace zor
