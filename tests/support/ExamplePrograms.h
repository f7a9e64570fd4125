// The example programs as the tests of the daemon, the service bundle and
// the service verbs use them: where the build put them, a copy of the service
// bundle under a kind of the test's own, the stand-in control command, and
// waiting for a process that is not a child to end. For the test programs
// that the build gives the QUILL_TEST_CORVANED, QUILL_TEST_EXAMPLE_BUNDLE and
// QUILL_TEST_RUNWARDCTL_STANDIN paths.
#pragma once

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/TestSupport.h"
#include <quillcore/platform/NotificationCenter.h>

namespace quilltest {

inline std::filesystem::path corvanedPath() { return QUILL_TEST_CORVANED; }
inline std::filesystem::path exampleBundlePath() { return QUILL_TEST_EXAMPLE_BUNDLE; }
inline std::filesystem::path exampleServicePath() { return exampleBundlePath() / "ExampleService"; }

// The kind the built bundle declares.
inline const std::string kExampleServiceKind = "servicecontroller:com.tessaly.corvane.example";

// A copy of the service bundle at `bundle` (made with its parents) whose
// Info.plist declares `kind` instead. Trigger files live in the shared /tmp,
// so tests give their services kinds of their own.
inline void copyExampleBundle(const std::filesystem::path& bundle, const std::string& kind) {
    namespace fs = std::filesystem;
    fs::create_directories(bundle);
    fs::copy(exampleBundlePath(), bundle, fs::copy_options::recursive | fs::copy_options::overwrite_existing);
    std::string info = readFile(bundle / "Info.plist");
    const std::string declared = "<string>" + kExampleServiceKind + "</string>";
    std::string escaped;
    for (const char c : kind) {
        if (c == '&')
            escaped += "&amp;";
        else if (c == '<')
            escaped += "&lt;";
        else if (c == '>')
            escaped += "&gt;";
        else
            escaped += c;
    }
    info.replace(info.find(declared), declared.size(), "<string>" + escaped + "</string>");
    writeFile(bundle / "Info.plist", info);
}

// A kind no other test program uses at the same time.
inline std::string uniqueKind(const std::string& tag) {
    return "servicecontroller:com.tessaly.test." + tag + "-" + std::to_string(::getpid());
}

// The stand-in control command copied into `dir` (see
// scripts/runwardctl-standin.sh); its records go beside it.
inline std::filesystem::path installStandin(const std::filesystem::path& dir) {
    const std::filesystem::path script = dir / "runwardctl";
    std::filesystem::copy_file(QUILL_TEST_RUNWARDCTL_STANDIN, script,
                               std::filesystem::copy_options::overwrite_existing);
    return script;
}

// Waits at most `seconds` for process `pid` (not necessarily a child) to
// end; true when it has.
inline bool waitForProcessEnd(pid_t pid, double seconds) {
    const int fd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (fd < 0) return ::kill(pid, 0) != 0;
    pollfd entry{fd, POLLIN, 0};
    const int ready = ::poll(&entry, 1, static_cast<int>(seconds * 1000));
    ::close(fd);
    return ready == 1;
}

// SIGTERM, then SIGKILL when the process has not ended within `seconds`.
// True when it ended of the SIGTERM.
inline bool endProcess(pid_t pid, double seconds = 10.0) {
    if (pid <= 0 || ::kill(pid, SIGTERM) != 0) return false;
    if (waitForProcessEnd(pid, seconds)) return true;
    ::kill(pid, SIGKILL);
    waitForProcessEnd(pid, 5.0);
    return false;
}

// Notifications of one name (and sender, when given), collected on the
// calling thread's run loop.
class NotificationCollector {
public:
    explicit NotificationCollector(PLStringRef name, PLStringRef sender = nullptr) {
        quill::platform::notificationCenter().addObserver(
            this, quill::platform::NotificationHandler([this](const quill::platform::CNotification& n) {
                seen.push_back(n);
            }),
            name, sender);
    }
    ~NotificationCollector() { quill::platform::notificationCenter().removeObserver(this); }
    NotificationCollector(const NotificationCollector&) = delete;
    NotificationCollector& operator=(const NotificationCollector&) = delete;

    std::vector<quill::platform::CNotification> seen;
};

}  // namespace quilltest
