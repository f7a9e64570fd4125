// The installed framework layout and the verbs that depend on it: quillctl
// frameworks, config update, the example programs with the daemon and
// service verbs, and perfscore.
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "support/ExamplePrograms.h"
#include "support/NotificationBus.h"
#include "support/TestSupport.h"
#include "tools/QuillctlTest.h"
#include <quillcore/plist/CServicePIDFile.h>

namespace {

namespace fs = std::filesystem;
using quilltest::readFile;
using quilltest::runCommand;
using quilltest::ScopedEnv;
using quilltest::TempDir;

// Drops the time stamps that begin the updater's lines.
std::string withoutStamps(const std::string& text) {
    return std::regex_replace(text, std::regex(R"((^|\n)\d\d/\d\d/\d{4} \d\d:\d\d:\d\d\.\d{3}: )"), "$1");
}

TEST(Frameworks, TheInstalledLibraryFindsItsFrameworkAndTheMasterDefaults) {
    const char* build = std::getenv("QUILL_TEST_BUILD_DIR");
    const char* cmake = std::getenv("QUILL_TEST_CMAKE");
    if (!build || !cmake) GTEST_SKIP() << "QUILL_TEST_BUILD_DIR or QUILL_TEST_CMAKE is not set";
    TempDir prefix("prefix");
    const auto install = runCommand({cmake, "--install", build, "--prefix", prefix.str()});
    ASSERT_EQ(install.exitCode, 0) << install.out << install.err;

    // Programs load the library from lib/, which leads into the framework.
    const fs::path frameworks = fs::canonical(prefix / "lib/corvane/Frameworks");
    const fs::path corvane = frameworks / "Corvane.framework";
    const fs::path bundle = corvane / "Versions/A/Frameworks/QuillCore.framework";
    EXPECT_EQ(fs::canonical(prefix / "lib/libquillcore.so").parent_path(), bundle);
    EXPECT_NE(readFile(bundle / "Info.plist").find("<string>com.tessaly.corvane.QuillCore</string>"),
              std::string::npos);

    const std::string tool = (prefix / "bin/quillctl").string();
    auto r = runCommand({tool, "frameworks"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "Corvane.framework: " + corvane.string() +
                         "\nLumenforge.framework: " + (frameworks / "Lumenforge.framework").string() + "\n");

    TempDir home("home");
    const fs::path user = home / "Library/Application Support/Lumenforge/LumenforgeConfig.plist";
    fs::create_directories(user.parent_path());
    ScopedEnv homeEnv("HOME", home.str());
    r = runCommand({tool, "config", "update"});
    EXPECT_EQ(withoutStamps(r.out), "Corvane daemon needs to copy the lumenforge config file " + user.string() + "\n");
    EXPECT_EQ(readFile(user), readFile(corvane / "Resources/LumenforgeConfig.plist.default"));

    // The example programs lie where the library looks for them, and run
    // from there: the service installs from its installed bundle, the daemon
    // starts, answers and stops.
    const fs::path service = frameworks / "Lumenforge.framework/Resources/ExampleService.bundle";
    EXPECT_TRUE(fs::is_regular_file(service / "Info.plist"));
    r = runCommand({tool, "services", "install", service.string()});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out.substr(0, r.out.find(" (")), "installed " + quilltest::kExampleServiceKind);
    r = runCommand({(service / "ExampleService").string(), "-idx", "0", "-bad"});
    EXPECT_EQ(r.exitCode, 2) << r.err;  // it loads its libraries from the installed tree

    quilltest::privateBusAddress();
    ASSERT_TRUE(fs::is_regular_file(corvane / "Resources/corvaned"));
    r = runCommand({tool, "daemon", "start"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out.rfind("corvaned: running, PID ", 0), 0u) << r.out;
    r = runCommand({tool, "daemon", "status"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out.rfind("corvaned: running, version 2, PID ", 0), 0u) << r.out;
    r = runCommand({tool, "daemon", "ping"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out.rfind("corvaned answered: corvaned running, PID ", 0), 0u) << r.out;
    r = runCommand({tool, "daemon", "stop"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "corvaned: stopped\n");
    // Whatever failed above, no daemon is left behind.
    quill::CServicePIDFile pids(PLString::create("corvaned").get());
    std::vector<std::int32_t> left;
    pids.get(left);
    for (const std::int32_t pid : left) EXPECT_FALSE(quilltest::endProcess(pid)) << "corvaned " << pid << " was left";
    EXPECT_EQ(runCommand({tool, "daemon", "status"}).out.rfind("corvaned: not running\n", 0), 0u);
}

using QuillctlFrameworks = quilltest::QuillctlTest;

TEST_F(QuillctlFrameworks, TheBuildTreeHasNoFrameworks) {
    const auto r = run({"frameworks"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.err.find("Corvane.framework not found"), std::string::npos) << r.err;
}

TEST_F(QuillctlFrameworks, PerfScoreMultipliesTheConfiguredFactor) {
    TempDir dir;
    const fs::path file = dir / "config.plist";
    quilltest::writeFile(file,
                         "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
                         "<key>hostperfscore</key><dict><key>CPUTypes</key><dict>"
                         "<key>Current</key><string>Intel Core 2</string>"
                         "<key>Intel Core 2</key><real>1.5</real></dict></dict>\n</dict>\n</plist>\n");
    const auto r = run({"perfscore", "--file", file.string()});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(r.out, m, std::regex(R"(processors: (-?\d+)\nclock speed: ([0-9.]+) GHz\n)")))
        << r.out;
    const double product = std::stoi(m[1]) * std::stod(m[2]) * 1.5;
    ASSERT_TRUE(
        std::regex_search(r.out, m, std::regex(R"(cpu type: Intel Core 2\ntype factor: 1.5\nscore: (-?[0-9.]+)\n)")))
        << r.out;
    EXPECT_NEAR(std::stod(m[1]), product, 1e-5);
}

}  // namespace
