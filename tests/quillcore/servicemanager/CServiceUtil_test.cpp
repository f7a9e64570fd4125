// The argument vector of a service instance, against the rules every service
// executable parses, the launch flag, and the standard streams of a service.
#include <regex>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/ConfigHome.h"
#include "support/ServiceFixtures.h"
#include <ferrocore/CException.h>
#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/plist/CQuillConfigFile.h>
#include <quillcore/plist/CServiceCacheFile.h>
#include <quillcore/plist/CServiceConfigFile.h>
#include <quillcore/servicemanager/CServiceUtil.h>

namespace {

using quill::CServiceCacheEntry;
using quill::CServiceConfigEntry;
using quill::CServiceUtil;
using Args = std::vector<std::string>;

PLHolder<const PLString> str(const std::string& text) { return PLString::create(text); }

class ServiceArgs : public testing::Test {
protected:
    quilltest::ConfigHome home;

    static Args args(const CServiceCacheEntry& service, const CServiceConfigEntry& config, long instance) {
        Args out;
        for (const auto& arg : CServiceUtil::buildServiceArgs(service, config, instance)) out.push_back(arg->utf8());
        return out;
    }

    static CServiceCacheEntry service(const std::string& dict, const std::string& kind = "servicecontroller:x.y") {
        return CServiceCacheEntry(str(kind).get(), quilltest::parsePlist("<dict>" + dict + "</dict>").get());
    }

    static CServiceConfigEntry config(const std::string& name, const std::string& captureKey) {
        return CServiceConfigEntry(
            name.empty() ? nullptr : str(name).get(),
            quilltest::parsePlist("<dict><key>ckey</key><string>" + captureKey + "</string></dict>").get());
    }
};

TEST_F(ServiceArgs, NamesIdentifiersAndKeysFollowTheRules) {
    quilltest::setCluster({});
    const auto plain = service("<key>Path</key><string>/opt/s</string><key>CaptureKey</key><string>K</string>");
    EXPECT_EQ(args(plain, config("inst", "C"), 0),
              (Args{"/opt/s", "-idx", "0", "-name", "Render", "-id", "inst", "-ck", "C"}));
    // Above instance 0 the name carries the instance number (from 1).
    EXPECT_EQ(args(plain, config("inst", "C"), 2),
              (Args{"/opt/s", "-idx", "2", "-name", "Render 3", "-id", "inst", "-ck", "C"}));
    // No name and no capture key of its own: the service's, numbered.
    EXPECT_EQ(args(plain, config("", ""), 1),
              (Args{"/opt/s", "-idx", "1", "-name", "Render 2", "-id", "K-2", "-ck", "K-2"}));
    // A name of its own keeps the service's capture key unnumbered.
    EXPECT_EQ(args(plain, config("inst", ""), 1)[6], "inst");
    EXPECT_EQ(args(plain, config("inst", ""), 1)[8], "K");

    // URL text becomes a file path. Nothing gives an identifier: a new UUID
    // each time, and no "-ck". (Host-list names: ServiceArgumentsTest.)
    const auto url = service("<key>Path</key><string>file:///opt/a%20b/s</string>");
    const Args zero = args(url, config("", ""), 0);
    const Args uuid = args(url, config("", ""), 0);
    EXPECT_EQ(zero[0], "/opt/a b/s");
    ASSERT_EQ(uuid.size(), 7u);
    EXPECT_EQ(uuid[5], "-id");
    EXPECT_TRUE(std::regex_match(uuid[6], std::regex("[0-9A-Fa-f]{8}(-[0-9A-Fa-f]{4}){3}-[0-9A-Fa-f]{12}"))) << uuid[6];
    EXPECT_NE(uuid[6], zero[6]);
}

TEST_F(ServiceArgs, FlagsAdvertisingAndAccessKeys) {
    quilltest::setCluster({"R", "secret", true, true, true});
    const auto all = service(
        "<key>Path</key><string>/s</string><key>DetachDaemon</key><true/><key>LocalAds</key>"
        "<true/><key>Advertising</key><integer>2</integer><key>PerUserService</key><true/>"
        "<key>CaptureKey</key><string>K</string>");
    // "-v" from the cluster's LogToFile.
    EXPECT_EQ(args(all, config("i", ""), 0), (Args{"/s", "-d", "-l", "-v", "-adv", "mc", "-idx", "0", "-name", "R",
                                                   "-id", "i", "-ak", "secret", "-ck", "K", "-pu"}));
    // The other advertising values: ServiceArgumentsTest.FlagsAndAdvertisingValues.
    // A local-only service other than the cluster administrator without a
    // capture key of its own gets neither key; the administrator does.
    const std::string localOnly = "<key>Path</key><string>/s</string><key>LocalAds</key><true/>";
    const Args local = args(service(localOnly), config("i", "C"), 0);
    EXPECT_EQ(std::count(local.begin(), local.end(), "-ak") + std::count(local.begin(), local.end(), "-ck"), 0);
    const Args admin =
        args(service(localOnly, quill::QuillCorePrivate::kClusterServiceKind->str()), config("i", "C"), 0);
    EXPECT_EQ(Args(admin.end() - 4, admin.end()), (Args{"-ak", "secret", "-ck", "C"}));

    quilltest::setCluster({"R", "secret", true, false, false});  // no password required: never "-ak"
    const Args open = args(service("<key>Path</key><string>/s</string>"), config("i", ""), 0);
    EXPECT_EQ(std::count(open.begin(), open.end(), "-ak"), 0);

    try {
        CServiceUtil::buildServiceArgs(service(""), config("i", ""), 0);
        ADD_FAILURE() << "no exception";
    } catch (const ferrocore::CNullPointerException& e) {
        EXPECT_STREQ(e.what(), "Error: path is null!");
    }
}

TEST_F(ServiceArgs, LaunchFlag) {
    EXPECT_EQ(CServiceUtil::launchFlagForService(service("<key>LaunchHint</key><string>runwardd.render</string>")), 2);
    EXPECT_EQ(CServiceUtil::launchFlagForService(service("<key>LaunchHint</key><string>daemon</string>")), 1);
    EXPECT_EQ(CServiceUtil::launchFlagForService(service("<key>LaunchHint</key><string>Runwardd.x</string>")), 1);
    EXPECT_EQ(CServiceUtil::launchFlagForService(service("")), 1);
}

// In a child process, since it rewires the standard streams.
TEST_F(ServiceArgs, StandardStreamsGoToTheStdoutPath) {
    const std::filesystem::path out = home.home() / "service out.log";
    quilltest::writeFile(out, "before\n");
    quill::CQuillConfigFile config;
    config.stdoutPath = str(out.string());
    config.flush();
    EXPECT_EXIT(
        {
            CServiceUtil::setupStdStreams();
            std::fputs("to stdout\n", stdout);
            std::fflush(stdout);
            std::fputs("to stderr\n", stderr);
            char buffer[8];
            std::_Exit(read(0, buffer, sizeof buffer) == 0 ? 0 : 1);  // standard input reads /dev/null
        },
        testing::ExitedWithCode(0), "");
    EXPECT_EQ(quilltest::readFile(out), "before\nto stdout\nto stderr\n");
}

}  // namespace
