// event.irq in the real host: its configuration, the recording ISR that
// shows what it delivered, and a stand-in for the hardware it reads.
#pragma once

#include <atomic>

#include "e2e_support.h"

namespace zor::e2e {

inline ZorInstance::Options EventIrq(const std::string& section) {
    ZorInstance::Options o;
    o.ini = "[INIT]\r\nLASTIRQ=event.irq\r\nFALLBACKIRQ=trigger.irq\r\n[EVENTIRQ]\r\n" + section;
    o.binFiles = {"event.irq", "trigger.irq"};
    o.testModules = {Mod("sequence_isr")};
    return o;
}

// The recording ISR's words: [0] events seen, [1 + i] the i-th sequence number.
struct Seen {
    explicit Seen(ZorInstance& zor) {
        std::uint32_t module = 0;
        EXPECT_EQ(zor_register_module(zor.conn(), Mod("sequence_isr").c_str(), 4 * 4096, &module, &view), ZOR_OK);
        words = static_cast<std::uint32_t*>(view.base);
    }
    ~Seen() { zor_unmap(&view); }
    bool WaitCount(std::uint32_t n) const {
        for (int waited = 0; words && std::atomic_ref(words[0]).load() != n; waited += 20) {
            if (waited > 10000) return false;
            Pause(20);
        }
        return words != nullptr;
    }
    ZorView view{};
    std::uint32_t* words = nullptr;
};

// A device for event.irq's DEVICE mode, a separate process or a FIFO: Go()
// delivers the 4-byte counts 1..1100 and 1201..1210 (a gap).
class EventDevice {
public:
    EventDevice();
    ~EventDevice();
    const std::string& Path() const { return path_; }
    bool Go();
    // Ends the device once its counts were read: the error event.irq then
    // reports, 0 for a device that has no end.
    int End();
    static std::string Missing();  // a device path that opens nothing
    struct Impl;

private:
    std::string path_;
    std::unique_ptr<Impl> impl_;
};

}  // namespace zor::e2e
