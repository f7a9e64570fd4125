// The service configuration ("serviceconfig" -> kind): the ordered list per
// kind and the cancel-jobs-on-restart functions.
#include "support/ConfigHome.h"
#include "support/NotificationBus.h"
#include "support/TestSupport.h"

#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/plist/CServiceConfigFile.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using quill::CServiceConfigEntry;
using quill::CServiceConfigFile;
using quilltest::plistValue;
using quilltest::readFile;
using quilltest::readPlistFile;
using quilltest::writeFile;

PLHolder<const PLString> str(std::string_view text) { return PLString::create(text); }

const char* const kAdminKind = quill::QuillCorePrivate::kTolvaClusterAdminServiceKind;

std::string names(const CServiceConfigFile& file) {
    std::vector<CServiceConfigEntry> entries;
    file.get(entries);
    std::string out;
    for (const auto& entry : entries) out += (out.empty() ? "" : " ") + entry.name()->str();
    return out;
}

class ServiceConfigTest : public testing::Test {
protected:
    // A file with the admin kind's list, one other kind and another section.
    void writeConfig(const std::string& adminList) {
        writeFile(_home.configFile(), R"(<plist version="1.0"><dict><key>corvaneconfig</key><dict/>
            <key>serviceconfig</key><dict><key>other:kind</key><dict><key>x</key><dict/></dict>
            <key>)" + std::string(kAdminKind) + "</key><dict>" + adminList + "</dict></dict></dict></plist>");
    }
    bool storedCancelJobs() const {
        return plistValue(readPlistFile(_home.configFile()).get(),
                          {"serviceconfig", kAdminKind, "primary", "config", "cancelJobs"}) != nullptr;
    }

    quilltest::ConfigHome _home;
};

TEST_F(ServiceConfigTest, TheOrderListDecidesOrderAndMembershipAndIsWrittenFromTwoEntries) {
    writeConfig(R"(<key>a</key><dict/><key>z</key><dict><key>akey</key><string>K</string></dict>
        <key>_orderList</key><array><string>z</string><string>ghost</string></array>)");
    CServiceConfigFile list(str(kAdminKind).get());
    EXPECT_EQ(names(list), "z");

    list.flush();
    const auto written = readPlistFile(_home.configFile());
    const auto* section = PLDynamicCast<PLDictionary>(plistValue(written.get(), {"serviceconfig", kAdminKind}));
    ASSERT_TRUE(section);
    EXPECT_FALSE(section->get("_orderList")) << "one entry has no order list";

    list.put(CServiceConfigEntry(str("m").get(), nullptr));
    list.put(CServiceConfigEntry(str("b").get(), nullptr));
    list.flush();
    EXPECT_EQ(names(CServiceConfigFile(str(kAdminKind).get())), "z m b");

    const auto top = readPlistFile(_home.configFile());
    EXPECT_TRUE(top->get("corvaneconfig"));
    EXPECT_TRUE(plistValue(top.get(), {"serviceconfig", "other:kind", "x"})) << "other kinds are kept";
}

TEST_F(ServiceConfigTest, CancelJobsIsStoredAsPresenceOnTheFirstEntryOnly) {
    setCancelActiveJobsOnRestart(true);
    EXPECT_FALSE(std::filesystem::exists(_home.configFile())) << "without an entry nothing is written";
    EXPECT_FALSE(getCancelActiveJobsOnRestart());

    writeConfig(R"(<key>primary</key><dict><key>config</key><dict><key>maxActiveJobs</key><integer>8</integer>
        </dict></dict><key>second</key><dict/><key>_orderList</key><array><string>primary</string>
        <string>second</string></array>)");
    setCancelActiveJobsOnRestart(true);
    EXPECT_TRUE(getCancelActiveJobsOnRestart());
    const auto top = readPlistFile(_home.configFile());
    EXPECT_TRUE(plistValue(top.get(), {"serviceconfig", kAdminKind, "primary", "config", "maxActiveJobs"}));
    EXPECT_TRUE(plistValue(top.get(), {"serviceconfig", "other:kind"}));

    setCancelActiveJobsOnRestart(false);
    EXPECT_FALSE(getCancelActiveJobsOnRestart());
    EXPECT_FALSE(storedCancelJobs()) << "false removes the key rather than storing false";
}

TEST_F(ServiceConfigTest, FailuresAreLoggedAndSwallowed) {
    writeFile(_home.configFile(), "not a property list");
    EXPECT_FALSE(getCancelActiveJobsOnRestart());
    setCancelActiveJobsOnRestart(true);
    EXPECT_FALSE(quilltest::consoleLinesWith("QuillConfig::getCancelActiveJobsOnRestart failed, exception = "
                                             "CPropertyListBasicFile::refresh[").empty());
    EXPECT_FALSE(quilltest::consoleLinesWith("QuillConfig::setCancelActiveJobsOnRestart failed, exception = ").empty());
    EXPECT_EQ(readFile(_home.configFile()), "not a property list");
}

}  // namespace
