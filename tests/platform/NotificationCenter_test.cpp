// The notification centre over the in-process loopback (matching, delivery
// on the registering thread's loop, removal, the payload encoding), then over
// the real bus: a private bus daemon per test program, a peer process on the
// other end, hand-made signals, a killed bus and the private per-user bus.
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <numeric>
#include <thread>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include "platform/linux/SdBusHandles.h"
#include "support/NotificationBus.h"
#include "support/TestSupport.h"
#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/platform/PLPropertyList.h>
#include <quillcore/platform/RunLoop.h>

namespace {

using namespace quill::platform;
using quilltest::consoleLinesWith;
using quilltest::PeerProcess;
using quilltest::runLoopUntil;

PLHolder<const PLString> str(std::string_view s) { return PLString::create(s); }

// Everything an observer got, in order.
struct Seen {
    std::vector<CNotification> all;
    std::vector<std::string> names;
    std::vector<std::string> senders;  // "<none>" for no sender
    NotificationHandler handler() {
        return [this](const CNotification& n) {
            all.push_back(n);
            names.push_back(n.name->str());
            senders.push_back(n.sender ? n.sender->str() : "<none>");
        };
    }
};

class LoopbackCenterTest : public testing::Test {
protected:
    CNotificationCenter center{makeLoopbackNotificationTransport()};
    void settle() { CRunLoop::current().runFor(0.0); }
};

TEST_F(LoopbackCenterTest, MatchesByNameAndSenderKeepsNullSenderApartFromEmptyAndCallsC) {
    Seen any, byName, bySender, byEmptySender;
    int o1 = 0, o2 = 0, o3 = 0, o4 = 0;
    center.addObserver(&o1, any.handler(), nullptr, nullptr);
    center.addObserver(&o2, byName.handler(), str("A").get(), nullptr);
    center.addObserver(&o3, bySender.handler(), nullptr, str("s").get());
    center.addObserver(&o4, byEmptySender.handler(), nullptr, str("").get());
    // A C callback gets the centre, its observer and the values.
    struct CObserver {
        PLNotificationCenterRef center = nullptr;
        std::string text;
    } c;
    center.addObserver(
        &c,
        [](PLNotificationCenterRef ref, void* observer, PLStringRef name, PLStringRef sender, PLDictionaryRef info) {
            auto* o = static_cast<CObserver*>(observer);
            o->center = ref;
            o->text += name->str() + "/" + (sender ? sender->str() : "<none>") + "/" + (info ? "info " : "<none> ");
        },
        str("A").get(), nullptr);

    center.post(str("A").get(), nullptr, nullptr);
    center.post(str("B").get(), str("s").get(), nullptr);
    center.post(str("A").get(), str("").get(), PLMutableDictionary::create().get());
    center.post(str("a").get(), str("S").get(), nullptr);
    EXPECT_TRUE(any.names.empty()) << "delivered before the loop ran";
    settle();
    EXPECT_EQ(c.center, &center);
    EXPECT_EQ(c.text, "A/<none>/<none> A//info ");

    EXPECT_EQ(any.names, (std::vector<std::string>{"A", "B", "A", "a"}));
    EXPECT_EQ(any.senders, (std::vector<std::string>{"<none>", "s", "", "S"}));
    EXPECT_EQ(byName.names, (std::vector<std::string>{"A", "A"}));
    EXPECT_EQ(bySender.names, (std::vector<std::string>{"B"}));
    EXPECT_EQ(byEmptySender.names, (std::vector<std::string>{"A"}));
    EXPECT_EQ(byEmptySender.senders, (std::vector<std::string>{""}));
}

TEST_F(LoopbackCenterTest, RemovalStopsQueuedDeliveriesAndTheSameTripleReplacesTheCallback) {
    Seen replaced, seen, other;
    int observer, bystander;
    center.addObserver(&observer, seen.handler(), str("N").get(), str("x").get());
    center.addObserver(&observer, replaced.handler(), str("N").get(), str("y").get());
    center.addObserver(&observer, seen.handler(), str("N").get(), str("y").get());
    center.addObserver(&bystander, other.handler(), str("N").get(), nullptr);
    for (int i = 0; i < 3; ++i) center.post(str("N").get(), str("x").get(), nullptr);
    center.post(str("N").get(), str("y").get(), nullptr);

    center.removeObserver(&observer, nullptr, str("x").get());
    settle();
    EXPECT_EQ(seen.senders, (std::vector<std::string>{"y"}));
    EXPECT_TRUE(replaced.names.empty());
    EXPECT_EQ(other.names.size(), 4u);

    center.post(str("N").get(), str("y").get(), nullptr);
    center.removeObserver(&observer);
    settle();
    EXPECT_EQ(seen.senders.size(), 1u);
    EXPECT_EQ(center.registrationCount(), 1u);
}

TEST_F(LoopbackCenterTest, CallbacksRunOnTheRegisteringThreadsLoop) {
    std::atomic<CRunLoop*> workerLoop{nullptr};
    bool stop = false;  // touched on the worker's thread only
    std::atomic<int> delivered{0};
    std::thread::id callbackThread, observerThread;
    int observer;
    std::thread worker([&] {
        observerThread = std::this_thread::get_id();
        center.addObserver(&observer, NotificationHandler([&](const CNotification&) {
            callbackThread = std::this_thread::get_id();
            ++delivered;
        }),
                           str("T").get(), nullptr);
        workerLoop = &CRunLoop::current();
        CRunLoop::current().runUntil([&] { return stop; }, 10.0);
    });
    while (!workerLoop) std::this_thread::yield();
    center.post(str("T").get(), nullptr, nullptr);
    settle();
    while (delivered == 0) std::this_thread::yield();
    workerLoop.load()->post([&] { stop = true; });
    worker.join();
    EXPECT_EQ(callbackThread, observerThread);

    // The thread has ended: posting must not reach its loop, and its
    // registration goes at the next change.
    center.post(str("T").get(), nullptr, nullptr);
    int other;
    center.addObserver(&other, NotificationHandler([](const CNotification&) {}), str("U").get(), nullptr);
    EXPECT_EQ(center.registrationCount(), 1u);
    EXPECT_EQ(delivered, 1);
}

TEST_F(LoopbackCenterTest, PayloadRoundTripKeepsEveryTypeAndRefusesNonPropertyLists) {
    auto original = quilltest::everyPropertyListType();
    PLHolder<const PLData> bytes;
    std::string reason;
    ASSERT_TRUE(encodeNotificationPayload(original.get(), bytes, &reason)) << reason;
    PLHolder<const PLDictionary> decoded;
    ASSERT_TRUE(decodeNotificationPayload(bytes->bytes(), bytes->size(), decoded, &reason)) << reason;
    EXPECT_TRUE(PLEqual(decoded.get(), original.get()));
    // Equality counts 5 == 5.0; the kinds of numbers must survive as well.
    auto* array = PLDynamicCast<PLArray>(decoded->get("array"));
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(PLDynamicCast<PLNumber>(array->at(0))->numberType(), PLNumberType::SInt32);
    EXPECT_EQ(PLDynamicCast<PLNumber>(array->at(1))->numberType(), PLNumberType::SInt64);
    EXPECT_TRUE(std::signbit(PLDynamicCast<PLNumber>(array->at(3))->doubleValue()));

    auto withURL = PLMutableDictionary::create();
    withURL->set(str("u"), PLURL::create("file:///tmp/x"));
    EXPECT_FALSE(encodeNotificationPayload(withURL.get(), bytes, &reason));
    EXPECT_EQ(center.post(str("N").get(), nullptr, withURL.get()), std::errc::invalid_argument);

    // Decoding: no bytes is no dictionary; anything but a whole dictionary is refused.
    EXPECT_TRUE(decodeNotificationPayload("", 0, decoded, &reason));
    EXPECT_EQ(decoded, nullptr);

    auto notDict = PLPropertyListCreateBinaryData(PLArray::create(nullptr, 0).get());
    EXPECT_FALSE(decodeNotificationPayload(notDict->bytes(), notDict->size(), decoded, &reason));
    EXPECT_NE(reason.find("array"), std::string::npos) << reason;
    const std::string truncated = std::string(notDict->view()).substr(0, notDict->size() - 3);
    EXPECT_FALSE(decodeNotificationPayload(truncated.data(), truncated.size(), decoded, &reason));
    EXPECT_EQ(decoded, nullptr);

    const std::string xml =
        "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>k</key><string>v</string></dict></plist>";
    ASSERT_TRUE(decodeNotificationPayload(xml.data(), xml.size(), decoded, &reason)) << reason;
    EXPECT_EQ(decoded->count(), 1u);
}

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

class DBusNotificationTest : public testing::Test {
protected:
    void SetUp() override { quilltest::privateBusAddress(); }
    CNotificationCenter center{makeDBusNotificationTransport()};
};

TEST_F(DBusNotificationTest, AnotherProcessGetsEveryTypeAndAKilledOneNeverHoldsUpThePoster) {
    const std::string listen = uniqueName("listen"), reply = uniqueName("reply");
    Seen got;
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

// Another process's notifications reach observers on several threads, each
// in the order they were posted.
TEST_F(DBusNotificationTest, ObserversOnSeveralThreadsGetAnotherProcesssPostsInOrder) {
    const std::string name = uniqueName("order");
    constexpr int kCount = 2000;
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
                               str(name).get(), str("peer").get());
            syncWithBus(center);
            ++registered;
            runLoopUntil([&] { return seen[t].size() == kCount; }, 20.0);
            center.removeObserver(&key);
        });
    }
    while (registered < kThreads) std::this_thread::yield();
    PeerProcess peer({"post", name, "peer", std::to_string(kCount)});
    EXPECT_EQ(peer.wait(), 0) << peer.output();
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
        _changed.wait_for(lock, std::chrono::seconds(10), [&] { return !_got.empty() && _got.back() == last; });
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
    Seen got;
    int key = 0;
    center.addObserver(&key, got.handler(), nullptr, nullptr);
    syncWithBus(center);
    got.all.clear();

    // A signal of the wrong signature, and one whose user information is no property list.
    {
        const auto ok = [](int r) { return r >= 0; };
        SdBusHandle bus;
        ASSERT_TRUE(ok(sd_bus_new(SdOut(bus))));
        ASSERT_TRUE(ok(sd_bus_set_address(bus.get(), quilltest::privateBusAddress().c_str())) &&
                    ok(sd_bus_set_bus_client(bus.get(), 1)) && ok(sd_bus_start(bus.get())));
        ASSERT_TRUE(ok(sd_bus_emit_signal(bus.get(), kNotificationBusPath, kNotificationBusInterface,
                                          kNotificationBusMember, "si", "wrong", 5)));
        SdBusMessageHandle m;
        ASSERT_TRUE(ok(sd_bus_message_new_signal(bus.get(), SdOut(m), kNotificationBusPath, kNotificationBusInterface,
                                                 kNotificationBusMember)));
        ASSERT_TRUE(ok(sd_bus_message_append(m.get(), "ssb", "garbage", "", 0)) &&
                    ok(sd_bus_message_append_array(m.get(), 'y', "bplist00 not really", 19)) &&
                    ok(sd_bus_send(bus.get(), m.get(), nullptr)));
        ASSERT_TRUE(ok(sd_bus_flush(bus.get())));
    }  // closes the connection

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
    Seen got;
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

TEST_F(PrivateBusTest, RefusesAnUnsafeDirectoryElseRacingProcessesStartOneBusAndMeetOnIt) {
    const auto started = [&] {
        return consoleLinesWith("started a private notification bus at unix:path=" + runtime.str()).size();
    };
    // Refused: a directory that others can write to, and one that is a link.
    ASSERT_EQ(mkdir((runtime / "quillcore").c_str(), 0700), 0);
    ASSERT_EQ(chmod((runtime / "quillcore").c_str(), 0757), 0);
    EXPECT_TRUE(CNotificationCenter(makeDBusNotificationTransport()).post(str("x").get(), nullptr, nullptr));
    EXPECT_FALSE(std::filesystem::exists(runtime / "quillcore" / "bus"));
    EXPECT_FALSE(
        consoleLinesWith("refusing " + runtime.str() + "/quillcore: others can write to it (mode 0757)").empty());
    std::filesystem::remove(runtime / "quillcore");
    quilltest::TempDir elsewhere("elsewhere");
    std::filesystem::create_directory_symlink(elsewhere.path(), runtime / "quillcore");
    EXPECT_TRUE(CNotificationCenter(makeDBusNotificationTransport()).post(str("x").get(), nullptr, nullptr));
    EXPECT_FALSE(consoleLinesWith("refusing " + runtime.str() + "/quillcore: not a directory").empty());
    EXPECT_FALSE(std::filesystem::exists(elsewhere / "bus"));
    std::filesystem::remove(runtime / "quillcore");
    EXPECT_EQ(started(), 0u);

    const std::string name = uniqueName("meet");
    PeerProcess peers[] = {PeerProcess({"meet", name}), PeerProcess({"meet", name}), PeerProcess({"meet", name})};
    for (auto& peer : peers) EXPECT_EQ(peer.wait(), 0) << peer.output();
    EXPECT_EQ(started(), 1u);
    struct stat st;
    ASSERT_EQ(stat((runtime / "quillcore").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    EXPECT_TRUE(std::filesystem::exists(runtime / "quillcore" / "bus.pid"));

    // This process finds the bus already there, and hears itself on it.
    CNotificationCenter center(makeDBusNotificationTransport());
    Seen got;
    int key = 0;
    center.addObserver(&key, got.handler(), str(name).get(), nullptr);
    ASSERT_FALSE(center.post(str(name).get(), str("me").get(), nullptr));
    ASSERT_TRUE(runLoopUntil([&] { return !got.all.empty(); }));
    EXPECT_EQ(started(), 1u);
}

// ------------------------------------------------------ host-wide bus

// A bus configured like the system bus, restricted to what the installed
// policy file grants; the host-wide centre and the peers find it through
// DBUS_SYSTEM_BUS_ADDRESS, and the session bus is out of reach, so nothing
// can pass that way.
class HostBusTest : public testing::Test {
protected:
    quilltest::PrivateSystemBus bus;
    quilltest::ScopedEnv systemAddress{"DBUS_SYSTEM_BUS_ADDRESS", bus.address()};
    quilltest::ScopedEnv noSession{"DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/quilltest"};
    CNotificationCenter center{makeDBusNotificationTransport(NotificationBus::HostWide)};
};

TEST_F(HostBusTest, AProcessOfAnotherUserAnswersOnTheHostWideBus) {
    const std::string listen = uniqueName("request"), reply = uniqueName("reply");
    Seen got;
    int key = 0;
    center.addObserver(&key, got.handler(), str(reply).get(), nullptr);
    syncWithBus(center);
    // As an ordinary user when the test can switch to one, like a client
    // program talking to the serving process.
    std::vector<std::string> args{"--host", "echo", listen, reply, "1"};
    std::string program;
    if (::geteuid() == 0) {
        args.insert(args.begin(), {"--reuid=nobody", "--regid=nogroup", "--clear-groups", quilltest::notifyPeerPath()});
        program = "/usr/bin/setpriv";
    }
    PeerProcess peer(args, program);
    ASSERT_TRUE(runLoopUntil([&] { return got.all.size() == 1; })) << peer.output();

    PLHolder<PLMutableDictionary> info = PLMutableDictionary::create();
    info->set(str("storageURL"), str("/Volumes/Data/ABCD1234-0F0F0F0F/shared"));
    center.post(str(listen).get(), str("client").get(), info.get());
    ASSERT_TRUE(runLoopUntil([&] { return got.all.size() == 2; })) << peer.output();
    ASSERT_NE(got.all[1].sender, nullptr);
    EXPECT_EQ(got.all[1].sender->str(), "client");
    EXPECT_TRUE(PLEqual(got.all[1].userInfo.get(), info.get()));
    EXPECT_EQ(peer.wait(), 0) << peer.output();
    center.removeObserver(&key);
}

TEST_F(HostBusTest, ThePolicyLetsOurSignalThroughAndNothingElse) {
    auto ok = [](int r) { return r >= 0; };
    sd_bus* sender = nullptr;
    sd_bus* receiver = nullptr;
    for (sd_bus** bus : {&sender, &receiver}) {
        ASSERT_TRUE(ok(sd_bus_new(bus)) && ok(sd_bus_set_address(*bus, this->bus.address().c_str())) &&
                    ok(sd_bus_set_bus_client(*bus, 1)) && ok(sd_bus_start(*bus)));
    }
    std::vector<std::string> arrived;
    auto onSignal = [](sd_bus_message* m, void* seen, sd_bus_error*) {
        static_cast<std::vector<std::string>*>(seen)->push_back(std::string(sd_bus_message_get_interface(m)) + "." +
                                                                sd_bus_message_get_member(m));
        return 0;
    };
    ASSERT_TRUE(ok(sd_bus_add_match(receiver, nullptr, "type='signal',path='/com/tessaly/quillcore/Notifications'",
                                    onSignal, &arrived)));
    // The same path and arguments under another interface and member, then
    // ours: the bus keeps one sender's order, so once ours has arrived the
    // others would have too.
    const std::string other = std::string(kNotificationBusInterface) + "Extra";
    ASSERT_TRUE(ok(sd_bus_emit_signal(sender, kNotificationBusPath, other.c_str(), kNotificationBusMember, "ssbay", "n",
                                      "", 0, 0, nullptr)));
    ASSERT_TRUE(ok(sd_bus_emit_signal(sender, kNotificationBusPath, kNotificationBusInterface, "Other", "ssbay", "n",
                                      "", 0, 0, nullptr)));
    ASSERT_TRUE(ok(sd_bus_emit_signal(sender, kNotificationBusPath, kNotificationBusInterface, kNotificationBusMember,
                                      "ssbay", "n", "", 0, 0, nullptr)));
    ASSERT_TRUE(ok(sd_bus_flush(sender)));
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (arrived.empty() && std::chrono::steady_clock::now() < deadline) {
        if (sd_bus_process(receiver, nullptr) == 0) sd_bus_wait(receiver, 100000);
    }
    EXPECT_EQ(arrived,
              (std::vector<std::string>{std::string(kNotificationBusInterface) + "." + kNotificationBusMember}));
    sd_bus_flush_close_unref(sender);
    sd_bus_flush_close_unref(receiver);
}

TEST_F(HostBusTest, WithoutASystemBusPostsFailAndNoBusIsStarted) {
    quilltest::ScopedEnv nowhere{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/quilltest-system"};
    quilltest::TempDir runtime("runtime");
    quilltest::ScopedEnv xdg{"XDG_RUNTIME_DIR", runtime.str()};
    CNotificationCenter lonely{makeDBusNotificationTransport(NotificationBus::HostWide)};
    EXPECT_TRUE(lonely.post(str("QuillTestNowhere").get(), nullptr, nullptr));
    EXPECT_FALSE(std::filesystem::exists(runtime / "quillcore"));
    EXPECT_FALSE(consoleLinesWith("DBUS_SYSTEM_BUS_ADDRESS (unix:path=/nonexistent/quilltest-system)").empty());
}

}  // namespace
