// event.irq's UIO lookup and PCI unmasking against a fake sysfs and /dev
// (ZOR_UIO_ROOT): the names and addresses a DEVICE= line may use, and the
// command register bit that uio_pci_generic leaves set after each interrupt.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "uio.h"

namespace {

namespace fs = std::filesystem;

class Uio : public ::testing::Test {
protected:
    // uio3: a PCI function with config space; uio5: a platform device
    // (irqcontrol, no config); dev/card: a udev-style link to uio3.
    static void SetUpTestSuite() {
        root_ = fs::temp_directory_path() / ("zor_uio_" + std::to_string(getpid()));
        fs::remove_all(root_);
        const fs::path pci = root_ / "sys/devices/pci0000:00/0000:00:04.0";
        fs::create_directories(pci);
        fs::create_directories(root_ / "sys/devices/platform/gpio-irq");
        fs::create_directories(root_ / "dev");
        Node("uio3", "edu", "../../../devices/pci0000:00/0000:00:04.0");
        Node("uio5", "gpio-irq", "../../../devices/platform/gpio-irq");
        std::ofstream(root_ / "dev/other") << "";
        fs::create_symlink("uio3", root_ / "dev/card");
        setenv("ZOR_UIO_ROOT", root_.c_str(), 1);
    }
    static void TearDownTestSuite() { fs::remove_all(root_); }
    static void Node(const std::string& node, const std::string& name, const std::string& device) {
        const fs::path dir = root_ / "sys/class/uio" / node;
        fs::create_directories(dir);
        std::ofstream(dir / "name") << name << "\n";
        fs::create_symlink(device, dir / "device");
        std::ofstream(root_ / "dev" / node) << "";
    }
    // The PCI function's config space: command 0x0507 (INTx disabled), status 0x0010.
    static std::string WriteConfig(std::uint16_t command) {
        const std::string path = (root_ / "sys/devices/pci0000:00/0000:00:04.0/config").string();
        unsigned char bytes[64] = {0x34, 0x12, 0xe8, 0x11, static_cast<unsigned char>(command),
                                   static_cast<unsigned char>(command >> 8), 0x10, 0x00};
        std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes), sizeof bytes);
        return path;
    }
    static std::uint32_t Dword(const std::string& path, off_t at) {
        std::uint32_t v = 0;
        const int fd = open(path.c_str(), O_RDONLY);
        EXPECT_EQ(pread(fd, &v, 4, at), 4);
        close(fd);
        return v;
    }
    static inline fs::path root_;
};

TEST_F(Uio, DeviceLinesNameTheNodeOfTodayOrNothing) {
    const std::string r = root_.string();
    const struct {
        std::string wanted;
        int error;
        std::string dev, sysfs;  // relative to the root; sysfs "" = not UIO
    } cases[] = {
        {"uio:edu", 0, "/dev/uio3", "/sys/class/uio/uio3"},
        {"uio:gpio-irq", 0, "/dev/uio5", "/sys/class/uio/uio5"},
        {"uio:pci:0000:00:04.0", 0, "/dev/uio3", "/sys/class/uio/uio3"},
        {"uio:pci:00:04.0", 0, "/dev/uio3", "/sys/class/uio/uio3"},  // lspci's short form
        {"uio:pci:0000:00:04.1", ENOENT, "", ""},
        {"uio:ed", ENOENT, "", ""},  // a name matches whole
        {r + "/dev/uio3", 0, "/dev/uio3", "/sys/class/uio/uio3"},
        {r + "/dev/card", 0, "/dev/card", "/sys/class/uio/uio3"},  // a link to a UIO node is UIO
        {r + "/dev/other", 0, "/dev/other", ""},
        {r + "/dev/uio9", 0, "/dev/uio9", ""},  // not there now: opening it will say so
    };
    for (const auto& c : cases) {
        uio::Device d;
        EXPECT_EQ(uio::Resolve(c.wanted.c_str(), &d), c.error) << c.wanted;
        if (c.error) continue;
        EXPECT_EQ(std::string(d.dev), r + c.dev) << c.wanted;
        EXPECT_EQ(std::string(d.sysfs), c.sysfs.empty() ? "" : r + c.sysfs) << c.wanted;
    }
}

TEST_F(Uio, UnmaskingClearsOnlyTheIntxDisableBit) {
    const std::string path = WriteConfig(0x0507);
    uio::Device d;
    ASSERT_EQ(uio::Resolve("uio:edu", &d), 0);
    const int fd = uio::OpenPciConfig(d);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(uio::UnmaskIntx(fd));
    EXPECT_EQ(Dword(path, 4), 0x00100107u);  // status word untouched
    EXPECT_EQ(Dword(path, 0), 0x11e81234u);
    EXPECT_TRUE(uio::UnmaskIntx(fd));  // already unmasked: nothing to do
    EXPECT_EQ(Dword(path, 4), 0x00100107u);
    close(fd);
    const int readOnly = open(path.c_str(), O_RDONLY);
    WriteConfig(0x0400);
    EXPECT_FALSE(uio::UnmaskIntx(readOnly));  // a failure is reported, not hidden
    close(readOnly);
}

TEST_F(Uio, ConfigSpaceOnlyForPciDevices) {
    for (const char* wanted : {"uio:gpio-irq", "/dev/null"}) {
        uio::Device d;
        ASSERT_EQ(uio::Resolve(wanted, &d), 0);
        errno = 0;
        EXPECT_LT(uio::OpenPciConfig(d), 0) << wanted;
        EXPECT_NE(errno, 0) << wanted;
    }
}

}  // namespace
