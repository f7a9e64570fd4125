#include "support/NotificationBus.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/TestSupport.h"
#include <quillcore/platform/RunLoop.h>

extern char** environ;

namespace quilltest {

namespace fs = std::filesystem;

namespace {

struct TestBus {
    pid_t pid = -1;
    std::string address;
};

TestBus& testBus() {
    static TestBus bus;
    return bus;
}

void stopProcess(pid_t pid) {
    if (pid <= 0) return;
    ::kill(pid, SIGTERM);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
}

// Stops the test bus once all tests have run.
class BusEnvironment : public testing::Environment {
public:
    void TearDown() override {
        stopProcess(testBus().pid);
        testBus().pid = -1;
    }
};

[[maybe_unused]] testing::Environment* const gBusEnvironment = testing::AddGlobalTestEnvironment(new BusEnvironment);

std::string readLine(int fd) {
    std::string line;
    char c;
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 10000) <= 0) throw std::runtime_error("the test bus daemon did not start");
        if (::read(fd, &c, 1) != 1) throw std::runtime_error("the test bus daemon did not start");
        if (c == '\n') return line;
        line += c;
    }
}

}  // namespace

namespace {

// Starts a bus daemon with `argv` (null-terminated) that ends with this
// process, and returns its process ID with the address it prints on
// descriptor 3. Throws when it does not start.
std::pair<pid_t, std::string> startBusDaemon(const char* const* argv) {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    const pid_t parent = ::getpid();
    pid_t pid = ::fork();
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) _exit(1);
        ::dup2(out[1], 3);
        int devNull = ::open("/dev/null", O_RDWR);
        ::dup2(devNull, 0);
        ::dup2(devNull, 1);
        ::dup2(devNull, 2);
        ::close_range(4, ~0U, 0);
        ::execve(argv[0], const_cast<char* const*>(argv), environ);
        _exit(127);
    }
    ::close(out[1]);
    std::string address;
    try {
        address = readLine(out[0]);
    } catch (...) {
        ::close(out[0]);
        stopProcess(pid);
        throw;
    }
    ::close(out[0]);
    return {pid, address};
}

}  // namespace

const std::string& privateBusAddress() {
    TestBus& bus = testBus();
    if (bus.pid > 0) return bus.address;
    fs::path dir = testRoot() / "testbus";
    fs::create_directories(dir);
    std::string addressArg = "--address=unix:path=" + (dir / "bus").string();
    const char* argv[] = {"/usr/bin/dbus-daemon", "--session", addressArg.c_str(), "--nofork",
                          "--print-address=3",    nullptr};
    std::tie(bus.pid, bus.address) = startBusDaemon(argv);
    ::setenv("DBUS_SESSION_BUS_ADDRESS", bus.address.c_str(), 1);
    return bus.address;
}

PrivateSystemBus::PrivateSystemBus() {
    char pattern[] = "/tmp/quilltest-sysbus-XXXXXX";
    if (!::mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
    _dir = pattern;
    fs::permissions(_dir, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                              fs::perms::others_read | fs::perms::others_exec);
    const fs::path socket = _dir / "system_bus_socket";
    const fs::path policy = sourceDir() / "dbus" / "com.tessaly.quillcore.Notifications.conf";
    writeFile(_dir / "system.conf",
              "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
              " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
              "<busconfig>\n"
              "  <type>system</type>\n"
              "  <listen>unix:path=" +
                  socket.string() +
                  "</listen>\n"
                  "  <auth>EXTERNAL</auth>\n"
                  "  <policy context=\"default\">\n"
                  "    <allow user=\"*\"/>\n"
                  "    <deny own=\"*\"/>\n"
                  "    <deny send_type=\"method_call\"/>\n"
                  "    <deny send_type=\"signal\"/>\n"
                  "    <deny receive_type=\"signal\"/>\n"
                  "    <allow send_requested_reply=\"true\" send_type=\"method_return\"/>\n"
                  "    <allow send_requested_reply=\"true\" send_type=\"error\"/>\n"
                  "    <allow receive_type=\"method_call\"/>\n"
                  "    <allow receive_type=\"method_return\"/>\n"
                  "    <allow receive_type=\"error\"/>\n"
                  "    <allow send_destination=\"org.freedesktop.DBus\" send_interface=\"org.freedesktop.DBus\"/>\n"
                  "  </policy>\n"
                  "  <include>" +
                  policy.string() +
                  "</include>\n"
                  "</busconfig>\n");
    const std::string configArg = "--config-file=" + (_dir / "system.conf").string();
    const char* argv[] = {"/usr/bin/dbus-daemon", configArg.c_str(), "--nofork", "--print-address=3", nullptr};
    try {
        std::tie(_pid, _address) = startBusDaemon(argv);
    } catch (...) {
        fs::remove_all(_dir);
        throw;
    }
    // Other users must reach the socket.
    fs::permissions(socket, fs::perms::all);
}

PrivateSystemBus::~PrivateSystemBus() {
    stopProcess(_pid);
    std::error_code ignored;
    fs::remove_all(_dir, ignored);
}

void killPrivateBus() {
    stopProcess(testBus().pid);
    testBus().pid = -1;
}

bool killPerUserBus(const fs::path& runtimeDir) {
    fs::path pidFile = runtimeDir / "quillcore" / "bus.pid";
    std::ifstream in(pidFile);
    pid_t pid = 0;
    if (!(in >> pid) || pid <= 0) return false;
    ::kill(pid, SIGTERM);
    // Not our child: wait until it is gone.
    for (int i = 0; i < 500 && ::kill(pid, 0) == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::error_code ec;
    fs::remove(pidFile, ec);
    return true;
}

std::string notifyPeerPath() {
    return (fs::read_symlink("/proc/self/exe").parent_path() / "quill_notify_peer").string();
}

PeerProcess::PeerProcess(const std::vector<std::string>& args, const std::string& program) {
    static int counter = 0;
    _outputPath = testRoot() / ("peer-" + std::to_string(::getpid()) + "-" + std::to_string(++counter) + ".out");
    std::vector<std::string> argv{program.empty() ? notifyPeerPath() : program};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> cargs;
    for (std::string& a : argv) cargs.push_back(a.data());
    cargs.push_back(nullptr);
    int fd = ::open(_outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    _pid = ::fork();
    if (_pid == 0) {
        ::dup2(fd, 1);
        ::dup2(fd, 2);
        ::execve(cargs[0], cargs.data(), environ);
        _exit(127);
    }
    ::close(fd);
    if (_pid < 0) throw std::runtime_error("fork failed");
}

PeerProcess::~PeerProcess() {
    if (_status < 0 && _pid > 0) {
        ::kill(_pid, SIGKILL);
        ::waitpid(_pid, nullptr, 0);
    }
}

int PeerProcess::wait(double seconds) {
    if (_status >= 0) return _status;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    int status = 0;
    while (::waitpid(_pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(_pid, SIGKILL);
            ::waitpid(_pid, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    _status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return _status;
}

bool PeerProcess::finished() {
    if (_status >= 0) return true;
    int status = 0;
    if (::waitpid(_pid, &status, WNOHANG) != _pid) return false;
    _status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return true;
}

std::string PeerProcess::output() const { return readFile(_outputPath); }

bool runLoopUntil(const std::function<bool()>& done, double seconds) {
    return quill::platform::CRunLoop::current().runUntil(done, seconds);
}

std::vector<std::string> consoleLinesWith(const std::string& text) {
    std::vector<std::string> lines;
    std::ifstream in(consoleLogPath());
    for (std::string line; std::getline(in, line);) {
        if (line.find(text) != std::string::npos) lines.push_back(line);
    }
    return lines;
}

PLHolder<const PLDictionary> everyPropertyListType() {
    auto str = [](std::string_view s) { return PLString::create(s); };
    auto inner = PLMutableDictionary::create();
    inner->set(str("data"), PLData::create("\0\1\2\xff", 4));
    inner->set(str("date"), PLDate::create(123456789.25));
    inner->set(str("empty"), PLMutableDictionary::create());
    auto array = PLMutableArray::create();
    array->append(PLNumber::create(std::int32_t{-7}));
    array->append(PLNumber::create(std::int64_t{1} << 40));
    array->append(PLNumber::create(0.1));
    array->append(PLNumber::create(-0.0));
    array->append(PLHolder<const PLObject>::retain(kPLBooleanFalse));
    array->append(PLMutableArray::create());
    array->append(inner);
    auto outer = PLMutableDictionary::create();
    outer->set(str("array"), array);
    outer->set(str("text"), str("gr\xc3\xbc\xc3\x9f \"<&>'\n\r\t"));
    outer->set(str(""), str(""));
    outer->set(str("yes"), PLHolder<const PLObject>::retain(kPLBooleanTrue));
    return outer;
}

}  // namespace quilltest
