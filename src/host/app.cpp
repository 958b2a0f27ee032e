// The application sequence.
#include "host/app.h"

#include <new>

#include "host/config.h"
#include "host/exit_deadline.h"
#include "host/host.h"
#include "support/log.h"

namespace zor {

int RunZorApp(const char16_t* commandLine, DialogShell& shell) {
    bool hide = FindSwitch(commandLine, u"HIDE") != nullptr;
    Logger logger;
    char16_t ini[260];
    InstallationIniPath(ini);
    Logger::Settings logSettings;
    ReadLogSettings(ini, &logSettings);
    logger.Configure(logSettings);
    logger.Start();
    shell.LogStarted(logger);
    logger.FlushAtCrash();
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
    host->recorder.Publish(host->config.traceEvents);

    // -1: the dialog could not run at all (the shell said why).
    const std::intptr_t ran = shell.RunDialog(*host, hide);

    // No pipe thread may be inside a module while the modules go. A thread
    // stuck in a module keeps that module loaded and the host alive: the
    // process ends under it. The pipe threads have had their bounded wait
    // then, so unloading waits no more: the exit stays within that bound.
    // A module call that never returns on the dispatch thread holds the
    // driver's Shutdown: the deadline ends the process then.
    bool stopped = false;
    {
        ExitDeadline deadline(*host);
        stopped = host->clients.StopAll();
        host->registry.UnloadAll(stopped ? Caller::kUnloadWaitMs : 0);
    }
    if (stopped) {
        host->stats.Release();
        host->recorder.Release();
        SetRunningHost(nullptr);
        delete host;
    } else {
        logger.wPrintf(kLogFault, u"ZOR: a client request is still running in a module: exit without cleanup\n\r");
    }
    logger.End();
    return ran == -1 ? 1 : 0;
}

}  // namespace zor
