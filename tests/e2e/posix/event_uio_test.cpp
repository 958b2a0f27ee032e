// event.irq on Linux in the real host, against a fake UIO tree
// (ZOR_UIO_ROOT): a device found by its UIO name, its PCI line unmasked
// after each event and held masked while paused, and a device that appears
// only after the host started.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "event_device.h"

namespace zor::e2e {
namespace {

namespace fs = std::filesystem;

// uio3, named "edu", a PCI function whose /dev node is a FIFO to write
// counts into; the host sees this tree instead of /sys and /dev.
class FakeUio {
public:
    FakeUio() : root_(fs::temp_directory_path() / ("zor_e2e_uio_tree_" + std::to_string(SelfPid()))) {
        fs::remove_all(root_);
        const fs::path pci = root_ / "sys/devices/pci0000:00/0000:00:04.0";
        fs::create_directories(pci);
        fs::create_directories(root_ / "sys/class/uio/uio3");
        fs::create_directories(root_ / "dev");
        std::ofstream(root_ / "sys/class/uio/uio3/name") << "edu\n";
        fs::create_symlink("../../../devices/pci0000:00/0000:00:04.0", root_ / "sys/class/uio/uio3/device");
        config_ = (pci / "config").string();
        Mask();
        EXPECT_EQ(mkfifo((root_ / "dev/uio3").c_str(), 0600), 0);
        setenv("ZOR_UIO_ROOT", root_.c_str(), 1);  // the host inherits it
    }
    ~FakeUio() {
        if (fd_ >= 0) close(fd_);
        unsetenv("ZOR_UIO_ROOT");
        fs::remove_all(root_);
    }
    std::string Dev() const { return (root_ / "dev/uio3").string(); }
    // What the kernel does on each interrupt: INTx disabled (command 0x0507).
    void Mask() const {
        const unsigned char bytes[8] = {0x34, 0x12, 0xe8, 0x11, 0x07, 0x05, 0x10, 0x00};
        const int fd = open(config_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);  // in place, as sysfs
        EXPECT_EQ(pwrite(fd, bytes, sizeof bytes, 0), 8);
        close(fd);
    }
    bool Masked() const {
        unsigned char b[8] = {};
        std::ifstream(config_, std::ios::binary).read(reinterpret_cast<char*>(b), sizeof b);
        return (b[5] & 0x04) != 0;
    }
    bool WaitUnmasked() const {
        for (int waited = 0; Masked(); waited += 20) {
            if (waited > 5000) return false;
            Pause(20);
        }
        return true;
    }
    bool Interrupt(std::uint32_t count) {
        if (fd_ < 0) fd_ = open(Dev().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        Mask();
        return fd_ >= 0 && write(fd_, &count, 4) == 4;
    }

private:
    fs::path root_;
    std::string config_;
    int fd_ = -1;
};

TEST(EventIrqUio, NamedPciDeviceIsUnmaskedAfterEachEventAndHeldMaskedWhilePaused) {
    FakeUio uio;
    ZorInstance zor(EventIrq("DEVICE=uio:edu\r\nREENABLE=pci\r\n"));
    Seen seen(zor);
    EXPECT_TRUE(zor.WaitLog("ZOR: event.irq: 'uio:edu' is " + uio.Dev() + "\n\r")) << zor.Log();
    EXPECT_TRUE(uio.WaitUnmasked());  // masked before the host came: unmasked at open
    ASSERT_TRUE(uio.Interrupt(1));
    ASSERT_TRUE(seen.WaitCount(1));
    EXPECT_TRUE(uio.WaitUnmasked());

    EXPECT_EQ(zor.Send(ZOR_CMD_IRQ_CONTROL, {ZOR_EVENT_PAUSE, 0, 0, 0}), 1u);
    ASSERT_TRUE(uio.Interrupt(2));
    Pause(300);
    EXPECT_TRUE(uio.Masked());  // nobody acknowledged it: no storm while paused
    EXPECT_EQ(zor.Send(ZOR_CMD_IRQ_CONTROL, {ZOR_EVENT_RESUME, 0, 0, 0}), 0u);
    EXPECT_TRUE(uio.WaitUnmasked());
    ASSERT_TRUE(uio.Interrupt(3));
    ASSERT_TRUE(seen.WaitCount(2));
    EXPECT_EQ(seen.words[2], 3u);  // the dropped event is a gap
    EXPECT_EQ(zor.Send(ZOR_CMD_IRQ_QUERY), 2u);
}

TEST(EventIrqUio, DeviceMissingAtStartIsCountedAndOpenedOnceItAppears) {
    const std::string path = (fs::temp_directory_path() / ("zor_e2e_late_" + std::to_string(SelfPid()))).string();
    unlink(path.c_str());
    ZorInstance zor(EventIrq("DEVICE=" + path + "\r\n"));
    Seen seen(zor);
    EXPECT_TRUE(zor.WaitLog("ZOR: event.irq: device '" + path +
                            "' does not open (error 2, failure 1), opening it again every second\n\r"))
        << zor.Log();
    EXPECT_EQ(zor.Send(ZOR_CMD_IRQ_QUERY), ZOR_EVENT_FAILED);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_TRUE(zor.WaitLog("ZOR: event.irq: device '" + path + "' open again\n\r"));
    const int fd = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    for (std::uint32_t count = 1; count <= 3; ++count) EXPECT_EQ(write(fd, &count, 4), 4);
    EXPECT_TRUE(seen.WaitCount(3));
    EXPECT_EQ(zor.Send(ZOR_CMD_IRQ_QUERY), ZOR_EVENT_FAILED | 3u);
    EXPECT_EQ(zor.Send(ZOR_CMD_IRQ_CONTROL, {ZOR_EVENT_FAILURES, 0, 0, 0}), 1u);
    EXPECT_EQ(CountOf(zor.Log(), "fallback"), 0u);
    close(fd);
    unlink(path.c_str());
}

TEST(EventIrqUio, UnknownReenableIsRefusedAndTheFallbackRuns) {
    ZorInstance zor(EventIrq("DEVICE=/dev/uio0\r\nREENABLE=yes\r\n"));
    EXPECT_TRUE(zor.WaitLog("ZOR: event.irq: REENABLE=yes in [EVENTIRQ] is not 0, 1, pci or auto\n\r")) << zor.Log();
    EXPECT_TRUE(zor.WaitLog("ZOR: try to load fallback IRQ driver trigger.irq\n"));
}

}  // namespace
}  // namespace zor::e2e
