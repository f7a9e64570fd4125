// Finding the bus the user's processes meet on, and starting the private
// per-user bus when there is none. Used by the D-Bus notification transport.
#pragma once

#include <string>
#include <system_error>
#include <vector>

namespace quill::platform::sessionbus {

// A bus address to try and where it came from (for messages).
struct Candidate {
    std::string address;
    std::string origin;
};

// The buses to try first, in order: DBUS_SESSION_BUS_ADDRESS, then the
// runtime directory's "bus" socket when it exists.
std::vector<Candidate> standardCandidates();

// The host-wide bus: DBUS_SYSTEM_BUS_ADDRESS, else the standard system bus
// socket (kSystemBusSocketPath).
Candidate systemBusCandidate();

// The directory of the private per-user bus: $XDG_RUNTIME_DIR/quillcore,
// else /run/user/<uid>/quillcore when /run/user/<uid> belongs to the user,
// else /tmp/quillcore-<uid>.
std::string privateBusDirectory();

// Makes sure the private per-user bus runs and returns its address. Under an
// exclusive lock on the directory's lock file it probes the socket and, when
// nothing answers, starts the bus daemon and waits until it listens; the
// daemon outlives this process, and its process ID goes to the pid file. The
// directory is made with mode 0700 when missing; an existing one must be a
// directory (not a link) of the effective user that nobody else can write.
// On failure returns an error and a description; `started` tells whether this
// call started the daemon (it then also says so on the console log).
std::error_code ensurePrivateBus(std::string& address, bool& started, std::string& problem);

// "unix:path=<path>" with the path escaped as bus addresses require.
std::string unixAddress(const std::string& path);

// The bus match rule for our signal, restricted to `name` and `sender` when
// they are given (with value quoting as match rules require).
std::string matchRule(const std::string* name, const std::string* sender);

}  // namespace quill::platform::sessionbus
