// The Linux command socket's conventions, shared by the host and the client
// library.
//
// A host listens on the SOCK_SEQPACKET socket "<runtime dir>/zor-<pid>.sock".
// One request datagram is one command: the command number as a u64 (little
// endian, as on x86-64) followed by the payload bytes; the payload's length
// is the datagram's length - 8. The answer is one datagram of 8 bytes: the
// u64 message result.
//
// Handles travel as descriptors (SCM_RIGHTS). A handle value inside a
// request (command 8's two pipe ends) is the 1-based position of its
// descriptor among those the request carries. A handle value in an answer
// (commands 1, 3 and 15) is the 1-based position of its descriptor among
// those the answer carries; a client closes every descriptor it was given
// and does not use.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

namespace zor::os::posix::wire {

// The largest payload of one command, and the most descriptors one datagram
// carries (a request needs two, an answer one).
constexpr std::uint32_t kMaxPayload = 65536;
constexpr int kMaxDescriptors = 4;

// The folder of the hosts' sockets: $ZOR_RUNTIME_DIR, else
// $XDG_RUNTIME_DIR/zor, else /run/zor for root, else /tmp/zor-<uid>.
// False when the result does not fit `cap` bytes.
bool runtime_dir(char* out, std::size_t cap);
// Why `dir` may not hold hosts' sockets, or null when it may: it must be a
// folder itself (not a symbolic link), writable by its owner only (a
// group may read it). *owner gets the folder's owner.
const char* folder_problem(const char* dir, std::uint32_t* owner);
// True for the owners a client accepts for a host it reaches: its own
// user, root, or a system account (uid below 1000, as a packaged service's).
bool owner_trusted(std::uint32_t owner, std::uint32_t self);
// "<runtime dir>/zor-<pid>.sock"; false when it does not fit.
bool socket_path(std::uint32_t pid, char* out, std::size_t cap);
// "<dir>/zor-<pid>.sock"; false when it does not fit.
bool socket_path_in(const char* dir, std::uint32_t pid, char* out, std::size_t cap);
// The folders clients search for hosts, by index: 0 the runtime folder,
// 1 the system service's /run/zor, unless ZOR_RUNTIME_DIR is set or the
// runtime folder is that one already. False past the last.
bool search_dir(int index, char* out, std::size_t cap);
// The pid of a socket file name "zor-<pid>.sock"; 0 for any other name.
std::uint32_t socket_pid(const char* name);

// Room for one SCM_RIGHTS record of kMaxDescriptors.
union Control {
    cmsghdr align;
    char bytes[CMSG_SPACE(sizeof(int) * kMaxDescriptors)];
};
// Attaches fds[0..n) (n <= kMaxDescriptors) to `msg` through `control`;
// n 0 attaches nothing.
void attach_descriptors(msghdr* msg, Control* control, const int* fds, int n);
// The descriptors a received message carries, in order, into fds[0..*n).
// False when it carried more than kMaxDescriptors (or the kernel cut them
// short): those beyond are closed.
bool take_descriptors(msghdr* msg, int* fds, int* n);

}  // namespace zor::os::posix::wire
