#include "MountTranslation.h"

#include <charconv>
#include <set>
#include <string_view>

namespace quill::mountadapter {

namespace {

std::vector<std::string_view> splitOptions(std::string_view list) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    for (;;) {
        std::size_t comma = list.find(',', start);
        parts.push_back(list.substr(start, comma == std::string_view::npos ? std::string_view::npos : comma - start));
        if (comma == std::string_view::npos) return parts;
        start = comma + 1;
    }
}

// The port number of "port=N"; a value outside 1-65535 (the subscriber
// passes -1 for "unknown") gives 0, which means "leave it out".
int portValue(std::string_view option, std::string_view value) {
    long number = 0;
    const char* first = value.data();
    const char* last = value.data() + value.size();
    auto [end, error] = std::from_chars(first, last, number);
    if (value.empty() || error != std::errc() || end != last) {
        throw CUsageError("option \"" + std::string(option) + "\": \"" + std::string(value) +
                          "\" is not a decimal port number");
    }
    return number >= 1 && number <= 65535 ? static_cast<int>(number) : 0;
}

std::string translateOptions(std::string_view given) {
    std::string out = "nfsvers=3";
    std::set<std::string_view> seen;
    for (std::string_view option : splitOptions(given)) {
        std::size_t equals = option.find('=');
        std::string_view key = option.substr(0, equals);
        if (!seen.insert(key).second) throw CUsageError("option \"" + std::string(key) + "\" given twice");
        if (option == "soft") {
            out += ",soft";
        } else if (option == "intr") {
            // Linux's NFS client ignores it (a fatal signal always interrupts).
        } else if (option == "locallocks") {
            // Locks stay on this host; NFS version 4 has no such mode.
            out += ",nolock";
        } else if (equals != std::string_view::npos && (key == "port" || key == "mountport")) {
            int port = portValue(key, option.substr(equals + 1));
            if (port != 0) out += "," + std::string(key) + "=" + std::to_string(port);
        } else {
            throw CUsageError(option.empty() ? std::string("empty option in \"" + std::string(given) + "\"")
                                             : "unknown option \"" + std::string(option) + "\"");
        }
    }
    out += ",retry=0,timeo=" + std::to_string(kTimeoTenths) + ",retrans=" + std::to_string(kRetrans);
    return out;
}

// HOST:PATH as mount.nfs reads it. The subscriber writes the host name and
// the path joined by ':', so the path starts at the first ":/".
std::string translateSource(const std::string& source) {
    std::size_t colon = source.find(":/");
    if (colon == std::string::npos) {
        throw CUsageError("\"" + source + "\" is not HOST:/PATH");
    }
    if (colon == 0) throw CUsageError("\"" + source + "\" names no host");
    std::string host = source.substr(0, colon);
    if (host.find_first_of("/ \t\n") != std::string::npos || host.front() == '-') {
        throw CUsageError("\"" + host + "\" is not a host name");
    }
    if (host.find(':') != std::string::npos && host.front() != '[') host = "[" + host + "]";
    return host + source.substr(colon);
}

void checkMountPoint(const std::string& mountPoint) {
    if (mountPoint.empty() || mountPoint.front() != '/') {
        throw CUsageError("mount point \"" + mountPoint + "\" is not an absolute path");
    }
}

}  // namespace

CCommandLine translateMount(const std::vector<std::string>& args, const std::string& mountProgram) {
    if (args.size() != 4 || args[0] != "-o") {
        throw CUsageError("expected -o OPTIONS HOST:/PATH MOUNTPOINT, got " + std::to_string(args.size()) +
                          " argument(s)");
    }
    std::string options = translateOptions(args[1]);
    std::string source = translateSource(args[2]);
    checkMountPoint(args[3]);
    return {{mountProgram, "-t", "nfs", "-o", options, source, args[3]}};
}

CCommandLine translateUmount(const std::vector<std::string>& args, const std::string& umountProgram) {
    bool force = args.size() == 2 && args[0] == "-f";
    if (!force && args.size() != 1) throw CUsageError("expected [-f] MOUNTPOINT");
    const std::string& mountPoint = args.back();
    checkMountPoint(mountPoint);
    CCommandLine command{{umountProgram}};
    if (force) command.argv.push_back("-f");
    command.argv.push_back(mountPoint);
    return command;
}

std::string mountedFileSystemType(const std::string& mountinfo, const std::string& mountPoint) {
    // Each line: ID PARENT MAJ:MIN ROOT MOUNTPOINT OPTIONS [TAGS...] - TYPE SOURCE SUPER
    auto unescape = [](std::string_view field) {
        std::string out;
        for (std::size_t i = 0; i < field.size(); ++i) {
            if (field[i] == '\\' && i + 3 < field.size() && field[i + 1] >= '0' && field[i + 1] <= '3' &&
                field[i + 2] >= '0' && field[i + 2] <= '7' && field[i + 3] >= '0' && field[i + 3] <= '7') {
                out += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0'));
                i += 3;
            } else {
                out += field[i];
            }
        }
        return out;
    };
    std::string found;
    std::string_view text = mountinfo;
    while (!text.empty()) {
        std::size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        std::vector<std::string_view> fields;
        for (std::size_t start = 0; start < line.size();) {
            std::size_t space = line.find(' ', start);
            if (space == std::string_view::npos) space = line.size();
            fields.push_back(line.substr(start, space - start));
            start = space + 1;
        }
        std::size_t dash = 6;
        while (dash < fields.size() && fields[dash] != "-") ++dash;
        if (dash + 1 >= fields.size()) continue;
        // Later lines are mounted on top of earlier ones.
        if (unescape(fields[4]) == mountPoint) found = std::string(fields[dash + 1]);
    }
    return found;
}

bool isNFSType(const std::string& type) { return type == "nfs" || type == "nfs4"; }

}  // namespace quill::mountadapter
