// Service installation and synchronisation against a stand-in control
// command: the cache entry, the job files of every instance, the trigger
// files and command lines of a sync, dynamic instances, the notifications,
// and hostile bundle paths and kinds.
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/ConfigHome.h"
#include "support/ServiceFixtures.h"
#include <ferrocore/CException.h>
#include <quillcore/control/QuillConfig.h>
#include <quillcore/control/QuillNotification.h>
#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/platform/RunLoop.h>
#include <quillcore/plist/CServiceCacheFile.h>

namespace {

using namespace quill::platform;
using Args = std::vector<std::string>;
namespace fs = std::filesystem;

PLHolder<const PLString> str(const std::string& text) { return PLString::create(text); }

class ServiceInstallation : public testing::Test {
protected:
    quilltest::ConfigHome home;
    quilltest::StandInRunwardCtl standIn;
    quilltest::TempDir bundles{"bundles"};
    CNotificationCenter center{makeLoopbackNotificationTransport()};
    CScopedNotificationCenter installed{center};
    std::vector<quilltest::Delivery> inbox;
    std::vector<std::pair<std::string, int>> families;

    void SetUp() override { registerForNotification(&inbox, &quilltest::collectDelivery, nullptr, nullptr); }
    void TearDown() override {
        unregisterForNotifications(&inbox);
        for (const auto& [family, count] : families) quilltest::removeTriggerFiles(family, count);
    }

    // A bundle of a service of the service manager with `instances`.
    fs::path bundle(const std::string& kind, int instances, long long version = 1,
                    const std::string& name = "Service.bundle",
                    const std::string& hint = "runwardd.RunwardAgent.User") {
        families.emplace_back(kind.substr(kind.find(':') + 1), instances + 4);
        return quilltest::makeServiceBundle(
            bundles.path(), name,
            quilltest::serviceInfo(kind, quilltest::serviceConfig(hint, instances, version).get()).get());
    }
    static bool install(const fs::path& path) {
        return installService(PLURL::createWithPath(path.string(), true).get());
    }
    fs::path jobFile(const std::string& label) const {
        return home.home() / "Library/RunwardAgents" / (label + ".plist");
    }
    static std::string trigger(const std::string& label) {
        return "/tmp/" + label + ".runwardagent." + std::to_string(geteuid());
    }
    static std::string family(const std::string& kind) { return kind.substr(kind.find(':') + 1); }
    static PLHolder<const PLArray> kinds(std::initializer_list<PLHolder<const PLObject>> values) {
        return PLArray::createFromValues(std::vector<PLHolder<const PLObject>>(values));
    }
    void settle() { CRunLoop::current().runFor(0.0); }
};

TEST_F(ServiceInstallation, InstallWritesTheEntryAndOneJobPerInstance) {
    const std::string kind = quilltest::uniqueServiceKind("install");
    const fs::path path = bundle(kind, 3);
    // The result is that of the cache flush, which reports false even when it wrote.
    EXPECT_FALSE(install(path));
    EXPECT_TRUE(serviceInstalled(str(kind).get()));
    quill::CServiceCacheEntry entry;
    ASSERT_TRUE(quill::CServiceCacheFile().get(str(kind).get(), entry));
    EXPECT_EQ(entry.path()->str(), (path / "service").string());
    EXPECT_EQ(entry.bundlePath()->str(), path.string());

    const std::string base = family(kind);
    for (const std::string& label : {base, base + "-2", base + "-3"}) {
        const auto job = quilltest::readPlistFile(jobFile(label));
        ASSERT_NE(job, nullptr) << label;  // its whole dictionary: CRunwardCtlPList.JobOfAnInstance
        EXPECT_EQ(PLDynamicCast<PLString>(job->get("Label"))->str(), label);
        EXPECT_EQ(quilltest::readFile(jobFile(label)).find("<!DOCTYPE"), std::string::npos);
    }
    EXPECT_FALSE(fs::exists(jobFile(base + "-1")));
    EXPECT_FALSE(fs::exists(jobFile(base + "-4")));
}

TEST_F(ServiceInstallation, ReinstallKeepsTheCacheButRewritesJobs) {
    const std::string kind = quilltest::uniqueServiceKind("reinstall");
    const fs::path path = bundle(kind, 1, 4);
    install(path);
    ASSERT_TRUE(enableService(str(kind).get()));
    fs::remove(jobFile(family(kind)));

    // Same version, same executable: the cache is not written (the enabled
    // flag a new entry would clear survives), the job file comes back.
    EXPECT_FALSE(install(path));
    EXPECT_TRUE(serviceEnabled(str(kind).get()));
    EXPECT_TRUE(fs::exists(jobFile(family(kind))));

    // A newer version is written as a new entry, not enabled (the kept
    // instance count: QuillctlServices.AReinstallKeepsTheUsersInstanceCount...).
    bundle(kind, 1, 5);
    install(path);
    EXPECT_FALSE(serviceEnabled(str(kind).get()));
    quill::CServiceCacheEntry entry;
    quill::CServiceCacheFile().get(str(kind).get(), entry);
    EXPECT_EQ(entry.version(), 5);
}

TEST_F(ServiceInstallation, SyncStartsEveryEnabledInstanceAndListsDaemonRunOnes) {
    const std::string kind = quilltest::uniqueServiceKind("sync");
    const std::string daemonKind = quilltest::uniqueServiceKind("daemonrun");
    install(bundle(kind, 2));
    install(bundle(daemonKind, 1, 1, "Daemon.bundle", ""));
    enableService(str(kind).get());
    enableService(str(daemonKind).get());
    const std::string base = family(kind);

    syncServices(kinds({str(kind), PLNumber::create(7), str(daemonKind), str("unknown:kind")}).get());
    EXPECT_TRUE(fs::exists(trigger(base)));
    EXPECT_TRUE(fs::exists(trigger(base + "-2")));
    // isLoaded never reports a loaded job, so every instance is loaded.
    const std::vector<Args> started = {{"list", "-x", base},
                                       {"load", jobFile(base).string()},
                                       {"list", "-x", base + "-2"},
                                       {"load", jobFile(base + "-2").string()}};
    EXPECT_EQ(standIn.calls(), started);
    settle();
    ASSERT_EQ(inbox.size(), 1u);
    EXPECT_EQ(inbox[0].name, "CorvanePrefsChangedNotification2");
    EXPECT_EQ(inbox[0].sender->str(), "com.tessaly.corvane.prefpane");
    const auto* list = PLDynamicCast<PLDictionary>(inbox[0].userInfo->get("serviceList"));
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(quilltest::keysOf(list), (std::set<std::string>{daemonKind}));
    EXPECT_EQ(list->get(daemonKind), kPLBooleanTrue);

    // (A disabled service's trigger files go and nothing is unloaded:
    // QuillctlServices.InstallEnableSyncDisable.) Null or empty: the
    // notification without user information.
    syncServices(nullptr);
    syncServices(kinds({}).get());
    settle();
    ASSERT_EQ(inbox.size(), 3u);
    for (int i = 1; i < 3; ++i) EXPECT_EQ(inbox[i].userInfo, nullptr);
}

TEST_F(ServiceInstallation, ARefusedLoadEndsTheSync) {
    const std::string kind = quilltest::uniqueServiceKind("refused");
    install(bundle(kind, 2));
    enableService(str(kind).get());
    standIn.respondWith("Load failed: 5: Input/output error\n", 5);
    EXPECT_THROW(syncServices(kinds({str(kind)}).get()), ferrocore::CParamException);
    EXPECT_EQ(standIn.calls().size(), 2u);  // list and load of the first instance only
    settle();
    EXPECT_TRUE(inbox.empty());
}

TEST_F(ServiceInstallation, DynamicInstancesFollowTheConfiguredOnes) {
    const std::string kind = quilltest::uniqueServiceKind("dynamic");
    install(bundle(kind, 2));
    const std::string base = family(kind);
    const auto id = PLHolder<const PLString>::adopt(installDynamicServiceInstance(str(kind).get(), 0));
    const auto job = quilltest::readPlistFile(jobFile(base + "-3"));
    ASSERT_NE(job, nullptr);
    const auto* arguments = PLDynamicCast<PLArray>(job->get("ProgramArguments"));
    const std::ptrdiff_t at = arguments->indexOf(str("-id").get());
    ASSERT_GE(at, 0);
    ASSERT_NE(id, nullptr);
    EXPECT_TRUE(PLEqual(id.get(), arguments->at(static_cast<std::size_t>(at) + 1)));
    const std::ptrdiff_t idx = arguments->indexOf(str("-idx").get());
    ASSERT_GE(idx, 0);
    EXPECT_EQ(PLDynamicCast<PLString>(arguments->at(static_cast<std::size_t>(idx) + 1))->str(), "2");

    // (syncDynamicServiceInstances: QuillctlServices.DynamicInstancesFollowTheConfiguredOnes.)
    installDynamicServiceInstances(str(kind).get(), 2);
    EXPECT_TRUE(fs::exists(jobFile(base + "-4")));
    EXPECT_FALSE(fs::exists(jobFile(base + "-5")));
    syncDynamicServiceInstance(str(kind).get(), 1, true);
    EXPECT_TRUE(fs::exists(trigger(base + "-4")));
    EXPECT_FALSE(fs::exists(trigger(base)));
    EXPECT_EQ(standIn.calls().back(), (Args{"load", jobFile(base + "-4").string()}));

    // Nothing for a daemon-run service or an unknown kind.
    const std::string daemonKind = quilltest::uniqueServiceKind("dyndaemon");
    install(bundle(daemonKind, 1, 1, "D.bundle", ""));
    EXPECT_EQ(installDynamicServiceInstance(str(daemonKind).get(), 0), nullptr);
    EXPECT_EQ(installDynamicServiceInstance(str("no:such").get(), 0), nullptr);
}

TEST_F(ServiceInstallation, HostileBundlePathsAndKindsStayWhole) {
    const std::string kind = quilltest::uniqueServiceKind("hostile", "-role \"q\" ") + " x'\"\n y";
    const std::string bundleName = "-dash \"quoted\" 'single'\nline.bundle";
    const fs::path path = bundle(kind, 1, 1, bundleName);
    install(path);
    enableService(str(kind).get());
    syncServices(kinds({str(kind)}).get());

    const std::string label = family(kind);
    const auto job = quilltest::readPlistFile(jobFile(label));
    ASSERT_NE(job, nullptr);
    EXPECT_EQ(PLDynamicCast<PLString>(job->get("Label"))->str(), label);
    EXPECT_EQ(PLDynamicCast<PLString>(PLDynamicCast<PLArray>(job->get("ProgramArguments"))->at(0))->str(),
              (path / "service").string());
    EXPECT_EQ(standIn.calls(), (std::vector<Args>{{"list", "-x", label}, {"load", jobFile(label).string()}}));
    // The cache file still parses and names the bundle exactly.
    quill::CServiceCacheEntry entry;
    ASSERT_TRUE(quill::CServiceCacheFile().get(str(kind).get(), entry));
    EXPECT_EQ(entry.bundlePath()->str(), path.string());
    EXPECT_TRUE(removeServiceByPath(str(path.string()).get()));
    EXPECT_FALSE(serviceInstalled(str(kind).get()));
}

TEST_F(ServiceInstallation, MissingPiecesGiveFalseAndWriteNothing) {
    const std::string kind = quilltest::uniqueServiceKind("missing");
    EXPECT_FALSE(install(bundles.path() / "none.bundle"));
    auto noConfig =
        quilltest::makeServiceBundle(bundles.path(), "NoConfig.bundle", quilltest::serviceInfo(kind, nullptr).get());
    EXPECT_FALSE(install(noConfig));
    auto noExecutable = quilltest::makeServiceBundle(
        bundles.path(), "NoExe.bundle",
        quilltest::serviceInfo(kind, quilltest::serviceConfig("runwardd.RunwardAgent.User", 1).get()).get(), "");
    EXPECT_FALSE(install(noExecutable));
    EXPECT_FALSE(serviceInstalled(str(kind).get()));
    EXPECT_FALSE(fs::exists(home.home() / "Library/RunwardAgents"));
}

}  // namespace
