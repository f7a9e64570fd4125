// The cluster configuration ("corvaneconfig") and the cluster preferences
// record: defaults, what is written and what is left out.
#include "support/ConfigHome.h"
#include "support/TestSupport.h"

#include <quillcore/plist/CClusterPrefs.h>
#include <quillcore/plist/CQuillConfigFile.h>

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

using quill::CClusterPrefs;
using quill::CQuillConfigFile;
using quilltest::keysOf;
using quilltest::plistValue;
using quilltest::readPlistFile;
using quilltest::writeFile;
using Advertising = CQuillConfigFile::Advertising;

PLHolder<const PLString> str(std::string_view text) { return PLString::create(text); }

std::string text(PLStringRef value) { return value ? value->str() : "<unset>"; }

// What every flush writes, whatever the values.
const std::set<std::string> kAlwaysWritten = {"DaemonEnabled", "SharingEnabled", "SharingType", "LogToFile",
                                              "RequirePassword", "ServerName",     "DNSDomain"};

void writeSection(const std::filesystem::path& file, const std::string& entries) {
    writeFile(file, R"(<plist version="1.0"><dict><key>corvaneconfig</key><dict>)" + entries +
                        "</dict><key>other</key><string>kept</string></dict></plist>");
}

class QuillConfigFileTest : public testing::Test {
protected:
    quilltest::ConfigHome _home;
    quilltest::FixedHostFacts _facts{8, "Render Node 7"};
    quill::platform::CScopedHost _scope{_facts};
};

TEST_F(QuillConfigFileTest, AMissingFileReadsAsDefaultsAndWritesOnlyTheAlwaysWrittenKeys) {
    CQuillConfigFile config;
    EXPECT_EQ(config.filePath()->str(), _home.configFile().string());
    EXPECT_TRUE(config.daemonEnabled && config.launchContentAgent && !config.sharingEnabled);
    EXPECT_EQ(config.daemonPort, 2189);
    EXPECT_EQ(text(config.networkConnection.get()), "allinterfaces");
    EXPECT_EQ(text(config.serverName.get()), "Render Node 7");

    config.flush();
    const auto top = readPlistFile(_home.configFile());
    EXPECT_EQ(keysOf(plistValue(top.get(), {"corvaneconfig"})), kAlwaysWritten);
    EXPECT_EQ(text(PLDynamicCast<PLString>(plistValue(top.get(), {"corvaneconfig", "DNSDomain"}))), "");
}

TEST_F(QuillConfigFileTest, ChangedSettingsRoundTripAndDefaultsStayOutOfTheFile) {
    writeSection(_home.configFile(), "");
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
    std::set<std::string> expected = kAlwaysWritten;
    expected.insert({"DaemonPort", "LaunchContentAgent", "ServerPassword", "Advertising", "NetworkConnection",
                     "AllowRemoteAds", "PortRangeStart", "StdoutServicePath"});
    EXPECT_EQ(keysOf(plistValue(readPlistFile(_home.configFile()).get(), {"corvaneconfig"})), expected);
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
    expected = kAlwaysWritten;
    expected.insert({"Advertising", "LaunchContentAgent", "NetworkConnection", "AllowRemoteAds", "PortRangeStart",
                     "StdoutServicePath"});
    EXPECT_EQ(keysOf(plistValue(readPlistFile(_home.configFile()).get(), {"corvaneconfig"})), expected);
}

TEST_F(QuillConfigFileTest, OddStoredValuesReadAsTheDefaults) {
    writeSection(_home.configFile(), R"(<key>DaemonPort</key><integer>0</integer>
        <key>Advertising</key><string>XX</string><key>ServerName</key><string></string>
        <key>DaemonEnabled</key><integer>0</integer><key>SharingType</key><string>2</string>)");
    CQuillConfigFile config;
    EXPECT_EQ(config.daemonPort, 2189);
    EXPECT_EQ(config.advertising, Advertising::RV);
    EXPECT_EQ(text(config.serverName.get()), "Render Node 7");
    EXPECT_FALSE(config.daemonEnabled) << "a number is taken for a boolean";
    EXPECT_EQ(config.sharingType, 0) << "a string is no number";
}

TEST_F(QuillConfigFileTest, StdoutPathsSurviveLaterRefreshesOfTheSameObjectOnly) {
    writeSection(_home.configFile(), "<key>StdoutPath</key><string>/var/tmp/corvaned.out</string>"
                                     "<key>LogToFile</key><true/>");
    CQuillConfigFile config;
    writeSection(_home.configFile(), "");
    config.refresh();
    EXPECT_EQ(text(config.stdoutPath.get()), "/var/tmp/corvaned.out");
    EXPECT_FALSE(config.logToFile) << "other fields return to their defaults";
    EXPECT_FALSE(CQuillConfigFile().stdoutPath);
}

TEST(ClusterPrefsTest, DefaultsUnknownKeysAndTheWritingRules) {
    CClusterPrefs prefs;
    prefs.fromDict(nullptr);
    EXPECT_TRUE(prefs.publishedStorage && prefs.statusInterval == 5 && prefs.storageCleanupThreshold == -1);
    EXPECT_EQ(keysOf(prefs.toDict().get()), (std::set<std::string>{"StatusInterval", "Local", "Shared"}));

    const auto source = PLMutableDictionary::create();
    source->set(str("Extra"), str("kept as it is"));
    source->set(str("MaxActiveTargets"), PLNumber::create(std::int64_t{-5}));
    source->set(str("MaxActiveSegments"), PLNumber::create(std::int64_t{0}));
    source->set(str("PublishedStorage"), PLHolder<const PLObject>::retain(kPLBooleanFalse));
    source->set(str("Name"), str("Night shift"));
    prefs.fromDict(source.get());
    EXPECT_FALSE(prefs.publishedStorage);
    prefs.privateStorage = true;
    prefs.setName(nullptr);

    const auto written = prefs.toDict();
    EXPECT_EQ(keysOf(written.get()), (std::set<std::string>{"Extra", "MaxActiveSegments", "PublishedStorage",
                                                            "PrivateStorage", "StatusInterval", "Local", "Shared"}));
    EXPECT_TRUE(PLEqual(written->get("Extra"), source->get("Extra")));
    prefs.fromDict(written.get());
    EXPECT_EQ(prefs.maxActiveTargets, -1);
    EXPECT_EQ(prefs.maxActiveSegments, 0);
}

}  // namespace
