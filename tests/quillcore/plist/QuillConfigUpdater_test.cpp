#include <cerrno>
#include <regex>
#include <sstream>

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "support/ConfigHome.h"
#include "support/FrameworkTree.h"
#include <ferrocore/CException.h>
#include <quillcore/platform/Host.h>
#include <quillcore/platform/PLPropertyList.h>
#include <quillcore/plist/QuillConfigUpdater.h>

namespace {

namespace fs = std::filesystem;
using quill::QuillConfigUpdater;
using quilltest::readFile;
using quilltest::writeFile;

std::string plist(const std::string& version, const std::string& body) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n<key>Version</key><string>" +
           version + "</string>\n" + body + "</dict>\n</plist>\n";
}

PLHolder<const PLObject> parse(const std::string& xml) {
    return PLPropertyListCreateFromBytes(xml.data(), xml.size(), PLMutability::Immutable, nullptr);
}

std::uint32_t permissions(const fs::path& path) { return static_cast<std::uint32_t>(fs::status(path).permissions()); }

// The loaded library inside a fake framework tree; chmod is counted and can
// be made to fail.
class UpdaterHost final : public quilltest::LoadedImagesHost {
public:
    using LoadedImagesHost::LoadedImagesHost;
    int chmodError = 0;
    int chmodCalls = 0;
    std::error_code setFileMode(const std::string& path, std::uint32_t mode) override {
        ++chmodCalls;
        if (chmodError) return {chmodError, std::system_category()};
        return LoadedImagesHost::setFileMode(path, mode);
    }
};

class ConfigUpdater : public testing::Test {
protected:
    // The lines written, each leading time stamp checked and removed.
    std::string unstamped() const {
        static const std::regex stamp(R"(^\d\d/\d\d/\d{4} \d\d:\d\d:\d\d\.\d{3}: )");
        std::istringstream lines(out.str());
        std::string result, line;
        while (std::getline(lines, line)) {
            std::smatch match;
            EXPECT_TRUE(std::regex_search(line, match, stamp)) << line;
            result += match.suffix().str() + "\n";
        }
        return result;
    }
    std::string line(const std::string& text) const { return text + " the lumenforge config file " + user.string(); }

    quilltest::ConfigHome home;
    quilltest::TempDir dir;
    quilltest::FrameworkTree tree{dir / "install"};
    UpdaterHost host{{tree.libraryPath().string()}};
    quill::platform::CScopedHost hostScope{host};
    const fs::path user = home.configFile(), userDefaults = user.string() + ".default";
    const fs::path master = fs::canonical(tree.resourcesDir()) / "LumenforgeConfig.plist.default";
    std::ostringstream out;
    QuillConfigUpdater updater{out};
};

TEST_F(ConfigUpdater, WithoutAUserFileBothCopiesComeFromTheMaster) {
    updater.resolveFilePaths();
    EXPECT_EQ(updater.masterFilePath(), master.string());
    EXPECT_EQ(updater.userDefaultsFilePath(), userDefaults.string());

    // First without a master: the copy fails and run() reports it.
    updater.run();
    EXPECT_EQ(unstamped(), line("Corvane daemon needs to copy") + "\n" +
                               line("Exception caught while copying/merging") + ": QuillConfigUpdater: file \"" +
                               master.string() + "\" not found\n");

    const std::string masterText = plist("1.1", "<key>corvaneconfig</key><dict/>\n");
    writeFile(master, masterText);
    out.str("");
    updater.run();
    EXPECT_EQ(unstamped(), line("Corvane daemon needs to copy") + "\n");
    EXPECT_EQ(readFile(user), masterText);
    EXPECT_EQ(readFile(userDefaults), masterText);
    EXPECT_EQ(permissions(user), 0600u);
    EXPECT_EQ(permissions(userDefaults), 0600u);
}

TEST_F(ConfigUpdater, OnlyANewerMasterIsMergedAndTheUsersChangesAreKept) {
    const std::string userText = plist("1.9", "<key>corvaneconfig</key><dict/>\n");
    writeFile(user, userText);
    updater.run();
    EXPECT_EQ(out.str(), "Corvane daemon can't find the master config file " + master.string() + "\n");

    writeFile(master, plist("1.9", "<key>corvaneconfig</key><dict><key>New</key><true/></dict>\n"));
    out.str("");
    updater.run();
    EXPECT_EQ(out.str(), "");
    EXPECT_EQ(readFile(user), userText);
    EXPECT_FALSE(fs::exists(userDefaults));

    auto config = [](const std::string& port, const std::string& log, const std::string& name, const std::string& extra,
                     const std::string& factor) {
        return "<key>corvaneconfig</key><dict><key>DaemonPort</key><integer>" + port +
               "</integer><key>LogToFile</key>" + log + "<key>ServerName</key>" + name + extra +
               "</dict>\n<key>hostperfscore</key><dict>" + "<key>CPUTypes</key><dict><key>Intel X86</key><real>" +
               factor + "</real></dict></dict>\n";
    };
    const std::string masterText =
        plist("1.10", config("2300", "<true/>", "<string>Render</string>", "<key>New</key><string>n</string>", "1.2"));
    writeFile(master, masterText);
    writeFile(userDefaults, plist("1.9", config("2189", "<false/>", "<integer>4</integer>", "", "1")));
    writeFile(user, plist("1.9", config("2250", "<false/>", "<integer>5</integer>",
                                        "<key>UserOnly</key><string>mine</string>", "1")));
    out.str("");
    updater.run();
    EXPECT_EQ(unstamped(), line("Corvane daemon needs to merge") + "\n");

    // The user's port survives; the unchanged log flag and factor take the
    // new defaults; the name's type changed; added and user-only keys stay.
    const PLHolder<const PLObject> expected =
        parse(plist("1.10", config("2250", "<true/>", "<string>Render</string>",
                                   "<key>New</key><string>n</string><key>UserOnly</key><string>mine</string>", "1.2")));
    EXPECT_TRUE(PLEqual(parse(readFile(user)).get(), expected.get())) << readFile(user);
    EXPECT_EQ(readFile(userDefaults), masterText);
}

TEST_F(ConfigUpdater, UnusableContentsAreReplacedByTheMaster) {
    const std::string masterText = plist("1.0", "");
    writeFile(master, masterText);
    const std::string transcoder =
        "<key>servicecontroller:com.tessaly.tolva.transcoder.tolva</key>"
        "<dict><key>Path</key><string>/x/transcoder</string></dict>";
    writeFile(user, plist("1.0", "<key>corvaneservices</key><dict>" + transcoder +
                                     "<key>jobcontroller:com.tessaly.lumenforge.cluster.admin</key>"
                                     "<dict><key>Path</key><string></string></dict></dict>\n"));
    updater.run();
    EXPECT_EQ(unstamped(), line("Corvane daemon needs to copy") + " (invalid contents)\n");
    EXPECT_EQ(readFile(user), masterText);
    out.str("");

    // Named executables, and other services without one, are fine.
    writeFile(user, plist("1.0", "<key>corvaneservices</key><dict>" + transcoder +
                                     "<key>servicecontroller:com.example.other</key><dict/></dict>\n"));
    EXPECT_FALSE(updater.needCopyLumenforgeConfigFile());

    // A file that cannot be read is reported (without time stamp).
    writeFile(user, "garbage");
    EXPECT_TRUE(updater.needCopyLumenforgeConfigFile());
    EXPECT_EQ(
        out.str().rfind(line("Exception caught while checking contents of") + ": CPropertyListBasicFile::refresh[", 0),
        0u)
        << out.str();
}

TEST_F(ConfigUpdater, PermissionsAreAlwaysSetAndFailuresNameTheOperation) {
    const fs::path file = dir / "file";
    writeFile(file, "");
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);
    updater.setFilePermissions(file.string(), 0600);  // set although equal: the type bits differ
    updater.setFilePermissions(dir.str(), S_IFDIR | permissions(dir.path()));  // skipped: equal mode words
    EXPECT_EQ(host.chmodCalls, 1);

    EXPECT_THAT([&] { updater.setFilePermissions((dir / "missing").string(), 0600); },
                testing::Throws<ferrocore::CFileException>(testing::AllOf(
                    testing::Property(&ferrocore::CFileException::message,
                                      "QuillConfigUpdater::setFilePermissions: stat() on file " +
                                          (dir / "missing").string() + " failed, error = No such file or directory"),
                    testing::Property(&ferrocore::CFileException::errorNumber, ENOENT))));
    writeFile(master, plist("1.0", ""));
    host.chmodError = EPERM;
    updater.run();
    EXPECT_EQ(unstamped(), line("Corvane daemon needs to copy") + "\n" +
                               line("Exception caught while copying/merging") +
                               ": QuillConfigUpdater::copyFile: chmod() on file " + userDefaults.string() +
                               " failed, error = Operation not permitted\n");
}

TEST(ConfigUpdaterMerge, VersionsCompareNumerically) {
    EXPECT_GT(QuillConfigUpdater::compareVersions("1.10", "1.9"), 0);
    EXPECT_EQ(QuillConfigUpdater::compareVersions("1.0", "1"), 0);
    EXPECT_EQ(QuillConfigUpdater::compareVersions("2.1b", "2.1"), 0);
    EXPECT_LT(QuillConfigUpdater::compareVersions("2", "2.0.1"), 0);
}

}  // namespace
