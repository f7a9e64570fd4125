// The notification bus between two processes: our centre against bare sd-bus
// signals, on one private bus daemon, in one run.
//
//   round trip  A posts "bench.ping" (user information {"seq": text}); B's
//               observer posts "bench.pong" with the same user information;
//               timed until A's observer has run on A's run loop. The bare
//               form: A emits Ping(s), B's match callback emits Pong(s), A
//               has dispatched it (as the peer baseline measures).
//               20,000 round trips per repetition after 1,000 for warm-up;
//               p50 and p99 per repetition as counters.
//   one-way     A posts 100,000 notifications whose user information holds a
//               500-byte string, then "bench.end"; B counts what its observer
//               saw and answers "bench.done" with the count; timed from the
//               first post to the answer. The bare form sends 500-byte string
//               signals. A lost notification aborts the run.
//
// The program starts the bus daemon (a socket in a temporary directory) and
// both peers itself (this program with --peer-ours / --peer-bare); run it
// without arguments. Needs libsystemd for the bare side.
#include <benchmark/benchmark.h>

#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/platform/RunLoop.h>
#ifdef QUILL_BENCH_HAVE_SDBUS
#include <systemd/sd-bus.h>

#include "platform/linux/SdBusHandles.h"
#endif

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

using namespace quill::platform;
using Clock = std::chrono::steady_clock;

constexpr int kWarmup = 1000;
constexpr int kRoundTrips = 20000;
constexpr int kFlood = 100000;
constexpr std::size_t kPayloadBytes = 500;

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "bus_bench: %s\n", what.c_str());
    std::exit(1);
}

PLHolder<const PLString> str(std::string_view s) { return PLString::create(s); }

std::string payloadText() {
    std::string text(kPayloadBytes, 'x');
    for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + i % 26);
    return text;
}

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    std::size_t rank = static_cast<std::size_t>(p / 100.0 * static_cast<double>(values.size()) + 0.999999999);
    return values[std::clamp<std::size_t>(rank, 1, values.size()) - 1];
}

// ------------------------------------------------------------------ peers

int runOurPeer() {
    CNotificationCenter& center = notificationCenter();
    CRunLoop& loop = CRunLoop::current();
    const auto pong = str("bench.pong");
    const auto done = str("bench.done");
    std::int64_t count = 0;
    bool quit = false;
    int key = 0;
    center.addObserver(
        &key, NotificationHandler([&](const CNotification& n) { center.post(pong.get(), nullptr, n.userInfo.get()); }),
        str("bench.ping").get(), nullptr);
    center.addObserver(&key, NotificationHandler([&](const CNotification& n) {
        if (n.userInfo && n.userInfo->get("d")) ++count;
    }),
                       str("bench.data").get(), nullptr);
    center.addObserver(&key, NotificationHandler([&](const CNotification&) {
        auto info = PLMutableDictionary::create();
        info->set(str("count"), PLNumber::create(count));
        count = 0;
        center.post(done.get(), nullptr, info.get());
    }),
                       str("bench.end").get(), nullptr);
    center.addObserver(&key, NotificationHandler([&](const CNotification&) { quit = true; }), str("bench.quit").get(),
                       nullptr);
    center.post(str("bench.ready").get(), nullptr, nullptr);
    loop.runUntil([&] { return quit; }, 3600.0);
    center.removeObserver(&key);
    return 0;
}

#ifdef QUILL_BENCH_HAVE_SDBUS
constexpr const char* kBarePath = "/org/quillbench/Bare";
constexpr const char* kBareIface = "org.quillbench.Bare";

SdBusHandle bareConnect() {
    SdBusHandle bus;
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (sd_bus_new(SdOut(bus)) < 0) die("bare: can't connect");
    if (sd_bus_set_address(bus.get(), address) < 0 || sd_bus_set_bus_client(bus.get(), 1) < 0 ||
        sd_bus_start(bus.get()) < 0)
        die("bare: can't connect");
    return bus;
}

void bareMatch(sd_bus* bus, const char* member, sd_bus_message_handler_t callback, void* data) {
    std::string rule = std::string("type='signal',interface='") + kBareIface + "',member='" + member + "'";
    if (sd_bus_add_match(bus, nullptr, rule.c_str(), callback, data) < 0) die("bare: can't add a match");
}

template <class... Args>
void bareEmit(sd_bus* bus, const char* member, const char* types, Args... args) {
    if (sd_bus_emit_signal(bus, kBarePath, kBareIface, member, types, args...) < 0) die("bare: can't emit");
    std::uint64_t queued = 0;
    sd_bus_get_n_queued_write(bus, &queued);
    if (queued > 0 && sd_bus_flush(bus) < 0) die("bare: can't flush");
}

// Serves the connection until `flag` is set; gives up after `idleSeconds`
// without traffic (the peers wait as long as it takes).
void barePump(sd_bus* bus, const bool& flag, std::uint64_t idleSeconds = 10) {
    while (!flag) {
        int r = sd_bus_process(bus, nullptr);
        if (r < 0) die("bare: the bus failed");
        if (r > 0) continue;
        r = sd_bus_wait(bus, idleSeconds ? idleSeconds * 1'000'000 : UINT64_MAX);
        if (r < 0 && r != -EINTR) die("bare: the bus failed");
        if (r == 0) die("bare: timed out waiting for the peer");
    }
}

struct BarePeer {
    SdBusHandle bus;
    std::uint32_t count = 0;
    bool quit = false;
};

int runBarePeer() {
    BarePeer peer;
    peer.bus = bareConnect();
    bareMatch(
        peer.bus.get(), "Ping",
        [](sd_bus_message* m, void* data, sd_bus_error*) {
            const char* s = nullptr;
            if (sd_bus_message_read(m, "s", &s) >= 0) bareEmit(static_cast<BarePeer*>(data)->bus.get(), "Pong", "s", s);
            return 0;
        },
        &peer);
    bareMatch(
        peer.bus.get(), "Data",
        [](sd_bus_message* m, void* data, sd_bus_error*) {
            const char* s = nullptr;
            if (sd_bus_message_read(m, "s", &s) >= 0 && s[0]) ++static_cast<BarePeer*>(data)->count;
            return 0;
        },
        &peer);
    bareMatch(
        peer.bus.get(), "End",
        [](sd_bus_message*, void* data, sd_bus_error*) {
            auto* p = static_cast<BarePeer*>(data);
            bareEmit(p->bus.get(), "Done", "u", p->count);
            p->count = 0;
            return 0;
        },
        &peer);
    bareMatch(
        peer.bus.get(), "Quit",
        [](sd_bus_message*, void* data, sd_bus_error*) {
            static_cast<BarePeer*>(data)->quit = true;
            return 0;
        },
        &peer);
    bareEmit(peer.bus.get(), "Ready", "");
    barePump(peer.bus.get(), peer.quit, 0);
    sd_bus_flush(peer.bus.get());
    return 0;
}
#endif

// ------------------------------------------------------------------ process A

struct Ours {
    PLHolder<const PLString> ping = str("bench.ping");
    PLHolder<const PLString> data = str("bench.data");
    PLHolder<const PLString> end = str("bench.end");
    bool ready = false;
    bool pong = false;
    bool done = false;
    std::int64_t doneCount = 0;
    int key = 0;
} gOurs;

#ifdef QUILL_BENCH_HAVE_SDBUS
struct Bare {
    SdBusHandle bus;
    bool ready = false;
    bool pong = false;
    bool done = false;
    std::uint32_t doneCount = 0;
} gBare;
#endif

std::vector<pid_t> gChildren;
std::filesystem::path gBusDirectory;

pid_t spawn(const std::vector<std::string>& argv, int addressFd = -1) {
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    const pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent) _exit(1);
        if (addressFd >= 0) dup2(addressFd, 3);
        execve(args[0], args.data(), environ);
        _exit(127);
    }
    if (pid < 0) die("fork failed");
    gChildren.push_back(pid);
    return pid;
}

void startBus() {
    char pattern[] = "/tmp/bus_bench.XXXXXX";
    if (!mkdtemp(pattern)) die("mkdtemp failed");
    gBusDirectory = pattern;
    int pipeFds[2];
    if (pipe(pipeFds) != 0) die("pipe failed");
    spawn({"/usr/bin/dbus-daemon", "--session", "--address=unix:path=" + (gBusDirectory / "bus").string(), "--nofork",
           "--print-address=3"},
          pipeFds[1]);
    close(pipeFds[1]);
    std::string address;
    char c;
    while (read(pipeFds[0], &c, 1) == 1 && c != '\n') address += c;
    close(pipeFds[0]);
    if (address.empty()) die("the bus daemon did not start");
    setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    // Only this bus: once it is stopped at the end, a process that is still
    // connected must not start the user's private bus in its place.
    setenv("QUILL_DBUS_DAEMON", "/bin/false", 1);
}

// The peers first, the bus daemon (the first child) last.
void stopAll() {
    for (auto it = gChildren.rbegin(); it != gChildren.rend(); ++it) {
        kill(*it, SIGTERM);
        waitpid(*it, nullptr, 0);
    }
    std::error_code ec;
    std::filesystem::remove_all(gBusDirectory, ec);
}

bool runLoopUntil(const bool& flag, double seconds = 30.0) {
    return CRunLoop::current().runUntil([&] { return flag; }, seconds);
}

void startOurs() {
    CNotificationCenter& center = notificationCenter();
    center.addObserver(&gOurs.key, NotificationHandler([](const CNotification&) { gOurs.ready = true; }),
                       str("bench.ready").get(), nullptr);
    center.addObserver(&gOurs.key, NotificationHandler([](const CNotification&) { gOurs.pong = true; }),
                       str("bench.pong").get(), nullptr);
    center.addObserver(&gOurs.key, NotificationHandler([](const CNotification& n) {
        gOurs.doneCount = PLDynamicCast<PLNumber>(n.userInfo->get("count"))->int64Value();
        gOurs.done = true;
    }),
                       str("bench.done").get(), nullptr);
    // Our filters are on the bus once our own notification comes back.
    bool back = false;
    int syncKey = 0;
    center.addObserver(&syncKey, NotificationHandler([&](const CNotification&) { back = true; }),
                       str("bench.sync").get(), nullptr);
    center.post(str("bench.sync").get(), nullptr, nullptr);
    if (!runLoopUntil(back, 10.0)) die("our own notification did not come back");
    center.removeObserver(&syncKey);
    spawn({"/proc/self/exe", "--peer-ours"});
    if (!runLoopUntil(gOurs.ready)) die("our peer did not start");
}

double ourRoundTrip(int seq) {
    char text[32];
    std::snprintf(text, sizeof text, "ping %08d", seq);
    auto info = PLMutableDictionary::create();
    info->set(str("seq"), str(text));
    gOurs.pong = false;
    const auto start = Clock::now();
    if (notificationCenter().post(gOurs.ping.get(), nullptr, info.get())) die("a ping was not posted");
    if (!runLoopUntil(gOurs.pong, 10.0)) die("no pong");
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void reportLatencies(benchmark::State& state, const std::vector<double>& seconds) {
    state.counters["p50_us"] = percentile(seconds, 50) * 1e6;
    state.counters["p99_us"] = percentile(seconds, 99) * 1e6;
    state.counters["round_trips_per_s"] =
        benchmark::Counter(static_cast<double>(seconds.size()), benchmark::Counter::kIsRate);
}

void BM_RoundTripOurs(benchmark::State& state) {
    static int seq = 0;
    std::vector<double> seconds;
    seconds.reserve(kRoundTrips);
    for (auto _ : state) {
        double t = ourRoundTrip(seq++);
        state.SetIterationTime(t);
        seconds.push_back(t);
    }
    reportLatencies(state, seconds);
}

void BM_OneWayOurs(benchmark::State& state) {
    auto info = PLMutableDictionary::create();
    info->set(str("d"), str(payloadText()));
    CNotificationCenter& center = notificationCenter();
    for (auto _ : state) {
        gOurs.done = false;
        const auto start = Clock::now();
        for (int i = 0; i < kFlood; ++i) {
            if (std::error_code ec = center.post(gOurs.data.get(), nullptr, info.get()))
                die("a notification was not posted: " + ec.message());
        }
        center.post(gOurs.end.get(), nullptr, nullptr);
        if (!runLoopUntil(gOurs.done, 60.0)) die("no answer to the flood");
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        if (gOurs.doneCount != kFlood) die("the peer saw " + std::to_string(gOurs.doneCount) + " notifications");
    }
    state.counters["messages_per_s"] = benchmark::Counter(
        static_cast<double>(kFlood) * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

#ifdef QUILL_BENCH_HAVE_SDBUS
void startBare() {
    gBare.bus = bareConnect();
    bareMatch(
        gBare.bus.get(), "Ready", [](sd_bus_message*, void*, sd_bus_error*) { return gBare.ready = true, 0; }, nullptr);
    bareMatch(
        gBare.bus.get(), "Pong", [](sd_bus_message*, void*, sd_bus_error*) { return gBare.pong = true, 0; }, nullptr);
    bareMatch(
        gBare.bus.get(), "Done",
        [](sd_bus_message* m, void*, sd_bus_error*) {
            sd_bus_message_read(m, "u", &gBare.doneCount);
            gBare.done = true;
            return 0;
        },
        nullptr);
    spawn({"/proc/self/exe", "--peer-bare"});
    barePump(gBare.bus.get(), gBare.ready);
}

void BM_RoundTripBare(benchmark::State& state) {
    static int seq = 0;
    std::vector<double> seconds;
    seconds.reserve(kRoundTrips);
    for (auto _ : state) {
        char text[32];
        std::snprintf(text, sizeof text, "ping %08d", seq++);
        gBare.pong = false;
        const auto start = Clock::now();
        bareEmit(gBare.bus.get(), "Ping", "s", text);
        barePump(gBare.bus.get(), gBare.pong);
        double t = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(t);
        seconds.push_back(t);
    }
    reportLatencies(state, seconds);
}

void BM_OneWayBare(benchmark::State& state) {
    const std::string text = payloadText();
    for (auto _ : state) {
        gBare.done = false;
        const auto start = Clock::now();
        for (int i = 0; i < kFlood; ++i) bareEmit(gBare.bus.get(), "Data", "s", text.c_str());
        bareEmit(gBare.bus.get(), "End", "");
        barePump(gBare.bus.get(), gBare.done);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        if (gBare.doneCount != kFlood) die("the bare peer saw " + std::to_string(gBare.doneCount) + " signals");
    }
    state.counters["messages_per_s"] = benchmark::Counter(
        static_cast<double>(kFlood) * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
#endif

void roundTrips(benchmark::internal::Benchmark* b) {
    b->UseManualTime()
        ->Iterations(kRoundTrips)
        ->Repetitions(5)
        ->ReportAggregatesOnly(true)
        ->Unit(benchmark::kMicrosecond);
}

void flood(benchmark::internal::Benchmark* b) {
    b->UseManualTime()->Iterations(1)->Repetitions(5)->ReportAggregatesOnly(true)->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_RoundTripOurs)->Apply(roundTrips);
#ifdef QUILL_BENCH_HAVE_SDBUS
BENCHMARK(BM_RoundTripBare)->Apply(roundTrips);
#endif
BENCHMARK(BM_OneWayOurs)->Apply(flood);
#ifdef QUILL_BENCH_HAVE_SDBUS
BENCHMARK(BM_OneWayBare)->Apply(flood);
#endif

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--peer-ours") == 0) return runOurPeer();
#ifdef QUILL_BENCH_HAVE_SDBUS
    if (argc == 2 && std::strcmp(argv[1], "--peer-bare") == 0) return runBarePeer();
#endif
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    startBus();
    std::atexit(stopAll);
    startOurs();
    for (int i = 0; i < kWarmup; ++i) ourRoundTrip(-1 - i);
#ifdef QUILL_BENCH_HAVE_SDBUS
    startBare();
    for (int i = 0; i < kWarmup; ++i) {
        gBare.pong = false;
        bareEmit(gBare.bus.get(), "Ping", "s", "warm-up");
        barePump(gBare.bus.get(), gBare.pong);
    }
#endif
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    notificationCenter().post(str("bench.quit").get(), nullptr, nullptr);
#ifdef QUILL_BENCH_HAVE_SDBUS
    bareEmit(gBare.bus.get(), "Quit", "");
    sd_bus_flush(gBare.bus.get());
    gBare.bus.reset();
#endif
    notificationCenter().flush(1.0);
    return 0;
}
