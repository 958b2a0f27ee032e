// A FIFO standing in for a UIO device (/dev/uioN): 4-byte counts to read.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "event_device.h"

namespace zor::e2e {

struct EventDevice::Impl {
    int fd = -1;
};

EventDevice::EventDevice() : impl_(new Impl) {
    path_ = (std::filesystem::temp_directory_path() / ("zor_e2e_uio_" + std::to_string(SelfPid()))).string();
    unlink(path_.c_str());
    EXPECT_EQ(mkfifo(path_.c_str(), 0600), 0);
}

EventDevice::~EventDevice() {
    if (impl_->fd >= 0) close(impl_->fd);
    unlink(path_.c_str());
}

// Each count one write, so that each read takes one whole.
bool EventDevice::Go() {
    impl_->fd = open(path_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    bool ok = impl_->fd >= 0;
    for (std::uint32_t count = 1; ok && count <= 1210; count = count == 1100 ? 1201 : count + 1)
        ok = write(impl_->fd, &count, 4) == 4;
    return ok;
}

// event.irq opens the FIFO for writing too (a UIO device takes the
// re-enabling write), so it never sees an end.
int EventDevice::End() { return 0; }
std::string EventDevice::Missing() { return "/nonexistent/zor_none"; }

}  // namespace zor::e2e
