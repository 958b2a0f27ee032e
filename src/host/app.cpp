// The application sequence.
#include "host/app.h"

#include <new>

#include "host/config.h"
#include "host/host.h"
#include "support/log.h"

namespace zor {

int RunZorApp(const char16_t* commandLine, DialogShell& shell) {
    bool hide = FindSwitch(commandLine, u"HIDE") != nullptr;
    Logger logger;
    logger.Start();
    // The host's tables are large; keep them off the main thread's stack.
    Host* host = new (std::nothrow) Host(logger);
    if (!host) {
        logger.End();
        return 1;
    }
    SetRunningHost(host);
    LoadConfig(*host);
    host->registry.PrepareTables();
    host->stats.Publish();

    shell.RunDialog(*host, hide);

    // No pipe thread may be inside a module while the modules go.
    host->clients.StopAll();
    host->registry.UnloadAll();
    host->stats.Release();
    SetRunningHost(nullptr);
    delete host;
    logger.End();
    return 0;
}

}  // namespace zor
