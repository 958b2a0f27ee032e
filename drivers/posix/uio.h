// event.irq's view of a Linux UIO device: which /dev/uioN a DEVICE= line
// means today, and how its interrupt line is unmasked after each event.
//
// UIO drivers differ in how user space re-enables the interrupt:
//  - drivers with irqcontrol (uio_pdrv_genirq, uio_dmem_genirq) take a u32 1
//    written to /dev/uioN;
//  - uio_pci_generic has none (the write fails with ENOSYS): the kernel
//    masks the device's INTx on each interrupt by setting bit 10 of the PCI
//    command register, and user space clears that bit through the device's
//    config file in sysfs.
#pragma once

#include <cerrno>
#include <climits>

namespace uio {

// REENABLE=: never; a written 1; the PCI command register; a written 1 for
// a UIO device (the default), nothing for anything else.
enum class Reenable { kOff, kWrite, kPci, kAuto };

// "0", "1", "pci", "auto" (any case). False for anything else.
bool ParseReenable(const char* text, Reenable* out);

// What a DEVICE= line names right now.
struct Device {
    char dev[PATH_MAX] = {};     // the path to open
    char sysfs[PATH_MAX] = {};   // /sys/class/uio/uioN; empty: not a UIO device
};

// DEVICE= is "uio:<name>" (the name in /sys/class/uio/uio*/name),
// "uio:pci:<domain:bus:dev.fn>" (the PCI address, "0000:" may be left out),
// or a path (a UIO device when it resolves to /dev/uioN). Numbers change
// between boots and bindings, so this is asked again at every open. 0, or
// ENOENT when no UIO device answers to the name or address now.
int Resolve(const char* wanted, Device* out);

// The config file of the device's PCI function, opened for reading and
// writing; -1 with errno when the device is not PCI.
int OpenPciConfig(const Device& device);

// Clears the INTx disable bit of the command register (config offset 4,
// bit 10) when it is set. False with errno when config space fails.
bool UnmaskIntx(int configFd);

// Whether a failed unmasking write means "no irqcontrol here" rather than a
// device that is gone.
inline bool NoIrqControl(int error) { return error == ENOSYS || error == EINVAL; }

// Where sysfs and /dev are: "" normally; ZOR_UIO_ROOT, when set, puts both
// under a folder (a fake tree for tests).
const char* Root();

}  // namespace uio
