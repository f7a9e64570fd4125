// Latency report of runwardd: how fast a job follows its trigger file, how
// close to its exit time-out a job that ignores SIGTERM is killed, and how
// long `runwardctl list -x` takes with many jobs loaded. Runs the built
// runwardd and runwardctl in a throw-away home and runtime directory.
//
// The job is this program again ("--job FIFO [--ignore-term]"): it writes the
// monotonic time at which it began (just after its exec) to FIFO, and, on
// SIGTERM, the time at which the signal arrived.
//
// usage: runward_latency_report RUNWARDCTL [CYCLES=1000] [JOBS=1000]
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

long long nowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1'000'000'000LL + ts.tv_nsec;
}

int jobFd = -1;

void onTerm(int) {
    char line[64];
    int n = std::snprintf(line, sizeof line, "T %lld\n", nowNs());
    ssize_t ignored = ::write(jobFd, line, static_cast<std::size_t>(n));
    static_cast<void>(ignored);
    ::_exit(0);
}

void onTermIgnored(int) {
    char line[64];
    int n = std::snprintf(line, sizeof line, "T %lld\n", nowNs());
    ssize_t ignored = ::write(jobFd, line, static_cast<std::size_t>(n));
    static_cast<void>(ignored);
}

int runJob(const char* fifo, bool ignoreTerm) {
    long long started = nowNs();
    jobFd = ::open(fifo, O_WRONLY | O_CLOEXEC);
    if (jobFd < 0) return 1;
    std::signal(SIGTERM, ignoreTerm ? onTermIgnored : onTerm);
    char line[64];
    int n = std::snprintf(line, sizeof line, "S %lld %ld\n", started, static_cast<long>(::getpid()));
    if (::write(jobFd, line, static_cast<std::size_t>(n)) != n) return 1;
    for (;;) ::pause();
}

// Reads one line from the fifo (waits at most 10 s).
bool readLine(int fd, std::string& buffer, std::string& line) {
    for (;;) {
        auto nl = buffer.find('\n');
        if (nl != std::string::npos) {
            line = buffer.substr(0, nl);
            buffer.erase(0, nl + 1);
            return true;
        }
        pollfd wait{fd, POLLIN, 0};
        if (::poll(&wait, 1, 10000) != 1) return false;
        char chunk[256];
        ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n <= 0) return false;
        buffer.append(chunk, static_cast<std::size_t>(n));
    }
}

std::string percentiles(std::vector<double> ms) {
    if (ms.empty()) return "no samples";
    std::sort(ms.begin(), ms.end());
    auto at = [&](double q) { return ms[std::min(ms.size() - 1, static_cast<std::size_t>(q * ms.size()))]; };
    char text[128];
    std::snprintf(text, sizeof text, "p50 %.2f ms, p99 %.2f ms, max %.2f ms (%zu samples)", at(0.5), at(0.99),
                  ms.back(), ms.size());
    return text;
}

int run(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) {
        int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, 1);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

void writeJob(const fs::path& path, const std::string& label, const std::vector<std::string>& programArgs,
              const std::string& keepAlive, double exitTimeOut) {
    std::ofstream out(path);
    out << "<plist version=\"1.0\">\n<dict>\n<key>Label</key><string>" << label
        << "</string>\n<key>ProgramArguments</key><array>";
    for (const auto& arg : programArgs) out << "<string>" << arg << "</string>";
    out << "</array>\n<key>KeepAlive</key>" << keepAlive << "\n<key>ExitTimeOut</key><real>" << exitTimeOut
        << "</real>\n<key>ThrottleInterval</key><integer>0</integer>\n</dict>\n</plist>\n";
    out.close();
    ::chmod(path.c_str(), 0644);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 3 && std::strcmp(argv[1], "--job") == 0) return runJob(argv[2], argc >= 4);
    if (argc < 2) {
        std::fprintf(stderr, "usage: runward_latency_report RUNWARDCTL [CYCLES=1000] [JOBS=1000]\n");
        return 2;
    }
    const std::string ctl = argv[1];
    const int cycles = argc > 2 ? std::atoi(argv[2]) : 1000;
    const int jobs = argc > 3 ? std::atoi(argv[3]) : 1000;
    char self[4096];
    ssize_t selfLen = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (selfLen <= 0) return 1;
    const std::string me(self, static_cast<std::size_t>(selfLen));

    char pattern[] = "/tmp/runward-bench.XXXXXX";
    if (!::mkdtemp(pattern)) return 1;
    const fs::path dir = pattern;
    fs::create_directories(dir / "home");
    fs::create_directories(dir / "run");
    ::chmod((dir / "run").c_str(), 0700);
    ::setenv("HOME", (dir / "home").c_str(), 1);
    ::setenv("XDG_RUNTIME_DIR", (dir / "run").c_str(), 1);

    const fs::path fifo = dir / "fifo";
    ::mkfifo(fifo.c_str(), 0600);
    int fd = ::open(fifo.c_str(), O_RDWR | O_CLOEXEC);
    std::string buffer, line;

    // 1. Trigger file to exec, and its removal to SIGTERM.
    const fs::path trigger = dir / "trigger";
    const std::string pathState =
        "<dict><key>PathState</key><dict><key>" + trigger.string() + "</key><true/></dict></dict>";
    writeJob(dir / "toggle.plist", "bench.toggle", {me, "--job", fifo.string()}, pathState, 5);
    run({ctl, "load", (dir / "toggle.plist").string()});
    std::vector<double> startMs, stopMs;
    for (int i = 0; i < cycles; ++i) {
        long long created = nowNs();
        ::close(::open(trigger.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
        if (!readLine(fd, buffer, line) || line[0] != 'S') break;
        startMs.push_back((std::atoll(line.c_str() + 2) - created) / 1e6);
        long long removed = nowNs();
        ::unlink(trigger.c_str());
        if (!readLine(fd, buffer, line) || line[0] != 'T') break;
        stopMs.push_back((std::atoll(line.c_str() + 2) - removed) / 1e6);
    }
    run({ctl, "unload", (dir / "toggle.plist").string()});
    std::printf("trigger created -> job exec:   %s\n", percentiles(startMs).c_str());
    std::printf("trigger removed -> SIGTERM:    %s\n", percentiles(stopMs).c_str());

    // 2. SIGKILL after the exit time-out of a job that ignores SIGTERM.
    const double timeOut = 0.2;
    writeJob(dir / "stubborn.plist", "bench.stubborn", {me, "--job", fifo.string(), "--ignore-term"}, pathState,
             timeOut);
    run({ctl, "load", (dir / "stubborn.plist").string()});
    std::vector<double> killMs;
    for (int i = 0; i < std::max(1, cycles / 10); ++i) {
        ::close(::open(trigger.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
        bool started = false;
        while (!started && readLine(fd, buffer, line)) started = line[0] == 'S';
        if (!started) break;
        pid_t pid = static_cast<pid_t>(std::atol(std::strchr(line.c_str() + 2, ' ') + 1));
        int handle = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
        ::unlink(trigger.c_str());
        if (!readLine(fd, buffer, line) || line[0] != 'T') break;
        long long term = std::atoll(line.c_str() + 2);
        pollfd wait{handle, POLLIN, 0};
        ::poll(&wait, 1, 10000);
        killMs.push_back((nowNs() - term) / 1e6 - timeOut * 1000);
        ::close(handle);
    }
    run({ctl, "unload", (dir / "stubborn.plist").string()});
    std::printf("SIGKILL past the exit time-out: %s\n", percentiles(killMs).c_str());

    // 3. list -x with many jobs loaded.
    for (int i = 0; i < jobs; ++i) {
        auto path = dir / ("job" + std::to_string(i) + ".plist");
        writeJob(path, "bench.job" + std::to_string(i), {"/bin/true"}, "<false/>", 1);
        run({ctl, "load", path.string()});
    }
    std::vector<double> listMs;
    for (int i = 0; i < 200; ++i) {
        long long before = nowNs();
        run({ctl, "list", "-x", "bench.job" + std::to_string(i % std::max(1, jobs))});
        listMs.push_back((nowNs() - before) / 1e6);
    }
    std::printf("runwardctl list -x, %d jobs:  %s\n", jobs, percentiles(listMs).c_str());

    // Tear down: runwardd stops and leaves nothing.
    std::ifstream pidFile(dir / "run/runward/runwardd.pid");
    long daemon = 0;
    pidFile >> daemon;
    if (daemon > 0) {
        int handle = static_cast<int>(::syscall(SYS_pidfd_open, static_cast<pid_t>(daemon), 0));
        ::kill(static_cast<pid_t>(daemon), SIGTERM);
        pollfd wait{handle, POLLIN, 0};
        ::poll(&wait, 1, 30000);
        ::close(handle);
    }
    ::close(fd);
    fs::remove_all(dir);
    return 0;
}
