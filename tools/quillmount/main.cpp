// quill-nfs-mount — the mount and unmount commands of QuillCore's storage
// subscriber on Linux. Called as quill-nfs-umount (or with "umount" as its
// first argument) it unmounts; otherwise it mounts. It takes the subscriber's
// argument vectors, translates them for Linux's NFS client
// (MountTranslation.h) and replaces itself with mount(8) or umount(8), so its
// exit status is theirs and a caller that kills it on a time-out kills the
// real command.
//
// Settings (environment, for tests and unusual hosts):
//   QUILL_NFS_MOUNT_PROGRAM   the mount program (default /bin/mount)
//   QUILL_NFS_UMOUNT_PROGRAM  the unmount program (default /bin/umount)
//   QUILL_NFS_MOUNTINFO       the mount table read before unmounting
//                             (default /proc/self/mountinfo)
//
// Exit status: that of the program run; 1 for an argument vector it does not
// understand; 32 when the unmount target is not an NFS mount; 2 when the
// program cannot be run.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <climits>
#include <unistd.h>

#include "MountTranslation.h"

namespace {

constexpr int kUsageStatus = 1;
constexpr int kSystemErrorStatus = 2;
constexpr int kNotNFSStatus = 32;

std::string setting(const char* name, const char* fallback) {
    const char* value = secure_getenv(name);
    return value && *value ? value : fallback;
}

void complain(const std::string& text) { std::fprintf(stderr, "quill-nfs-mount: %s\n", text.c_str()); }

// The mount point as the kernel's table names it: the path itself when it is
// there, else with its parent resolved. The mount point itself is not looked
// at, because the server behind it may be gone.
std::string mountTableType(const std::string& mountinfo, const std::string& mountPoint) {
    std::string type = quill::mountadapter::mountedFileSystemType(mountinfo, mountPoint);
    if (!type.empty()) return type;
    std::string trimmed = mountPoint;
    while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
    std::size_t slash = trimmed.rfind('/');
    std::string parent = slash == 0 ? "/" : trimmed.substr(0, slash);
    char resolved[PATH_MAX];
    if (!::realpath(parent.c_str(), resolved)) return {};
    std::string full = resolved;
    if (full != "/") full += "/";
    full += trimmed.substr(slash + 1);
    return quill::mountadapter::mountedFileSystemType(mountinfo, full);
}

}  // namespace

int main(int argc, char** argv) {
    std::string self = argc > 0 ? argv[0] : "";
    std::string base = self.substr(self.rfind('/') + 1);
    std::vector<std::string> args(argv + (argc > 0 ? 1 : 0), argv + argc);
    bool unmount = base.find("umount") != std::string::npos;
    if (!args.empty() && (args.front() == "mount" || args.front() == "umount")) {
        unmount = args.front() == "umount";
        args.erase(args.begin());
    }

    quill::mountadapter::CCommandLine command;
    try {
        if (unmount) {
            command = quill::mountadapter::translateUmount(args, setting("QUILL_NFS_UMOUNT_PROGRAM", "/bin/umount"));
            std::string tablePath = setting("QUILL_NFS_MOUNTINFO", "/proc/self/mountinfo");
            std::ifstream table(tablePath);
            if (!table) {
                complain("can't read " + tablePath + ": " + std::strerror(errno));
                return kSystemErrorStatus;
            }
            std::stringstream text;
            text << table.rdbuf();
            std::string type = mountTableType(text.str(), command.argv.back());
            if (!quill::mountadapter::isNFSType(type)) {
                complain(command.argv.back() +
                         (type.empty() ? std::string(": not mounted") : ": not an NFS mount (" + type + ")"));
                return kNotNFSStatus;
            }
        } else {
            command = quill::mountadapter::translateMount(args, setting("QUILL_NFS_MOUNT_PROGRAM", "/bin/mount"));
        }
    } catch (const quill::mountadapter::CUsageError& e) {
        complain(e.what());
        return kUsageStatus;
    }

    std::vector<char*> childArgv;
    for (std::string& arg : command.argv) childArgv.push_back(arg.data());
    childArgv.push_back(nullptr);
    std::fflush(nullptr);
    ::execv(childArgv[0], childArgv.data());
    complain("can't run " + command.argv[0] + ": " + std::strerror(errno));
    return kSystemErrorStatus;
}
