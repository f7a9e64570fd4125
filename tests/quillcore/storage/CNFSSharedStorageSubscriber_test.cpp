#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/StorageFixtures.h"
#include "support/TestSupport.h"
#include <ferrocore/CURL.h>
#include <quillcore/platform/Host.h>
#include <quillcore/storage/CNFSSharedStorage.h>
#include <quillcore/storage/CNFSSharedStorageSubscriber.h>

namespace {

using ferrocore::CString;
using ferrocore::CURL;
using quill::CNFSSharedStorageSubscriber;
using quill::ISharedStorageException;
using quilltest::ScopedEnv;
using Args = std::vector<std::string>;

struct SubscriberFixture : ::testing::Test {
    quilltest::StandInMount stand;
    quilltest::TempDir dir{"mnt"};
    ScopedEnv mount{quill::platform::kMountPathVariable, stand.mountPath()};
    ScopedEnv umount{quill::platform::kUmountPathVariable, stand.umountPath()};
    ScopedEnv limit{quill::platform::kCommandTimeLimitVariable, "1.5"};
    ferrocore::CSharedObjectRef<CNFSSharedStorageSubscriber> subscriber =
        ferrocore::makeShared<CNFSSharedStorageSubscriber>();
    ferrocore::CStringRef point(const std::string& name) { return CString::create(dir.str() + "/" + name); }
};

TEST(CNFSSharedStorageSubscriberCommands, MountOptionsFollowThePortParameter) {
    const auto at = CString::create("/mnt/p");
    const auto options = [&](const char* url) {
        return CNFSSharedStorageSubscriber::mountArguments(CURL::create(url), at)[1];
    };
    EXPECT_EQ(options("nfs://h/x?port=2049"), "port=2049,mountport=2049,soft,intr,locallocks");
    EXPECT_EQ(options("nfs://h/x"), "soft,intr,locallocks");
    EXPECT_EQ(options("nfs://h/x?port=0"), "soft,intr,locallocks");
    // -1 is not 0 and goes in unchanged, on purpose.
    EXPECT_EQ(options("nfs://h/x?port=-1"), "port=-1,mountport=-1,soft,intr,locallocks");
    EXPECT_EQ(CNFSSharedStorageSubscriber::mountArguments(CURL::create("nfs://h/a%20b/"), at),
              (Args{"-o", "soft,intr,locallocks", "h:/a b", "/mnt/p"}));
    EXPECT_EQ(CNFSSharedStorageSubscriber::unmountArguments(at), (Args{"-f", "/mnt/p"}));
}

TEST_F(SubscriberFixture, OneMountSharedByItsHoldersAndUnknownPointsUnmountedAllTheSame) {
    const auto url = CURL::create("nfs://server/export/x");
    subscriber->subscribe(url, point("p"), CString::create("A"), 10);
    subscriber->subscribe(url, point("p"), CString::create("B"), 11);
    EXPECT_TRUE(std::filesystem::is_directory(dir / "p"));
    ASSERT_EQ(stand.runs().size(), 1u);
    EXPECT_EQ(stand.runs()[0],
              (Args{stand.mountPath(), "-o", "soft,intr,locallocks", "server:/export/x", dir.str() + "/p"}));
    subscriber->unsubscribe(url, point("p"), CString::create("A"), 10);
    EXPECT_EQ(stand.runs().size(), 1u);
    subscriber->unsubscribe(url, point("p"), CString::create("B"), 11);
    ASSERT_EQ(stand.runs().size(), 2u);
    EXPECT_EQ(stand.runs()[1], (Args{stand.umountPath(), "-f", dir.str() + "/p"}));
    EXPECT_TRUE(subscriber->getSubscribedMap().empty());

    subscriber->unsubscribe(url, point("never"), CString::create("A"), 10);  // not in the map: unmounted anyway
    ASSERT_EQ(stand.runs().size(), 3u);
    EXPECT_EQ(stand.runs()[2], (Args{stand.umountPath(), "-f", dir.str() + "/never"}));
}

TEST_F(SubscriberFixture, FailedAndHungCommandsAreReportedAndLeaveTheMapAlone) {
    const auto url = CURL::create("nfs://server/export/x");
    stand.failWith(32);
    try {
        subscriber->subscribe(url, point("p"), CString::create("A"), 10);
        FAIL();
    } catch (const ISharedStorageException& e) {
        EXPECT_EQ(e.errorValue(), 0xFE010C00u);
        EXPECT_EQ(e.message(), "CNFSSharedStorage::_subscribe: command [" + stand.mountPath() +
                                   " server:/export/x] failed, error = 32");
    }
    EXPECT_TRUE(subscriber->getSubscribedMap().empty());
    try {
        subscriber->unsubscribe(url, point("p"), CString::create("A"), 10);
        FAIL();
    } catch (const ISharedStorageException& e) {
        EXPECT_EQ(e.message(), "CNFSSharedStorage::_unsubscribe: command [" + stand.umountPath() + " " + dir.str() +
                                   "/p] failed, error = 32");
    }

    stand.behaveNormally();
    stand.hangOn("slow");
    const auto started = std::chrono::steady_clock::now();
    try {
        subscriber->subscribe(url, point("slow"), CString::create("A"), 10);
        FAIL();
    } catch (const ISharedStorageException& e) {
        EXPECT_EQ(e.message(),
                  "CNFSSharedStorage::_subscribe: command [" + stand.mountPath() + " server:/export/x] timed out");
    }
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(30));  // the limit, not the hang
    EXPECT_TRUE(subscriber->getSubscribedMap().empty());
}

TEST_F(SubscriberFixture, EndedProcessesUnmountWhatNobodyHolds) {
    const auto url = CURL::create("nfs://server/export/x");
    subscriber->subscribe(url, point("p"), CString::create("A"), 10);
    subscriber->subscribe(url, point("p"), CString::create("A"), 11);
    subscriber->subscribe(url, point("q"), CString::create("A"), 10);
    subscriber->processTerminated(10);
    EXPECT_EQ(stand.mounted(), Args{dir.str() + "/p"});
    EXPECT_EQ(subscriber->getSubscribedMap().size(), 1u);
    subscriber->cleanMounts();
    EXPECT_TRUE(stand.mounted().empty());
    EXPECT_TRUE(subscriber->getSubscribedMap().empty());
}

// Records the order in which an ended process is handled.
std::vector<std::string> order;
struct RecordingPublisher : quill::CNFSSharedStoragePublisher {
    void processTerminated(long) override { order.push_back("unexport"); }
};
struct RecordingSubscriber : quill::CNFSSharedStorageSubscriber {
    void processTerminated(long) override { order.push_back("unmount"); }
};

TEST(CNFSSharedStorageFactory, OnlyTheNotificationTransportAndUnmountBeforeUnexport) {
    try {
        quill::CNFSSharedStorage::NewClient(1);
        FAIL();
    } catch (const ISharedStorageException& e) {
        EXPECT_EQ(e.errorValue(), 0xFE020800u);
    }
    EXPECT_THROW(quill::CNFSSharedStorage::NewServer(2), ISharedStorageException);
    EXPECT_THROW(quill::CNFSSharedStorage::NewPublisherClient(-1), ISharedStorageException);

    auto storage = ferrocore::makeShared<quill::CNFSSharedStorage>(
        quill::CNFSSharedStoragePublisherRef(ferrocore::makeShared<RecordingPublisher>()),
        quill::CNFSSharedStorageSubscriberRef(ferrocore::makeShared<RecordingSubscriber>()));
    storage->processTerminated(5);
    EXPECT_EQ(order, (std::vector<std::string>{"unmount", "unexport"}));
}

}  // namespace
