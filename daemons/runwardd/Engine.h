// runwardd's engine: the loaded jobs, their processes, the path conditions
// that start and stop them, the control socket and the state file, all served
// by the thread's run loop. See docs/job-supervisor.md.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <sys/types.h>

#include "JobDefinition.h"
#include "Protocol.h"
#include <quillcore/logging/CQuillLogger.h>
#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/RunLoop.h>

namespace runward {

struct EngineOptions {
    std::string socketPath;
    std::string lockPath;
    std::string statePath;
};

class Engine {
public:
    Engine(EngineOptions options, quill::CQuillLoggerRef logger);
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    // Becomes the child subreaper, takes the lock, opens the descriptors,
    // ends what an earlier run left and loads the jobs of the state file.
    // SIGCHLD, SIGTERM, SIGINT and SIGHUP must be blocked in the calling
    // thread. False with a description when another runwardd holds the lock
    // or a descriptor cannot be made.
    bool start(std::string& problem);

    // Serves the run loop until SIGTERM or SIGINT, then stops every job and
    // returns once their processes are gone.
    void run();

private:
    enum class State { Idle, Waiting, Running, Stopping };

    struct Job {
        JobDefinition definition;
        State state = State::Idle;
        pid_t pid = 0;
        unsigned long long startTicks = 0;
        std::string token;
        std::chrono::steady_clock::time_point startedAt{};
        std::chrono::steady_clock::time_point nextStartAt{};
        bool everStarted = false;
        // Whether the current stop was made by runwardd (not the job's exit).
        bool stopRequested = false;
        // Whether the last run ended without a stop of runwardd's.
        bool endedOnItsOwn = false;
        // Apply the load rules once the current stop is over.
        bool loadAfterStop = false;
        bool unloading = false;
        std::optional<int> lastExitStatus;
        std::optional<int> lastExitSignal;
        // Processes of the run being stopped, with their start times.
        std::map<pid_t, unsigned long long> members;
        std::vector<int> unloadWaiters;
        quill::platform::CRunLoopTimer restartTimer;
        quill::platform::CRunLoopTimer killTimer;
    };

    struct Connection {
        quill::platform::CFileDescriptor fd;
        quill::platform::CFileDescriptorSource source;
        FrameReader reader;
    };

    // Requests.
    void acceptConnections();
    void readConnection(int id);
    Reply handleRequest(int id, const Request& request, bool& deferred);
    Reply loadJob(const Request& request);
    Reply unloadJob(int id, const Request& request, bool& deferred);
    Reply listJob(const std::string& label) const;
    Reply listAll() const;
    void sendReply(int id, const Reply& reply);
    void closeConnection(int id);

    // Jobs.
    void applyLoadRules(Job& job);
    bool pathHolds(const Job& job) const;
    void conditionsChanged();
    void scheduleStart(Job& job);
    void startJob(Job& job);
    void stopJob(Job& job);
    void signalMembers(Job& job, int signal);
    void collectMembers(Job& job);
    bool treeGone(Job& job);
    void childrenChanged();
    void mainExited(Job& job, int status);
    void finishStop(Job& job);
    Job* findJob(const std::string& label);

    // Paths.
    void refreshWatches();
    void readInotify();

    // State file and earlier runs.
    // Writes the state file atomically; `durable` also flushes it to disk
    // first (for changes of the loaded definitions).
    void saveState(bool durable = false);
    void recoverState();

    void readSignals();

    EngineOptions _options;
    quill::CQuillLoggerRef _logger;
    quill::platform::CFileDescriptor _lock;
    quill::platform::CFileDescriptor _listener;
    quill::platform::CFileDescriptor _signals;
    quill::platform::CFileDescriptor _inotify;
    quill::platform::CFileDescriptorSource _listenerSource;
    quill::platform::CFileDescriptorSource _signalSource;
    quill::platform::CFileDescriptorSource _inotifySource;
    std::map<std::string, std::unique_ptr<Job>> _jobs;
    std::map<pid_t, std::string> _mainPids;
    std::map<std::string, int> _watchByDirectory;
    std::map<int, std::string> _directoryByWatch;
    // Every path of every job's path state.
    std::set<std::string> _watchedPaths;
    std::map<int, std::unique_ptr<Connection>> _connections;
    int _nextConnection = 1;
    bool _shuttingDown = false;
    bool _done = false;
};

}  // namespace runward
