// Client requests through the host, in one process: a pipe round trip
// (length, request, module call, 4-byte answer) for small and 256 KiB
// requests, the 12-byte and 4 KiB ones against a bare echo thread on two
// anonymous pipes that reads the same frames; and the command intake's cost
// for command 5 (bounds checks and the private copy of the payload) against
// command 6 (no payload).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "bench_report.h"
#include "host/command_intake.h"
#include "host/host.h"
#include "os/os.h"
#include "os/peer.h"

namespace {

std::uint32_t Module(std::uint32_t code, std::uintptr_t arg) {
    return code == ZOR_FN_EXEC_REMOTE_FUNC ? *reinterpret_cast<const unsigned char*>(arg - 12 + 4) : 0;
}

double NowUs() {
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool WriteAll(zor::os::Handle h, const void* p, std::uint32_t n) {
    std::uint32_t done = 0;
    return zor::os::pipe_write(h, p, n, &done) && done == n;
}

bool ReadAll(zor::os::Handle h, void* p, std::uint32_t n) {
    auto* b = static_cast<unsigned char*>(p);
    while (n) {
        std::uint32_t done = 0;
        if (!zor::os::pipe_read(h, b, n, &done) || !done) return false;
        b += done;
        n -= done;
    }
    return true;
}

void Report(const char* what, std::vector<double>& us) {
    std::sort(us.begin(), us.end());
    double sum = 0;
    for (double v : us) sum += v;
    std::printf("%-34s n=%6zu  avg %9.2f us  p50 %9.2f  p99 %9.2f  max %9.2f\n", what, us.size(),
                sum / us.size(), us[us.size() / 2], us[us.size() * 99 / 100], us.back());
}

// Round trips of `rounds` frames written to `request`, each answered with
// 4 bytes on `reply`; empty when an answer is missing.
std::vector<double> RoundTrips(zor::os::Handle request, zor::os::Handle reply,
                               const std::vector<unsigned char>& frame, int rounds) {
    std::vector<double> us;
    for (int i = 0; i < rounds; ++i) {
        double t0 = NowUs();
        std::uint32_t answer = 0;
        if (!WriteAll(request, frame.data(), static_cast<std::uint32_t>(frame.size())) ||
            !ReadAll(reply, &answer, 4))
            return {};
        us.push_back(NowUs() - t0);
    }
    return us;
}

// The bare work: a thread that reads each frame whole and answers 4 bytes.
class EchoThread {
public:
    EchoThread() {
        zor::os::pipe_create(&reqRead_, &reqWrite);
        zor::os::pipe_create(&repRead, &repWrite_);
        thread_ = std::thread([this] {
            std::vector<unsigned char> body(ZOR_PIPE_BUFFER_SIZE);
            std::uint32_t length = 0;
            while (ReadAll(reqRead_, &length, 4) && length <= body.size() &&
                   ReadAll(reqRead_, body.data(), length) && WriteAll(repWrite_, &length, 4)) {
            }
        });
    }
    ~EchoThread() {
        zor::os::handle_close(reqWrite);  // the thread's read fails: it ends
        thread_.join();
        for (zor::os::Handle h : {reqRead_, repRead, repWrite_}) zor::os::handle_close(h);
    }
    zor::os::Handle reqWrite, repRead;

private:
    zor::os::Handle reqRead_, repWrite_;
    std::thread thread_;
};

}  // namespace

int main() {
    zor::Logger log;
    log.SetDebugOutput(false);
    log.Start(u"");
    auto host = std::make_unique<zor::Host>(log);
    std::uint32_t slot = host->slots.Alloc();
    zor::ModuleSlot& s = host->slots[slot];
    s.kind = zor::kKindIsr;
    s.number = slot;
    s.entry = &Module;
    s.inUse = 1;

    zor::os::Handle reqRead, reqWrite, repRead, repWrite;
    if (!zor::os::pipe_create(&reqRead, &reqWrite) || !zor::os::pipe_create(&repRead, &repWrite)) return 1;
    std::uint32_t index = host->clients.RegisterClient(zor::os::current_process_id());
    host->clients.ConnectClientPipe(zor::os::process_peer(), index, reqRead, repWrite, zor::os::current_process_id());

    for (std::uint32_t body : {0u, 64u, 4096u, ZOR_PIPE_BUFFER_SIZE - 12}) {
        std::vector<unsigned char> frame(4 + 12 + body);
        std::uint32_t length = 12 + body;
        std::memcpy(frame.data(), &length, 4);
        std::memcpy(frame.data() + 8, &slot, 4);
        int rounds = body > 100000 ? 300 : 3000;
        char what[64];
        if (body == 0 || body == 4096) {
            // Taking turns with the bare echo, so that both meet the same
            // moments of a busy machine.
            EchoThread echo;
            bool failed = false;
            std::snprintf(what, sizeof what, "pipe round trip, %s", body ? "4 KiB body" : "12 B request");
            bench::RepeatedRows(what, "bare echo thread on two anonymous pipes", "us", bench::MaxRatio(1.2), [&] {
                std::vector<double> us, bare;
                for (int i = 0; i < rounds / 5; ++i) {
                    auto a = RoundTrips(reqWrite, repRead, frame, 1);
                    auto b = RoundTrips(echo.reqWrite, echo.repRead, frame, 1);
                    failed = failed || a.empty() || b.empty();
                    us.push_back(a.empty() ? 0 : a[0]);
                    bare.push_back(b.empty() ? 0 : b[0]);
                }
                return std::pair{us, bare};
            });
            if (failed) return 2;
            continue;
        }
        std::vector<double> us = RoundTrips(reqWrite, repRead, frame, rounds);
        if (us.empty()) return 2;
        std::snprintf(what, sizeof what, "pipe round trip, L=%u", length);
        Report(what, us);
    }
    host->clients.StopAll();

    zor::DialogEnder none;
    for (std::uint32_t body : {0u, 4096u, 65536u}) {
        std::vector<unsigned char> req(12 + body);
        std::memcpy(req.data() + 4, &slot, 4);
        std::vector<double> us;
        for (int i = 0; i < 20000; ++i) {
            double t0 = NowUs();
            if (zor::OnCopyData(*host, zor::os::process_peer(), ZOR_CMD_MODULE_CALL, req.data(), static_cast<std::uint32_t>(req.size()),
                                none) != slot)
                return 3;
            us.push_back(NowUs() - t0);
        }
        char what[64];
        std::snprintf(what, sizeof what, "command 5, %u bytes", 12 + body);
        Report(what, us);
    }
    std::vector<double> us;
    for (int i = 0; i < 20000; ++i) {
        double t0 = NowUs();
        zor::OnCopyData(*host, zor::os::process_peer(), ZOR_CMD_IRQ_QUERY, nullptr, 0, none);
        us.push_back(NowUs() - t0);
    }
    Report("command 6, no driver", us);
    host.reset();
    log.End();
    return 0;
}
