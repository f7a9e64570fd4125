// quillctl run [--pty] [--user NAME] -- PROGRAM ARGS...
//
// Runs PROGRAM through the library's task classes: a plain task, a user task
// with --user, a terminal task with --pty. Without --pty the program shares
// quillctl's standard streams; with --pty its joined output is printed when it
// ends. quillctl exits with the program's exit code, or 128 + the signal
// number when a signal ended it, as a shell does (the task's own status
// cannot tell the two apart, so quillctl watches the wait itself).
// SIGINT, SIGTERM and SIGHUP sent to quillctl are passed on to the program as
// SIGTERM, and quillctl waits for it to end.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Commands.h"
#include <ferrocore/CMutex.h>
#include <quillcore/platform/ProcessSpawner.h>
#include <quillcore/process/CTask.h>
#include <quillcore/process/CTask2.h>
#include <quillcore/process/CUserTask.h>

extern char** environ;

namespace quillctl {

namespace {

namespace platform = quill::platform;

// How the child ended, seen at the wait.
class CEndRecorder final : public platform::CProcessSpawnerWrapper {
public:
    std::error_code waitForProcess(std::int32_t processID, platform::CProcessEnd& end) override {
        const std::error_code error = CProcessSpawnerWrapper::waitForProcess(processID, end);
        if (!error) {
            ferrocore::CAutoMutex lock(_mutex);
            _end = end;
        }
        return error;
    }

    std::optional<platform::CProcessEnd> end() {
        ferrocore::CAutoMutex lock(_mutex);
        return _end;
    }

private:
    ferrocore::CMutex _mutex;
    std::optional<platform::CProcessEnd> _end FERRO_GUARDED_BY(_mutex);
};

std::atomic<pid_t> gChild{0};
static_assert(std::atomic<pid_t>::is_always_lock_free);

extern "C" void forwardToChild(int) {
    const int saved = errno;
    if (const pid_t pid = gChild.load(); pid > 0) kill(pid, SIGTERM);
    errno = saved;
}

void forwardSignals() {
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = forwardToChild;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &action, nullptr);
}

bool isExecutableFile(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && access(path.c_str(), X_OK) == 0;
}

// The program's path: as given when it holds a "/", else the first match in
// PATH. Tasks never search PATH themselves. On failure prints why and sets
// the shell's status for it (127 not found, 126 not executable).
std::optional<std::string> resolveProgram(const std::string& program, int& status) {
    if (program.find('/') != std::string::npos) {
        if (isExecutableFile(program)) return program;
        const int error = access(program.c_str(), F_OK) == 0 ? EACCES : ENOENT;
        printError(program + ": " + std::strerror(error));
        status = error == ENOENT ? 127 : 126;
        return std::nullopt;
    }
    const char* path = std::getenv("PATH");
    std::string dirs = path && *path ? path : "/usr/local/bin:/usr/bin:/bin";
    for (std::size_t start = 0; start <= dirs.size();) {
        std::size_t end = dirs.find(':', start);
        if (end == std::string::npos) end = dirs.size();
        const std::string dir = end > start ? dirs.substr(start, end - start) : ".";
        if (const std::string candidate = dir + "/" + program; isExecutableFile(candidate)) return candidate;
        start = end + 1;
    }
    printError(program + ": command not found");
    status = 127;
    return std::nullopt;
}

// A user name or numeric user ID.
std::optional<uid_t> resolveUser(const std::string& user) {
    if (const passwd* entry = getpwnam(user.c_str())) return entry->pw_uid;
    if (!user.empty() && user.find_first_not_of("0123456789") == std::string::npos) {
        errno = 0;
        char* end = nullptr;
        const unsigned long id = std::strtoul(user.c_str(), &end, 10);
        if (errno == 0 && *end == '\0' && id < 0x7fffffffUL) return static_cast<uid_t>(id);
    }
    return std::nullopt;
}

struct RunOptions {
    bool pty = false;
    std::string user;
    std::vector<std::string> command;
};

int run(const RunOptions& options) {
    int status = 1;
    const std::optional<std::string> path = resolveProgram(options.command.front(), status);
    if (!path) return status;

    std::int32_t userID = 0;
    if (!options.user.empty()) {
        const std::optional<uid_t> uid = resolveUser(options.user);
        if (!uid) {
            printError("unknown user " + options.user);
            return 1;
        }
        // Without root the change of user would fail silently in the child.
        if (geteuid() != 0 && *uid != getuid()) {
            printError("running as " + options.user + " needs root");
            return 1;
        }
        userID = static_cast<std::int32_t>(*uid);
    }

    std::vector<const char*> args;
    for (std::size_t i = 1; i < options.command.size(); ++i) args.push_back(options.command[i].c_str());
    args.push_back(nullptr);

    CEndRecorder recorder;
    platform::CScopedProcessSpawner scope(recorder);
    std::unique_ptr<quill::CTask> task;
    quill::CTask2* terminal = nullptr;
    if (options.pty) {
        auto owned = std::make_unique<quill::CTask2>(path->c_str(), args.data());
        owned->setEnv(environ);
        terminal = owned.get();
        task = std::move(owned);
    } else if (!options.user.empty()) {
        task = std::make_unique<quill::CUserTask>(path->c_str(), args.data(), environ, userID);
    } else {
        task = std::make_unique<quill::CTask>(path->c_str(), args.data(), environ, nullptr);
    }

    forwardSignals();
    std::fflush(stdout);
    std::fflush(stderr);
    if (const int error = task->launch(); error != 0) {
        printError("cannot launch " + *path + ": " + std::strerror(error > 0 ? error : errno));
        return 1;
    }
    gChild.store(task->processID());

    if (terminal) {
        if (const ferrocore::CStringRef output = terminal->getTaskOutput())
            std::fwrite(output->utf8().data(), 1, output->utf8().size(), stdout);
    }
    const int taskStatus = task->waitForTask();
    gChild.store(0);
    const std::optional<platform::CProcessEnd> end = recorder.end();
    if (!end) {
        printError("lost track of " + *path);
        return 1;
    }
    if (end->kind == platform::CProcessEnd::Kind::Signaled) return 128 + end->value;
    return taskStatus;
}

void addRunCommands(CLI::App& app) {
    auto options = std::make_shared<RunOptions>();
    CLI::App* cmd = app.add_subcommand(
        "run", "Run PROGRAM with ARGS as a task and exit with its status (128 + signal number when killed)");
    CLI::Option* pty = cmd->add_flag("--pty", options->pty,
                                     "Give the program a pseudo-terminal as input; print its output and errors "
                                     "when it ends");
    cmd->add_option("--user", options->user, "Run the program as this user (name or ID; needs root)")->excludes(pty);
    cmd->add_option("PROGRAM", options->command,
                    "The program (searched in PATH when it has no \"/\") and its arguments")
        ->required();
    cmd->positionals_at_end();
    setAction(cmd, [options] { return run(*options); });
}

}  // namespace

QUILLCTL_COMMANDS(addRunCommands);

}  // namespace quillctl
