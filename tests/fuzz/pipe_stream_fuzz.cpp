// A connected client's pipe byte stream: the input after its first byte is
// written to the request pipe in pieces of (first byte % 64 + 1) bytes, with
// a yield in between so that frames arrive split across reads. Lengths take
// any 32-bit value; bodies go to test_isr (module 1) when the frame
// names it. The run ends once the host has read everything and waits for
// the next frame: the stop then cancels that read.
#include <sys/ioctl.h>

#include <thread>

#include "common/fuzz_host.h"
#include "common/test_host.h"
#include "os/os.h"
#include "os/peer.h"

namespace {

int Unread(zor::os::Handle read_end) {
    int n = 0;
    return ioctl(static_cast<int>(read_end - 1), FIONREAD, &n) == 0 ? n : 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zor::test::FuzzBytes in{data, size};
    const std::size_t piece = in.Take<std::uint8_t>() % 64 + 1;
    if (in.n > 60000) in.n = 60000;  // within the pipe's buffer: a writer never blocks for good
    zor::test::FuzzHost fh;
    zor::Host& h = fh.host;
    zor::test::RegisterIsr(h, "test_isr");
    // The module's echo trusts the length in the caller's tag; a fuzzed tag must not lead it astray.
    zor::test::TestIsr("test_isr").SetAnswer(ZOR_FN_EXEC_REMOTE_FUNC, 1);
    zor::os::Handle reqRead = 0, reqWrite = 0, repRead = 0, repWrite = 0;
    if (!zor::os::pipe_create(&reqRead, &reqWrite) || !zor::os::pipe_create(&repRead, &repWrite)) abort();
    const std::uint32_t pid = zor::os::current_process_id();
    const std::uint32_t index = h.clients.RegisterClient(pid);
    h.clients.ConnectClientPipe(zor::os::process_peer(), index, reqRead, repWrite, pid);
    zor::os::handle_close(repWrite);
    for (std::size_t at = 0; at < in.n; at += piece) {
        std::uint32_t done = 0;
        const std::size_t k = in.n - at < piece ? in.n - at : piece;
        if (!zor::os::pipe_write(reqWrite, in.p + at, static_cast<std::uint32_t>(k), &done)) break;
        std::this_thread::yield();
    }
    // Everything read, and the thread waiting for more (or gone after failures).
    zor::ClientRecord& r = h.clients.Record(index);
    auto busy = [&] {
        const zor::os::Thread t = r.pipeThread.load();
        return t != 0 && zor::os::thread_wait(t, 0) != 0 && (Unread(reqRead) > 0 || r.job.load()->reading.load() == 0);
    };
    while (busy()) std::this_thread::yield();
    h.clients.StopClientPipe(index);
    h.clients.UnregisterClient(pid);
    for (zor::os::Handle x : {reqRead, reqWrite, repRead}) zor::os::handle_close(x);
    return 0;
}
