#include "Engine.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstring>
#include <sstream>

#include <climits>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/random.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ProcessTable.h"
#include <quillcore/platform/PLPropertyList.h>

extern char** environ;

namespace runward {

using quill::platform::CFileDescriptor;
using quill::platform::CRunLoop;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::uint32_t kWatchMask =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

std::string errnoText(int err) { return std::strerror(err); }

std::string joinArguments(const std::vector<std::string>& args) {
    std::string out;
    for (const auto& arg : args) {
        if (!out.empty()) out += ' ';
        bool plain = !arg.empty() && arg.find_first_of(" \t\n\"'\\") == std::string::npos;
        if (plain) {
            out += arg;
        } else {
            out += '"';
            for (char c : arg) {
                if (c == '"' || c == '\\') out += '\\';
                out += c;
            }
            out += '"';
        }
    }
    return out;
}

std::string newToken() {
    unsigned char bytes[16];
    std::size_t got = 0;
    while (got < sizeof bytes) {
        ssize_t n = ::getrandom(bytes + got, sizeof bytes - got, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<std::size_t>(n);
    }
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    for (unsigned char b : bytes) {
        out += kHex[b >> 4];
        out += kHex[b & 15];
    }
    return out;
}

std::string parentDirectory(const std::string& path) {
    auto slash = path.find_last_of('/');
    if (slash == std::string::npos || slash == 0) return "/";
    return path.substr(0, slash);
}

bool exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

double secondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

std::string formatSeconds(double seconds) {
    std::ostringstream out;
    out.precision(seconds < 10 ? 2 : 0);
    out << std::fixed << std::max(seconds, 0.0);
    return out.str();
}

}  // namespace

Engine::Engine(EngineOptions options, quill::CQuillLoggerRef logger)
    : _options(std::move(options)), _logger(std::move(logger)) {}

Engine::~Engine() = default;

bool Engine::start(std::string& problem) {
    _lock.reset(::open(_options.lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!_lock) {
        problem = "can't open " + _options.lockPath + ": " + errnoText(errno);
        return false;
    }
    if (::flock(_lock.get(), LOCK_EX | LOCK_NB) != 0) {
        problem = "another runwardd holds " + _options.lockPath;
        return false;
    }
    if (::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0) {
        problem = "can't become a child subreaper: " + errnoText(errno);
        return false;
    }

    sigset_t signals;
    sigemptyset(&signals);
    for (int s : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, s);
    _signals.reset(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    _inotify.reset(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!_signals || !_inotify) {
        problem = "can't make the signal or inotify descriptor: " + errnoText(errno);
        return false;
    }

    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (_options.socketPath.size() >= sizeof address.sun_path) {
        problem = "the socket path " + _options.socketPath + " is too long";
        return false;
    }
    std::memcpy(address.sun_path, _options.socketPath.c_str(), _options.socketPath.size() + 1);
    ::unlink(_options.socketPath.c_str());  // left by an earlier run; we hold the lock
    _listener.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!_listener || ::bind(_listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(_listener.get(), 64) != 0) {
        problem = "can't listen on " + _options.socketPath + ": " + errnoText(errno);
        return false;
    }

    // For the host's tools and tests: which process serves the socket.
    std::string pidPath = _options.lockPath.substr(0, _options.lockPath.find_last_of('/') + 1) + "runwardd.pid";
    std::string pidText = std::to_string(::getpid()) + "\n";
    CFileDescriptor pidFile(::open(pidPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (pidFile && ::write(pidFile.get(), pidText.data(), pidText.size()) < 0) {
        _logger->log(1) << "can't write " << pidPath << ": " << errnoText(errno) << std::endl;
    }

    recoverState();

    auto& loop = CRunLoop::current();
    _signalSource =
        loop.addFileDescriptorSource(_signals.get(), CRunLoop::kReadable, [this](int, unsigned) { readSignals(); });
    _inotifySource =
        loop.addFileDescriptorSource(_inotify.get(), CRunLoop::kReadable, [this](int, unsigned) { readInotify(); });
    _listenerSource = loop.addFileDescriptorSource(_listener.get(), CRunLoop::kReadable,
                                                   [this](int, unsigned) { acceptConnections(); });
    _logger->log(3) << "runwardd " << static_cast<long>(::getpid()) << " listening on " << _options.socketPath
                    << std::endl;
    return true;
}

void Engine::run() {
    // A run of the loop waits at most its longest wait: ask again until done.
    while (!_done) CRunLoop::current().runUntil([this] { return _done; }, 1e9);
    _logger->log(3) << "runwardd exiting" << std::endl;
}

// ----- the control socket -----

void Engine::acceptConnections() {
    for (;;) {
        CFileDescriptor fd(::accept4(_listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!fd) return;
        ucred peer{};
        socklen_t size = sizeof peer;
        if (::getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || peer.uid != ::geteuid()) {
            _logger->log(1) << "refusing a control connection of uid " << static_cast<long>(peer.uid) << std::endl;
            continue;
        }
        int id = _nextConnection++;
        auto connection = std::make_unique<Connection>();
        connection->fd = std::move(fd);
        connection->source = CRunLoop::current().addFileDescriptorSource(
            connection->fd.get(), CRunLoop::kReadable, [this, id](int, unsigned) { readConnection(id); });
        _connections[id] = std::move(connection);
    }
}

void Engine::readConnection(int id) {
    auto it = _connections.find(id);
    if (it == _connections.end()) return;
    Connection& connection = *it->second;
    char buffer[65536];
    bool closed = false;
    for (;;) {
        ssize_t n = ::read(connection.fd.get(), buffer, sizeof buffer);
        if (n > 0) {
            connection.reader.feed(std::string_view(buffer, static_cast<std::size_t>(n)));
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) closed = true;
        break;
    }
    bool oversized = false;
    auto payload = connection.reader.next(oversized);
    if (oversized) {
        sendReply(id, {2, "the request is too large", {}});
        return;
    }
    if (!payload) {
        if (closed) closeConnection(id);
        return;
    }
    // One request per connection: stop reading it.
    connection.source.remove();
    std::string problem;
    auto request = decodeRequest(*payload, problem);
    if (!request) {
        sendReply(id, {2, "bad request: " + problem, {}});
        return;
    }
    bool deferred = false;
    Reply reply = handleRequest(id, *request, deferred);
    if (!deferred) sendReply(id, reply);
}

void Engine::sendReply(int id, const Reply& reply) {
    auto it = _connections.find(id);
    if (it == _connections.end()) return;
    Connection& connection = *it->second;
    std::string bytes = encodeReply(reply);
    // Replies are small and the peer waits for them: write them out at once,
    // bounded in time so that a peer that stops reading cannot hold us.
    int flags = ::fcntl(connection.fd.get(), F_GETFL);
    ::fcntl(connection.fd.get(), F_SETFL, flags & ~O_NONBLOCK);
    timeval limit{2, 0};
    ::setsockopt(connection.fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::send(connection.fd.get(), bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    closeConnection(id);
}

void Engine::closeConnection(int id) {
    auto it = _connections.find(id);
    if (it == _connections.end()) return;
    it->second->source.remove();
    // The source's callback may be the caller: let the descriptor go once it
    // has returned.
    auto connection = std::shared_ptr<Connection>(std::move(it->second));
    _connections.erase(it);
    CRunLoop::current().post([connection] {});
}

Reply Engine::handleRequest(int id, const Request& request, bool& deferred) {
    if (!request.session.empty() && !isKnownSession(request.session)) {
        return {2, "unknown session type \"" + request.session + "\"", {}};
    }
    if (!request.domain.empty() && !isKnownDomain(request.domain)) {
        return {2, "unknown domain \"" + request.domain + "\"", {}};
    }
    if (_shuttingDown) return {3, "runwardd is shutting down", {}};
    if (request.command == "load") return loadJob(request);
    if (request.command == "unload") return unloadJob(id, request, deferred);
    if (!request.label.empty()) return listJob(request.label);
    return listAll();
}

Reply Engine::loadJob(const Request& request) {
    std::string problem;
    auto definition = parseJobDefinition(request.definition.get(), problem);
    if (!definition) return {1, "invalid job definition: " + problem, {}};
    Job* job = findJob(definition->label);
    if (!job) {
        auto fresh = std::make_unique<Job>();
        fresh->definition = std::move(*definition);
        job = fresh.get();
        _jobs[job->definition.label] = std::move(fresh);
        _logger->log(3) << "loaded " << job->definition.label << std::endl;
        refreshWatches();
        applyLoadRules(*job);
        saveState(true);
        return {};
    }
    bool argumentsChanged = job->definition.programArguments != definition->programArguments;
    job->definition = std::move(*definition);
    job->unloading = false;
    _logger->log(3) << "reloaded " << job->definition.label << (argumentsChanged ? " with new arguments" : "")
                    << std::endl;
    refreshWatches();
    if (argumentsChanged && job->state != State::Idle) {
        if (job->state == State::Waiting) {
            job->restartTimer.cancel();
            job->state = State::Idle;
            applyLoadRules(*job);
        } else {
            job->loadAfterStop = true;
            stopJob(*job);
        }
    } else if (job->state == State::Idle) {
        applyLoadRules(*job);
    } else if (job->definition.hasPathState()) {
        conditionsChanged();
    }
    saveState(true);
    return {};
}

Reply Engine::unloadJob(int id, const Request& request, bool& deferred) {
    std::string problem;
    auto definition = parseJobDefinition(request.definition.get(), problem);
    if (!definition) return {1, "invalid job definition: " + problem, {}};
    Job* job = findJob(definition->label);
    if (!job) return {1, "no job " + definition->label + " is loaded", {}};
    job->unloading = true;
    job->loadAfterStop = false;
    if (job->state == State::Idle || job->state == State::Waiting) {
        _logger->log(3) << "unloaded " << job->definition.label << std::endl;
        _jobs.erase(job->definition.label);
        refreshWatches();
        saveState(true);
        return {};
    }
    job->unloadWaiters.push_back(id);
    deferred = true;
    stopJob(*job);
    return {};
}

Reply Engine::listJob(const std::string& label) const {
    auto it = _jobs.find(label);
    if (it == _jobs.end()) return {1, "no job " + label + " is loaded", {}};
    const Job& job = *it->second;
    auto dict = PLMutableDictionary::create();
    dict->set(PLString::create("Label"), PLString::create(label));
    auto args = PLMutableArray::create();
    for (const auto& arg : job.definition.programArguments) args->append(PLString::create(arg));
    dict->set(PLString::create("ProgramArguments"), args);
    static constexpr const char* kStates[] = {"idle", "waiting", "running", "stopping"};
    dict->set(PLString::create("State"), PLString::create(kStates[static_cast<int>(job.state)]));
    if (job.pid > 0) dict->set(PLString::create("PID"), PLNumber::create(static_cast<std::int64_t>(job.pid)));
    if (job.lastExitStatus) dict->set(PLString::create("LastExitStatus"), PLNumber::create(*job.lastExitStatus));
    if (job.lastExitSignal) dict->set(PLString::create("LastExitSignal"), PLNumber::create(*job.lastExitSignal));
    if (job.definition.hasPathState()) {
        dict->set(PLString::create("PathStateHolds"), PLHolder<const PLObject>::retain(PLBoolean::get(pathHolds(job))));
    }
    if (job.state == State::Waiting) {
        dict->set(PLString::create("NextStartIn"),
                  PLNumber::create(std::max(0.0, secondsBetween(Clock::now(), job.nextStartAt))));
    }
    std::string text;
    PLPropertyListWriteXML(dict.get(), text);
    return {0, {}, text};
}

Reply Engine::listAll() const {
    std::string text = "PID\tStatus\tLabel\n";
    for (const auto& [label, job] : _jobs) {
        text += job->pid > 0 ? std::to_string(job->pid) : "-";
        text += '\t';
        if (job->lastExitSignal) {
            text += std::to_string(-*job->lastExitSignal);
        } else {
            text += job->lastExitStatus ? std::to_string(*job->lastExitStatus) : "-";
        }
        text += '\t';
        text += label;
        text += '\n';
    }
    return {0, {}, text};
}

// ----- jobs -----

Engine::Job* Engine::findJob(const std::string& label) {
    auto it = _jobs.find(label);
    return it == _jobs.end() ? nullptr : it->second.get();
}

bool Engine::pathHolds(const Job& job) const {
    for (const auto& [path, wanted] : job.definition.pathState) {
        if (exists(path) != wanted) return false;
    }
    return true;
}

void Engine::applyLoadRules(Job& job) {
    if (job.state != State::Idle || _shuttingDown) return;
    if (job.definition.hasPathState()) {
        if (pathHolds(job)) scheduleStart(job);
    } else if (job.definition.runAtLoad) {
        scheduleStart(job);
    }
}

void Engine::conditionsChanged() {
    for (auto& [label, jobPtr] : _jobs) {
        Job& job = *jobPtr;
        if (!job.definition.hasPathState() || job.unloading) continue;
        bool holds = pathHolds(job);
        switch (job.state) {
            case State::Idle:
                if (holds) scheduleStart(job);
                break;
            case State::Waiting:
                if (!holds) {
                    job.restartTimer.cancel();
                    job.state = State::Idle;
                }
                break;
            case State::Running:
                if (!holds) stopJob(job);
                break;
            case State::Stopping:
                // What follows the stop is decided when it is over.
                if (!holds) job.stopRequested = true;
                break;
        }
    }
}

void Engine::scheduleStart(Job& job) {
    if (_shuttingDown) return;
    auto now = Clock::now();
    auto interval =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(job.definition.throttleInterval));
    if (job.everStarted && job.endedOnItsOwn && now < job.startedAt + interval) {
        double ran = secondsBetween(job.startedAt, now);
        job.nextStartAt = job.startedAt + interval;
        double wait = secondsBetween(now, job.nextStartAt);
        _logger->log(3) << job.definition.label << " ran for " << formatSeconds(ran) << " s, next start in "
                        << formatSeconds(wait) << " s" << std::endl;
        job.state = State::Waiting;
        std::string label = job.definition.label;
        job.restartTimer = CRunLoop::current().addTimer(wait, 0, [this, label] {
            Job* waiting = findJob(label);
            if (!waiting || waiting->state != State::Waiting) return;
            waiting->state = State::Idle;
            if (waiting->definition.hasPathState() && !pathHolds(*waiting)) return;
            startJob(*waiting);
        });
        return;
    }
    startJob(job);
}

void Engine::startJob(Job& job) {
    const auto& args = job.definition.programArguments;
    std::vector<char*> argv;
    for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    std::string token = newToken();
    std::string tokenEntry = std::string(kJobTokenVariable) + "=" + token;
    std::string prefix = std::string(kJobTokenVariable) + "=";
    std::vector<char*> envp;
    for (char** entry = environ; *entry; ++entry) {
        if (std::strncmp(*entry, prefix.c_str(), prefix.size()) != 0) envp.push_back(*entry);
    }
    envp.push_back(tokenEntry.data());
    envp.push_back(nullptr);

    int errorPipe[2];
    if (::pipe2(errorPipe, O_CLOEXEC) != 0) {
        _logger->log(1) << "can't start " << job.definition.label << ": " << errnoText(errno) << std::endl;
        return;
    }
    CFileDescriptor readEnd(errorPipe[0]);
    CFileDescriptor writeEnd(errorPipe[1]);
    pid_t pid = ::fork();
    if (pid < 0) {
        _logger->log(1) << "can't start " << job.definition.label << ": " << errnoText(errno) << std::endl;
        return;
    }
    if (pid == 0) {
        // The child: only async-signal-safe calls from here on.
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        for (int s = 1; s < NSIG; ++s) ::signal(s, SIG_DFL);
        ::setsid();
        int null = ::open("/dev/null", O_RDONLY);
        if (null >= 0 && null != 0) {
            ::dup2(null, 0);
            ::close(null);
        }
        ::execvpe(argv[0], argv.data(), envp.data());
        int err = errno;
        ssize_t ignored = ::write(writeEnd.get(), &err, sizeof err);
        static_cast<void>(ignored);
        ::_exit(127);
    }
    writeEnd.reset();
    int execError = 0;
    ssize_t n;
    do {
        n = ::read(readEnd.get(), &execError, sizeof execError);
    } while (n < 0 && errno == EINTR);

    job.pid = pid;
    job.token = token;
    job.startedAt = Clock::now();
    job.everStarted = true;
    job.stopRequested = false;
    job.endedOnItsOwn = false;
    job.members.clear();
    auto info = readProcess(pid);
    job.startTicks = info ? info->startTicks : 0;
    job.state = State::Running;
    _mainPids[pid] = job.definition.label;
    if (n == static_cast<ssize_t>(sizeof execError)) {
        _logger->log(1) << "can't run " << job.definition.label << " (" << args[0] << "): " << errnoText(execError)
                        << std::endl;
    } else {
        _logger->log(3) << "started " << job.definition.label << " as " << static_cast<long>(pid) << ": "
                        << joinArguments(args) << std::endl;
    }
    saveState();
}

void Engine::collectMembers(Job& job) {
    for (auto it = job.members.begin(); it != job.members.end();) {
        if (isSameProcess(it->first, it->second)) {
            ++it;
        } else {
            it = job.members.erase(it);
        }
    }
    if (job.pid > 0 && isSameProcess(job.pid, job.startTicks)) job.members[job.pid] = job.startTicks;
    const pid_t group = job.pid > 0 ? job.pid : 0;
    auto processes = listOwnProcesses();
    std::map<pid_t, std::vector<const ProcessInfo*>> children;
    for (const auto& info : processes) children[info.parent].push_back(&info);
    std::vector<pid_t> pending;
    const pid_t self = ::getpid();
    for (const auto& info : processes) {
        if (info.pid == self || info.state == 'Z') continue;
        bool member = job.members.count(info.pid) != 0 || (group > 0 && info.group == group) ||
                      (job.pid > 0 && info.pid == job.pid) ||
                      // Every process of a run descends from runwardd, so a
                      // run's process outside the trees above is an orphan
                      // reparented to it: only those need their environment read.
                      (info.parent == self && !_mainPids.count(info.pid) && carriesToken(info.pid, job.token));
        if (member) {
            job.members[info.pid] = info.startTicks;
            pending.push_back(info.pid);
        }
    }
    // And every descendant of those, whatever its group or environment.
    while (!pending.empty()) {
        pid_t parent = pending.back();
        pending.pop_back();
        for (const ProcessInfo* child : children[parent]) {
            if (child->state == 'Z' || job.members.count(child->pid)) continue;
            job.members[child->pid] = child->startTicks;
            pending.push_back(child->pid);
        }
    }
}

void Engine::signalMembers(Job& job, int signal) {
    collectMembers(job);
    if (job.pid > 0) ::kill(-job.pid, signal);
    for (const auto& [pid, ticks] : job.members) {
        // Members of the job's group got the signal already: once is enough.
        auto info = readProcess(pid);
        if (!info || info->startTicks != ticks || info->state == 'Z') continue;
        if (job.pid > 0 && info->group == job.pid) continue;
        ::kill(pid, signal);
    }
}

void Engine::stopJob(Job& job) {
    if (job.state == State::Waiting) {
        job.restartTimer.cancel();
        job.state = State::Idle;
        finishStop(job);
        return;
    }
    job.stopRequested = true;
    if (job.state == State::Stopping) return;
    if (job.state != State::Running) return;
    job.state = State::Stopping;
    _logger->log(3) << "stopping " << job.definition.label << " (" << static_cast<long>(job.pid) << ")" << std::endl;
    signalMembers(job, SIGTERM);
    signalMembers(job, SIGCONT);
    std::string label = job.definition.label;
    job.killTimer = CRunLoop::current().addTimer(job.definition.exitTimeOut, 0, [this, label] {
        Job* late = findJob(label);
        if (!late || late->state != State::Stopping) return;
        _logger->log(3) << late->definition.label << " outlived its exit time-out of "
                        << formatSeconds(late->definition.exitTimeOut) << " s: killing it" << std::endl;
        signalMembers(*late, SIGKILL);
    });
}

bool Engine::treeGone(Job& job) {
    if (job.pid > 0) return false;
    collectMembers(job);
    return job.members.empty();
}

void Engine::readSignals() {
    bool children = false;
    signalfd_siginfo info;
    while (::read(_signals.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        if (info.ssi_signo == SIGCHLD) {
            children = true;
        } else if (info.ssi_signo == SIGTERM || info.ssi_signo == SIGINT) {
            if (!_shuttingDown) {
                _shuttingDown = true;
                _logger->log(3) << "runwardd stopping its jobs" << std::endl;
                for (auto& [label, job] : _jobs) stopJob(*job);
            }
        }
    }
    if (children) childrenChanged();
    if (_shuttingDown) {
        bool busy = std::any_of(_jobs.begin(), _jobs.end(), [](const auto& entry) {
            return entry.second->state == State::Running || entry.second->state == State::Stopping;
        });
        if (!busy) {
            saveState();
            _done = true;
        }
    }
}

void Engine::childrenChanged() {
    for (;;) {
        int status = 0;
        pid_t pid = ::waitpid(-1, &status, WNOHANG);
        if (pid <= 0) break;
        auto it = _mainPids.find(pid);
        if (it == _mainPids.end()) continue;  // an orphan of some job: reaped
        std::string label = it->second;
        _mainPids.erase(it);
        if (Job* job = findJob(label)) mainExited(*job, status);
    }
    std::vector<std::string> stopping;
    for (auto& [label, job] : _jobs) {
        if (job->state == State::Stopping && job->pid == 0) stopping.push_back(label);
    }
    for (const auto& label : stopping) {
        Job* job = findJob(label);
        if (job && treeGone(*job)) finishStop(*job);
    }
}

void Engine::mainExited(Job& job, int status) {
    auto& log = _logger->log(3);
    log << job.definition.label << " (" << static_cast<long>(job.pid) << ") ";
    job.lastExitStatus.reset();
    job.lastExitSignal.reset();
    if (WIFSIGNALED(status)) {
        job.lastExitSignal = WTERMSIG(status);
        log << "was killed by signal " << WTERMSIG(status) << " (" << strsignal(WTERMSIG(status)) << ")";
    } else {
        job.lastExitStatus = WEXITSTATUS(status);
        log << "exited with status " << WEXITSTATUS(status);
    }
    log << std::endl;
    if (job.state == State::Running) {
        // The job ended by itself: what it leaves behind is stopped as well.
        job.state = State::Stopping;
        job.endedOnItsOwn = true;
        collectMembers(job);
        job.members.erase(job.pid);
        job.pid = 0;
        if (!job.members.empty()) {
            _logger->log(3) << "stopping what " << job.definition.label << " left behind" << std::endl;
            for (int s : {SIGTERM, SIGCONT}) {
                for (const auto& [pid, ticks] : job.members) {
                    if (isSameProcess(pid, ticks)) ::kill(pid, s);
                }
            }
            std::string label = job.definition.label;
            job.killTimer = CRunLoop::current().addTimer(job.definition.exitTimeOut, 0, [this, label] {
                Job* late = findJob(label);
                if (late && late->state == State::Stopping) signalMembers(*late, SIGKILL);
            });
        }
    } else {
        collectMembers(job);
        job.members.erase(job.pid);
        job.pid = 0;
    }
    saveState();
}

void Engine::finishStop(Job& job) {
    job.killTimer.cancel();
    job.state = State::Idle;
    job.members.clear();
    job.token.clear();
    const bool requested = job.stopRequested;
    job.stopRequested = false;
    if (requested) {
        job.endedOnItsOwn = false;
        _logger->log(3) << "stopped " << job.definition.label << std::endl;
    }
    if (job.unloading) {
        std::vector<int> waiters = std::move(job.unloadWaiters);
        _logger->log(3) << "unloaded " << job.definition.label << std::endl;
        _jobs.erase(job.definition.label);
        refreshWatches();
        saveState(true);
        for (int id : waiters) sendReply(id, {});
        return;
    }
    if (_shuttingDown) return;
    if (job.loadAfterStop) {
        job.loadAfterStop = false;
        applyLoadRules(job);
    } else if (job.definition.hasPathState()) {
        // Started again while the paths hold, whoever ended the run.
        if (pathHolds(job)) scheduleStart(job);
    } else if (!requested) {
        bool zero = job.lastExitStatus && *job.lastExitStatus == 0;
        bool again =
            job.definition.keepAlive || (job.definition.successfulExit && *job.definition.successfulExit == zero);
        if (again) scheduleStart(job);
    }
    saveState();
}

// ----- paths -----

void Engine::refreshWatches() {
    std::set<std::string> wanted;
    _watchedPaths.clear();
    for (const auto& [label, job] : _jobs) {
        for (const auto& [path, state] : job->definition.pathState) {
            _watchedPaths.insert(path);
            // Watch the nearest directory that exists: the parent, or the
            // ancestor in which the parent will appear.
            std::string directory = parentDirectory(path);
            while (directory != "/" && !exists(directory)) directory = parentDirectory(directory);
            wanted.insert(directory);
        }
    }
    for (auto it = _watchByDirectory.begin(); it != _watchByDirectory.end();) {
        if (wanted.count(it->first)) {
            ++it;
            continue;
        }
        ::inotify_rm_watch(_inotify.get(), it->second);
        _directoryByWatch.erase(it->second);
        it = _watchByDirectory.erase(it);
    }
    for (const auto& directory : wanted) {
        if (_watchByDirectory.count(directory)) continue;
        int wd = ::inotify_add_watch(_inotify.get(), directory.c_str(), kWatchMask);
        if (wd < 0) {
            _logger->log(1) << "can't watch " << directory << ": " << errnoText(errno) << std::endl;
            continue;
        }
        _watchByDirectory[directory] = wd;
        _directoryByWatch[wd] = directory;
    }
}

void Engine::readInotify() {
    alignas(inotify_event) char buffer[65536];
    bool structural = false;
    bool relevant = false;
    for (;;) {
        ssize_t n = ::read(_inotify.get(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        for (char* at = buffer; at < buffer + n;) {
            auto* event = reinterpret_cast<inotify_event*>(at);
            if (event->mask & (IN_Q_OVERFLOW | IN_ISDIR | IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) {
                structural = true;
            } else if (event->len > 0) {
                // Busy directories such as /tmp: only the watched names matter.
                auto it = _directoryByWatch.find(event->wd);
                if (it != _directoryByWatch.end()) {
                    std::string path = (it->second == "/" ? "" : it->second) + "/" + event->name;
                    if (_watchedPaths.count(path)) relevant = true;
                }
            }
            if (event->mask & IN_IGNORED) {
                auto it = _directoryByWatch.find(event->wd);
                if (it != _directoryByWatch.end()) {
                    _watchByDirectory.erase(it->second);
                    _directoryByWatch.erase(it);
                }
            }
            at += sizeof(inotify_event) + event->len;
        }
    }
    if (structural) refreshWatches();
    if (structural || relevant) conditionsChanged();
}

// ----- the state file -----

void Engine::saveState(bool durable) {
    auto jobs = PLMutableArray::create();
    for (const auto& [label, job] : _jobs) {
        if (job->unloading && job->state == State::Idle) continue;
        auto entry = PLMutableDictionary::create();
        entry->set(PLString::create("Definition"), jobDefinitionDictionary(job->definition));
        if (!job->token.empty()) entry->set(PLString::create("Token"), PLString::create(job->token));
        if (job->pid > 0) {
            entry->set(PLString::create("PID"), PLNumber::create(static_cast<std::int64_t>(job->pid)));
            entry->set(PLString::create("StartTicks"), PLNumber::create(static_cast<std::int64_t>(job->startTicks)));
        }
        jobs->append(entry);
    }
    auto root = PLMutableDictionary::create();
    root->set(PLString::create("Jobs"), jobs);
    std::string text;
    if (!PLPropertyListWriteXML(root.get(), text)) return;
    std::string temporary = _options.statePath + ".new";
    CFileDescriptor fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
    bool ok = fd.valid();
    std::size_t done = 0;
    while (ok && done < text.size()) {
        ssize_t n = ::write(fd.get(), text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        ok = n > 0;
        if (ok) done += static_cast<std::size_t>(n);
    }
    // The definitions must survive a crash of the host; the process IDs are
    // of use only after a crash of runwardd, which the rename alone covers.
    ok = ok && (!durable || ::fsync(fd.get()) == 0);
    fd.reset();
    if (!ok || ::rename(temporary.c_str(), _options.statePath.c_str()) != 0) {
        _logger->log(1) << "can't write " << _options.statePath << ": " << errnoText(errno) << std::endl;
        ::unlink(temporary.c_str());
    }
}

void Engine::recoverState() {
    CFileDescriptor fd(::open(_options.statePath.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!fd) return;
    std::string bytes;
    char buffer[65536];
    ssize_t n;
    while ((n = ::read(fd.get(), buffer, sizeof buffer)) > 0) bytes.append(buffer, static_cast<std::size_t>(n));
    std::string reason;
    auto plist = PLPropertyListCreateFromBytes(bytes.data(), bytes.size(), PLMutability::Immutable, &reason);
    const PLDictionary* root = PLDynamicCast<PLDictionary>(plist.get());
    const PLArray* jobs = root ? PLDynamicCast<PLArray>(root->get("Jobs")) : nullptr;
    if (!jobs) {
        _logger->log(1) << "ignoring the unreadable state file " << _options.statePath << std::endl;
        return;
    }

    // End what the earlier run left: every process that carries one of its
    // tokens, and the recorded main processes and their groups.
    std::set<std::string> tokens;
    std::vector<std::pair<pid_t, unsigned long long>> mains;
    for (const auto& value : jobs->values()) {
        const PLDictionary* entry = PLDynamicCast<PLDictionary>(value.get());
        if (!entry) continue;
        if (const PLString* token = PLDynamicCast<PLString>(entry->get("Token"))) tokens.insert(token->str());
        const PLNumber* pid = PLDynamicCast<PLNumber>(entry->get("PID"));
        const PLNumber* ticks = PLDynamicCast<PLNumber>(entry->get("StartTicks"));
        if (pid && ticks && pid->int64Value() > 1 && pid->int64Value() <= INT_MAX) {
            mains.emplace_back(static_cast<pid_t>(pid->int64Value()),
                               static_cast<unsigned long long>(ticks->int64Value()));
        }
    }
    std::vector<std::pair<pid_t, unsigned long long>> leftovers;
    for (const auto& [pid, ticks] : mains) {
        if (isSameProcess(pid, ticks)) leftovers.emplace_back(pid, ticks);
    }
    if (!tokens.empty()) {
        const pid_t self = ::getpid();
        for (const auto& info : listOwnProcesses()) {
            if (info.pid == self || info.state == 'Z') continue;
            for (const auto& token : tokens) {
                if (carriesToken(info.pid, token)) {
                    leftovers.emplace_back(info.pid, info.startTicks);
                    break;
                }
            }
        }
    }
    std::vector<CFileDescriptor> handles;
    for (const auto& [pid, ticks] : leftovers) {
        CFileDescriptor handle(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
        if (!handle || !isSameProcess(pid, ticks)) continue;
        _logger->log(3) << "killing " << static_cast<long>(pid) << ", left by an earlier runwardd" << std::endl;
        ::kill(-pid, SIGKILL);
        ::syscall(SYS_pidfd_send_signal, handle.get(), SIGKILL, nullptr, 0);
        handles.push_back(std::move(handle));
    }
    // Wait (bounded) until they are gone, so that no job runs twice.
    auto deadline = Clock::now() + std::chrono::seconds(5);
    for (auto& handle : handles) {
        pollfd wait{handle.get(), POLLIN, 0};
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left > 0) ::poll(&wait, 1, static_cast<int>(left));
    }
    // Reap those that were our own children (after a restart in place).
    while (::waitpid(-1, nullptr, WNOHANG) > 0) {}

    for (const auto& value : jobs->values()) {
        const PLDictionary* entry = PLDynamicCast<PLDictionary>(value.get());
        std::string problem;
        auto definition = entry ? parseJobDefinition(entry->get("Definition"), problem) : std::nullopt;
        if (!definition) {
            _logger->log(1) << "ignoring a job of the state file: " << problem << std::endl;
            continue;
        }
        auto job = std::make_unique<Job>();
        job->definition = std::move(*definition);
        _logger->log(3) << "restored " << job->definition.label << std::endl;
        _jobs[job->definition.label] = std::move(job);
    }
    refreshWatches();
    for (auto& [label, job] : _jobs) applyLoadRules(*job);
    saveState(true);
}

}  // namespace runward
