// CURL: encoding round trips, path operations, query parameters and the file
// type and creator codes kept in extended attributes.
#include <cerrno>

#include <gtest/gtest.h>
#include <sys/xattr.h>

#include "support/TestSupport.h"
#include <ferrocore/CException.h>
#include <ferrocore/CURL.h>

namespace ferrocore {
namespace {

std::string text(const CStringRef& s) { return s ? s->utf8() : std::string("<null>"); }

TEST(URLTest, FilePathsRoundTripThroughEncoding) {
    const std::string path = "/tmp/dir with space/100% #1?&=+;ü";
    CURLRef url = CURL::createWithPath(path, false);
    EXPECT_EQ(url->text(), "file:///tmp/dir%20with%20space/100%25%20%231%3F&=+;%C3%BC");
    EXPECT_EQ(text(url->fileSystemPath()), path);
    EXPECT_EQ(text(url->lastPathComponent()), "100% #1?&=+;ü");

    // The text form parses back to the same URL and path.
    CURLRef reparsed = CURL::create(url->text());
    ASSERT_TRUE(reparsed);
    EXPECT_TRUE(*reparsed == *url);
    EXPECT_EQ(text(reparsed->fileSystemPath()), path);

    CURLRef dir = CURL::createWithPath("/Users/Shared/Storage", true);
    EXPECT_EQ(dir->text(), "file:///Users/Shared/Storage/");
    EXPECT_TRUE(dir->hasDirectoryPath());
    EXPECT_EQ(text(dir->fileSystemPath()), "/Users/Shared/Storage");
    EXPECT_EQ(text(CURL::createWithPath("/", true)->fileSystemPath()), "/");
    EXPECT_THROW(CURL::createWithPath("", false), CParamException);

    // Relative paths are taken from the working directory.
    EXPECT_EQ(text(CURL::createWithPath("x.txt", false)->fileSystemPath()),
              (std::filesystem::current_path() / "x.txt").string());
}

TEST(URLTest, ParsesOtherSchemesAndRefusesMalformedText) {
    CURLRef nfs = CURL::create("NFS://user@server.local:2049/exports/a%20b/?port=2049#frag");
    ASSERT_TRUE(nfs);
    EXPECT_EQ(text(nfs->scheme()), "nfs");
    EXPECT_EQ(text(nfs->hostName()), "server.local");
    EXPECT_EQ(text(nfs->fileSystemPath()), "/exports/a b");
    EXPECT_EQ(nfs->text(), "nfs://user@server.local:2049/exports/a%20b/?port=2049#frag");
    EXPECT_EQ(text(CURL::create("http://[::1]:80/")->hostName()), "[::1]");

    for (const char* bad : {"", "/no/scheme", "1http://x", "file:///a b", "file:///100%", "file:///%zz",
                            "file:///\xC3\xBC", "http://x/a#b#c", "file:///a\"b"}) {
        EXPECT_FALSE(CURL::create(bad)) << bad;
    }
}

TEST(URLTest, PathOperationsChangeOnlyThePath) {
    CURLRef file = CURL::create("nfs://host/a/b/movie.tar.gz?port=7");
    ASSERT_TRUE(file);
    EXPECT_EQ(text(file->pathExtension()), "gz");
    EXPECT_EQ(file->copyByDeletingPathExtension()->text(), "nfs://host/a/b/movie.tar?port=7");
    EXPECT_EQ(file->copyByDeletingLastPathComponent()->text(), "nfs://host/a/b/?port=7");
    EXPECT_EQ(file->copyByAppendingPathExtension("md5")->text(), "nfs://host/a/b/movie.tar.gz.md5?port=7");
    EXPECT_EQ(file->copyWithPath("/other dir/")->text(), "nfs://host/other%20dir/?port=7");

    CURLRef dir = CURL::createWithPath("/Volumes/SAN1/media", true);
    EXPECT_EQ(dir->copyByDeletingLastPathComponent()->text(), "file:///Volumes/SAN1/");
    EXPECT_EQ(dir->copyByAppendingPathComponent("Resources/corvaned", false)->text(),
              "file:///Volumes/SAN1/media/Resources/corvaned");
    EXPECT_EQ(dir->copyByAppendingPathComponent("sub dir", true)->text(), "file:///Volumes/SAN1/media/sub%20dir/");
    EXPECT_EQ(dir->copyByAppendingPathExtension("bundle")->text(), "file:///Volumes/SAN1/media.bundle/");
    EXPECT_EQ(CURL::createWithPath("/x/pkg.app", true)->copyByDeletingPathExtension()->text(), "file:///x/pkg/");

    // Walking up ends at the root, which stays the root.
    CURLRef up = CURL::createWithPath("/a", false)->copyByDeletingLastPathComponent();
    EXPECT_EQ(up->text(), "file:///");
    EXPECT_EQ(text(up->lastPathComponent()), "/");
    EXPECT_EQ(up->copyByDeletingLastPathComponent()->text(), "file:///");
    EXPECT_THROW(up->copyByAppendingPathExtension("x"), CParamException);

    // No extension for hidden names or a trailing dot.
    EXPECT_EQ(text(CURL::createWithPath("/d/name.", false)->pathExtension()), "");
    EXPECT_EQ(CURL::createWithPath("/d/.cvsubexp", true)->copyByDeletingPathExtension()->text(),
              "file:///d/.cvsubexp/");
}

TEST(URLTest, QueryParametersAreEncodedAndOthersKept) {
    CURLRef url = CURL::create("nfs://host/x?a=1&port=2049&b=x%20y&flag");
    ASSERT_TRUE(url);
    EXPECT_EQ(text(url->getQueryParameterValue("b")), "x y");
    EXPECT_EQ(text(url->getQueryParameterValue("flag")), "");
    EXPECT_FALSE(url->getQueryParameterValue("missing"));

    url->setQueryParameterValue("port", "-1");
    EXPECT_EQ(url->text(), "nfs://host/x?a=1&port=-1&b=x%20y&flag");
    url->setQueryParameterValue("note", "a&b=c d+e%");
    EXPECT_EQ(url->text(), "nfs://host/x?a=1&port=-1&b=x%20y&flag&note=a%26b%3Dc%20d%2Be%25");
    EXPECT_EQ(text(CURL::create(url->text())->getQueryParameterValue("note")), "a&b=c d+e%");

    for (const char* name : {"a", "flag", "note", "b"}) url->removeQueryParameter(name);
    EXPECT_EQ(url->text(), "nfs://host/x?port=-1");
    url->removeQueryParameter("port");
    EXPECT_EQ(url->text(), "nfs://host/x");

    CURLRef file = CURL::createWithPath("/d/.cvsubexp/a.mov", false);
    file->setQueryParameterValue("port", "2049");
    EXPECT_EQ(file->text(), "file:///d/.cvsubexp/a.mov?port=2049");
    EXPECT_EQ(text(file->fileSystemPath()), "/d/.cvsubexp/a.mov");
}

TEST(URLTest, FileTypeAndCreatorCodes) {
    quilltest::TempDir dir("url");
    const std::string path = (dir / "movie.mov").string();
    quilltest::writeFile(path, "data");
    if (setxattr(path.c_str(), "user.ferrocore.probe", "x", 1, 0) != 0)
        GTEST_SKIP() << "the temporary file system has no user extended attributes";
    removexattr(path.c_str(), "user.ferrocore.probe");

    CURLRef url = CURL::createWithPath(path, false);
    EXPECT_EQ(url->getFileTypeCode(), "");
    EXPECT_EQ(url->getCreatorCode(), "");
    url->setFileTypeCode("MooV");
    url->setCreatorCode("TVOD");
    EXPECT_EQ(url->getFileTypeCode() + url->getCreatorCode(), "MooVTVOD");
    char raw[8];
    EXPECT_EQ(getxattr(path.c_str(), kFileTypeCodeAttribute, raw, sizeof(raw)), 4);

    url->setFileTypeCode("");
    EXPECT_EQ(url->getFileTypeCode(), "");
    EXPECT_EQ(url->getCreatorCode(), "TVOD");
    url->setFileTypeCode("");  // removing twice is fine

    EXPECT_THROW(url->setCreatorCode("toolong"), CParamException);
    EXPECT_THROW(CURL::create("nfs://h/x")->getFileTypeCode(), CParamException);
    try {
        CURL::createWithPath((dir / "missing").string(), false)->setFileTypeCode("TEXT");
        ADD_FAILURE() << "no exception";
    } catch (const CException& e) {
        EXPECT_EQ(e.kind(), kExceptionKindSystemCall);
        EXPECT_EQ(e.errorNumber(), ENOENT);
    }
}

}  // namespace
}  // namespace ferrocore
