// A loadable module without the ISR entry.
#include <cstdint>

#include "zor/zor_module.h"

ZOR_EXPORT uint32_t NoExportIsr_Present() { return 1; }
