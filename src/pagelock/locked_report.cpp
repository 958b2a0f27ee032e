// The report of locked and unlocked module images, tolerant of faults while
// it reads other modules' memory.
#include <cstring>

#include "pagelock/page_locker.h"
#include "os/os.h"
#include "support/log.h"

namespace zor {

bool GetModuleFileNameForAddress(const void* address, char16_t* buf) {
    os::Region r;
    if (!os::region_query(address, &r)) return false;
    buf[0] = 0;
    return os::module_file_name(r.alloc_base, buf, 260) != 0;
}

namespace {

struct Walk {
    Logger* log;
    const LockedNames* names;
    os::Region region;
};

bool IsImageStart(const os::Region& r) {
    if (r.type != os::kMemImage || r.base != r.alloc_base) return false;
    if (r.protect & (os::kPageNoAccess | os::kPageGuard)) return false;
    const volatile unsigned char* p = reinterpret_cast<const unsigned char*>(r.base);
    if (p[0] == 'M' && p[1] == 'Z') return true;
    return r.size >= 4 && p[0] == 0x7f && p[1] == 'E' && p[2] == 'L' && p[3] == 'F';
}

// One region; a fault here skips just this region.
void ExamineRegion(void* ctx) {
    Walk& w = *static_cast<Walk*>(ctx);
    if (!IsImageStart(w.region)) return;
    char16_t path[260] = {};
    GetModuleFileNameForAddress(reinterpret_cast<const void*>(w.region.base), path);
    if (w.names->Find(path) == 0 && !w.names->IsLongNamed(w.region.base))
        w.log->wPrintf(kLogTrace, u"%s\n", path);
}

// The whole address space; a fault outside a region's examination ends it.
void WalkAddressSpace(void* ctx) {
    Walk& w = *static_cast<Walk*>(ctx);
    std::uint64_t lo = 0, hi = 0;
    os::app_address_range(&lo, &hi);
    for (std::uint64_t addr = lo; addr < hi;) {
        if (!os::region_query(reinterpret_cast<const void*>(addr), &w.region)) break;
        os::Fault fault;
        os::guarded_run(ExamineRegion, &w, &fault);
        const std::uint64_t next = w.region.base + w.region.size;
        if (next <= addr) break;
        addr = next;
    }
}

}  // namespace

void ReportLockedModules(Logger& log, const LockedNames& names) {
    if (!log.IsActive(kLogTrace)) return;
    log.wPrintf(kLogTrace, u"ZOR: ############### LOCKED DLLs #####################################################\n");
    for (std::uint32_t i = 1; i < LockedNames::kSlots; ++i) {
        char16_t name[LockedNames::kUnits];
        if (names.Name(i, name)) log.wPrintf(kLogTrace, u"%s\n", name);
    }
    // Locked, but with names too long for the table.
    for (std::uint32_t i = 0; i < LockedNames::kSlots; ++i) {
        char16_t path[260] = {};
        if (names.LongNamed(i) != 0 && os::module_file_name(names.LongNamed(i), path, 260) != 0)
            log.wPrintf(kLogTrace, u"%s\n", LockedNames::FilePart(path));
    }
    log.wPrintf(kLogTrace, u"ZOR: ########### NON LOCKED DLLs (DLLs used in ISR should be locked!) ################\n");
    Walk w{&log, &names, {}};
    os::Fault fault;
    os::guarded_run(WalkAddressSpace, &w, &fault);
    log.wPrintf(kLogTrace, u"ZOR: #################################################################################\n");
}

}  // namespace zor
