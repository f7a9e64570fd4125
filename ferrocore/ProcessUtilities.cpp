#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include <dirent.h>

#include <ferrocore/ProcessUtilities.h>

namespace ferrocore::ProcessUtilities {

namespace {

// The longest name the kernel keeps in comm.
inline constexpr std::size_t kCommLength = 15;

std::optional<std::string> readProcFile(pid_t pid, const char* file) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/" + file, std::ios::binary);
    if (!in) return std::nullopt;
    std::string contents((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) return std::nullopt;
    return contents;
}

std::optional<std::string> nameOf(pid_t pid) {
    std::optional<std::string> comm = readProcFile(pid, "comm");
    if (!comm) return std::nullopt;
    if (!comm->empty() && comm->back() == '\n') comm->pop_back();
    if (comm->size() == kCommLength) {
        if (std::optional<std::string> cmdline = readProcFile(pid, "cmdline")) {
            std::string first = cmdline->substr(0, cmdline->find('\0'));
            const std::size_t slash = first.rfind('/');
            if (slash != std::string::npos) first.erase(0, slash + 1);
            if (first.size() > kCommLength && first.starts_with(*comm)) return first;
        }
    }
    return comm;
}

std::vector<pid_t> allProcessIDs() {
    std::vector<pid_t> pids;
    DIR* proc = opendir("/proc");
    if (!proc) return pids;
    while (const dirent* entry = readdir(proc)) {
        const char* name = entry->d_name;
        if (*name < '1' || *name > '9') continue;
        char* end = nullptr;
        const long pid = std::strtol(name, &end, 10);
        if (*end == '\0' && pid > 0) pids.push_back(static_cast<pid_t>(pid));
    }
    closedir(proc);
    std::sort(pids.begin(), pids.end());
    return pids;
}

bool nameMatches(pid_t pid, std::string_view name) {
    const std::optional<std::string> actual = nameOf(pid);
    return actual && *actual == name;
}

}  // namespace

std::vector<pid_t> processIDsForName(std::string_view name) {
    std::vector<pid_t> found;
    for (pid_t pid : allProcessIDs()) {
        if (nameMatches(pid, name)) found.push_back(pid);
    }
    return found;
}

std::vector<pid_t> processIDsForName(std::string_view name, uid_t user) {
    std::vector<pid_t> found;
    for (pid_t pid : processIDsForName(name)) {
        if (processEffectiveUserForID(pid) == user) found.push_back(pid);
    }
    return found;
}

CStringRef processNameForID(pid_t pid) {
    if (pid <= 0) return CStringRef();
    std::optional<std::string> name = nameOf(pid);
    return name ? CString::create(std::move(*name)) : CStringRef();
}

std::optional<uid_t> processEffectiveUserForID(pid_t pid) {
    if (pid <= 0) return std::nullopt;
    const std::optional<std::string> status = readProcFile(pid, "status");
    if (!status) return std::nullopt;
    std::istringstream lines(*status);
    std::string line;
    while (std::getline(lines, line)) {
        if (!line.starts_with("Uid:")) continue;
        std::istringstream fields(line.substr(4));
        unsigned long real = 0;
        unsigned long effective = 0;
        if (fields >> real >> effective) return static_cast<uid_t>(effective);
        return std::nullopt;
    }
    return std::nullopt;
}

}  // namespace ferrocore::ProcessUtilities
