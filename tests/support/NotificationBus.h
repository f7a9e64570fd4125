// A private message bus for the tests of the notification centre, so that no
// test needs (or touches) the developer's session bus, and helpers to run the
// notification peer program and to wait on a run loop.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

#include <quillcore/platform/PLObject.h>

namespace quilltest {

// Starts the test program's own bus daemon on first use (a socket below the
// test root), points DBUS_SESSION_BUS_ADDRESS at it and returns its address.
// The daemon is stopped when the tests end (and dies with the program).
const std::string& privateBusAddress();

// Kills the test bus daemon and waits until it is gone; privateBusAddress()
// then starts a new one on the same socket.
void killPrivateBus();

// A bus daemon configured like the system bus (its own socket in a fresh
// directory that every user may enter, EXTERNAL authentication, no names or
// method calls for anyone and, unlike Debian's, no signals either) plus the
// policy file that the project installs, so that exactly what that file
// grants gets through. Stopped and removed by the destructor.
class PrivateSystemBus {
public:
    PrivateSystemBus();
    ~PrivateSystemBus();
    PrivateSystemBus(const PrivateSystemBus&) = delete;
    PrivateSystemBus& operator=(const PrivateSystemBus&) = delete;

    // The address for DBUS_SYSTEM_BUS_ADDRESS.
    const std::string& address() const { return _address; }

private:
    pid_t _pid = -1;
    std::filesystem::path _dir;
    std::string _address;
};

// Stops a per-user bus that the library started below `runtimeDir` (the
// directory XDG_RUNTIME_DIR named), using its pid file; false when there was
// none.
bool killPerUserBus(const std::filesystem::path& runtimeDir);

// The notification peer program built next to the test programs.
std::string notifyPeerPath();

// A child process running the peer with `args` (or, when `program` is given,
// that program), its standard output and error captured to a file. The
// destructor kills a process that is still running.
class PeerProcess {
public:
    explicit PeerProcess(const std::vector<std::string>& args, const std::string& program = {});
    ~PeerProcess();
    PeerProcess(const PeerProcess&) = delete;
    PeerProcess& operator=(const PeerProcess&) = delete;

    // Waits for the peer to end (killing it after `seconds`); returns its exit
    // status, or 128 + signal number.
    int wait(double seconds = 20.0);
    // Whether it has ended (then wait() returns at once).
    bool finished();
    pid_t pid() const { return _pid; }
    std::string output() const;

private:
    pid_t _pid = -1;
    int _status = -1;
    std::filesystem::path _outputPath;
};

// Runs the calling thread's run loop until `done` returns true or `seconds`
// pass; returns the last answer of `done`.
bool runLoopUntil(const std::function<bool()>& done, double seconds = 10.0);

// The console log lines (see consoleLogPath()) that contain `text`.
std::vector<std::string> consoleLinesWith(const std::string& text);

// A nested dictionary that holds every property-list type, with numbers of
// every kind, empty containers and text that needs escaping.
PLHolder<const PLDictionary> everyPropertyListType();

}  // namespace quilltest
