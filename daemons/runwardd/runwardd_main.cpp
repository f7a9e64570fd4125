// runwardd: the per-user job supervisor. Started by runwardctl when none
// answers on the control socket, or by the host's init.
//
//   runwardd [--ready-fd N]
//
// With --ready-fd it writes one byte to descriptor N once it listens and
// closes it.
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include "Engine.h"
#include "Paths.h"
#include <ferrocore/CString.h>
#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/ReadinessNotification.h>
#include <quillcore/platform/RuntimeDirectory.h>

namespace {

bool makeDirectories(const std::string& path) {
    for (std::size_t at = 1; at <= path.size(); ++at) {
        if (at != path.size() && path[at] != '/') continue;
        std::string part = path.substr(0, at);
        if (::mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    quill::platform::CFileDescriptor ready;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--ready-fd") == 0 && i + 1 < argc) {
            ready.reset(std::atoi(argv[++i]));
        } else {
            std::cerr << "usage: runwardd [--ready-fd N]\n";
            return 2;
        }
    }
    const char* home = std::getenv("HOME");
    if (!home || home[0] != '/') {
        std::cerr << "runwardd: HOME is not set to an absolute path\n";
        return 1;
    }
    std::string directory = quill::platform::userPrivateDirectory(runward::kRuntimeDirectoryName);
    std::string problem;
    if (quill::platform::ensureUserPrivateDirectory(directory, problem)) {
        std::cerr << "runwardd: " << problem << "\n";
        return 1;
    }
    std::string stateDirectory = std::string(home) + "/" + runward::kStateDirectory;
    std::string logDirectory = std::string(home) + "/" + runward::kLogDirectory;
    if (!makeDirectories(stateDirectory) || !makeDirectories(logDirectory)) {
        std::cerr << "runwardd: can't make " << stateDirectory << " or " << logDirectory << ": " << std::strerror(errno)
                  << "\n";
        return 1;
    }

    // Pin no directory of whoever started us; jobs start in "/" too.
    if (::chdir("/") != 0) {
        std::cerr << "runwardd: can't change to /: " << std::strerror(errno) << "\n";
        return 1;
    }

    sigset_t signals;
    sigemptyset(&signals);
    for (int s : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, s);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    auto logger = quill::CQuillLogger::create();
    logger->startupLogging(ferrocore::CString::create(logDirectory + "/" + runward::kLogFileName), false);

    runward::Engine engine({directory + "/" + runward::kSocketName, directory + "/" + runward::kLockName,
                            stateDirectory + "/" + runward::kStateFileName},
                           logger);
    if (!engine.start(problem)) {
        std::cerr << "runwardd: " << problem << "\n";
        logger->log(1) << "runwardd: " << problem << std::endl;
        return 1;
    }
    if (ready) {
        ssize_t written = ::write(ready.get(), "1", 1);
        static_cast<void>(written);
        ready.reset();
    }
    quill::platform::notifyDaemonReady("listening on " + directory + "/" + runward::kSocketName);
    // The jobs are not the service manager's to talk to.
    ::unsetenv("NOTIFY_SOCKET");
    engine.run();
    return 0;
}
