// The mount adapter's one decision: how an argument vector of the storage
// subscriber's mount and unmount command lines becomes a command line of
// Linux's mount(8) and umount(8) for NFS. Pure functions, no I/O, so that the
// translation table (docs/storage.md, "Mount adapter") is tested without a
// kernel.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace quill::mountadapter {

// An argument vector the adapter does not understand. what() says which
// argument and why, in a form fit for standard error.
class CUsageError final : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The NFS client's time-out per request in tenths of a second and the number
// of retransmissions before a soft request fails; with retry=0 a server that
// does not answer fails a mount in well under the subscriber's 55 seconds.
inline constexpr int kTimeoTenths = 100;
inline constexpr int kRetrans = 2;

// A translated command: argv[0] is the program to run.
struct CCommandLine {
    std::vector<std::string> argv;
};

// The subscriber's mount arguments (without the program name):
//   -o OPTIONS HOST:PATH MOUNTPOINT
// where OPTIONS is a comma-separated list of "soft", "intr", "locallocks",
// "port=N" and "mountport=N". Gives
//   MOUNT -t nfs -o OPTIONS' SOURCE MOUNTPOINT
// where OPTIONS' is "nfsvers=3", then the given options translated in their
// order ("locallocks" -> "nolock", "intr" dropped, ports outside 1-65535
// dropped), then "retry=0,timeo=...,retrans=...". A host holding ':' (an IPv6
// literal) is put in brackets. Throws CUsageError for anything else: a
// missing or extra argument, an unknown or repeated option, a port that is
// not a decimal integer, a source without a host or whose path is not
// absolute, a relative mount point.
CCommandLine translateMount(const std::vector<std::string>& args, const std::string& mountProgram);

// The subscriber's unmount arguments: "-f" MOUNTPOINT (or MOUNTPOINT alone).
// Gives UMOUNT [-f] MOUNTPOINT. Throws CUsageError for other vectors or a
// relative mount point.
CCommandLine translateUmount(const std::vector<std::string>& args, const std::string& umountProgram);

// The file-system type of the topmost mount at `mountPoint` in `mountinfo`
// (the text of /proc/self/mountinfo, whose paths write white space and the
// backslash as a backslash and three octal digits); empty when nothing is
// mounted there. The adapter unmounts NFS mounts only, whatever path a request names (umount(8) ignores -t for a
// named target, so the check is ours).
std::string mountedFileSystemType(const std::string& mountinfo, const std::string& mountPoint);

// Whether `type` is one of the NFS types ("nfs", "nfs4").
bool isNFSType(const std::string& type);

}  // namespace quill::mountadapter
