#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/FrameworkTree.h"
#include "support/TestSupport.h"
#include <quillcore/platform/Bundle.h>
#include <quillcore/platform/Host.h>

namespace {

namespace fs = std::filesystem;
using quill::platform::CBundle;
using quilltest::ScopedEnv;
using quilltest::TempDir;
using quilltest::writeFile;

std::string text(const PLHolder<const PLString>& value) { return value ? value->str() : "<null>"; }

std::string plist(const std::string& body) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n" + body +
           "</dict>\n</plist>\n";
}

TEST(Bundle, OpensDirectoriesAndFindsTheirExecutables) {
    TempDir dir;
    writeFile(dir / "file", "x");
    EXPECT_FALSE(CBundle::open((dir / "file").string()));
    // Without a usable Info.plist it is still a bundle, with nothing to tell.
    fs::create_directories(dir / "Bare.bundle");
    writeFile(dir / "Bare.bundle" / "Info.plist", "not a property list");
    std::optional<CBundle> bare = CBundle::open((dir / "Bare.bundle/").string());
    ASSERT_TRUE(bare);
    EXPECT_EQ(bare->path(), (dir / "Bare.bundle").string());
    EXPECT_EQ(bare->infoDictionary()->count(), 0u);

    const fs::path path = dir / "Service.bundle";
    fs::create_directories(path);
    writeFile(path / "Info.plist", plist("<key>BundleIdentifier</key><string>com.example.service</string>"
                                         "<key>BundleExecutable</key><string>service</string>"));
    std::optional<CBundle> bundle = CBundle::open(PLURL::createWithPath(path.string(), true).get());
    ASSERT_TRUE(bundle);
    EXPECT_EQ(bundle->identifier()->str(), "com.example.service");
    EXPECT_FALSE(bundle->executableURL());  // named, but missing
    writeFile(path / "service", "");
    writeFile(path / "helper", "");
    EXPECT_EQ(bundle->executableURL()->fileSystemPath(), (path / "service").string());
    EXPECT_EQ(bundle->auxiliaryExecutableURL("helper")->fileSystemPath(), (path / "helper").string());
    EXPECT_FALSE(bundle->auxiliaryExecutableURL("../Service.bundle/helper"));
}

TEST(Bundle, LocalizedStringsFallBackThroughTheLanguages) {
    TempDir dir;
    const fs::path path = dir / "Strings.bundle";
    auto strings = [&](const std::string& language, const std::string& body, const std::string& table) {
        fs::create_directories(path / "Resources" / (language + ".lproj"));
        writeFile(path / "Resources" / (language + ".lproj") / (table + ".strings"), plist(body));
    };
    strings("de_AT", "<key>greeting</key><string>Servus</string>", "Localizable");
    strings("de", "<key>greeting</key><string>Hallo</string><key>farewell</key><string>Tschuess</string>",
            "Localizable");
    strings("fr", "<key>only</key><string>seulement</string><key>number</key><integer>3</integer>", "Localizable");
    strings("de", "<key>greeting</key><string>Moin</string>", "Other");
    writeFile(path / "Info.plist", plist("<key>BundleDevelopmentRegion</key><string>fr</string>"));
    std::optional<CBundle> bundle = CBundle::open(path.string());
    ASSERT_TRUE(bundle);

    const std::vector<std::string> austrian = {"de_AT"}, swiss = {"de_CH"};
    EXPECT_EQ(text(bundle->localizedString("greeting", nullptr, {}, austrian)), "Servus");
    // A region falls back to its language, then to the bundle's own language.
    EXPECT_EQ(text(bundle->localizedString("farewell", nullptr, {}, austrian)), "Tschuess");
    EXPECT_EQ(text(bundle->localizedString("only", nullptr, {}, swiss)), "seulement");
    EXPECT_EQ(text(bundle->localizedString("greeting", nullptr, "Other", swiss)), "Moin");
    // Not found (a number is no text): the fallback, else the key.
    EXPECT_EQ(text(bundle->localizedString("number", PLString::create("fallback").get(), {}, swiss)), "fallback");
    EXPECT_EQ(text(bundle->localizedString("nowhere", nullptr, {}, swiss)), "nowhere");

    // By default the environment's languages.
    ScopedEnv language("LANGUAGE", "de_CH.UTF-8@euro:fr::de_CH");
    EXPECT_EQ(CBundle::preferredLanguages(), (std::vector<std::string>{"de_CH", "fr"}));
    EXPECT_EQ(text(bundle->localizedString("greeting")), "Hallo");
    ScopedEnv none("LANGUAGE", std::nullopt), all("LC_ALL", "C.UTF-8");
    EXPECT_TRUE(CBundle::preferredLanguages().empty());
}

TEST(Bundle, LoadedBundlesAreFoundByIdentifierThroughLinks) {
    TempDir dir;
    const fs::path library = quilltest::makeQuillCoreBundle(dir / "real" / "QuillCore.framework");
    // The loader names the library by a link in another directory.
    fs::create_directories(dir / "lib");
    fs::create_symlink(library, dir / "lib" / "libquillcore.so.303");
    quilltest::LoadedImagesHost fake({(dir / "gone.so").string(), (dir / "lib" / "libquillcore.so.303").string()});
    quill::platform::CScopedHost scope(fake);
    std::optional<CBundle> found = CBundle::loaded("com.tessaly.corvane.QuillCore");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->path(), fs::canonical(dir / "real" / "QuillCore.framework").string());
    EXPECT_FALSE(CBundle::loaded("com.tessaly.corvane.Other"));
}

}  // namespace
