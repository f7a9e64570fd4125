// The reference daemon: its engine driven in-process (its PID record, the
// answers to pings, restart requests and the services it runs), and the
// program as startDaemon launches it from a framework tree.
#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "corvaned/DaemonEngine.h"
#include "support/ConfigHome.h"
#include "support/ExamplePrograms.h"
#include "support/FrameworkTree.h"
#include "support/NotificationBus.h"
#include "support/ServiceFixtures.h"
#include <ferrocore/CException.h>
#include <quillcore/control/QuillConfig.h>
#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/control/QuillNotification.h>
#include <quillcore/logging/CQuillLogger.h>
#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/plist/CQuillConfigFile.h>
#include <quillcore/plist/CServiceCacheFile.h>
#include <quillcore/plist/CServicePIDFile.h>

namespace {

namespace fs = std::filesystem;
namespace QN = quill::QuillNotification;
using corvaned::CDaemonEngine;
using quill::platform::CNotification;
using quilltest::runLoopUntil;

PLHolder<const PLString> text(const std::string& value) { return PLString::create(value); }
PLHolder<const PLObject> flag(bool value) { return PLHolder<const PLObject>::retain(PLBoolean::get(value)); }

std::vector<std::int32_t> recordedPIDs(const std::string& key) {
    quill::CServicePIDFile file(text(key).get());
    std::vector<std::int32_t> pids;
    file.get(pids);
    return pids;
}

std::string recordedVersion(const std::string& key, std::int32_t pid) {
    quill::CServicePIDFile file(text(key).get());
    const auto attributes = file.processAttributes(pid);
    const auto* version = attributes ? PLDynamicCast<PLString>(attributes->get("Version")) : nullptr;
    return version ? version->str() : "";
}

void record(std::int32_t pid, const std::string& version) {
    quill::CServicePIDFile file(text("corvaned").get());
    file.setProcessAttributes(pid, QN::kQuillDaemonID, text("corvaned").get(), text(version).get());
    std::vector<std::int32_t> pids;
    file.get(pids);
    pids.push_back(pid);
    file.put(pids);
}

using Collector = quilltest::NotificationCollector;

// A process named "corvaned" that is not the daemon.
using ImpostorDaemon = quilltest::NamedProcess;

class DaemonEngineTest : public testing::Test {
protected:
    void SetUp() override {
        quilltest::privateBusAddress();
        _logger = quill::CQuillLogger::create();
        _logger->startupLogging(ferrocore::CString::create((_dir / "corvaned.log").string()), false);
    }
    std::string log() const { return quilltest::readFile(_dir / "corvaned.log"); }

    quilltest::ConfigHome _home;
    quilltest::TempDir _dir;
    quill::CQuillLoggerRef _logger;
};

TEST_F(DaemonEngineTest, RecordsItselfAnswersPingsAndRemovesItsRecord) {
    const auto pid = static_cast<std::int32_t>(getpid());
    {
        CDaemonEngine engine(_logger);
        Collector started(QN::kQuillDaemonStartedNotification, QN::kQuillDaemonID);
        engine.start();
        EXPECT_EQ(recordedPIDs("corvaned"), std::vector<std::int32_t>{pid});
        EXPECT_EQ(recordedVersion("corvaned", pid), "2");

        Collector status(QN::kQuillStatusNotification, QN::kQuillDaemonID);
        pingDaemon();
        ASSERT_TRUE(runLoopUntil([&] { return !status.seen.empty() && !started.seen.empty(); }));
        const PLDictionary* info = status.seen.front().userInfo.get();
        ASSERT_TRUE(info);
        EXPECT_EQ(PLDynamicCast<PLString>(info->get("type"))->str(), "status");
        EXPECT_EQ(PLDynamicCast<PLNumber>(info->get("pid"))->int64Value(), pid);
        const auto* extra = PLDynamicCast<PLDictionary>(info->get("userInfo"));
        ASSERT_TRUE(extra);
        EXPECT_EQ(PLDynamicCast<PLString>(extra->get("Version"))->str(), "2");
        EXPECT_FALSE(engine.finished());
    }
    EXPECT_TRUE(recordedPIDs("corvaned").empty());
    EXPECT_EQ(recordedVersion("corvaned", pid), "");
    EXPECT_NE(log().find("corvaned " + std::to_string(pid) + " ended"), std::string::npos) << log();
}

TEST_F(DaemonEngineTest, RefusesToRunBesideALiveDaemonOfThisVersionOnly) {
    ImpostorDaemon other(_dir.path(), "corvaned");
    record(other.pid(), "1");
    {
        CDaemonEngine engine(_logger);
        engine.start();  // another version is no obstacle
    }
    EXPECT_EQ(recordedPIDs("corvaned"), std::vector<std::int32_t>{other.pid()});
    record(other.pid(), "2");
    CDaemonEngine engine(_logger);
    try {
        engine.start();
        FAIL() << "started beside a daemon of version 2";
    } catch (const ferrocore::CParamException& e) {
        EXPECT_EQ(std::string(e.what()), "corvaned already running with PID " + std::to_string(other.pid()));
    }
}

TEST_F(DaemonEngineTest, ARestartRequestEndsTheDaemonOnlyWhenItIsDisabled) {
    {
        CDaemonEngine engine(_logger);
        engine.start();
        restartDaemon(true);
        ASSERT_TRUE(runLoopUntil([&] { return engine.finished(); }));
        EXPECT_EQ(engine.outcome(), CDaemonEngine::Outcome::Restart);
    }
    quill::CQuillConfigFile config;
    config.daemonEnabled = false;
    config.flush();
    CDaemonEngine engine(_logger);
    engine.start();
    stopDaemon(false);
    ASSERT_TRUE(runLoopUntil([&] { return engine.finished(); }));
    EXPECT_EQ(engine.outcome(), CDaemonEngine::Outcome::Stopped);
    EXPECT_NE(log().find("Restart requested (cancelling active jobs); restarting"), std::string::npos) << log();
    EXPECT_NE(log().find("Restart requested; the daemon is disabled, ending"), std::string::npos) << log();
}

TEST_F(DaemonEngineTest, RunsTheDaemonRunServicesThatPreferenceChangesEnable) {
    const std::string daemonRun = quilltest::uniqueKind("daemonrun");
    const std::string managed = quilltest::uniqueKind("managed");
    const fs::path bundle = _dir / "bundles/Example.bundle";
    quilltest::copyExampleBundle(bundle, daemonRun);
    {
        quill::CServiceCacheFile cache;
        const auto entry = [&](const std::string& kind, const std::string& hint) {
            const auto dict = quilltest::parsePlist(
                "<dict><key>Path</key><string>" + (bundle / "ExampleService").string() +
                "</string><key>Instances</key><integer>2</integer><key>Enabled</key><false/>" + hint + "</dict>");
            return quill::CServiceCacheEntry(text(kind).get(), dict.get());
        };
        cache.put(entry(daemonRun, ""));
        cache.put(entry(managed, "<key>LaunchHint</key><string>runwardd.RunwardAgent.User</string>"));
        cache.flush();
    }
    CDaemonEngine engine(_logger);
    engine.start();
    EXPECT_TRUE(engine.runningServices().empty());  // nothing enabled yet

    Collector startups(QN::kQuillServiceStartupNotification, text(daemonRun).get());
    const auto changes = [](std::vector<std::pair<std::string, PLHolder<const PLObject>>> list) {
        PLHolder<PLMutableDictionary> services = PLMutableDictionary::create();
        for (auto& [kind, value] : list) services->set(text(kind), std::move(value));
        PLHolder<PLMutableDictionary> info = PLMutableDictionary::create();
        info->set(text("serviceList"), std::move(services));
        signalDaemon(QN::kQuillPrefsChangedNotification, info.get());
    };
    changes({{daemonRun, flag(true)}, {managed, flag(true)}});
    ASSERT_TRUE(runLoopUntil([&] { return startups.seen.size() == 2; }, 20.0));
    const std::vector<std::int32_t> pids = engine.serviceProcessIDs(daemonRun);
    ASSERT_EQ(pids.size(), 2u);
    EXPECT_EQ(engine.runningServices(), std::vector<std::string>{daemonRun});  // the managed one is left alone
    EXPECT_THAT(recordedPIDs(daemonRun), testing::UnorderedElementsAreArray(pids));

    // An instance that dies is forgotten; the other runs on.
    ASSERT_EQ(kill(pids[1], SIGKILL), 0);
    ASSERT_TRUE(runLoopUntil([&] { return engine.serviceProcessIDs(daemonRun).size() == 1; }));
    EXPECT_EQ(engine.serviceProcessIDs(daemonRun), std::vector<std::int32_t>{pids[0]});

    changes({{daemonRun, flag(false)}});
    ASSERT_TRUE(runLoopUntil([&] { return engine.runningServices().empty(); }));
    EXPECT_TRUE(quilltest::waitForProcessEnd(pids[0], 1.0));
    EXPECT_EQ(recordedPIDs(daemonRun), std::vector<std::int32_t>{pids[1]});  // the killed one could not clean up

    // "Restart" starts only an enabled service.
    changes({{daemonRun, text("Restart")}, {"unknown:kind", flag(true)}});
    ASSERT_TRUE(runLoopUntil([&] { return log().find("No service unknown:kind") != std::string::npos; }));
    EXPECT_TRUE(engine.runningServices().empty());
    EXPECT_NE(log().find("Not restarting " + daemonRun + ": it is not installed or not enabled"), std::string::npos);
}

// The daemon as startDaemon finds and launches it: "Corvane.framework/
// Resources/corvaned" beside the library's bundle.
class StartDaemonTest : public testing::Test {
protected:
    void SetUp() override {
        quilltest::privateBusAddress();
        fs::create_symlink(quilltest::corvanedPath(), _tree.resourcesDir() / "corvaned");
    }
    void TearDown() override {
        for (const std::int32_t pid : recordedPIDs("corvaned")) {
            if (pid != _impostor) quilltest::endProcess(pid);
        }
    }
    std::int32_t daemonPID() const {
        for (const std::int32_t pid : recordedPIDs("corvaned")) {
            if (recordedVersion("corvaned", pid) == "2") return pid;
        }
        return -1;
    }

    quilltest::ConfigHome _home;
    quilltest::TempDir _dir;
    quilltest::FrameworkTree _tree{_dir.path()};
    quilltest::LoadedImagesHost _host{{_tree.libraryPath().string()}};
    quill::platform::CScopedHost _scoped{_host};
    std::int32_t _impostor = -1;
};

TEST_F(StartDaemonTest, ReturnsOnceTheDaemonHasRecordedItselfAndRestartsOrStopsOnRequest) {
    ASSERT_FALSE(isDaemonRunning());
    startDaemon();
    ASSERT_TRUE(isDaemonRunning());
    const std::int32_t pid = daemonPID();
    ASSERT_GT(pid, 0);
    startDaemon();  // running already: nothing new
    EXPECT_EQ(recordedPIDs("corvaned"), std::vector<std::int32_t>{pid});

    // A restart executes the daemon anew in the same process.
    Collector started(QN::kQuillDaemonStartedNotification, QN::kQuillDaemonID);
    restartDaemon(false);
    ASSERT_TRUE(runLoopUntil([&] { return !started.seen.empty(); }));
    EXPECT_TRUE(isDaemonRunning());
    EXPECT_EQ(daemonPID(), pid);

    quill::CQuillConfigFile config;
    config.daemonEnabled = false;
    config.flush();
    stopDaemon(false);
    EXPECT_TRUE(quilltest::waitForProcessEnd(pid, 10.0));
    EXPECT_FALSE(isDaemonRunning());
    EXPECT_TRUE(recordedPIDs("corvaned").empty());
    const std::string log = quilltest::readFile(_home.home() / "Library/Logs/Lumenforge/corvaned.log");
    EXPECT_NE(log.find("corvaned " + std::to_string(pid) + " ended"), std::string::npos) << log;
}

TEST_F(StartDaemonTest, AnotherVersionsRecordIsNoDaemonOfOurs) {
    ImpostorDaemon other(_dir.path(), "corvaned");
    _impostor = other.pid();
    record(other.pid(), "1");  // what that alone is taken for: DaemonDetection.ByNameRecordAndVersion
    startDaemon();
    EXPECT_TRUE(isDaemonRunning());
    const std::int32_t pid = daemonPID();
    ASSERT_GT(pid, 0);
    EXPECT_NE(pid, other.pid());
    EXPECT_THAT(recordedPIDs("corvaned"), testing::UnorderedElementsAre(pid, other.pid()));

    EXPECT_TRUE(quilltest::endProcess(pid));  // SIGTERM ends it cleanly
    EXPECT_EQ(recordedPIDs("corvaned"), std::vector<std::int32_t>{other.pid()});
}

}  // namespace
