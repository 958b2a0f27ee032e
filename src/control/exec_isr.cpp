// ExecISRFunc: a function of an ISR module run in the interrupt context.
// On the dispatch thread the target is called at once with a packet built
// on the stack; elsewhere the request is queued in the deferred list of the
// system shared area and, when asked, its result is waited for.
#include "control/services.h"

#include <cstring>

#include "dispatch/caller.h"
#include "dispatch/dispatcher.h"
#include "modules/shared_mem.h"
#include "modules/slot_table.h"
#include "support/log.h"
#include "modules/deferred_list_writer.h"

namespace zor {

namespace {

std::int32_t Printed(std::uint32_t module) { return static_cast<std::int32_t>(module); }

}  // namespace

std::int32_t Services::ExecISRFunc(std::uint32_t module, std::uint32_t code, const void* data,
                                   std::uint32_t size, std::uint32_t wait) {
    if (dispatcher_.IsDispatchThread()) return ExecDirect(module, code, data, size);
    return ExecQueued(module, code, data, size, wait);
}

// The target's own result is not passed back on this path.
std::int32_t Services::ExecDirect(std::uint32_t module, std::uint32_t code, const void* data,
                                  std::uint32_t size) {
    // Computed wide: a size near 4 GiB must not wrap into the limit.
    if (std::uint64_t{size} + sizeof(ZorExecIsrPacket) > ISR_MAX_DIRECT_ARG) {
        log_.wPrintf(kLogFault, u"ZOR: ExecISRFunc (within ISR!) ISR#%ld: Argument too large!\n\r",
                       Printed(module));
        return 0;
    }
    const std::uint32_t slot = slots_.Check(module);
    if (slot == 0) return 0;
    alignas(8) unsigned char packet[ISR_MAX_DIRECT_ARG];
    const ZorExecIsrPacket header{code, size};
    std::memcpy(packet, &header, sizeof header);
    if (!GuardedCopy(packet + sizeof header, data, size)) {
        log_.wPrintf(kLogFault, u"ZOR: ExecISRFunc ISR#%u: argument not readable!\n\r", module);
        return 0;
    }
    caller_.CallModule(slot, ZOR_FN_EXEC_ISR_FUNC, reinterpret_cast<std::uintptr_t>(packet));
    return 1;
}

std::int32_t Services::ExecQueued(std::uint32_t module, std::uint32_t code, const void* data,
                                  std::uint32_t size, std::uint32_t wait) {
    unsigned char* area = shm_.Area();
    const std::uint32_t areaSize = shm_.AreaSize();
    if (area == nullptr) {
        log_.wPrintf(kLogFault, u"ZOR: ExecISRFunc ISR#%u: no system shared memory to queue into!\n\r",
                       module);
        return 0;
    }
    TdlTicket ticket;
    switch (TdlAppend(area, areaSize, os::current_process_id(), module, code, data, size,
                      wait != 0, &ticket, kQueueWaitMs)) {
    case TdlStatus::kQueued:
        break;
    case TdlStatus::kQueuedNoSlot:
        // Still queued; its result is not kept.
        log_.wPrintf(kLogFault, u"ZOR: async result list overflow!!!\n\r");
        break;
    case TdlStatus::kTooLarge:
        log_.wPrintf(kLogFault, u"ZOR: ExecISRFunc ISR#%ld: Argument too large!\n\r",
                       Printed(module));
        return 0;
    case TdlStatus::kTimeout:
        log_.wPrintf(kLogFault, u"ZOR: ExecISRFunc timeout!\n\r");
        return 0;
    case TdlStatus::kBadData:
        log_.wPrintf(kLogFault, u"ZOR: ExecISRFunc ISR#%u: argument not readable!\n\r", module);
        return 0;
    case TdlStatus::kNoArea:
        log_.wPrintf(kLogFault, u"ZOR: ExecISRFunc ISR#%u: no system shared memory to queue into!\n\r",
                       module);
        return 0;
    }
    if (wait == 0) return 1;
    std::uint32_t result = 0;
    if (!TdlWait(area, areaSize, ticket, kExecWaitLimitMs, kQueueWaitMs, &result)) {
        log_.wPrintf(kLogFault, u"ZOR: ExecISRFunc ISR#%u: no result within %u ms!\n\r", module,
                       kExecWaitLimitMs);
        return 0;
    }
    return static_cast<std::int32_t>(result);
}

}  // namespace zor
