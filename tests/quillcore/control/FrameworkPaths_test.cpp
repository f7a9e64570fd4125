#include <filesystem>

#include <gtest/gtest.h>

#include "support/FrameworkTree.h"
#include "support/TestSupport.h"
#include <quillcore/control/FrameworkPaths.h>

namespace {

namespace fs = std::filesystem;
using quill::platform::CScopedHost;
using quilltest::LoadedImagesHost;

std::string path(const PLURL* url) { return url ? url->fileSystemPath() : "<null>"; }
std::string corvanePath() { return path(PLHolder<const PLURL>::adopt(getCorvaneFrameworkURL()).get()); }
std::string lumenforgePath() { return path(PLHolder<const PLURL>::adopt(getLumenforgeFrameworkURL()).get()); }

TEST(FrameworkPaths, FrameworksAreFoundCanonicallyFromALoadedLibraryInTheLayoutOnly) {
    EXPECT_EQ(corvanePath(), "<null>");  // the build tree
    quilltest::TempDir dir;
    for (const char* bundle :
         {"Frameworks/Cluster.framework/Versions/A/Frameworks/QuillCore.framework",
          "Library/Corvane.framework/Versions/A/Frameworks/QuillCore.framework", "QuillCore.framework"}) {
        LoadedImagesHost fake({quilltest::makeQuillCoreBundle(dir / bundle).string()});
        CScopedHost scope(fake);
        EXPECT_EQ(corvanePath(), "<null>") << bundle;
        EXPECT_EQ(lumenforgePath(), "<null>") << bundle;
    }

    const quilltest::FrameworkTree tree(dir / "real");
    // The library reached through a linked directory and "..".
    fs::create_directory_symlink(tree.corvaneDir() / "Versions", dir / "linked");
    LoadedImagesHost fake(
        {(dir / "linked/A/Frameworks/../Frameworks/QuillCore.framework/libquillcore.so.303").string()});
    CScopedHost scope(fake);
    const std::string frameworks = fs::canonical(tree.frameworksDir()).string();
    EXPECT_EQ(corvanePath(), frameworks + "/Corvane.framework");
    EXPECT_EQ(lumenforgePath(), frameworks + "/Lumenforge.framework");  // whether it exists or not

    const PLHolder<const PLString> stored = PLString::create("/elsewhere/Corvane.framework/Resources/corvaned");
    EXPECT_EQ(quill::getRuntimePath(stored.get())->str(), frameworks + "/Corvane.framework/Resources/corvaned");
}

TEST(FrameworkPaths, StoredPathsAreReRootedOntoTheFrameworksFoundNow) {
    const PLHolder<const PLURL> corvane = PLURL::createWithPath("/new/Frameworks/Corvane.framework", true);
    const PLHolder<const PLURL> lumenforge = PLURL::createWithPath("/new/Frameworks/Lumenforge.framework", true);
    auto runtime = [&](const char* stored, bool withCorvane = true, bool withLumenforge = true) {
        const PLHolder<const PLString> result =
            quill::getRuntimePath(PLString::create(stored).get(), withCorvane ? corvane.get() : nullptr,
                                  withLumenforge ? lumenforge.get() : nullptr);
        return result->str();
    };
    EXPECT_EQ(runtime("/old/Corvane.framework/Resources/corvaned"),
              "/new/Frameworks/Corvane.framework/Resources/corvaned");
    EXPECT_EQ(runtime("/old/Corvane.framework/"), "/new/Frameworks/Corvane.framework/");
    EXPECT_EQ(runtime("/x/Lumenforge.framework/Resources/a.bundle"),
              "/new/Frameworks/Lumenforge.framework/Resources/a.bundle");
    // The innermost framework decides; only whole components count.
    EXPECT_EQ(runtime("/a/Corvane.framework/Versions/A/Frameworks/Lumenforge.framework/x"),
              "/new/Frameworks/Lumenforge.framework/x");
    EXPECT_EQ(runtime("/a/Lumenforge.framework/b/Corvane.framework/x"), "/new/Frameworks/Corvane.framework/x");
    EXPECT_EQ(runtime("/opt/MyCorvane.framework/x"), "/opt/MyCorvane.framework/x");
    EXPECT_EQ(runtime("/opt/Corvane.frameworks/x"), "/opt/Corvane.frameworks/x");
    // A framework not found now leaves its paths alone.
    EXPECT_EQ(runtime("/old/Corvane.framework/x", false), "/old/Corvane.framework/x");
    EXPECT_EQ(runtime("/old/Lumenforge.framework/x", true, false), "/old/Lumenforge.framework/x");
    EXPECT_FALSE(quill::getRuntimePath(nullptr, corvane.get(), lumenforge.get()));
}

}  // namespace
