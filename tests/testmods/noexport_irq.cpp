// A library that calls itself a driver but does not export IRQ_GetSet.
#include <cstdint>

#include "zor/zor_module.h"

ZOR_EXPORT uint32_t IRQ_GetSetX(uint32_t, uintptr_t) { return 0; }
