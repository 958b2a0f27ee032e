// What the fuzz entries share: a fresh host per run on one long-lived quiet
// logger (every line is still formatted), released completely at the end of
// the run, and a reader that takes values off the front of the input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "host/host.h"
#include "support/log.h"

// Unloading does nothing in the fuzz entries: libFuzzer keeps reading the
// coverage counters of every library it has seen, so a module stays mapped
// once loaded (each entry includes this header once).
extern "C" int dlclose(void*) { return 0; }

namespace zor::test {

inline Logger& FuzzLog() {
    static Logger* log = [] {
        auto* l = new Logger;
        l->SetDebugOutput(false);
        l->SetQueueBytes(1 << 16);
        l->Start(u"");
        return l;
    }();
    return *log;
}

// Stops every pipe and unloads every module when the run ends.
struct FuzzHost {
    Host host{FuzzLog()};
    FuzzHost() { SetRunningHost(&host); }
    ~FuzzHost() {
        host.clients.StopAll();
        host.registry.UnloadAll();
        SetRunningHost(nullptr);
    }
};

// Values off the front of the input; zeros once it is used up.
struct FuzzBytes {
    const std::uint8_t* p;
    std::size_t n;
    template <class T>
    T Take() {
        T v{};
        const std::size_t k = n < sizeof v ? n : sizeof v;
        std::memcpy(&v, p, k);
        p += k;
        n -= k;
        return v;
    }
};

}  // namespace zor::test
