// corvaned: the reference cluster daemon. Started without arguments (by
// startDaemon, detached); logs to "~/Library/Logs/Lumenforge/corvaned.log"
// and, once started, lets go of its standard streams.
// The work is done by CDaemonEngine; main blocks the stop signals before any
// thread exists, and carries out a restart by executing itself anew.
#include <cstdio>
#include <filesystem>
#include <ostream>

#include <fcntl.h>
#include <unistd.h>

#include "../common/StopSignals.h"
#include "DaemonEngine.h"
#include <ferrocore/CException.h>
#include <quillcore/logging/CQuillGlobalLogger.h>

namespace {

// Once running, the daemon lets go of the terminal or pipe it was started
// from (startDaemon hands it the caller's three standard descriptors): its
// log file is where it reports.
void detachStandardStreams() {
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null < 0) return;
    for (int fd = 0; fd <= 2; ++fd) dup2(null, fd);
    close(null);
}

}  // namespace

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
        detachStandardStreams();
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
        // By its own path, not "/proc/self/exe": the process is known by the
        // name of the file it was executed from.
        std::error_code error;
        const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
        if (!error) execv(self.c_str(), argv);
        std::perror("corvaned: can't restart");
        return 1;
    }
    return 0;
}
