// Placeholder until the deferred list lands.
#include "dispatch/dispatcher.h"
namespace zor {
void Dispatcher::DoTDL() {}
}  // namespace zor
