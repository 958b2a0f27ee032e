// The Linux command socket as a client reaches it: one datagram with up to
// six descriptors attached, through a real connection. Input: one byte
// (its low three bits: descriptors to attach), then the datagram. Every run
// checks that the host kept none of the descriptors.
#include <sys/socket.h>
#include <sys/un.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "common/fuzz_host.h"
#include "host/command_intake.h"
#include "os/posix/wire.h"
#include "shell/posix/command_socket.h"

namespace {

int OpenDescriptors() {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

void Serve(zor::shell::CommandSocket& s) {
    pollfd fds[zor::shell::CommandSocket::kMaxPeers + 1];
    const int n = s.PollSet(fds, zor::shell::CommandSocket::kMaxPeers + 1);
    if (poll(fds, n, 1000) > 0) s.Handle(fds, n, zor::DialogEnder{});
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static const std::string dir = "/tmp/zor_fuzz_" + std::to_string(getpid());
    setenv("ZOR_RUNTIME_DIR", dir.c_str(), 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zor::test::FuzzBytes in{data, size};
    const int count = in.Take<std::uint8_t>() % 7;
    const int before = OpenDescriptors();
    {
        zor::test::FuzzHost fh;
        zor::shell::CommandSocket intake(fh.host);
        char path[256];
        if (!intake.Listen("") || !zor::os::posix::wire::socket_path(getpid(), path, sizeof path)) std::abort();
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path);
        const int client = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        if (connect(client, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) std::abort();
        Serve(intake);  // admits the client
        int fds[6];
        for (int i = 0; i < count; ++i) fds[i] = open("/dev/null", O_RDONLY | O_CLOEXEC);
        iovec iov{const_cast<std::uint8_t*>(in.p), in.n};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof fds)] = {};
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        if (count) {
            msg.msg_control = control;
            msg.msg_controllen = CMSG_SPACE(sizeof(int) * count);
            cmsghdr* c = CMSG_FIRSTHDR(&msg);
            *c = cmsghdr{CMSG_LEN(sizeof(int) * count), SOL_SOCKET, SCM_RIGHTS};
            std::memcpy(CMSG_DATA(c), fds, sizeof(int) * count);
        }
        const bool sent = sendmsg(client, &msg, MSG_NOSIGNAL) >= 0;
        for (int i = 0; i < count; ++i) close(fds[i]);
        if (sent) Serve(intake);
        // The answer's descriptors are the client's to close.
        std::uint64_t answer;
        iovec back{&answer, sizeof answer};
        zor::os::posix::wire::Control ctl;
        msghdr got{};
        got.msg_iov = &back;
        got.msg_iovlen = 1;
        got.msg_control = ctl.bytes;
        got.msg_controllen = sizeof ctl.bytes;
        int taken[zor::os::posix::wire::kMaxDescriptors], n = 0;
        if (recvmsg(client, &got, MSG_DONTWAIT | MSG_CMSG_CLOEXEC) >= 0)
            zor::os::posix::wire::take_descriptors(&got, taken, &n);
        for (int i = 0; i < n; ++i) close(taken[i]);
        close(client);
    }
    if (OpenDescriptors() != before) std::abort();  // a descriptor kept
    return 0;
}
