// Sub-exports and client time-outs without a server: a clock that jumps makes
// the client's 60-second wait pass at once.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/StorageFixtures.h"
#include "support/TestSupport.h"
#include <ferrocore/CURL.h>
#include <quillcore/platform/Host.h>
#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/storage/CDNSharedStorageClient.h>
#include <quillcore/storage/CNFSSharedStoragePublisher.h>
#include <quillcore/storage/CSharedStorageUtils.h>

namespace {

using ferrocore::CString;
using ferrocore::CURL;
using quill::ISharedStorageException;
using quill::platform::CScopedHost;

// Thirty seconds pass at every look at the clock; file calls are recorded.
class JumpingClockHost : public quill::platform::CHostWrapper {
public:
    using CHostWrapper::CHostWrapper;
    double now = 0;
    std::vector<std::string> calls;
    bool refuseLinks = false;

    PLAbsoluteTime currentTime() override { return now += 30.0; }
    std::error_code openLockedFile(const std::string& path, quill::platform::FileLock lock,
                                   quill::platform::CFileDescriptor& fd) override {
        calls.push_back("lock " + path);
        return CHostWrapper::openLockedFile(path, lock, fd);
    }
    std::error_code closeFile(quill::platform::CFileDescriptor& fd) override {
        calls.push_back("close");
        return CHostWrapper::closeFile(fd);
    }
    std::error_code removeFile(const std::string& path) override {
        calls.push_back("remove " + path);
        return CHostWrapper::removeFile(path);
    }
    std::error_code linkFile(const std::string& from, const std::string& to) override {
        calls.push_back("link " + to);
        if (refuseLinks) return std::make_error_code(std::errc::file_exists);
        return CHostWrapper::linkFile(from, to);
    }
};

TEST(CDNSharedStorageClientTimeOut, SynchronousCallsReportTheLocalizedTimeOut) {
    quilltest::StorageBundleHost bundle;
    JumpingClockHost clock(&bundle);
    CScopedHost scope(clock);
    quill::platform::CNotificationCenter center(quill::platform::makeLoopbackNotificationTransport());
    auto client = ferrocore::makeShared<quill::CDNSharedStorageClient>(center);
    try {
        client->publish(CURL::createWithPath("/srv/x", true), CString::create("A"), 0);
        FAIL();
    } catch (const ISharedStorageException& e) {
        EXPECT_EQ(e.errorValue(), 0xFE030C00u);
        EXPECT_EQ(e.message(), "The storage server did not answer in time while sharing “file:///srv/x/”.");
    }
    EXPECT_EQ(clock.now, 90.0);  // the deadline, 60 s, then one look past it
    try {
        client->getServerPort();
        FAIL();
    } catch (const ISharedStorageException& e) {
        EXPECT_EQ(e.message(), "The storage server did not answer in time when asked for its port.");
    }
    EXPECT_EQ(client->pendingRequestCount(), 0u);
}

TEST(CSharedStorageSubexport, TheLockIsUnlinkedAtOnceAndALinkIsRetriedExactlyOnce) {
    quilltest::TempDir dir("subexp");
    const auto real = std::filesystem::canonical(dir.path()).string();
    quilltest::writeFile(dir / "clip.mov", "x");
    quilltest::StorageBundleHost bundle;
    JumpingClockHost host(&bundle);
    CScopedHost scope(host);
    quill::platform::CNotificationCenter center(quill::platform::makeLoopbackNotificationTransport());
    quill::platform::CScopedHostNotificationCenter noBus(center);
    const std::string lock = real + "/.cvlock";
    const auto file = CURL::createWithPath(real + "/clip.mov", false);

    // Linked, then published: no server answers, so publishing times out.
    EXPECT_THROW(quill::CSharedStorageUtils::beginSubexport(file), ISharedStorageException);
    ASSERT_GE(host.calls.size(), 4u);
    EXPECT_EQ(host.calls[0], "lock " + lock);
    EXPECT_EQ(host.calls[1], "remove " + lock);  // at once, before any other work
    EXPECT_EQ(host.calls[2], "link " + real + "/.cvsubexp/clip.mov");
    EXPECT_EQ(host.calls[3], "close");

    host.calls.clear();
    host.refuseLinks = true;
    try {
        quill::CSharedStorageUtils::beginSubexport(file);
        FAIL();
    } catch (const ferrocore::CException& e) {
        EXPECT_EQ(e.kind(), 4);
        EXPECT_EQ(e.message().rfind("Source subexp link(" + real + "/clip.mov, " + real + "/.cvsubexp/clip.mov", 0),
                  0u);
    }
    std::size_t links = 0;
    for (const auto& call : host.calls) links += call.rfind("link ", 0) == 0;
    EXPECT_EQ(links, 2u);  // the link and one retry under a mktemp name, no more
}

TEST(CNFSSharedStoragePublisherLookup, APathThatNeedsEscapingIsLookedUpPlainAndCountedAfresh) {
    quilltest::TempDir dir("escaped");
    quilltest::ScopedEnv exports(quill::platform::kExportsFilePathVariable, dir.str() + "/exports");
    auto publisher = ferrocore::makeShared<quill::CNFSSharedStoragePublisher>();
    const auto url = CURL::createWithPath(dir.str() + "/with space", true);
    publisher->publish(url, CString::create("A"), 1);
    publisher->publish(url, CString::create("A"), 2);
    // The line is looked for under the plain path and not found, so the
    // second publish starts a new count; the line itself is not doubled.
    EXPECT_EQ(publisher->getPublishedMap().at(dir.str() + "/with space").refCount(), 1);
    const std::string contents = quilltest::readFile(dir / "exports");
    EXPECT_EQ(contents.find('\n'), contents.size() - 1);
}

}  // namespace
