#include "Control.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "JobDefinition.h"
#include "Paths.h"
#include "Protocol.h"
#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/RuntimeDirectory.h>

namespace runward {

using quill::platform::CFileDescriptor;

namespace {

constexpr int kDaemonStartTimeoutMs = 10000;

const char* const kUsage =
    "usage: runwardctl load [-S SESSION] [-D DOMAIN] PATH\n"
    "       runwardctl unload [-S SESSION] [-D DOMAIN] PATH\n"
    "       runwardctl list [-x LABEL]\n";

CFileDescriptor connectTo(const std::string& socketPath) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof address.sun_path) return {};
    std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
    CFileDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) return {};
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return {};
    return fd;
}

// Starts runwardd in a session of its own and waits until it listens.
bool startDaemon(const std::string& daemonPath, std::string& problem) {
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
        problem = std::string("can't make a pipe: ") + std::strerror(errno);
        return false;
    }
    CFileDescriptor readEnd(pipeFds[0]);
    CFileDescriptor writeEnd(pipeFds[1]);
    std::string fdText = "3";
    pid_t pid = ::fork();
    if (pid < 0) {
        problem = std::string("can't start runwardd: ") + std::strerror(errno);
        return false;
    }
    if (pid == 0) {
        ::setsid();
        int null = ::open("/dev/null", O_RDWR);
        if (null >= 0) {
            ::dup2(null, 0);
            ::dup2(null, 1);
            ::dup2(null, 2);
        }
        ::dup2(writeEnd.get(), 3);  // without close-on-exec
        char* argv[] = {const_cast<char*>(daemonPath.c_str()), const_cast<char*>("--ready-fd"), fdText.data(), nullptr};
        ::execv(daemonPath.c_str(), argv);
        ::_exit(127);
    }
    writeEnd.reset();
    pollfd wait{readEnd.get(), POLLIN, 0};
    int ready = ::poll(&wait, 1, kDaemonStartTimeoutMs);
    char byte = 0;
    if (ready == 1 && ::read(readEnd.get(), &byte, 1) == 1) return true;
    problem = "runwardd (" + daemonPath + ") did not start; see its log";
    return false;
}

CFileDescriptor reachDaemon(const std::string& daemonPath, std::string& problem) {
    std::string directory = quill::platform::userPrivateDirectory(kRuntimeDirectoryName);
    if (quill::platform::ensureUserPrivateDirectory(directory, problem)) return {};
    std::string socketPath = directory + "/" + kSocketName;
    if (auto fd = connectTo(socketPath)) return fd;
    // One starter at a time; the others find the daemon it started.
    std::string lockPath = directory + "/" + kStartLockName;
    CFileDescriptor lock(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock) {
        problem = "can't open " + lockPath + ": " + std::strerror(errno);
        return {};
    }
    while (::flock(lock.get(), LOCK_EX) != 0 && errno == EINTR) {}
    if (auto fd = connectTo(socketPath)) return fd;
    if (!startDaemon(daemonPath, problem)) return {};
    if (auto fd = connectTo(socketPath)) return fd;
    problem = "runwardd does not answer on " + socketPath;
    return {};
}

std::optional<Reply> exchange(const Request& request, const std::string& daemonPath, std::string& problem) {
    CFileDescriptor fd = reachDaemon(daemonPath, problem);
    if (!fd) return std::nullopt;
    std::string bytes = encodeRequest(request);
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::send(fd.get(), bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            problem = std::string("can't send to runwardd: ") + std::strerror(errno);
            return std::nullopt;
        }
        done += static_cast<std::size_t>(n);
    }
    FrameReader reader;
    char buffer[65536];
    for (;;) {
        bool oversized = false;
        if (auto payload = reader.next(oversized)) {
            auto reply = decodeReply(*payload, problem);
            if (!reply) problem = "bad reply from runwardd: " + problem;
            return reply;
        }
        if (oversized) {
            problem = "runwardd's reply is too large";
            return std::nullopt;
        }
        ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            problem = "runwardd closed the connection without a reply";
            return std::nullopt;
        }
        reader.feed(std::string_view(buffer, static_cast<std::size_t>(n)));
    }
}

}  // namespace

int runControlCommand(const std::vector<std::string>& args, const std::string& daemonPath, std::ostream& out,
                      std::ostream& err) {
    if (args.empty()) {
        err << kUsage;
        return 2;
    }
    Request request;
    request.command = args[0];
    std::string path;
    if (request.command == "load" || request.command == "unload") {
        std::size_t i = 1;
        for (; i + 1 < args.size(); i += 2) {
            if (args[i] == "-S") {
                if (!isKnownSession(args[i + 1])) {
                    err << "runwardctl: unknown session type \"" << args[i + 1] << "\"\n";
                    return 2;
                }
                request.session = args[i + 1];
            } else if (args[i] == "-D") {
                if (!isKnownDomain(args[i + 1])) {
                    err << "runwardctl: unknown domain \"" << args[i + 1] << "\"\n";
                    return 2;
                }
                request.domain = args[i + 1];
            } else {
                break;
            }
        }
        if (i + 1 != args.size()) {
            err << kUsage;
            return 2;
        }
        path = args[i];
        std::string problem;
        auto definition = readJobDefinitionFile(path, problem);
        if (!definition) {
            err << "runwardctl: " << problem << "\n";
            return 1;
        }
        request.definition = jobDefinitionDictionary(*definition);
    } else if (request.command == "list") {
        if (args.size() == 3 && args[1] == "-x") {
            request.label = args[2];
        } else if (args.size() != 1) {
            err << kUsage;
            return 2;
        }
    } else {
        err << kUsage;
        return 2;
    }

    std::string problem;
    auto reply = exchange(request, daemonPath, problem);
    if (!reply) {
        err << "runwardctl: " << problem << "\n";
        return 1;
    }
    out << reply->output;
    if (reply->status != 0) {
        err << "runwardctl: " << (reply->message.empty() ? "failed" : reply->message) << "\n";
        return reply->status > 0 && reply->status < 126 ? reply->status : 1;
    }
    return 0;
}

}  // namespace runward
