// The service cache ("corvaneservices"): entry reading and writing rules,
// real instance counts, the per-user overrides and the unordered list.
#include "support/ConfigHome.h"
#include "support/TestSupport.h"

#include <quillcore/plist/CServiceCacheFile.h>

#include <gtest/gtest.h>

#include <climits>
#include <set>
#include <string>

namespace {

using quill::CServiceCacheEntry;
using quill::CServiceCacheFile;
using quilltest::keysOf;
using quilltest::plistValue;
using quilltest::parsePlist;
using quilltest::readPlistFile;
using quilltest::writeFile;

PLHolder<const PLString> str(std::string_view text) { return PLString::create(text); }

class ServiceCacheTest : public testing::Test {
protected:
    quilltest::ConfigHome _home;
    quilltest::FixedHostFacts _facts{8, "node"};
    quill::platform::CScopedHost _scope{_facts};
};

TEST_F(ServiceCacheTest, NegativeInstanceCountsMeanOnePerSoManyProcessors) {
    for (const auto& [stored, real] : {std::pair{-2, 4}, {-16, 1}, {INT_MIN, 1}, {0, 0}, {7, 7}})
        EXPECT_EQ(CServiceCacheEntry::ConvertToRealInstanceCount(stored), real) << stored;

    quilltest::FixedHostFacts twoProcessors(2, "node");
    quill::platform::CScopedHost scope(twoProcessors);
    const auto dict = parsePlist("<dict><key>Instances</key><integer>-3</integer></dict>");
    CServiceCacheEntry entry(str("svc").get(), dict.get());
    EXPECT_EQ(entry.instances(), 1) << "made real on reading";
}

TEST_F(ServiceCacheTest, EntriesWriteOnlyWhatTheRulesAskFor) {
    CServiceCacheEntry entry(str("svc").get(), nullptr);
    const auto plain = entry.toDict();
    EXPECT_EQ(keysOf(plain.get()), (std::set<std::string>{"SharePref", "UserPrefs", "UserID", "Instances", "Enabled",
                                                          "ExplicitSyncOnly", "DetachDaemon", "LocalAds", "Logging",
                                                          "Visible"}));
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

TEST_F(ServiceCacheTest, PerUserOverridesFollowTheirOwnRules) {
    CServiceCacheEntry entry(str("svc").get(), nullptr);
    bool found = true;
    EXPECT_EQ(entry.logLevel(true, found), 3);
    EXPECT_FALSE(found);
    entry.setLogLevel(3, true);
    entry.setTruncateLog(false, true);
    EXPECT_FALSE(entry.userPrefs()) << "default overrides on no preferences change nothing";

    entry.setLogLevel(5, true);
    EXPECT_EQ(entry.logLevel(true, found), 5);
    EXPECT_TRUE(found);
    entry.setLogLevel(3, true);
    entry.logLevel(true, found);
    EXPECT_FALSE(found) << "3 over an own level of 3 drops the override";

    entry.setLogLevel(4, false);
    entry.setLogLevel(3, true);
    EXPECT_EQ(entry.logLevel(true, found), 3);
    EXPECT_TRUE(found) << "3 over an own level of 4 is kept";

    entry.setTruncateLog(false, true);
    EXPECT_FALSE(entry.truncateLog(true, found));
    EXPECT_TRUE(found) << "a false override is kept";
    entry.setTruncateLog(true, false);
    entry.setTruncateLog(true, true);
    entry.truncateLog(true, found);
    EXPECT_FALSE(found) << "true over an own true drops the override";
}

TEST_F(ServiceCacheTest, TheListIsUnorderedAndFlushKeepsTheRestOfTheFile) {
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
    const auto* section = PLDynamicCast<PLDictionary>(plistValue(top.get(), {"corvaneservices"}));
    ASSERT_TRUE(section);
    EXPECT_EQ(keysOf(section), (std::set<std::string>{"a", "b", "c"}));
    EXPECT_EQ(PLDynamicCast<PLNumber>(plistValue(section, {"a", "Instances"}))->int32Value(), 2)
        << "the real count is what is written back";
}

}  // namespace
