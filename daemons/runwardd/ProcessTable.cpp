#include "ProcessTable.h"

#include <cstdlib>
#include <cstring>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <quillcore/platform/FileDescriptor.h>

namespace runward {

namespace {

std::string readSmallFile(const std::string& path, std::size_t limit) {
    quill::platform::CFileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string out;
    if (!fd) return out;
    char buffer[4096];
    while (out.size() < limit) {
        ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n <= 0) break;
        out.append(buffer, static_cast<std::size_t>(n));
    }
    return out;
}

}  // namespace

std::optional<ProcessInfo> readProcess(pid_t pid) {
    std::string text = readSmallFile("/proc/" + std::to_string(pid) + "/stat", 4096);
    // "pid (comm) state ppid pgrp session tty tpgid flags minflt cminflt
    // majflt cmajflt utime stime cutime cstime priority nice threads
    // itrealvalue starttime ...": comm may hold anything, so read after its
    // last ")".
    auto close = text.rfind(')');
    if (close == std::string::npos || close + 2 >= text.size()) return std::nullopt;
    std::string_view rest(text.c_str() + close + 2);
    ProcessInfo info;
    info.pid = pid;
    info.state = rest[0];
    std::vector<std::string_view> fields;
    std::size_t at = 0;
    while (at < rest.size() && fields.size() < 20) {
        auto space = rest.find(' ', at);
        if (space == std::string_view::npos) space = rest.size();
        fields.push_back(rest.substr(at, space - at));
        at = space + 1;
    }
    if (fields.size() < 20) return std::nullopt;
    info.parent = static_cast<pid_t>(std::strtol(std::string(fields[1]).c_str(), nullptr, 10));
    info.group = static_cast<pid_t>(std::strtol(std::string(fields[2]).c_str(), nullptr, 10));
    info.startTicks = std::strtoull(std::string(fields[19]).c_str(), nullptr, 10);
    return info;
}

std::vector<ProcessInfo> listOwnProcesses() {
    std::vector<ProcessInfo> out;
    DIR* dir = ::opendir("/proc");
    if (!dir) return out;
    const uid_t uid = ::geteuid();
    while (dirent* entry = ::readdir(dir)) {
        char* end = nullptr;
        long pid = std::strtol(entry->d_name, &end, 10);
        if (pid <= 0 || *end != '\0') continue;
        struct stat st;
        if (::fstatat(::dirfd(dir), entry->d_name, &st, 0) != 0 || st.st_uid != uid) continue;
        if (auto info = readProcess(static_cast<pid_t>(pid))) out.push_back(*info);
    }
    ::closedir(dir);
    return out;
}

bool carriesToken(pid_t pid, const std::string& token) {
    if (token.empty()) return false;
    std::string environ = readSmallFile("/proc/" + std::to_string(pid) + "/environ", 1 << 20);
    std::string wanted = std::string(kJobTokenVariable) + "=" + token;
    std::size_t at = 0;
    while (at < environ.size()) {
        auto end = environ.find('\0', at);
        if (end == std::string::npos) end = environ.size();
        if (std::string_view(environ).substr(at, end - at) == wanted) return true;
        at = end + 1;
    }
    return false;
}

bool isSameProcess(pid_t pid, unsigned long long startTicks) {
    auto info = readProcess(pid);
    return info && info->startTicks == startTicks && info->state != 'Z';
}

}  // namespace runward
