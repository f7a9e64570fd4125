// The notification centre over the real bus: a private bus daemon per test
// program, a peer process on the other end, hand-made signals, a killed bus
// and the private per-user bus.
#include "support/NotificationBus.h"
#include "support/TestSupport.h"

#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/platform/RunLoop.h>

#include <gtest/gtest.h>

#include <systemd/sd-bus.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <condition_variable>
#include <mutex>
#include <numeric>
#include <thread>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace quill::platform;
using quilltest::consoleLinesWith;
using quilltest::PeerProcess;
using quilltest::runLoopUntil;

PLHolder<const PLString> str(std::string_view s) { return PLString::create(s); }

// A name no other test (or test program) uses.
std::string uniqueName(const std::string& what) {
    static std::atomic<int> counter{0};
    return "test." + std::to_string(getpid()) + "." + what + "." + std::to_string(++counter);
}

// Returns once the bus has taken every filter this centre asked for so far:
// it serves one connection's messages in order, so our own notification
// coming back means every earlier request was served.
void syncWithBus(CNotificationCenter& center) {
    const auto name = str(uniqueName("sync"));
    bool back = false;
    int key = 0;
    center.addObserver(&key, NotificationHandler([&](const CNotification&) { back = true; }), name.get(), nullptr);
    ASSERT_FALSE(center.post(name.get(), nullptr, nullptr));
    ASSERT_TRUE(runLoopUntil([&] { return back; }));
    center.removeObserver(&key);
}

struct Received {
    std::vector<CNotification> all;
    NotificationHandler handler() {
        return [this](const CNotification& n) { all.push_back(n); };
    }
};

class DBusNotificationTest : public testing::Test {
protected:
    void SetUp() override { quilltest::privateBusAddress(); }
    CNotificationCenter center{makeDBusNotificationTransport()};
};

TEST_F(DBusNotificationTest, AnotherProcessGetsEveryTypeAndAKilledOneNeverHoldsUpThePoster) {
    const std::string listen = uniqueName("listen"), reply = uniqueName("reply");
    Received got;
    int key = 0;
    center.addObserver(&key, got.handler(), str(reply).get(), nullptr);
    syncWithBus(center);
    PeerProcess peer({"echo", listen, reply, "1000000"});
    ASSERT_TRUE(runLoopUntil([&] { return got.all.size() == 1; })) << peer.output();

    auto every = quilltest::everyPropertyListType();
    center.post(str(listen).get(), nullptr, every.get());
    center.post(str(listen).get(), str("").get(), nullptr);
    ASSERT_TRUE(runLoopUntil([&] { return got.all.size() == 3; }));
    EXPECT_EQ(got.all[1].sender, nullptr);
    EXPECT_TRUE(PLEqual(got.all[1].userInfo.get(), every.get()));
    ASSERT_NE(got.all[2].sender, nullptr);
    EXPECT_EQ(got.all[2].sender->str(), "");
    EXPECT_EQ(got.all[2].userInfo, nullptr);

    // Killed while notifications for it are on their way: the bus drops
    // them, and the poster never waits for it (a post may at most report a
    // full send queue, which the bus drains).
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 5000; ++i) {
        if (i == 100) ::kill(peer.pid(), SIGKILL);
        center.post(str(listen).get(), nullptr, nullptr);
    }
    EXPECT_TRUE(center.flush(5.0));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(peer.wait(), 128 + SIGKILL);
    syncWithBus(center);  // and the centre still works
}

TEST_F(DBusNotificationTest, NotificationsOfOnePosterArriveInOrder) {
    const std::string name = uniqueName("order");
    constexpr int kCount = 2000;
    std::vector<std::int32_t> seq;
    int key = 0;
    center.addObserver(&key, NotificationHandler([&](const CNotification& n) {
                           seq.push_back(PLDynamicCast<PLNumber>(n.userInfo->get("seq"))->int32Value());
                       }),
                       str(name).get(), str("peer").get());
    syncWithBus(center);
    PeerProcess peer({"post", name, "peer", std::to_string(kCount)});
    EXPECT_EQ(peer.wait(), 0) << peer.output();
    ASSERT_TRUE(runLoopUntil([&] { return seq.size() == kCount; }, 20.0)) << seq.size();
    std::vector<std::int32_t> expected(kCount);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(seq, expected);
}

TEST_F(DBusNotificationTest, ObserversOnSeveralThreadsEachGetEverythingInOrder) {
    const auto name = str(uniqueName("threads"));
    constexpr int kCount = 300;
    constexpr int kThreads = 3;
    std::vector<std::vector<int>> seen(kThreads);
    std::atomic<int> registered{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            int key = 0;
            center.addObserver(&key, NotificationHandler([&, t](const CNotification& n) {
                                   seen[t].push_back(PLDynamicCast<PLNumber>(n.userInfo->get("seq"))->int32Value());
                               }),
                               name.get(), nullptr);
            syncWithBus(center);
            ++registered;
            runLoopUntil([&] { return seen[t].size() == kCount; }, 20.0);
            center.removeObserver(&key);
        });
    }
    while (registered < kThreads) std::this_thread::yield();
    for (int i = 0; i < kCount; ++i) {
        auto info = PLMutableDictionary::create();
        info->set(str("seq"), PLNumber::create(i));
        ASSERT_FALSE(center.post(name.get(), nullptr, info.get()));
    }
    for (auto& thread : threads) thread.join();
    std::vector<int> expected(kCount);
    std::iota(expected.begin(), expected.end(), 0);
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(seen[t], expected) << "thread " << t;
}

// The transport on its own: what arrives is what the bus let through.
class RecordingSink final : public INotificationSink {
public:
    void deliver(std::vector<CNotification>&& batch) noexcept override {
        std::lock_guard<std::mutex> lock(_mutex);
        for (const CNotification& n : batch)
            _got.push_back(n.name->str() + "/" + (n.sender ? n.sender->str() : "<none>"));
        _changed.notify_all();
    }
    std::vector<std::string> waitFor(const std::string& last) {
        std::unique_lock<std::mutex> lock(_mutex);
        _changed.wait_for(lock, std::chrono::seconds(10),
                          [&] { return !_got.empty() && _got.back() == last; });
        return _got;
    }

private:
    std::mutex _mutex;
    std::condition_variable _changed;
    std::vector<std::string> _got;
};

TEST_F(DBusNotificationTest, TheBusFiltersByNameAndSender) {
    RecordingSink sink;
    auto transport = makeDBusNotificationTransport();
    transport->attach(sink);
    const auto name = str(uniqueName("filtered")), other = str(uniqueName("other")), done = str(uniqueName("done"));
    transport->addFilter(name.get(), str("s").get());
    transport->addFilter(done.get(), nullptr);
    transport->send(*name, str("t").get(), nullptr);
    transport->send(*other, str("s").get(), nullptr);
    transport->send(*name, nullptr, nullptr);
    transport->send(*name, str("s").get(), nullptr);
    transport->removeFilter(name.get(), str("s").get());
    transport->send(*name, str("s").get(), nullptr);
    transport->send(*done, nullptr, nullptr);
    EXPECT_EQ(sink.waitFor(done->str() + "/<none>"),
              (std::vector<std::string>{name->str() + "/s", done->str() + "/<none>"}));
}

TEST_F(DBusNotificationTest, MalformedSignalsAreDroppedWithOneConsoleLineEach) {
    const std::string marker = "dropped a malformed notification signal";
    const std::size_t before = consoleLinesWith(marker).size();
    Received got;
    int key = 0;
    center.addObserver(&key, got.handler(), nullptr, nullptr);
    syncWithBus(center);
    got.all.clear();

    // A signal of the wrong signature, and one whose user information is no property list.
    sd_bus* raw = nullptr;
    sd_bus_message* m = nullptr;
    const auto ok = [](int r) { return r >= 0; };
    ASSERT_TRUE(ok(sd_bus_new(&raw)) && ok(sd_bus_set_address(raw, quilltest::privateBusAddress().c_str())) &&
                ok(sd_bus_set_bus_client(raw, 1)) && ok(sd_bus_start(raw)));
    ASSERT_TRUE(ok(sd_bus_emit_signal(raw, kNotificationBusPath, kNotificationBusInterface, kNotificationBusMember,
                                      "si", "wrong", 5)) &&
                ok(sd_bus_message_new_signal(raw, &m, kNotificationBusPath, kNotificationBusInterface,
                                             kNotificationBusMember)) &&
                ok(sd_bus_message_append(m, "ssb", "garbage", "", 0)) &&
                ok(sd_bus_message_append_array(m, 'y', "bplist00 not really", 19)) && ok(sd_bus_send(raw, m, nullptr)));
    sd_bus_message_unref(m);
    ASSERT_TRUE(ok(sd_bus_flush(raw)));
    sd_bus_flush_close_unref(raw);

    syncWithBus(center);
    for (const CNotification& n : got.all) EXPECT_NE(n.name->str(), "garbage");
    const auto lines = consoleLinesWith(marker);
    ASSERT_EQ(lines.size() - before, 2u);
    EXPECT_NE(lines[before].find("(si), not (ssbay)"), std::string::npos) << lines[before];
    EXPECT_NE(lines[before + 1].find("unreadable user information"), std::string::npos) << lines[before + 1];
}

TEST_F(DBusNotificationTest, KilledBusFailsPostsWithoutHangingAndComesBack) {
    // No private per-user bus to fall back on: its directory is unsafe.
    quilltest::TempDir runtime("run");
    ASSERT_EQ(mkdir((runtime / "quillcore").c_str(), 0700), 0);
    ASSERT_EQ(chmod((runtime / "quillcore").c_str(), 0777), 0);
    quilltest::ScopedEnv xdg("XDG_RUNTIME_DIR", runtime.str());

    const auto name = str(uniqueName("survivor"));
    Received got;
    int key = 0;
    center.addObserver(&key, got.handler(), name.get(), nullptr);
    ASSERT_FALSE(center.post(name.get(), nullptr, nullptr));
    ASSERT_TRUE(runLoopUntil([&] { return got.all.size() == 1; }));

    quilltest::killPrivateBus();
    std::error_code failed;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 200 && !failed; ++i) {
        failed = center.post(name.get(), nullptr, nullptr);
        CRunLoop::current().runFor(0.005);
    }
    EXPECT_TRUE(failed);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_FALSE(consoleLinesWith("lost the connection to the notification bus").empty());

    quilltest::privateBusAddress();  // a new daemon on the same socket
    const std::size_t before = got.all.size();
    for (int i = 0; i < 200 && got.all.size() == before; ++i) {
        center.post(name.get(), nullptr, nullptr);
        CRunLoop::current().runFor(0.05);
    }
    EXPECT_GT(got.all.size(), before);
}

class PrivateBusTest : public testing::Test {
protected:
    quilltest::TempDir runtime{"run"};
    quilltest::ScopedEnv noSession{"DBUS_SESSION_BUS_ADDRESS", std::nullopt};
    quilltest::ScopedEnv xdg{"XDG_RUNTIME_DIR", runtime.str()};
    quilltest::ScopedEnv daemon{"QUILL_DBUS_DAEMON", "/usr/bin/dbus-daemon"};
    void TearDown() override { quilltest::killPerUserBus(runtime.path()); }
};

TEST_F(PrivateBusTest, RacingProcessesStartOneBusAndMeetOnIt) {
    const std::string name = uniqueName("meet");
    PeerProcess peers[] = {PeerProcess({"meet", name}), PeerProcess({"meet", name}), PeerProcess({"meet", name})};
    for (auto& peer : peers) EXPECT_EQ(peer.wait(), 0) << peer.output();
    EXPECT_EQ(consoleLinesWith("started a private notification bus at unix:path=" + runtime.str()).size(), 1u);
    struct stat st;
    ASSERT_EQ(stat((runtime / "quillcore").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    EXPECT_TRUE(std::filesystem::exists(runtime / "quillcore" / "bus.pid"));

    // This process finds the bus already there, and hears itself on it.
    CNotificationCenter center(makeDBusNotificationTransport());
    Received got;
    int key = 0;
    center.addObserver(&key, got.handler(), str(name).get(), nullptr);
    ASSERT_FALSE(center.post(str(name).get(), str("me").get(), nullptr));
    ASSERT_TRUE(runLoopUntil([&] { return !got.all.empty(); }));
    EXPECT_EQ(consoleLinesWith("started a private notification bus at unix:path=" + runtime.str()).size(), 1u);
}

TEST_F(PrivateBusTest, RefusesADirectoryOthersCanWriteOrThatIsNoDirectory) {
    CNotificationCenter center(makeDBusNotificationTransport());
    ASSERT_EQ(mkdir((runtime / "quillcore").c_str(), 0700), 0);
    ASSERT_EQ(chmod((runtime / "quillcore").c_str(), 0757), 0);
    EXPECT_TRUE(center.post(str("x").get(), nullptr, nullptr));
    EXPECT_FALSE(std::filesystem::exists(runtime / "quillcore" / "bus"));
    EXPECT_FALSE(consoleLinesWith("refusing " + runtime.str() + "/quillcore: others can write to it (mode 0757)")
                     .empty());

    std::filesystem::remove(runtime / "quillcore");
    quilltest::TempDir elsewhere("elsewhere");
    std::filesystem::create_directory_symlink(elsewhere.path(), runtime / "quillcore");
    CNotificationCenter again(makeDBusNotificationTransport());
    EXPECT_TRUE(again.post(str("x").get(), nullptr, nullptr));
    EXPECT_FALSE(consoleLinesWith("refusing " + runtime.str() + "/quillcore: not a directory").empty());
    EXPECT_FALSE(std::filesystem::exists(elsewhere / "bus"));
}

}  // namespace
