// Building the bytes a client sends: WM_COPYDATA payloads and pipe frames.
// Pure functions over caller buffers, shared by the Windows client library
// and its native tests. Every builder checks its bounds and returns a
// ZorStatus; nothing is written on failure.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zor/zor_client.h"

namespace zor::client {

// UTF-8 to UTF-16 into out[0..cap), terminated. Gives ZOR_E_NAME_TOO_LONG
// when the text needs more than cap-1 units or is not valid UTF-8, and
// ZOR_E_INVALID_ARG for an empty or null name.
int utf8_to_utf16(const char* in, std::uint16_t* out, std::size_t cap,
                  std::size_t* units = nullptr);

int build_register(std::uint32_t pid, std::uint32_t shm_size, const char* name,
                   ZorRegisterPayload* out);
// Command 13 reads the name at the same place as command 1.
int build_find(const char* name, ZorRegisterPayload* out);
// Commands 2 and 14.
int build_module(std::uint32_t module, ZorModulePayload* out);
int build_sysmem(std::uint32_t pid, std::uint32_t size, ZorSysMemPayload* out);
int build_isr_mem(std::uint32_t pid, std::uint32_t module, ZorIsrMemPayload* out);
int build_pipe(std::uint64_t request_pipe, std::uint64_t reply_pipe,
               std::uint32_t pid, ZorPipePayload* out);

// A ZorClientRequest followed by the body: the payload of command 5 and the
// part of a pipe frame after its length word. Needs 12 + size bytes.
std::size_t request_bytes(std::uint32_t size);
int build_request(std::uint32_t module, std::uint32_t caller_tag,
                  const void* body, std::uint32_t size, unsigned char* out,
                  std::size_t cap);
// A whole pipe frame: [u32 length][request]. Needs 4 + 12 + size bytes.
std::size_t frame_bytes(std::uint32_t size);
int build_frame(std::uint32_t module, std::uint32_t caller_tag,
                const void* body, std::uint32_t size, unsigned char* out,
                std::size_t cap);

// The host's answer to a request: 0xFFFFFFFF means no such module.
int request_status(std::uint32_t answer);

// "0a ff 10" / "0aff10" / "0x0a,0xff" into bytes. ZOR_E_INVALID_ARG on an
// odd digit count or a stray character, ZOR_E_TOO_LARGE when over cap.
int parse_hex(const char* text, unsigned char* out, std::size_t cap,
              std::size_t* len);

}  // namespace zor::client
