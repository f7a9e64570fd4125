// The daemon's lifecycle functions with live processes of the right and the
// wrong name, the start and its PID time-out, the restart and stop requests,
// the client application's bundles, and the host helpers.
#include <csignal>
#include <fstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/ConfigHome.h"
#include "support/FrameworkTree.h"
#include "support/NotificationBus.h"
#include "support/ServiceFixtures.h"
#include <ferrocore/CException.h>
#include <ferrocore/ProcessUtilities.h>
#include <quillcore/control/QuillConfig.h>
#include <quillcore/control/QuillNotification.h>
#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/platform/RunLoop.h>
#include <quillcore/plist/CServiceCacheFile.h>
#include <quillcore/plist/CServicePIDFile.h>

namespace {

using namespace quill::platform;
namespace fs = std::filesystem;

PLHolder<const PLString> str(const std::string& text) { return PLString::create(text); }

void record(pid_t pid, const char* version) {
    quill::CServicePIDFile file(str("corvaned").get());
    std::vector<std::int32_t> pids;
    file.get(pids);
    pids.push_back(pid);
    file.put(pids);
    file.setProcessAttributes(pid, str("daemon").get(), str("corvaned").get(), version ? str(version).get() : nullptr);
}

// Tests that run "corvaned" processes take turns, across test programs too:
// one test's daemon would otherwise be another's foreign one.
class CorvanedTurn {
public:
    CorvanedTurn() : _fd(open("/tmp/quilltest-corvaned.lock", O_CREAT | O_RDWR | O_CLOEXEC, 0600)) {
        if (_fd >= 0) flock(_fd, LOCK_EX);
    }
    ~CorvanedTurn() {
        if (_fd >= 0) close(_fd);
    }
    CorvanedTurn(const CorvanedTurn&) = delete;
    CorvanedTurn& operator=(const CorvanedTurn&) = delete;

private:
    int _fd;
};

// corvaned processes of this user that the test did not start would decide
// IsOtherVersionOfDaemonRunning for it.
bool foreignDaemonsRun() { return !ferrocore::ProcessUtilities::processIDsForName("corvaned", geteuid()).empty(); }

TEST(DaemonDetection, ByNameRecordAndVersion) {
    CorvanedTurn turn;
    quilltest::ConfigHome home;
    quilltest::TempDir dir;
    if (foreignDaemonsRun()) GTEST_SKIP() << "another corvaned of this user runs";
    EXPECT_FALSE(isDaemonRunning());
    EXPECT_FALSE(IsOtherVersionOfDaemonRunning());

    quilltest::NamedProcess daemon(dir.path(), "corvaned");
    ASSERT_GT(daemon.pid(), 0);
    EXPECT_FALSE(isDaemonRunning());
    EXPECT_TRUE(IsOtherVersionOfDaemonRunning());  // a daemon no record explains

    // A process of another name recorded with version 2 does not count.
    quilltest::NamedProcess other(dir.path(), "notdaemon");
    record(other.pid(), "2");
    EXPECT_FALSE(isDaemonRunning());
    EXPECT_TRUE(IsOtherVersionOfDaemonRunning());

    record(daemon.pid(), "1");
    EXPECT_FALSE(isDaemonRunning());
    EXPECT_TRUE(IsOtherVersionOfDaemonRunning());
    record(daemon.pid(), nullptr);
    EXPECT_TRUE(IsOtherVersionOfDaemonRunning());
    record(daemon.pid(), "2");
    EXPECT_TRUE(isDaemonRunning());
    EXPECT_FALSE(IsOtherVersionOfDaemonRunning());

    // A PID file that cannot be read.
    quilltest::writeFile(home.pidFile(), "garbage");
    EXPECT_FALSE(isDaemonRunning());
    EXPECT_TRUE(IsOtherVersionOfDaemonRunning());
}

// A fake installation whose "corvaned" is `script`.
struct FakeInstall {
    quilltest::TempDir dir{"install"};
    quilltest::FrameworkTree tree{dir.path()};
    quilltest::LoadedImagesHost images{{tree.libraryPath().string()}};
    CScopedHost host{images};

    explicit FakeInstall(const std::string& script) {
        quilltest::writeFile(tree.resourcesDir() / "corvaned", script);
        fs::permissions(tree.resourcesDir() / "corvaned", fs::perms::owner_all);
    }
    fs::path pidFile() const { return dir / "daemon.pid"; }
    // Ends the daemon the script started (it wrote its process ID) and waits
    // until startDaemon's reaper has taken it.
    void endDaemon() const {
        std::ifstream in(pidFile());
        pid_t pid = 0;
        if (!(in >> pid) || pid <= 0) return;
        kill(pid, SIGKILL);
        for (int i = 0; i < 1000 && kill(pid, 0) == 0; ++i) usleep(5000);
    }
};

std::string startFailure() {
    return quilltest::failureOf([] { startDaemon(); });
}

TEST(StartDaemon, LaunchesDetachedAndWaitsForTheRecord) {
    CorvanedTurn turn;
    quilltest::ConfigHome home;
    EXPECT_EQ(startFailure(), "Corvane.framework not found");  // the build tree has none

    // Records itself (Version "2") under its own name, then idles.
    FakeInstall install("");
    const std::string script =
        "#!/bin/sh\n"
        "echo $$ > '" +
        install.pidFile().string() +
        "'\n"
        "echo \"$#:$(awk '{print $6}' /proc/$$/stat)\" > '" +
        (install.dir / "facts").string() +
        "'\n"
        "f=\"$HOME/Library/Application Support/Lumenforge/LumenforgePID.plist\"\n"
        "printf '<plist version=\"1.0\"><dict><key>corvaned</key><array><integer>%s</integer></array>"
        "<key>attributes</key><dict><key>%s</key><dict><key>Version</key><string>2</string></dict></dict>"
        "</dict></plist>' $$ $$ > \"$f.new\" && mv \"$f.new\" \"$f\"\n"
        "while :; do sleep 1; done\n";
    quilltest::writeFile(install.tree.resourcesDir() / "corvaned", script);
    // A daemon of another version runs: a second one is started all the same.
    quilltest::NamedProcess older(install.dir.path(), "corvaned");
    record(older.pid(), "1");
    bool served = false;
    auto timer = CRunLoop::current().addTimer(0.05, 0, [&] { served = true; });
    EXPECT_EQ(startFailure(), "(no exception)");
    install.endDaemon();
    EXPECT_TRUE(fs::exists(install.pidFile()));
    EXPECT_TRUE(served);  // the caller's run loop ran during the wait
    std::ifstream facts(install.dir / "facts");
    std::string line;
    std::getline(facts, line);
    // No arguments; its own session (its process ID is the session ID).
    EXPECT_EQ(line.substr(0, 2), "0:");
    std::ifstream pidIn(install.pidFile());
    std::string pid;
    pidIn >> pid;
    EXPECT_EQ(line.substr(line.rfind(':') + 1), pid);

    // Not an executable: refused before anything starts (the killed daemon's
    // record goes first, as it may linger until it is reaped).
    fs::remove(home.pidFile());
    fs::permissions(install.tree.resourcesDir() / "corvaned", fs::perms::owner_read | fs::perms::owner_write);
    const std::string path = (fs::canonical(install.tree.resourcesDir()) / "corvaned").string();
    EXPECT_EQ(startFailure(), "Couldn't launch corvane daemon with path " + path + ", error = Permission denied");
}

TEST(StartDaemon, ADaemonThatNeverRecordsItselfTimesOut) {
    CorvanedTurn turn;
    quilltest::ConfigHome home;
    FakeInstall install("");
    quilltest::writeFile(install.tree.resourcesDir() / "corvaned",
                         "#!/bin/sh\necho $$ > '" + install.pidFile().string() + "'\nwhile :; do sleep 1; done\n");
    EXPECT_EQ(startFailure(), "Couldn't start corvane daemon: PID time-out");
    install.endDaemon();
}

class DaemonRequests : public testing::Test {
protected:
    quilltest::ConfigHome home;
    CNotificationCenter center{makeLoopbackNotificationTransport()};
    CScopedNotificationCenter installed{center};
    std::vector<quilltest::Delivery> inbox;
    void SetUp() override { registerForNotification(&inbox, &quilltest::collectDelivery, nullptr, nullptr); }
    void TearDown() override { unregisterForNotifications(&inbox); }
    void settle() { CRunLoop::current().runFor(0.0); }
};

TEST_F(DaemonRequests, StopSendsTheRestartRequestAndPingTheRunningOne) {
    restartDaemon(false);
    stopDaemon(false);  // intended: the very same request
    stopDaemon(true);
    pingDaemon();
    settle();
    ASSERT_EQ(inbox.size(), 4u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(inbox[i].name, "CorvaneDaemonRestartNotification2");
        EXPECT_EQ(inbox[i].sender->str(), "corvaneprefs");
    }
    EXPECT_TRUE(PLEqual(inbox[0].userInfo.get(), inbox[1].userInfo.get()));
    EXPECT_EQ(inbox[0].userInfo->get("cancelJobs"), kPLBooleanFalse);
    EXPECT_EQ(inbox[2].userInfo->get("cancelJobs"), kPLBooleanTrue);
    EXPECT_EQ(inbox[3].name, "CorvaneDaemonRunningNotification2");
    EXPECT_EQ(inbox[3].sender->str(), "com.tessaly.corvane.prefpane");
    EXPECT_EQ(inbox[3].userInfo, nullptr);
}

// The client application's framework with its service bundles (the 32-bit
// transcoder's only when asked), and a recorded daemon so that starting it
// returns at once.
TEST_F(DaemonRequests, LumenforgeServicesAndTheSecondSync) {
    CorvanedTurn turn;
    if (foreignDaemonsRun()) GTEST_SKIP() << "another corvaned of this user runs";
    quilltest::StandInRunwardCtl standIn;
    FakeInstall install("");
    const fs::path resources = install.tree.frameworksDir() / "Lumenforge.framework/Resources";
    const std::string jc = quilltest::uniqueServiceKind("jc", "jobcontroller");
    const std::string tc = quilltest::uniqueServiceKind("tc");
    const auto config = quilltest::serviceConfig("", 1);

    // Only the job controller: no kinds for the first two slots, the third
    // left as the caller set it.
    quilltest::makeServiceBundle(resources, "LumenforgeJobController.bundle",
                                 quilltest::serviceInfo(jc, config.get()).get());
    const PLHolder<const PLString> third = str("untouched");
    const PLString* slots[3] = {third.get(), third.get(), third.get()};
    getLumenforgeServiceBundleIDs(&slots[0], &slots[1], &slots[2]);
    EXPECT_EQ(PLHolder<const PLString>::adopt(slots[0])->str(), jc);
    EXPECT_EQ(slots[1], nullptr);
    EXPECT_EQ(slots[2], third.get());  // intended: not cleared
    startLumenforgeServices();
    settle();
    ASSERT_EQ(inbox.size(), 1u);  // only the closing sync, without a list
    EXPECT_EQ(inbox[0].userInfo, nullptr);

    quilltest::makeServiceBundle(resources, "LumenforgeTranscoder.bundle",
                                 quilltest::serviceInfo(tc, config.get()).get());
    for (const char* name : {"LumenforgeJobController.bundle", "LumenforgeTranscoder.bundle"})
        installService(PLURL::createWithPath((resources / name).string(), true).get());
    enableService(str(tc).get());
    quilltest::NamedProcess daemon(install.dir.path(), "corvaned");
    record(daemon.pid(), "2");
    inbox.clear();
    startLumenforgeServices();
    settle();
    ASSERT_EQ(inbox.size(), 2u);  // intended: a second sync without a list follows
    EXPECT_TRUE(PLEqual(inbox[0].userInfo.get(),
                        quilltest::parsePlist("<dict><key>serviceList</key><dict><key>" + jc + "</key><false/><key>" +
                                              tc + "</key><true/></dict></dict>")
                            .get()));
    EXPECT_EQ(inbox[1].userInfo, nullptr);
    std::vector<std::int32_t> clients;
    quill::CServicePIDFile(str("corvaneclients").get()).get(clients);
    EXPECT_EQ(clients, std::vector<std::int32_t>{getpid()});
    EXPECT_EQ(addCorvaneClient(), 0);
}

TEST(HostHelpers, FilesAndTilde) {
    quilltest::TempDir dir;
    quilltest::writeFile(dir / "f", "12345");
    EXPECT_EQ(fileSize(str((dir / "f").string()).get()), 5);
    EXPECT_EQ(fileSize(str((dir / "none").string()).get()), -1);
    EXPECT_TRUE(fileExists(str(dir.str()).get()));
    EXPECT_FALSE(fileExists(str((dir / "none").string()).get()));
    const auto expand = [](const char* path) {
        const auto result = PLHolder<const PLString>::adopt(expandTildeInFilePath(str(path).get()));
        return result ? result->str() : "(null)";
    };
    quilltest::ScopedEnv home("HOME", dir.str());
    EXPECT_EQ(expand("~/Library/a b/*.plist"), dir.str() + "/Library/a b/*.plist");  // no wildcards, need not exist
    EXPECT_EQ(expand("~"), dir.str());
    EXPECT_EQ(expand("/abs/~x"), "/abs/~x");
    EXPECT_EQ(expand("~root/x"), "(null)");
    EXPECT_EQ(expand("\xff"), "(null)");
    EXPECT_EQ(expandTildeInFilePath(nullptr), nullptr);
    struct stat console {};
    if (stat("/dev/console", &console) == 0) {
        EXPECT_EQ(currentUser(), console.st_uid);
    }
}

}  // namespace
