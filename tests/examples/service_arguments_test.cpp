// The reference service's command line: every vector the library builds for
// a service instance is accepted with its values intact, and anything else is
// refused, by the parser and by the program itself.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ExampleService/ServiceArguments.h"
#include "support/ConfigHome.h"
#include "support/ExamplePrograms.h"
#include "support/RunCommand.h"
#include "support/ServiceFixtures.h"
#include <quillcore/plist/CServiceCacheFile.h>
#include <quillcore/plist/CServiceConfigFile.h>
#include <quillcore/servicemanager/CServiceUtil.h>

namespace {

using example::parseServiceArguments;
using example::ServiceArguments;
using quilltest::parsePlist;

class ServiceArgumentsTest : public testing::Test {
protected:
    // What the library builds for `serviceXML` (an entry dictionary) with the
    // configuration entry `configXML`, as plain strings.
    std::vector<std::string> build(const std::string& serviceXML, const std::string& configName,
                                   const std::string& configXML, long instance) {
        const auto service = parsePlist(serviceXML);
        const auto config = parsePlist(configXML);
        EXPECT_TRUE(service && config) << serviceXML << configXML;
        const quill::CServiceCacheEntry entry(PLString::create("k:x").get(), service.get());
        const quill::CServiceConfigEntry configEntry(configName.empty() ? nullptr : PLString::create(configName).get(),
                                                     config.get());
        std::vector<std::string> args;
        for (const auto& arg : quill::CServiceUtil::buildServiceArgs(entry, configEntry, instance))
            args.push_back(arg->utf8());
        return args;
    }

    // Parses what the library built; fails the test when it is refused.
    ServiceArguments accepted(const std::vector<std::string>& args) {
        std::string error;
        const auto parsed = parseServiceArguments(args, error);
        EXPECT_TRUE(parsed) << error;
        return parsed.value_or(ServiceArguments{});
    }

    quilltest::ConfigHome _home;
};

const std::string kPath = "<dict><key>Path</key><string>/opt/svc/Example Service</string>";

TEST_F(ServiceArgumentsTest, NamesWithInstanceNumbersAndHostLists) {
    quilltest::setCluster({});
    const std::string hosts = kPath +
                              "<key>UserPrefs</key><dict><key>HostList</key><array>"
                              "<dict><key>HostName</key><string>alpha</string></dict>"
                              "<string>not a dictionary</string>"
                              "<dict><key>HostName</key><string>-gamma \"3\"\nx</string></dict>"
                              "</array></dict></dict>";
    struct Case {
        std::string service;
        long instance;
        std::string name;
    } cases[] = {
        {kPath + "</dict>", 0, "Render"},
        {kPath + "</dict>", 2, "Render 3"},
        {hosts, 0, "Render (alpha)"},
        {hosts, 1, "Render 2"},  // the host list's element is not a dictionary
        {hosts, 2, "Render 3 (-gamma \"3\"\nx)"},
        {hosts, 7, "Render 8"},  // past the end of the host list
    };
    for (const Case& c : cases) {
        const ServiceArguments parsed = accepted(build(c.service, "cfg", "<dict/>", c.instance));
        EXPECT_EQ(parsed.executable, "/opt/svc/Example Service");
        EXPECT_EQ(parsed.instance, c.instance);
        EXPECT_EQ(parsed.name, c.name);
        EXPECT_EQ(parsed.identifier, "cfg");
    }
}

TEST_F(ServiceArgumentsTest, CaptureKeysAndAccessKeys) {
    quilltest::Cluster sharing;
    sharing.password = "se cret";
    sharing.sharing = sharing.requirePassword = true;
    quilltest::setCluster(sharing);
    const std::string withKey = kPath + "<key>CaptureKey</key><string>K</string></dict>";
    ServiceArguments parsed = accepted(build(withKey, "", "<dict/>", 1));
    EXPECT_EQ(parsed.identifier, "K-2");
    EXPECT_EQ(parsed.captureKey, "K-2");
    EXPECT_EQ(parsed.accessKey, "se cret");

    parsed = accepted(build(kPath + "</dict>", "entry", "<dict><key>ckey</key><string>-ck</string></dict>", 0));
    EXPECT_EQ(parsed.identifier, "entry");
    EXPECT_EQ(parsed.captureKey, "-ck");  // a value that looks like an option stays a value
    // The UUID fallback and the keys of a local-ads service: ServiceArgs
    // (quillcore_tests) checks those vectors exactly.
}

TEST_F(ServiceArgumentsTest, FlagsAndAdvertisingValues) {
    quilltest::Cluster logging;
    logging.logToFile = true;
    quilltest::setCluster(logging);
    const std::string flags =
        "<key>DetachDaemon</key><true/><key>LocalAds</key><true/>"
        "<key>PerUserService</key><true/><key>CaptureKey</key><string>K</string>";
    for (const auto& [value, word] :
         std::vector<std::pair<int, std::string>>{{0, ""}, {1, "dn"}, {2, "mc"}, {3, "rv"}, {-4, "rv"}}) {
        const ServiceArguments parsed = accepted(
            build(kPath + flags + "<key>Advertising</key><integer>" + std::to_string(value) + "</integer></dict>", "e",
                  "<dict/>", 0));
        EXPECT_TRUE(parsed.detachDaemon && parsed.localAds && parsed.verbose && parsed.perUser);
        EXPECT_EQ(parsed.advertising, word) << value;
    }
}

TEST(ServiceArgumentsRefusal, AnythingElseIsRefusedWithTheArgumentNamed) {
    const std::string exe = "/x/ExampleService";
    struct Case {
        std::vector<std::string> args;
        std::string error;
    } cases[] = {
        {{exe}, "the instance number (-idx) is missing"},
        {{exe, "-v", "-d", "-idx", "0"}, "option -d is repeated or out of order"},
        {{exe, "-idx", "0", "-idx", "1"}, "option -idx is repeated or out of order"},
        {{exe, "-idx", "0", "-pu", "-name", "n"}, "option -name is repeated or out of order"},
        {{exe, "-name", "n", "-idx", "0"}, "option -name before the instance number (-idx)"},
        {{exe, "-idx", "0", "--verbose"}, "unknown argument \"--verbose\""},
        {{exe, "-idx", "0", "extra\nline"}, "unknown argument \"extra\\nline\""},
        {{exe, "-idx"}, "option -idx needs a value"},
        {{exe, "-idx", "0", "-name", ""}, "option -name has an empty value"},
        {{exe, "-adv", "xx", "-idx", "0"}, "-adv takes dn, mc or rv, not \"xx\""},
        {{exe, "-adv", "DN", "-idx", "0"}, "-adv takes dn, mc or rv, not \"DN\""},
        {{exe, "-idx", "01"}, "-idx takes a decimal instance number, not \"01\""},
        {{exe, "-idx", "-1"}, "-idx takes a decimal instance number, not \"-1\""},
        {{exe, "-idx", "99999999999999999999"}, "-idx takes a decimal instance number, not \"99999999999999999999\""},
    };
    for (const Case& c : cases) {
        std::string error;
        EXPECT_FALSE(parseServiceArguments(c.args, error));
        EXPECT_EQ(error, c.error);
    }
}

TEST(ServiceArgumentsRefusal, TheProgramExitsWithTheReasonAndItsUsage) {
    const auto r = quilltest::runCommand({quilltest::exampleServicePath().string(), "-idx", "0", "-x"});
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_EQ(r.err, std::string("ExampleService: unknown argument \"-x\"\n") + example::serviceUsage() + "\n");
}

}  // namespace
