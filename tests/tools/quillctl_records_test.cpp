// quillctl's record verbs: config show / set, services list / show, pids.
// Each runs against the configuration of a throw-away HOME.
#include <algorithm>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/ConfigHome.h"
#include "support/TestSupport.h"
#include "tools/QuillctlTest.h"
#include <quillcore/platform/Host.h>

namespace {

using quilltest::plistValue;
using quilltest::readFile;
using quilltest::readPlistFile;
using quilltest::writeFile;

// The line of `out` that starts with `key` followed by a space.
std::string lineOf(const std::string& out, const std::string& key) {
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(key + " ", 0) == 0) return line;
    }
    return {};
}

class QuillctlRecords : public quilltest::QuillctlTest {
protected:
    quilltest::ConfigHome _home;
};

TEST_F(QuillctlRecords, ConfigShowMarksDefaultsAndSetChangesOneKeyUnderTheLock) {
    auto shown = run({"config", "show"});
    ASSERT_EQ(shown.exitCode, 0) << shown.err;
    EXPECT_EQ(lineOf(shown.out, "DaemonPort"), "DaemonPort          2189 (default)");
    EXPECT_EQ(std::count(shown.out.begin(), shown.out.end(), '\n'), 21) << shown.out;
    EXPECT_EQ(lineOf(shown.out, "Advertising"), "Advertising         RV (default)");

    writeFile(_home.configFile(), R"(<plist version="1.0"><dict><key>serviceconfig</key><dict><key>k</key>
        <dict/></dict><key>corvaneconfig</key><dict><key>LogToFile</key><true/></dict></dict></plist>)");
    for (const auto& [key, value] : std::vector<std::pair<std::string, std::string>>{
             {"DaemonPort", "2200"}, {"Advertising", "MC"}, {"ServerName", "Node & 7"}, {"LogToFile", "no"}}) {
        auto set = run({"config", "set", key, value});
        EXPECT_EQ(set.exitCode, 0) << key << ": " << set.err;
    }
    const auto top = readPlistFile(_home.configFile());
    EXPECT_TRUE(plistValue(top.get(), {"serviceconfig", "k"})) << "other sections are kept";
    EXPECT_EQ(PLDynamicCast<PLString>(plistValue(top.get(), {"corvaneconfig", "Advertising"}))->str(), "MC");
    shown = run({"config", "show"});
    EXPECT_EQ(lineOf(shown.out, "DaemonPort"), "DaemonPort          2200");
    EXPECT_EQ(lineOf(shown.out, "ServerName"), "ServerName          \"Node & 7\"");
    EXPECT_EQ(lineOf(shown.out, "LogToFile"), "LogToFile           false (default)");

    const std::string before = readFile(_home.configFile());
    const std::vector<std::vector<std::string>> bad = {
        {"DaemonPort", "2147483648", "bad value \"2147483648\" for DaemonPort: expected a 32-bit decimal integer"},
        {"Advertising", "rv", "bad value \"rv\" for Advertising: expected DN, MC or RV"},
        {"daemonport", "1", "unknown key \"daemonport\"; the keys are StdoutPath, "}};
    for (const auto& c : bad) {
        auto r = run({"config", "set", c[0], c[1]});
        EXPECT_EQ(r.exitCode, 1) << c[0];
        EXPECT_EQ(r.err.rfind("quillctl: " + c[2], 0), 0u) << r.err;
    }
    EXPECT_EQ(readFile(_home.configFile()), before);
}

TEST_F(QuillctlRecords, ServicesShowConfiguredAndRealInstanceCounts) {
    writeFile(_home.configFile(), R"(<plist version="1.0"><dict><key>corvaneservices</key><dict>
        <key>servicecontroller:com.example.render</key><dict><key>Instances</key><integer>-2</integer>
        <key>Enabled</key><true/><key>LaunchHint</key><string>runwardd.RunwardAgent.User</string>
        <key>Path</key><string>/opt/render</string><key>LogLevel</key><integer>5</integer>
        <key>UserPrefs</key><dict><key>LogLevel</key><integer>6</integer></dict></dict></dict></dict></plist>)");
    const int real = std::max(1, quill::platform::host().processorCount() / 2);

    auto listed = run({"services", "list"});
    ASSERT_EQ(listed.exitCode, 0) << listed.err;
    std::istringstream row(lineOf(listed.out, "servicecontroller:com.example.render"));
    std::vector<std::string> columns{std::istream_iterator<std::string>(row), {}};
    EXPECT_EQ(columns, (std::vector<std::string>{"servicecontroller:com.example.render", "yes", "-2",
                                                 std::to_string(real), "runwardd.RunwardAgent.User", "/opt/render"}));

    auto shown = run({"services", "show", "servicecontroller:com.example.render"});
    ASSERT_EQ(shown.exitCode, 0) << shown.err;
    EXPECT_EQ(lineOf(shown.out, "Instances"), "Instances         -2 (real " + std::to_string(real) + ")");
    EXPECT_EQ(lineOf(shown.out, "LogLevel"), "LogLevel          5 (per user 6)");
    auto missing = run({"services", "show", "servicecontroller:com.example.none"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.err.find("no service \"servicecontroller:com.example.none\""), std::string::npos);
}

TEST_F(QuillctlRecords, PidsTellLiveProcessesFromEndedOnes) {
    const pid_t ended = fork();
    if (ended == 0) _exit(0);
    waitpid(ended, nullptr, 0);
    const std::string self = std::to_string(getpid());
    writeFile(_home.pidFile(), "<plist version=\"1.0\"><dict><key>corvaned</key><array><integer>" + self +
                                   "</integer><integer>" + std::to_string(ended) +
                                   "</integer></array><key>attributes</key><dict><key>" + self +
                                   "</key><dict><key>Name</key><string>corvaned</string><key>Version</key>"
                                   "<string>2</string></dict></dict></dict></plist>");
    auto all = run({"pids"});
    ASSERT_EQ(all.exitCode, 0) << all.err;
    EXPECT_NE(all.out.find("corvaned\n"), std::string::npos) << all.out;
    EXPECT_NE(all.out.find(self + " alive Name=\"corvaned\" Version=\"2\""), std::string::npos) << all.out;
    EXPECT_NE(all.out.find(std::to_string(ended) + " gone (no attributes)"), std::string::npos) << all.out;

    auto other = run({"pids", "servicecontroller:x"});
    EXPECT_EQ(other.exitCode, 0);
    EXPECT_EQ(other.out.rfind("no process IDs recorded for servicecontroller:x", 0), 0u) << other.out;
}

}  // namespace
