#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "quillcore/storage/ExportsFileSyntax.h"
#include "support/TestSupport.h"
#include <ferrocore/CURL.h>
#include <quillcore/platform/Host.h>
#include <quillcore/storage/CNFSSharedStoragePublisher.h>

namespace {

using ferrocore::CString;
using ferrocore::CURL;
using quill::CNFSSharedStoragePublisher;
using quill::CNFSSharedStoragePublisherRef;
using quill::ISharedStorageException;
using quilltest::ScopedEnv;
using quilltest::TempDir;

constexpr const char* kOptions = "*(rw,insecure,no_subtree_check)";

struct PublisherFixture : ::testing::Test {
    TempDir dir{"exports"};
    std::string exports = dir.str() + "/exports";
    ScopedEnv file{quill::platform::kExportsFilePathVariable, exports};
    ScopedEnv options{quill::platform::kExportOptionsVariable, std::nullopt};
    CNFSSharedStoragePublisherRef publisher = ferrocore::makeShared<CNFSSharedStoragePublisher>();

    std::string contents() { return std::filesystem::exists(exports) ? quilltest::readFile(exports) : ""; }
    ferrocore::CURLRef url(const std::string& name) { return CURL::createWithPath(dir.str() + "/" + name, true); }
    std::string path(const std::string& name) { return dir.str() + "/" + name; }
};

TEST_F(PublisherFixture, OneLinePerDirectoryCountedPerHolder) {
    quilltest::writeFile(exports, "/foreign/path 10.0.0.0/8(ro)\n# a comment\n\n");
    const auto a = CString::create("A");
    publisher->publish(url("d"), a, 10);
    publisher->publish(url("d"), a, 10);
    const std::string line = path("d") + " " + kOptions;
    EXPECT_EQ(contents(), "/foreign/path 10.0.0.0/8(ro)\n# a comment\n\n" + line + "\n");
    EXPECT_EQ(publisher->getPublishedMap().at(path("d")).refCount(), 2);
    EXPECT_TRUE(std::filesystem::exists(dir / "d/.corvane.plist"));
    EXPECT_NE(quilltest::readFile(dir / "d/.corvane.plist").find("<string>A</string>"), std::string::npos);

    publisher->unpublish(url("d"), a, 10);
    EXPECT_NE(contents().find(line), std::string::npos);
    publisher->unpublish(url("d"), a, 10);
    EXPECT_EQ(contents(), "/foreign/path 10.0.0.0/8(ro)\n# a comment\n\n");
    EXPECT_TRUE(publisher->getPublishedMap().empty());
    EXPECT_EQ(publisher->getServerPort(), -1);
}

TEST_F(PublisherFixture, LinesOfAnEarlierRunAreAdoptedAndUnknownOnesRefused) {
    quilltest::writeFile(exports, path("old") + " " + kOptions + "\n");
    publisher->publish(url("old"), CString::create("A"), 7);  // adopted: no second line
    EXPECT_EQ(contents(), path("old") + " " + kOptions + "\n");
    EXPECT_EQ(publisher->getPublishedMap().at(path("old")).refCount(), 1);

    auto fresh = ferrocore::makeShared<CNFSSharedStoragePublisher>();
    fresh->unpublish(url("old"), CString::create("B"), 3);  // adopted and released at once
    EXPECT_EQ(contents(), "");

    try {
        fresh->unpublish(url("gone"), CString::create("B"), 3);
        FAIL();
    } catch (const ISharedStorageException& e) {
        EXPECT_EQ(e.errorValue(), 0xFE030200u);
        EXPECT_EQ(e.message(), "entry [" + path("gone") + "] not present in publishedMap");
    }
}

TEST_F(PublisherFixture, HostilePathsAreEscapedOrRefusedAndNeverBreakOtherLines) {
    quilltest::writeFile(exports, "/keep me\n");
    const std::string hostile = "we ird\n\"#-x";
    publisher->publish(url(hostile), CString::create("A"), 1);
    const std::string escaped = quill::storage::exportsfile::escapePath(path(hostile));
    EXPECT_EQ(CNFSSharedStoragePublisher::escapedFilePath(path(hostile)), escaped);
    EXPECT_EQ(contents(), "/keep me\n" + escaped + " " + kOptions + "\n");
    EXPECT_EQ(escaped.find_first_of(" \n\"#"), std::string::npos);

    const std::string before = contents();
    try {
        publisher->publish(url("a\\101b"), CString::create("A"), 1);  // the NFS tools would read "aAb"
        FAIL();
    } catch (const ISharedStorageException& e) {
        EXPECT_EQ(e.errorValue(), 0xFE030000u);
        EXPECT_NE(e.message().find("cannot be exported"), std::string::npos);
    }
    EXPECT_EQ(contents(), before);
    EXPECT_FALSE(std::filesystem::exists(dir / "a\\101b"));
}

TEST_F(PublisherFixture, WriteFailuresNameTheSystemFileWhateverFileIsUsed) {
    publisher->setExportsFilePath(dir.str() + "/missing/exports");
    try {
        publisher->publish(url("d"), CString::create("A"), 1);
        FAIL();
    } catch (const ferrocore::CException& e) {
        EXPECT_EQ(e.kind(), 255);
        EXPECT_EQ(e.message(), "CNFSSharedStoragePublisher::writeExportFile(): couldn't write file \"/etc/exports\"");
    }
    EXPECT_TRUE(publisher->getPublishedMap().empty());
}

TEST_F(PublisherFixture, EndedProcessesDropOnlyEntriesWithoutClients) {
    publisher->publish(url("d"), CString::create("A"), 10);
    publisher->processTerminated(10);  // the entry has a client: nothing changes, on purpose
    EXPECT_EQ(publisher->getPublishedMap().at(path("d")).refCount(), 1);
    EXPECT_NE(contents().find(path("d")), std::string::npos);
}

TEST_F(PublisherFixture, APrivateFileIsAllTheClustersAndStaysPrivate) {
    EXPECT_TRUE(publisher->hasPrivateExportsFile());
    quilltest::writeFile(exports, "/a\n/b x\n");
    publisher->cleanExports();
    EXPECT_EQ(contents(), "");
    publisher->setExportsFilePath("/etc/exports");
    EXPECT_TRUE(publisher->hasPrivateExportsFile());  // never cleared
    // Only with the private flag: a line holding the entry anywhere and exactly
    // seven characters (the length of "/shared") longer matches.
    EXPECT_EQ(publisher->findExportEntry({"/other", "/abcdef/x/y"}, "/x/y"), 1);
}

TEST(CNFSSharedStoragePublisherLines, TheClustersLinesAndHowEntriesAreFound) {
    ScopedEnv system(quill::platform::kExportsFilePathVariable, std::nullopt);
    auto publisher = ferrocore::makeShared<CNFSSharedStoragePublisher>();
    ASSERT_FALSE(publisher->hasPrivateExportsFile());
    const struct {
        const char* line;
        bool cluster;
    } cases[] = {
        {"/Volumes/Data/ABCD1234-0F0F0F0F/shared", true},
        {"/Volumes/Data/abcd1234-0f0f0f0f/shared *(rw)", true},
        {"/a/xyz-0F0F0F0F/shared", false},
        {"/a/ABCD1234-0F0F0F0G/shared", false},
        {"ABCD1234-0F0F0F0F/shared", false},  // no "/" before it
        {"/x/.cvsubexp", true},
        {"/home/user", false},
        {"/a/\xC3\xA9"
         "BCD1234-0F0F0F0F/shared",
         false},
    };
    for (const auto& c : cases) EXPECT_EQ(publisher->isCorvaneExportEntry(c.line), c.cluster) << c.line;

    const std::vector<std::string> lines = {"/a/bc", "/a/b\textra", "/a/b", "/a/b/shared"};
    EXPECT_EQ(publisher->findExportEntry(lines, "/a/b"), 1);  // white space after the path
    EXPECT_EQ(publisher->findExportEntry({"/a/bc", "/a/b"}, "/a/b"), 1);
    EXPECT_EQ(publisher->findExportEntry({"/abcdef/x/y"}, "/x/y"), -1);  // the private-file rule is off
}

}  // namespace
