// corvaned: the reference cluster daemon. Started without arguments (by
// startDaemon, detached); logs to "~/Library/Logs/Lumenforge/corvaned.log".
// The work is done by CDaemonEngine; main blocks the stop signals before any
// thread exists, and carries out a restart by executing itself anew.
#include <cstdio>
#include <ostream>

#include <unistd.h>

#include "../common/StopSignals.h"
#include "DaemonEngine.h"
#include <ferrocore/CException.h>
#include <quillcore/logging/CQuillGlobalLogger.h>

int main(int, char** argv) {
    corvaned::CDaemonEngine::Outcome outcome = corvaned::CDaemonEngine::Outcome::Stopped;
    example::blockStopSignals();
    quill::CQuillLoggerRef logger = quill::CQuillLogger::create();
    try {
        logger->startupLogging(true, ferrocore::CString::create(kCorvaneDaemonName), 0);
        quill::CQuillGlobalLogger::setLogger(logger);
        corvaned::CDaemonEngine engine(logger);
        example::CStopSignalWatch signals([&engine](int) { engine.stop(); });
        engine.start();
        outcome = engine.run();
    } catch (const std::exception& e) {
        logger->log(3) << "corvaned: " << e.what() << std::endl;
        std::fprintf(stderr, "corvaned: %s\n", e.what());
        return 1;
    }
    quill::CQuillGlobalLogger::setLogger(nullptr);
    logger.reset();  // the session's end mark
    if (outcome == corvaned::CDaemonEngine::Outcome::Restart) {
        // The stop signals stay blocked across the exec, so one that arrives
        // meanwhile waits for the new process.
        execv("/proc/self/exe", argv);
        std::perror("corvaned: can't restart");
        return 1;
    }
    return 0;
}
