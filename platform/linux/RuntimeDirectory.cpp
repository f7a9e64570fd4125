#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <sys/stat.h>
#include <unistd.h>

#include "platform/linux/PosixError.h"
#include <quillcore/platform/RuntimeDirectory.h>

namespace quill::platform {

namespace {

bool isOwnPrivateDirectory(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == ::geteuid() &&
           (st.st_mode & 077) == 0;
}

}  // namespace

std::string userPrivateDirectory(std::string_view name) {
    const char* value = secure_getenv("XDG_RUNTIME_DIR");
    std::string runtime = value ? value : "";
    if (runtime.empty()) {
        std::string userRuntime = "/run/user/" + std::to_string(::geteuid());
        if (isOwnPrivateDirectory(userRuntime)) runtime = userRuntime;
    }
    if (!runtime.empty()) return runtime + "/" + std::string(name);
    return "/tmp/" + std::string(name) + "-" + std::to_string(::geteuid());
}

std::error_code ensureUserPrivateDirectory(const std::string& directory, std::string& problem) {
    if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
        int err = errno;
        problem = "can't make " + directory + ": " + posixError(err).message();
        return posixError(err);
    }
    // The sockets of this user's processes will be here: nobody else may be
    // able to put one in their place.
    struct stat st;
    if (::lstat(directory.c_str(), &st) != 0) {
        int err = errno;
        problem = "can't examine " + directory + ": " + posixError(err).message();
        return posixError(err);
    }
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
    if (!S_ISDIR(st.st_mode)) {
        problem = "refusing " + directory + ": not a directory";
        return std::make_error_code(std::errc::permission_denied);
    }
    if (st.st_uid != ::geteuid()) {
        problem = "refusing " + directory + ": it belongs to uid " + std::to_string(st.st_uid) + ", not to uid " +
                  std::to_string(::geteuid());
        return std::make_error_code(std::errc::permission_denied);
    }
    if ((st.st_mode & 022) != 0) {
        problem = "refusing " + directory + ": others can write to it (mode " + mode + ")";
        return std::make_error_code(std::errc::permission_denied);
    }
    return {};
}

}  // namespace quill::platform
