// The job-definition updater: when newer data replaces a file's, that merge
// replaces whole, and the failures of writing, reading and making directories.
#include <gtest/gtest.h>

#include "support/ConfigHome.h"
#include "support/ServiceFixtures.h"
#include "support/TestSupport.h"
#include <ferrocore/CException.h>
#include <quillcore/servicemanager/CPListUpdater.h>

namespace {

using quill::CPListUpdater;
using quilltest::failureOf;
using quilltest::parsePlist;

ferrocore::CStringRef cstr(const std::string& text) { return ferrocore::CString::create(text); }

PLHolder<const PLDictionary> versioned(const std::string& version, const std::string& extra = {}) {
    return parsePlist("<dict><key>Version</key><string>" + version + "</string>" + extra + "</dict>");
}

TEST(CPListUpdater, WritesOnlyNumericallyNewerVersions) {
    quilltest::TempDir dir;
    const auto path = cstr((dir / "job.plist").string());
    CPListUpdater::writeFile(path, versioned("10").get());
    const std::string before = quilltest::readFile(dir / "job.plist");

    CPListUpdater updater(path);
    EXPECT_FALSE(updater.updateIfNeeded(versioned("9").get()));   // 9 < 10 numerically
    EXPECT_FALSE(updater.updateIfNeeded(versioned("10").get()));  // equal
    EXPECT_EQ(quilltest::readFile(dir / "job.plist"), before);
    EXPECT_TRUE(updater.updateIfNeeded(versioned("11").get()));
    EXPECT_NE(quilltest::readFile(dir / "job.plist").find("<string>11</string>"), std::string::npos);

    // Data without "Version" is always replaced; text input goes the same way.
    CPListUpdater::writeFile(path, parsePlist("<dict><key>A</key><true/></dict>").get());
    CPListUpdater unversioned(path);
    EXPECT_TRUE(
        unversioned.updateIfNeeded(cstr("<plist version=\"1.0\"><dict><key>Version</key><string>1</string>"
                                        "</dict></plist>")));
    EXPECT_THROW(unversioned.updateIfNeeded(cstr("<plist><dict>")), ferrocore::CParamException);
}

TEST(CPListUpdater, MergeOverHeldDataReplacesItWhole) {
    CPListUpdater updater(nullptr);
    updater.setPListData(versioned("1", "<key>OnlyOld</key><true/><key>Shared</key><string>old</string>").get());
    updater.merge(versioned("2", "<key>Shared</key><string>new</string>").get());
    const auto* data = PLDynamicCast<PLDictionary>(updater.plistData());
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->get("OnlyOld"), nullptr);  // intended: no key of the old data survives
    EXPECT_TRUE(PLEqual(data, versioned("2", "<key>Shared</key><string>new</string>").get()));

    // Without held data the merge yields the new data, nested keys included.
    CPListUpdater empty(nullptr);
    const auto nested = parsePlist("<dict><key>K</key><dict><key>A</key><integer>1</integer></dict></dict>");
    empty.merge(nested.get());
    EXPECT_TRUE(PLEqual(empty.plistData(), nested.get()));
    EXPECT_EQ(failureOf([&] { empty.merge(nullptr); }), "Error: plistData is null!");
}

TEST(CPListUpdater, FailuresNameWhatFailed) {
    quilltest::TempDir dir;
    CPListUpdater missing(cstr((dir / "none.plist").string()));
    EXPECT_EQ(missing.plistData(), nullptr);
    EXPECT_EQ(failureOf([&] { missing.flush(); }), "Error: _plistData is null!");

    CPListUpdater deep(cstr((dir / "a/b/job.plist").string()));
    EXPECT_EQ(failureOf([&] { deep.makeParentDirIfNeeded(0755); }),
              "mkdir(" + (dir / "a/b").string() + ") failed, error = No such file or directory");
    EXPECT_EQ(failureOf([] { CPListUpdater::writeFile(nullptr, nullptr); }), "Error: filePath is null!");

    // A data value that XML cannot carry is refused before the file is touched.
    quilltest::writeFile(dir / "keep.plist", "kept");
    auto bad = PLMutableDictionary::create();
    bad->set(PLString::create("K"), PLString::create(std::string("\x01", 1)));
    EXPECT_EQ(failureOf([&] { CPListUpdater::writeFile(cstr((dir / "keep.plist").string()), bad.get()); }),
              "Property list not valid xml format");
    EXPECT_EQ(quilltest::readFile(dir / "keep.plist"), "kept");
    EXPECT_EQ(failureOf([&] {
                  CPListUpdater::readFile(cstr((dir / "keep.plist").string()));
              }).rfind("Couldn't read property list from file " + (dir / "keep.plist").string() + ", error = ", 0),
              0u);
    EXPECT_EQ(failureOf([&] { CPListUpdater::readFile(cstr((dir / "none.plist").string())); }),
              "Couldn't open read stream from file " + (dir / "none.plist").string() + ", error = 2");
}

}  // namespace
