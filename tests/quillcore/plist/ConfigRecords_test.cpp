// The records kept in the Lumenforge directory. Those that share the one
// configuration file: the cluster configuration ("corvaneconfig") and
// preferences, the host's performance score ("hostperfscore"), the service
// cache ("corvaneservices"), the service configuration ("serviceconfig" ->
// kind), and how they get along: concurrent writers in several processes, the
// refresh-then-flush trap under a caller's lock, and a damaged file that no
// record overwrites. And the PID file: process lists per service key and the
// shared process attributes, pruned of processes that are gone.
#include <climits>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/ConfigHome.h"
#include "support/NotificationBus.h"
#include <ferrocore/CException.h>
#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/plist/CClusterPrefs.h>
#include <quillcore/plist/CHostPerfScoreFile.h>
#include <quillcore/plist/CQuillConfigFile.h>
#include <quillcore/plist/CServiceCacheFile.h>
#include <quillcore/plist/CServiceConfigFile.h>
#include <quillcore/plist/CServicePIDFile.h>
#include <quillcore/util/PLUtil.h>

namespace {

using namespace quill;
using namespace quilltest;
using Advertising = CQuillConfigFile::Advertising;
using Keys = std::set<std::string>;

PLHolder<const PLString> str(std::string_view text) { return PLString::create(text); }

std::string text(PLStringRef value) { return value ? value->str() : "<unset>"; }

std::int64_t numberAt(const PLDictionary* top, std::initializer_list<std::string_view> path) {
    const auto* number = PLDynamicCast<PLNumber>(plistValue(top, path));
    return number ? number->int64Value() : -1;
}

const char* const kAdminKind = QuillCorePrivate::kTolvaClusterAdminServiceKind;

std::string consoleText() { return std::filesystem::exists(consoleLogPath()) ? readFile(consoleLogPath()) : ""; }

class ConfigRecords : public testing::Test {
protected:
    // How often `text` was written to the console since the test began.
    int consoleCount(const std::string& text) const {
        const std::string lines = consoleText().substr(_consoleStart);
        int found = 0;
        for (auto at = lines.find(text); at != std::string::npos; at = lines.find(text, at + 1)) ++found;
        return found;
    }
    Keys configKeys() const { return keysOf(plistValue(readPlistFile(_home.configFile()).get(), {"corvaneconfig"})); }
    // The cluster configuration's section, then another top-level key.
    void writeConfigSection(const std::string& entries) {
        writeFile(_home.configFile(), R"(<plist version="1.0"><dict><key>corvaneconfig</key><dict>)" + entries +
                                          "</dict><key>other</key><string>kept</string></dict></plist>");
    }
    // The admin kind's list, one other kind and another section.
    void writeServiceConfig(const std::string& adminList) {
        writeFile(_home.configFile(), R"(<plist version="1.0"><dict><key>corvaneconfig</key><dict/>
            <key>serviceconfig</key><dict><key>other:kind</key><dict><key>x</key><dict/></dict>
            <key>)" + std::string(kAdminKind) +
                                          "</key><dict>" + adminList + "</dict></dict></dict></plist>");
    }

    ConfigHome _home;
    FixedHostFacts _facts{8, "Render Node 7"};
    platform::CScopedHost _scope{_facts};
    std::size_t _consoleStart = consoleText().size();
};

// ------------------------------------------------------ cluster configuration

// What every flush of the cluster configuration writes, whatever the values.
const Keys kAlwaysWritten = {"DaemonEnabled",   "SharingEnabled", "SharingType", "LogToFile",
                             "RequirePassword", "ServerName",     "DNSDomain"};

TEST_F(ConfigRecords, MissingOrOddValuesReadAsTheDefaultsAndOnlyTheAlwaysWrittenKeysAreWritten) {
    CQuillConfigFile config;
    EXPECT_EQ(config.filePath()->str(), _home.configFile().string());
    EXPECT_TRUE(config.daemonEnabled && config.launchContentAgent && !config.sharingEnabled);
    EXPECT_EQ(config.daemonPort, 2189);
    EXPECT_EQ(text(config.networkConnection.get()), "allinterfaces");
    EXPECT_EQ(text(config.serverName.get()), "Render Node 7");

    config.flush();
    EXPECT_EQ(configKeys(), kAlwaysWritten);
    const auto top = readPlistFile(_home.configFile());
    EXPECT_EQ(text(PLDynamicCast<PLString>(plistValue(top.get(), {"corvaneconfig", "DNSDomain"}))), "");

    writeConfigSection(R"(<key>DaemonPort</key><integer>0</integer>
        <key>Advertising</key><string>XX</string><key>ServerName</key><string></string>
        <key>DaemonEnabled</key><integer>0</integer><key>SharingType</key><string>2</string>)");
    const CQuillConfigFile odd;
    EXPECT_EQ(odd.daemonPort, 2189);
    EXPECT_EQ(odd.advertising, Advertising::RV);
    EXPECT_EQ(text(odd.serverName.get()), "Render Node 7");
    EXPECT_FALSE(odd.daemonEnabled) << "a number is taken for a boolean";
    EXPECT_EQ(odd.sharingType, 0) << "a string is no number";
}

TEST_F(ConfigRecords, ChangedSettingsRoundTripAndDefaultsStayOutOfTheFile) {
    writeConfigSection("");
    CQuillConfigFile config;
    config.daemonPort = 2200;
    config.launchContentAgent = false;
    config.requirePassword = true;
    config.serverPassword = str("secret");
    config.advertising = Advertising::MC;
    config.networkConnection = str("eth1");
    config.allowRemoteAds = false;
    config.portRangeStart = 50100;
    config.stdoutServicePath = str("/var/tmp/services.out");
    config.flush();
    Keys expected = kAlwaysWritten;
    expected.insert({"DaemonPort", "LaunchContentAgent", "ServerPassword", "Advertising", "NetworkConnection",
                     "AllowRemoteAds", "PortRangeStart", "StdoutServicePath"});
    EXPECT_EQ(configKeys(), expected);
    EXPECT_TRUE(readPlistFile(_home.configFile())->get("other")) << "flush replaces only its own section";

    CQuillConfigFile back;
    EXPECT_EQ(back.daemonPort, 2200);
    EXPECT_EQ(text(back.serverPassword.get()), "secret");
    EXPECT_EQ(back.advertising, Advertising::MC);
    EXPECT_EQ(text(back.networkConnection.get()), "eth1");
    EXPECT_EQ(text(back.stdoutServicePath.get()), "/var/tmp/services.out");
    EXPECT_TRUE(back.allowSalveeAds && !back.allowRemoteAds && !back.launchContentAgent);

    // The password is kept only while it is required.
    back.requirePassword = false;
    back.daemonPort = 2189;
    back.advertising = Advertising::DN;
    back.flush();
    for (const char* gone : {"DaemonPort", "ServerPassword"}) expected.erase(gone);
    EXPECT_EQ(configKeys(), expected);
}

TEST_F(ConfigRecords, StdoutPathsSurviveLaterRefreshesOfTheSameObjectOnly) {
    writeConfigSection("<key>StdoutPath</key><string>/var/tmp/corvaned.out</string><key>LogToFile</key><true/>");
    CQuillConfigFile config;
    writeConfigSection("");
    config.refresh();
    EXPECT_EQ(text(config.stdoutPath.get()), "/var/tmp/corvaned.out");
    EXPECT_FALSE(config.logToFile) << "other fields return to their defaults";
    EXPECT_FALSE(CQuillConfigFile().stdoutPath);
}

TEST(ClusterPrefs, DefaultsUnknownKeysAndTheWritingRules) {
    CClusterPrefs prefs;
    prefs.fromDict(nullptr);
    EXPECT_TRUE(prefs.publishedStorage && prefs.statusInterval == 5 && prefs.storageCleanupThreshold == -1);
    EXPECT_EQ(keysOf(prefs.toDict().get()), (Keys{"StatusInterval", "Local", "Shared"}));

    const auto source = parsePlist(R"(<dict><key>Extra</key><string>kept as it is</string>
        <key>MaxActiveTargets</key><integer>-5</integer><key>MaxActiveSegments</key><integer>0</integer>
        <key>PublishedStorage</key><false/><key>Name</key><string>Night shift</string></dict>)");
    prefs.fromDict(source.get());
    EXPECT_FALSE(prefs.publishedStorage);
    prefs.privateStorage = true;
    prefs.setName(nullptr);

    const auto written = prefs.toDict();
    EXPECT_EQ(keysOf(written.get()), (Keys{"Extra", "MaxActiveSegments", "PublishedStorage", "PrivateStorage",
                                           "StatusInterval", "Local", "Shared"}));
    EXPECT_TRUE(PLEqual(written->get("Extra"), source->get("Extra")));
    prefs.fromDict(written.get());
    EXPECT_EQ(prefs.maxActiveTargets, -1);
    EXPECT_EQ(prefs.maxActiveSegments, 0);
}

// --------------------------------------------------- host performance score

// A host with the processors a test describes: eight at 2.1 GHz.
class HostPerfScore : public ConfigRecords {
protected:
    // The score without a "hostperfscore" section (types empty) or with
    // `types` as its "CPUTypes".
    double score(const std::string& types = {}) {
        const std::string section =
            types.empty() ? "" : "<key>hostperfscore</key><dict><key>CPUTypes</key><dict>" + types + "</dict></dict>";
        writeFile(_home.configFile(), "<plist version=\"1.0\"><dict>" + section + "</dict></plist>");
        return CHostPerfScoreFile().cpuPerfScore();
    }

    struct : platform::CHostWrapper {
        std::int32_t count = 8;
        platform::CProcessorFacts facts{
            "x86_64", "GenuineIntel", 6, 0x55, "Intel(R) Xeon(R) Gold 6130 CPU @ 2.10GHz", 2'100'000'000, 0, 0};
        std::int32_t processorCount() override { return count; }
        platform::CProcessorFacts processorFacts() override { return facts; }
    } host;
    platform::CScopedHost _processors{host};
};

TEST_F(HostPerfScore, TheScoreIsSpeedTimesProcessorsTimesTheTypesFactor) {
    // Without factors: 1.0, and the unknown type is logged once.
    EXPECT_DOUBLE_EQ(score(), 2.1 * 8);
    EXPECT_EQ(consoleCount("CCPUTypePerfScoreEntry::cpuTypeScore: unknown CPU type \"Intel X86\"."), 1);

    // A configured type is used without detection (which would log here).
    host.facts.architecture.clear();
    EXPECT_DOUBLE_EQ(score("<key>Current</key><string>Intel Core 2</string><key>Intel Core 2</key><real>1.5</real>"),
                     2.1 * 8 * 1.5);
    EXPECT_EQ(consoleCount("Error: host_info() failed."), 0);

    // "RuntimeCheck" detects; a type without a factor takes "Default".
    EXPECT_DOUBLE_EQ(score("<key>Current</key><string>RuntimeCheck</string><key>Default</key><real>0.5</real>"
                           "<key>Intel X86</key><real>3</real>"),
                     2.1 * 8 * 0.5);
    EXPECT_EQ(consoleCount("Error: host_info() failed."), 1);
    EXPECT_EQ(consoleCount("unknown CPU type \"Default\"."), 0);  // "Default" is a type of its own
}

TEST_F(HostPerfScore, FactsOutsideTheirBoundsOrUnknownAreHandled) {
    const CCPUTypePerfScoreEntry entry;
    host.facts.frequency = 800'000'000;
    host.facts.minimumFrequency = 1'200'000'000;
    host.facts.maximumFrequency = 3'000'000'000;
    EXPECT_DOUBLE_EQ(entry.cpuClockSpeed(), 1.2);
    host.facts.frequency = 3'500'000'000;
    EXPECT_DOUBLE_EQ(entry.cpuClockSpeed(), 3.0);

    host.count = -1;
    host.facts.frequency = 0;
    EXPECT_EQ(entry.numCPUs(), -1);
    EXPECT_EQ(entry.cpuClockSpeed(), 0.0);
    EXPECT_EQ(consoleCount("Error: sysctlbyname(hw.ncpu) failed."), 1);
    EXPECT_EQ(consoleCount("Error: sysctlbyname(hw.cpufrequency) failed."), 1);
}

TEST_F(HostPerfScore, DetectionMapsTheHostsFactsOntoTheTypeNames) {
    struct Case {
        const char *architecture, *vendor;
        int family, model;
        const char *brand, *type;
    };
    for (const Case& c :
         {Case{"aarch64", "", -1, -1, "", "Default"}, Case{"x86_64", "GenuineIntel", -1, -1, "", "Intel X86"},
          Case{"i686", "GenuineIntel", 6, 0x0E, "Genuine Intel(R) CPU T2300", "Intel Core"},
          Case{"x86_64", "GenuineIntel", 6, 0x0F, "Intel(R) Core(TM)2 CPU 6600", "Intel Core 2"},
          Case{"x86_64", "GenuineIntel", 6, 0x17, "Intel(R) Xeon(R) CPU E5450", "Intel Core Xeon"},
          Case{"x86_64", "GenuineIntel", 6, 0x1D, "Xeon", "Intel Core 2"},  // too short to judge
          Case{"x86_64", "GenuineIntel", 6, 0x55, "Intel(R) Xeon(R) Gold", "Intel X86"},
          Case{"x86_64", "AuthenticAMD", 6, 0x0E, "AMD Athlon", "Intel X86"}}) {
        host.facts = {c.architecture, c.vendor, c.family, c.model, c.brand, 1, 0, 0};
        EXPECT_EQ(CCPUTypePerfScoreEntry().cpuType()->str(), c.type) << c.brand;
    }
}

// -------------------------------------------------------------- service cache

TEST_F(ConfigRecords, NegativeInstanceCountsMeanOnePerSoManyProcessors) {
    for (const auto& [stored, real] : {std::pair{-2, 4}, {-16, 1}, {INT_MIN, 1}, {0, 0}, {7, 7}})
        EXPECT_EQ(CServiceCacheEntry::ConvertToRealInstanceCount(stored), real) << stored;

    FixedHostFacts twoProcessors(2, "node");
    platform::CScopedHost scope(twoProcessors);
    const auto dict = parsePlist("<dict><key>Instances</key><integer>-3</integer></dict>");
    EXPECT_EQ(CServiceCacheEntry(str("svc").get(), dict.get()).instances(), 1) << "made real on reading";
}

TEST_F(ConfigRecords, CacheEntriesWriteOnlyWhatTheRulesAskFor) {
    CServiceCacheEntry entry(str("svc").get(), nullptr);
    const auto plain = entry.toDict();
    EXPECT_EQ(keysOf(plain.get()), (Keys{"SharePref", "UserPrefs", "UserID", "Instances", "Enabled", "ExplicitSyncOnly",
                                         "DetachDaemon", "LocalAds", "Logging", "Visible"}));
    EXPECT_EQ(PLDynamicCast<PLNumber>(plain->get("UserID"))->int32Value(), -1);

    entry.setLogLevel(5, false);
    entry.setTruncateLog(true, false);
    entry.setPerUserService(true);
    entry.setVersion(std::int64_t{1} << 40);
    entry.setStdoutPath(str("/var/tmp/svc.out").get());
    entry.setLaunchHint(str("runwardd.RunwardAgent.User").get());
    entry.setPath(str("/opt/svc").get());
    const auto written = entry.toDict();
    EXPECT_EQ(PLDynamicCast<PLNumber>(written->get("LogLevel"))->int32Value(), 5);
    EXPECT_FALSE(written->get("StdoutPath")) << "stored only inside UserPrefs";

    // The stdout path and the launch hint keep their values unless the
    // dictionary holds non-empty ones.
    CServiceCacheEntry back(str("svc").get(), written.get());
    EXPECT_EQ(back.stdoutPath()->str(), "/var/tmp/svc.out");
    EXPECT_EQ(back.version(), std::int64_t{1} << 40);
    bool found = false;
    EXPECT_TRUE(back.perUserService() && back.truncateLog(false, found));
    back.fromDict(parsePlist("<dict><key>LaunchHint</key><string></string></dict>").get());
    EXPECT_EQ(back.launchHint()->str(), "runwardd.RunwardAgent.User");
    EXPECT_EQ(back.stdoutPath()->str(), "/var/tmp/svc.out");
    EXPECT_FALSE(back.path()) << "other strings clear";
}

TEST_F(ConfigRecords, PerUserOverridesFollowTheirOwnRules) {
    CServiceCacheEntry entry(str("svc").get(), nullptr);
    // The value read for the user, and whether it came from an override
    // (`found` is read once the value is).
    bool found = true;
    auto overridden = [](const std::string& value, const bool& byOverride) {
        return value + (byOverride ? " override" : "");
    };
    auto level = [&] { return overridden(std::to_string(entry.logLevel(true, found)), found); };
    auto truncate = [&] { return overridden(entry.truncateLog(true, found) ? "yes" : "no", found); };
    EXPECT_EQ(level(), "3");
    entry.setLogLevel(3, true);
    entry.setTruncateLog(false, true);
    EXPECT_FALSE(entry.userPrefs()) << "default overrides on no preferences change nothing";

    entry.setLogLevel(5, true);
    EXPECT_EQ(level(), "5 override");
    entry.setLogLevel(3, true);
    EXPECT_EQ(level(), "3") << "3 over an own level of 3 drops the override";
    entry.setLogLevel(4, false);
    entry.setLogLevel(3, true);
    EXPECT_EQ(level(), "3 override") << "3 over an own level of 4 is kept";

    entry.setTruncateLog(false, true);
    EXPECT_EQ(truncate(), "no override") << "a false override is kept";
    entry.setTruncateLog(true, false);
    entry.setTruncateLog(true, true);
    EXPECT_EQ(truncate(), "no") << "true over an own true drops the override";
}

TEST_F(ConfigRecords, TheCacheIsUnorderedAndWritesBackRealCounts) {
    writeFile(_home.configFile(), R"(<plist version="1.0"><dict><key>other</key><string>kept</string>
        <key>corvaneservices</key><dict>
        <key>a</key><dict><key>Instances</key><integer>-4</integer></dict>
        <key>b</key><dict><key>Enabled</key><true/></dict>
        <key>_orderList</key><array><string>b</string></array></dict></dict></plist>)");
    CServiceCacheFile cache;
    ASSERT_EQ(cache.count(), 2u) << "a stored order list is not honoured";
    CServiceCacheEntry a;
    ASSERT_TRUE(cache.get(str("a").get(), a));
    EXPECT_EQ(a.instances(), 2);
    EXPECT_FALSE(cache.updateRuntimeServicePaths()) << "no stored path to move";

    cache.put(CServiceCacheEntry(str("c").get(), nullptr));
    cache.flush();
    const auto top = readPlistFile(_home.configFile());
    EXPECT_TRUE(top->get("other"));
    EXPECT_EQ(keysOf(plistValue(top.get(), {"corvaneservices"})), (Keys{"a", "b", "c"}));
    EXPECT_EQ(numberAt(top.get(), {"corvaneservices", "a", "Instances"}), 2) << "the real count is written back";
}

// ------------------------------------------------------ service configuration

std::string names(const CServiceConfigFile& file) {
    std::vector<CServiceConfigEntry> entries;
    file.get(entries);
    std::string out;
    for (const auto& entry : entries) out += (out.empty() ? "" : " ") + entry.name()->str();
    return out;
}

TEST_F(ConfigRecords, EachServiceKindIsAnOrderedListOfItsOwn) {
    writeServiceConfig(R"(<key>a</key><dict/><key>z</key><dict><key>akey</key><string>K</string></dict>
        <key>_orderList</key><array><string>z</string><string>ghost</string></array>)");
    CServiceConfigFile list(str(kAdminKind).get());
    EXPECT_EQ(names(list), "z");

    list.put(CServiceConfigEntry(str("m").get(), nullptr));
    list.put(CServiceConfigEntry(str("b").get(), nullptr));
    list.flush();
    EXPECT_EQ(names(CServiceConfigFile(str(kAdminKind).get())), "z m b");
    const auto top = readPlistFile(_home.configFile());
    EXPECT_TRUE(top->get("corvaneconfig"));
    EXPECT_TRUE(plistValue(top.get(), {"serviceconfig", "other:kind", "x"})) << "other kinds are kept";
}

TEST_F(ConfigRecords, CancelJobsIsStoredAsPresenceOnTheFirstEntryOnlyAndFailuresAreLoggedAndSwallowed) {
    setCancelActiveJobsOnRestart(true);
    EXPECT_FALSE(std::filesystem::exists(_home.configFile())) << "without an entry nothing is written";
    EXPECT_FALSE(getCancelActiveJobsOnRestart());

    writeServiceConfig(R"(<key>primary</key><dict><key>config</key><dict><key>maxActiveJobs</key><integer>8</integer>
        </dict></dict><key>second</key><dict/><key>_orderList</key><array><string>primary</string>
        <string>second</string></array>)");
    setCancelActiveJobsOnRestart(true);
    EXPECT_TRUE(getCancelActiveJobsOnRestart());
    auto top = readPlistFile(_home.configFile());
    EXPECT_TRUE(plistValue(top.get(), {"serviceconfig", kAdminKind, "primary", "config", "maxActiveJobs"}));
    EXPECT_TRUE(plistValue(top.get(), {"serviceconfig", "other:kind"}));

    setCancelActiveJobsOnRestart(false);
    EXPECT_FALSE(getCancelActiveJobsOnRestart());
    top = readPlistFile(_home.configFile());
    EXPECT_FALSE(plistValue(top.get(), {"serviceconfig", kAdminKind, "primary", "config", "cancelJobs"}))
        << "false removes the key rather than storing false";

    writeFile(_home.configFile(), "not a property list");
    EXPECT_FALSE(getCancelActiveJobsOnRestart());
    setCancelActiveJobsOnRestart(true);
    EXPECT_FALSE(consoleLinesWith("QuillConfig::getCancelActiveJobsOnRestart failed, exception = "
                                  "CPropertyListBasicFile::refresh[")
                     .empty());
    EXPECT_FALSE(consoleLinesWith("QuillConfig::setCancelActiveJobsOnRestart failed, exception = ").empty());
    EXPECT_EQ(readFile(_home.configFile()), "not a property list");
}

// ------------------------------------------------------------------ PID file

// The ID of a process that has ended and been reaped.
std::int32_t endedProcessID() {
    const pid_t child = fork();
    if (child == 0) _exit(0);
    waitpid(child, nullptr, 0);
    return child;
}

using ServicePIDFileTest = ConfigRecords;

TEST_F(ServicePIDFileTest, ListsSkipZerosAndUnconvertibleNumbersAndVanishWhenEmpty) {
    writeFile(_home.pidFile(), R"(<plist version="1.0"><dict><key>other</key><array><integer>1</integer></array>
        <key>corvaned</key><array><integer>7</integer><real>1.5</real><integer>4294967296</integer>
        <string>8</string><real>9</real><integer>-3</integer></array></dict></plist>)");
    CServicePIDFile daemon(str("corvaned").get());
    std::vector<std::int32_t> pids;
    EXPECT_TRUE(daemon.get(pids));
    EXPECT_EQ(pids, (std::vector<std::int32_t>{7, 9, -3}));

    std::vector<std::int32_t> none = {1};
    EXPECT_TRUE(CServicePIDFile(str("absent").get()).get(none));
    EXPECT_TRUE(none.empty());

    daemon.put({0, 12});
    const auto top = readPlistFile(_home.pidFile());
    const auto* stored = PLDynamicCast<PLArray>(top->get("corvaned"));
    ASSERT_TRUE(stored);
    ASSERT_EQ(stored->count(), 1u);
    EXPECT_EQ(PLDynamicCast<PLNumber>(stored->at(0))->int32Value(), 12);
    EXPECT_TRUE(top->get("other"));

    daemon.put({});
    EXPECT_FALSE(readPlistFile(_home.pidFile())->get("corvaned"));
    daemon.put({0});
    EXPECT_FALSE(readPlistFile(_home.pidFile())->get("corvaned"));
}

TEST_F(ServicePIDFileTest, RecordingAProcessDropsTheAttributesOfEndedOnes) {
    const std::int32_t self = getpid();
    const std::int32_t ended = endedProcessID();
    CServicePIDFile first(str("corvaned").get());
    first.setProcessAttributes(ended, str("daemon").get(), str("corvaned").get(), str("2").get());
    EXPECT_FALSE(first.fileLock()) << "the lock it took is given back";

    CServicePIDFile second(str("servicecontroller:x").get());
    second.setProcessAttributes(self, str("servicecontroller:x").get(), str("svc").get(), nullptr);

    PLHolder<const PLString> kind, name, version;
    EXPECT_FALSE(first.processAttributes(ended, kind, name, version)) << "pruned by the second record";
    EXPECT_TRUE(first.processAttributes(self, kind, name, version));
    EXPECT_EQ(kind->str(), "servicecontroller:x");
    EXPECT_EQ(name->str(), "svc");
    EXPECT_FALSE(version);

    first.clearProcessAttributes(self);
    EXPECT_FALSE(readPlistFile(_home.pidFile())->get("attributes")) << "the last record takes the key with it";
}

TEST_F(ServicePIDFileTest, ADamagedFileIsLeftAlone) {
    CServicePIDFile daemon(str("corvaned").get());
    writeFile(_home.pidFile(), "<plist><dict>");
    EXPECT_THROW(daemon.put({42}), ferrocore::CException);
    EXPECT_THROW(daemon.setProcessAttributes(42, nullptr, nullptr, nullptr), ferrocore::CException);
    EXPECT_EQ(readFile(_home.pidFile()), "<plist><dict>");
}

// ------------------------------------------------------------ living together

constexpr int kProcesses = 8;
constexpr int kCycles = 250;

std::string kindOf(int process) { return "servicecontroller:com.example.worker" + std::to_string(process); }

// Process `index` changes its own record kCycles times through the record
// itself (0: the cluster configuration, 1: the service cache, 2 and up: the
// service configuration of its own kind), each time also adding one to a
// shared counter as one step between processes: lock, refresh, change, write
// the whole contents, unlock.
int runWorker(int index, const std::string& path) {
    try {
        CQuillConfigFile config;
        CServiceCacheFile cache;
        CServiceConfigFile list(str(kindOf(index)).get());
        CPropertyListBasicFile counter(str(path).get());
        for (int cycle = 0; cycle < kCycles; ++cycle) {
            if (index == 0) {
                config.daemonPort = 3000 + cycle;
                config.flush();
            } else if (index == 1) {
                CServiceCacheEntry entry(str("worker").get(), nullptr);
                entry.setVersion(cycle + 1);
                cache.put(entry);
                cache.flush();
            } else {
                CServiceConfigEntry entry(str("e").get(), nullptr);
                entry.setConfig(PLNumber::create(cycle).get());
                list.put(entry);
                list.flush();
            }
            counter.lockForRW();
            const auto monitor = ferrocore::makeShared<CPropertyListBasicFile::CFileLockMonitor>(&counter);
            counter.refresh();
            const PLHolder<PLMutableDictionary> contents = counter.toPropertyList();
            std::int32_t count = 0;
            PLUtil::PLDictGetInt(contents.get(), str("counter").get(), &count);
            PLUtil::PLDictSetInt(contents.get(), str("counter").get(), count + 1);
            counter.writePropertyList(contents.get());
        }
        return 0;
    } catch (...) {
        return 1;
    }
}

TEST_F(ConfigRecords, EightProcessesKeepEveryRecordAndEveryIncrement) {
    writeFile(_home.configFile(), R"(<plist version="1.0"><dict><key>hostperfscore</key><dict/></dict></plist>)");
    std::vector<pid_t> children;
    for (int index = 0; index < kProcesses; ++index) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) _exit(runWorker(index, _home.configFile().string()));
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "worker " << child << " status " << status;
    }

    const auto top = readPlistFile(_home.configFile());
    ASSERT_TRUE(top);
    EXPECT_EQ(numberAt(top.get(), {"counter"}), kProcesses * kCycles);
    EXPECT_EQ(numberAt(top.get(), {"corvaneconfig", "DaemonPort"}), 3000 + kCycles - 1);
    EXPECT_EQ(numberAt(top.get(), {"corvaneservices", "worker", "Version"}), kCycles);
    for (int index = 2; index < kProcesses; ++index)
        EXPECT_EQ(numberAt(top.get(), {"serviceconfig", kindOf(index), "e", "config"}), kCycles - 1) << index;
    EXPECT_TRUE(top->get("hostperfscore"));
}

TEST_F(ConfigRecords, RefreshAndFlushUnderTheCallersLockWriteTheSectionAsTheWholeFile) {
    // Kept on purpose: after a refresh the configuration's contents are its
    // section, and under the caller's lock its flush starts from them. (The
    // list records, the service cache among them, are covered with the list
    // file.)
    writeFile(_home.configFile(), R"(<plist version="1.0"><dict><key>hostperfscore</key><dict/>
        <key>corvaneconfig</key><dict><key>DaemonPort</key><integer>2200</integer></dict></dict></plist>)");
    CQuillConfigFile config;
    config.refresh();
    ASSERT_TRUE(config.lockForRW());
    config.flush();
    config.unlock();
    EXPECT_EQ(keysOf(readPlistFile(_home.configFile()).get()), (Keys{"DaemonPort", "corvaneconfig"}));
}

TEST_F(ConfigRecords, NoRecordOverwritesADamagedFileUntilARefreshSucceeds) {
    const std::string valid = R"(<plist version="1.0"><dict><key>hostperfscore</key><dict/></dict></plist>)";
    writeFile(_home.configFile(), valid);
    CQuillConfigFile config;
    CServiceCacheFile cache;
    CServiceConfigFile list(str(kindOf(2)).get());
    cache.put(CServiceCacheEntry(str("svc").get(), nullptr));
    list.put(CServiceConfigEntry(str("e").get(), nullptr));

    const std::string damaged = valid.substr(0, valid.size() / 2);
    writeFile(_home.configFile(), damaged);
    // A flush reads the file again under its lock and stops there...
    EXPECT_THROW(config.flush(), ferrocore::CException);
    EXPECT_THROW(cache.flush(), ferrocore::CException);
    EXPECT_THROW(list.flush(), ferrocore::CException);
    // ... and under the caller's lock, after a failed refresh, it refuses.
    ASSERT_TRUE(cache.lockForRW());
    EXPECT_THROW(cache.refresh(), ferrocore::CException);
    EXPECT_THAT([&] { cache.flush(); }, testing::ThrowsMessage<ferrocore::CException>(
                                            testing::HasSubstr("not proceeding since the last refresh failed")));
    cache.unlock();
    EXPECT_EQ(readFile(_home.configFile()), damaged);

    writeFile(_home.configFile(), valid);
    config.refresh();
    cache.refresh();
    list.refresh();
    config.flush();
    cache.flush();
    list.flush();
    EXPECT_EQ(keysOf(readPlistFile(_home.configFile()).get()),
              (Keys{"hostperfscore", "corvaneconfig", "corvaneservices", "serviceconfig"}));
}

}  // namespace
