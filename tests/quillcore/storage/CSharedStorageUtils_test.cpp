#include <cerrno>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/StorageFixtures.h"
#include "support/TestSupport.h"
#include <ferrocore/CURL.h>
#include <quillcore/platform/Host.h>
#include <quillcore/storage/CSharedStorageUtils.h>
#include <quillcore/storage/ISharedStorage.h>

namespace {

using ferrocore::CString;
using ferrocore::CURL;
using quill::CSharedStorageUtils;
using quill::ISharedStorage;
using quill::ISharedStorageException;
using quill::platform::CScopedHost;
using quilltest::TempDir;

std::string brief(const std::string& id) { return CSharedStorageUtils::briefUniqueID(CString::create(id))->utf8(); }

TEST(CSharedStorageUtilsNaming, BriefUniqueIDPrefixesAndSignExtendedHash) {
    // Hashes worked out by hand: rotate left by one, then xor the byte.
    EXPECT_EQ(brief(""), "-00000000");
    EXPECT_EQ(brief("abc"), "abc-00000123");
    EXPECT_EQ(brief("01234567-89AB-CDEF-0123-456789ABCDEF").substr(0, 9), "01234567-");
    EXPECT_EQ(brief("abcdefghijk").substr(0, 9), "abcdefgh-");
    // "é" is C3 A9: the bytes flip the upper 24 bits as signed characters do.
    // Taken as unsigned bytes the hash would be 0000012F.
    EXPECT_EQ(brief("\xC3\xA9"), "\xC3\xA9-0000002E");
}

TEST(CSharedStorageUtilsNaming, NormalizedURLResolvesFileURLsAndKeepsStratafsOnes) {
    TempDir dir("norm");
    std::filesystem::create_directory(dir / "real");
    std::filesystem::create_directory_symlink(dir / "real", dir / "link");
    const auto resolvedDir = std::filesystem::canonical(dir.path()).string();

    const auto url = CURL::create("file://" + dir.str() + "/link?x=1");
    const auto normalized = CSharedStorageUtils::normalizedURL(url);
    EXPECT_EQ(normalized->text(), "file://" + resolvedDir + "/real/?x=1");

    const auto stratafs = CURL::create("stratafs://san/Volumes/SAN1/nowhere");
    EXPECT_EQ(CSharedStorageUtils::normalizedURL(stratafs)->text(), "stratafs://san/Volumes/SAN1/nowhere/");

    try {
        CSharedStorageUtils::normalizedPath(CString::create(dir.str() + "/missing"));
        FAIL();
    } catch (const ferrocore::CException& e) {
        EXPECT_EQ(e.kind(), 4);
        EXPECT_EQ(e.message(), "Couldn't get realpath for file: " + dir.str() + "/missing (errno = 2)");
    }
}

TEST(CSharedStorageUtilsNaming, PublishedAndSubscribedURLsShareTheBriefIdentifier) {
    TempDir dir("pub");
    const auto id = CString::create("ABCD1234-0000-1111-2222-333344445555");
    const auto published = CSharedStorageUtils::publishedSharedURL(CURL::createWithPath(dir.str(), true), id);
    const std::string b = brief(id->utf8());
    EXPECT_EQ(published->fileSystemPath()->utf8(),
              std::filesystem::canonical(dir.path()).string() + "/" + b + "/shared");
    const auto subscribed = CSharedStorageUtils::subscribedSharedURL(published);
    EXPECT_EQ(subscribed->text(), CSharedStorageUtils::subscribedSharedURL(id)->text());
    EXPECT_EQ(subscribed->fileSystemPath()->utf8(),
              "/Users/Shared/Library/Application Support/Lumenforge/Storage/" + b + "/shared");
    EXPECT_EQ(CSharedStorageUtils::sharedInfoURL(id)->lastPathComponent()->utf8(), ".corvane.plist");

    const auto san = CURL::create("stratafs://h/Volumes/SAN1/x/" + b + "/shared/");
    EXPECT_EQ(CSharedStorageUtils::subscribedSharedURL(san)->text(), "file:///Volumes/SAN1/x/" + b + "/shared/");

    EXPECT_TRUE(CSharedStorageUtils::isLocalClusterStorageURL(nullptr));
    EXPECT_TRUE(CSharedStorageUtils::isLocalClusterStorageURL(CSharedStorageUtils::localClusterStorageURL()));
    EXPECT_FALSE(CSharedStorageUtils::isLocalClusterStorageURL(CURL::createWithPath("/tmp/corvane2", true)));
    EXPECT_FALSE(CSharedStorageUtils::isStratafsClusterStorageURL(nullptr));
    EXPECT_TRUE(CSharedStorageUtils::isStratafsClusterStorageURL(san));
}

// Answers the volume calls from a table instead of the kernel.
class VolumeHost : public quill::platform::CHostWrapper {
public:
    using CHostWrapper::CHostWrapper;
    std::error_code statusError;
    std::vector<std::string> created;
    std::error_code createError;
    std::vector<quill::platform::CMountedFileSystem> mounts;

    std::error_code fileSystemStatus(const std::string& path) override {
        return statusError ? statusError : CHostWrapper::fileSystemStatus(path);
    }
    std::error_code fileSystemFacts(const std::string& path, quill::platform::CFileSystemFacts& facts) override {
        return statusError ? statusError : CHostWrapper::fileSystemFacts(path, facts);
    }
    std::error_code fileMode(const std::string& path, std::uint32_t& mode) override {
        if (path.rfind("/Volumes", 0) == 0) return std::make_error_code(std::errc::no_such_file_or_directory);
        return CHostWrapper::fileMode(path, mode);
    }
    std::error_code createDirectory(const std::string& path, std::uint32_t) override {
        created.push_back(path);
        return createError;
    }
    std::error_code mountedFileSystems(std::vector<quill::platform::CMountedFileSystem>& out) override {
        out = mounts;
        return {};
    }
};

TEST(CSharedStorageUtilsPaths, VolumeStatisticsDecideExistenceAndFailuresAreNotThrown) {
    VolumeHost fake;
    CScopedHost scope(fake);
    const auto path = CString::create("/somewhere");
    fake.statusError = std::make_error_code(std::errc::permission_denied);
    EXPECT_TRUE(CSharedStorageUtils::pathExists(path));  // refused still counts as existing
    fake.statusError = std::make_error_code(std::errc::no_such_file_or_directory);
    EXPECT_FALSE(CSharedStorageUtils::pathExists(path));
    EXPECT_EQ(CSharedStorageUtils::getFilesystemType(path)->utf8(), "");
    EXPECT_FALSE(CSharedStorageUtils::pathIsOnReadOnlyVolume(path));
    EXPECT_FALSE(CSharedStorageUtils::isExFATBasedPath(path));
    fake.statusError = {};
    EXPECT_EQ(CSharedStorageUtils::getFilesystemType(CString::create("/proc"))->utf8(), "proc");

    try {
        CSharedStorageUtils::pathIsDirectory(CString::create("/no/such/path"));
        FAIL();
    } catch (const ISharedStorageException& e) {
        EXPECT_EQ(e.errorValue(), 0xFE030200u);
        EXPECT_EQ(e.message(), "Non-existent path = [/no/such/path]");
    }
}

TEST(CSharedStorageUtilsPaths, VolumeNamesAndMountedVolumes) {
    auto name = [](const char* p) {
        const auto n = CSharedStorageUtils::getStratafsVolumeName(CString::create(p));
        return n ? n->utf8() : std::string("(null)");
    };
    EXPECT_EQ(name("/Volumes/SAN1"), "SAN1");
    EXPECT_EQ(name("/Volumes/SAN1/media/a.mov"), "SAN1");
    EXPECT_EQ(name("/Users/x"), "(null)");
    EXPECT_EQ(name("/Volumes/"), "(null)");
    EXPECT_EQ(CSharedStorageUtils::getStratafsVolumePath(CString::create("/Volumes/SAN1/a"))->utf8(), "/Volumes/SAN1");

    VolumeHost fake;
    CScopedHost scope(fake);
    try {
        CSharedStorageUtils::isVolumeMounted(CString::create("/Users/x"));
        FAIL();
    } catch (const ferrocore::CException& e) {
        EXPECT_EQ(e.kind(), 1);
        EXPECT_EQ(e.message(), "Path [/Users/x] is not volume-based");
    }
    EXPECT_FALSE(CSharedStorageUtils::isVolumeMounted(CString::create("/Volumes/SAN1/a")));
    fake.mounts = {{"san:/x", "/Volumes/SAN10", "nfs"}, {"san:/y", "/Volumes/SAN1", "nfs"}};
    EXPECT_TRUE(CSharedStorageUtils::isVolumeMounted(CString::create("/Volumes/SAN1/a")));
}

TEST(CSharedStorageUtilsDirectories, MakeDirSkipsVolumesAndReportsFailuresInLocalizedText) {
    quilltest::StorageBundleHost bundle;
    VolumeHost fake(&bundle);
    CScopedHost scope(fake);
    CSharedStorageUtils::makeDir(CString::create("/Volumes/SAN1//a/b"), 0777);
    EXPECT_EQ(fake.created, (std::vector<std::string>{"/Volumes/SAN1/a", "/Volumes/SAN1/a/b"}));

    fake.created.clear();
    fake.createError = std::make_error_code(std::errc::permission_denied);
    try {
        CSharedStorageUtils::makeDir(CString::create("/Volumes/SAN1/a/b"), 0777);
        FAIL();
    } catch (const ISharedStorageException& e) {
        EXPECT_EQ(e.errorValue(), 0xFE030600u);
        EXPECT_EQ(e.message(), "You don’t have permission to create folders in “/Volumes/SAN1”.");
    }
    fake.createError = std::make_error_code(std::errc::no_space_on_device);
    try {
        CSharedStorageUtils::makeDir(CString::create("/Volumes/SAN1/a"), 0777);
        FAIL();
    } catch (const ISharedStorageException& e) {
        EXPECT_EQ(e.message(), "The folder “/Volumes/SAN1/a” could not be created: " +
                                   std::make_error_code(std::errc::no_space_on_device).message() + ".");
    }
    EXPECT_THROW(CSharedStorageUtils::makeDir(nullptr, 0777), ISharedStorageException);
}

TEST(CSharedStorageUtilsDirectories, MakeDirCreatesEachLevelWithThePermissionsAsGiven) {
    TempDir dir("mk");
    const std::string path = dir.str() + "/a/b/c";
    CSharedStorageUtils::makeDir(CString::create(path), 0777);  // mask 0 meanwhile
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0777u);
    const mode_t mask = ::umask(022);
    ::umask(mask);
    EXPECT_EQ(mask, 022u);  // the mask was put back
    EXPECT_EQ(CSharedStorageUtils::getDirContents(CString::create(dir.str() + "/a")), std::vector<std::string>{"b"});
    EXPECT_TRUE(CSharedStorageUtils::getDirContents(CString::create(dir.str() + "/none")).empty());
}

TEST(CSharedStorageUtilsMarkers, InfoFilesAreWrittenOnceAndRefusedWhereTheyCannotGo) {
    TempDir dir("info");
    const auto url = CURL::createWithPath(dir.str(), true);
    CSharedStorageUtils::addSharedInfoFile(url, CString::create("uuid-1"));
    const std::string info = quilltest::readFile(dir / ".corvane.plist");
    EXPECT_NE(info.find("<key>storage-uuid</key>"), std::string::npos);
    EXPECT_NE(info.find("<string>uuid-1</string>"), std::string::npos);
    EXPECT_EQ(info.find("DOCTYPE"), std::string::npos);
    struct stat status {};
    ASSERT_EQ(::stat((dir / ".corvane.plist").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0644u);
    EXPECT_TRUE(std::filesystem::exists(dir / ".metadata_never_index"));

    CSharedStorageUtils::addJobsInfoFile(url, CString::create("uuid-2"));  // exists: left alone
    CSharedStorageUtils::addSharedInfoFile(url, CString::create("uuid-3"));
    EXPECT_EQ(quilltest::readFile(dir / ".corvane.plist"), info);

    quilltest::writeFile(dir / "file", "x");
    try {
        CSharedStorageUtils::addSharedInfoFile(CURL::createWithPath(dir.str() + "/file", false), CString::create("u"));
        FAIL();
    } catch (const ISharedStorageException& e) {
        EXPECT_EQ(e.errorValue(), 0xFE030600u);
        EXPECT_EQ(e.message(), "Path [" + dir.str() + "/file] not a directory");
    }
    if (::geteuid() != 0) {
        std::filesystem::create_directory(dir / "ro");
        ::chmod((dir / "ro").c_str(), 0555);
        try {
            CSharedStorageUtils::addJobsInfoFile(CURL::createWithPath(dir.str() + "/ro", true), CString::create("u"));
            FAIL();
        } catch (const ISharedStorageException& e) {
            EXPECT_EQ(e.errorValue(), 0xFE030500u);
            EXPECT_EQ(e.message(), "Path [" + dir.str() + "/ro] not read/write");
        }
        ::chmod((dir / "ro").c_str(), 0755);
    }
}

TEST(SharedStorageStrings, TheBundleIsFoundOnceAndItsAbsenceIsReported) {
    {
        quilltest::LoadedImagesHost nothing({});
        CScopedHost scope(nothing);
        quilltest::StorageBundleHost forget;  // only to forget a bundle found earlier
    }
    quilltest::LoadedImagesHost nothing({});
    {
        CScopedHost scope(nothing);
        try {
            ISharedStorage::localizedStringForKey("ExFATExportNotSupported");
            FAIL();
        } catch (const ISharedStorageException& e) {
            EXPECT_EQ(e.errorValue(), 0xFE050200u);
            EXPECT_EQ(e.message(), "QuillCore.framework not found");
        }
    }
    quilltest::StorageBundleHost bundle;
    {
        CScopedHost scope(bundle);
        EXPECT_EQ(ISharedStorage::localizedStringForKey("SharedStorageClient_getServerPort_timed_out")->utf8(),
                  "The storage server did not answer in time when asked for its port.");
        EXPECT_EQ(ISharedStorage::localizedStringForKey("NoSuchKey")->utf8(), "NoSuchKey");
    }
    CScopedHost scope(nothing);  // found once and kept: no longer looked for
    EXPECT_NE(ISharedStorage::localizedStringForKey("ExFATExportNotSupported")->utf8(), "ExFATExportNotSupported");
}

}  // namespace
