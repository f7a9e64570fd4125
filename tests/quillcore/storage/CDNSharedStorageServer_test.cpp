#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/NotificationBus.h"
#include "support/StorageFixtures.h"
#include "support/TestSupport.h"
#include <ferrocore/CURL.h>
#include <quillcore/platform/Host.h>
#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/platform/RunLoop.h>
#include <quillcore/storage/CDNSharedStorageClient.h>
#include <quillcore/storage/CDNSharedStorageServer.h>
#include <quillcore/storage/CNFSSharedStorage.h>
#include <quillcore/storage/StorageProtocol.h>
#include <quillcore/util/PLUtil.h>

namespace {

using ferrocore::CString;
using ferrocore::CURL;
using quill::CDNSharedStorageClient;
using quill::CDNSharedStorageServer;
using quill::ISharedStorageException;
using quilltest::ScopedEnv;
namespace proto = quill::storageprotocol;

PLHolder<PLMutableDictionary> payload(std::initializer_list<std::pair<const char*, PLHolder<const PLObject>>> entries) {
    auto dict = PLMutableDictionary::create();
    for (const auto& [key, value] : entries) dict->set(PLString::create(key), value);
    return dict;
}
PLHolder<const PLObject> str(const std::string& s) { return PLString::create(s); }
PLHolder<const PLObject> num(std::int64_t n) { return PLNumber::create(n); }

std::int64_t integer(PLDictionaryRef dict, const char* key) {
    const auto* n = PLDynamicCast<PLNumber>(dict->get(std::string_view(key)));
    return n ? n->int64Value() : -12345;
}
std::string text(PLDictionaryRef dict, const char* key) {
    const auto* s = PLDynamicCast<PLString>(dict->get(std::string_view(key)));
    return s ? s->str() : "(none)";
}

struct ServerFixture : ::testing::Test {
    quilltest::StandInMount stand;
    quilltest::TempDir dir{"srv"};
    std::string exports = dir.str() + "/exports";
    ScopedEnv file{quill::platform::kExportsFilePathVariable, exports};
    ScopedEnv mount{quill::platform::kMountPathVariable, stand.mountPath()};
    ScopedEnv umount{quill::platform::kUmountPathVariable, stand.umountPath()};
    quill::platform::CNotificationCenter center{quill::platform::makeLoopbackNotificationTransport()};
    quill::CDNSharedStorageServerRef server =
        ferrocore::makeShared<CDNSharedStorageServer>(ferrocore::makeShared<quill::CNFSSharedStorage>(), center);

    ServerFixture() { quilltest::writeFile(exports, "/foreign\n"); }
    std::string contents() { return quilltest::readFile(exports); }
};

TEST_F(ServerFixture, MissingOrMistypedKeysAreAnsweredWithTheKeysName) {
    const std::string path = dir.str() + "/d";
    const struct {
        const char* name;
        PLHolder<PLMutableDictionary> request;
        const char* missing;
    } cases[] = {
        {proto::kPublishRequest, payload({{"sender", str("A")}, {"requestID", str("r")}, {"storageURL", str(path)}}),
         "kPIDKey"},
        {proto::kPublishRequest,
         payload({{"sender", str("A")}, {"requestID", str("r")}, {"pid", str("12")}, {"storageURL", str(path)}}),
         "kPIDKey"},
        {proto::kPublishRequest,
         payload({{"sender", str("A")}, {"requestID", str("r")}, {"pid", num(1LL << 40)}, {"storageURL", str(path)}}),
         "kPIDKey"},
        {proto::kUnpublishRequest, payload({{"sender", str("A")}, {"requestID", str("r")}, {"pid", num(1)}}),
         "kStorageURLKey"},
        {proto::kUnpublishRequest,
         payload({{"sender", str("A")}, {"requestID", str("r")}, {"pid", num(1)}, {"storageURL", num(3)}}),
         "kStorageURLKey"},
        {proto::kSubscribeRequest,
         payload({{"sender", str("A")}, {"requestID", str("r")}, {"pid", num(1)}, {"storageURL", str("/x")}}),
         "kStorageLocalPathKey"},
        {proto::kUnsubscribeRequest,
         payload({{"sender", str("A")},
                  {"requestID", str("r")},
                  {"pid", num(1)},
                  {"storageURL", str("/x")},
                  {"storageLocalPath", str(dir.str() + "/m")},
                  {"storageHost", str("a b")}}),
         "kStorageHostKey"},
    };
    for (const auto& c : cases) {
        const auto reply = server->handleRequest(c.name, c.request.get());
        ASSERT_TRUE(reply) << c.missing;
        EXPECT_EQ(integer(reply->payload.get(), "result"), -1);
        EXPECT_EQ(integer(reply->payload.get(), "exceptionKind"), 0xFE010700);
        EXPECT_EQ(text(reply->payload.get(), "exceptionMessage"), c.missing);
        EXPECT_EQ(text(reply->payload.get(), "sender"), "A");
        EXPECT_EQ(text(reply->payload.get(), "requestID"), "r");
    }
    EXPECT_EQ(contents(), "/foreign\n");
    EXPECT_TRUE(stand.runs().empty());
    EXPECT_FALSE(std::filesystem::exists(dir / "d"));
}

TEST_F(ServerFixture, UnaddressableTerminatedAndUnknownRequestsGetNoReply) {
    EXPECT_FALSE(server->handleRequest(proto::kPublishRequest, payload({{"requestID", str("r")}}).get()));
    EXPECT_FALSE(server->handleRequest(proto::kPublishRequest, payload({{"sender", str("A")}}).get()));
    EXPECT_FALSE(server->handleRequest(proto::kPublishRequest, nullptr));
    EXPECT_FALSE(server->handleRequest(proto::kProcessTerminatedRequest, payload({}).get()));  // fails, silently
    EXPECT_FALSE(server->handleRequest(proto::kProcessTerminatedRequest, payload({{"pid", num(3)}}).get()));
    EXPECT_FALSE(
        server->handleRequest("SomethingElse", payload({{"sender", str("A")}, {"requestID", str("r")}}).get()));
    EXPECT_FALSE(
        quilltest::consoleLinesWith("CDNSharedStorageServer::publishNotification: CException: kSenderKey").empty());
    EXPECT_FALSE(
        quilltest::consoleLinesWith("CDNSharedStorageServer::processTerminatedNotification: CException: kPIDKey")
            .empty());
    EXPECT_EQ(contents(), "/foreign\n");
}

TEST_F(ServerFixture, TheHostTravelsBesideThePathAndRequestsWithoutItMountTheBarePath) {
    const std::string point = dir.str() + "/m";
    auto base = [&](const char* host) {
        auto p = payload({{"sender", str("A")},
                          {"requestID", str("r")},
                          {"pid", num(9)},
                          {"storageURL", str("/ex/a b")},
                          {"storageLocalPath", str(point)}});
        if (host) p->set(PLString::create("storageHost"), PLString::create(host));
        return p;
    };
    auto reply = server->handleRequest(proto::kSubscribeRequest, base("fileserver").get());
    ASSERT_TRUE(reply);
    EXPECT_EQ(integer(reply->payload.get(), "result"), 0);
    EXPECT_EQ(reply->name, proto::kSubscribeReply);
    reply = server->handleRequest(proto::kUnsubscribeRequest, base(nullptr).get());
    EXPECT_EQ(reply->name, proto::kUnsubscribeReply);
    reply = server->handleRequest(proto::kSubscribeRequest, base(nullptr).get());
    ASSERT_EQ(stand.runs().size(), 3u);
    EXPECT_EQ(stand.runs()[0][3], "fileserver:/ex/a b");
    EXPECT_EQ(stand.runs()[2][3], ":/ex/a b");

    reply = server->handleRequest(proto::kGetServerPortRequest,
                                  payload({{"sender", str("A")}, {"requestID", str("p")}}).get());
    EXPECT_EQ(integer(reply->payload.get(), "serverPort"), -1);
    EXPECT_EQ(integer(reply->payload.get(), "result"), 0);

    reply = server->handleRequest(proto::kListRequest, payload({{"sender", str("A")}, {"requestID", str("l")}}).get());
    const auto* subscribed = PLDynamicCast<PLDictionary>(reply->payload->get(std::string_view("subscribedMap")));
    ASSERT_TRUE(subscribed);
    const auto* entry = PLDynamicCast<PLDictionary>(subscribed->get(std::string_view(point)));
    ASSERT_TRUE(entry);
    EXPECT_EQ(integer(entry, "refCount"), 1);
    EXPECT_EQ(text(entry, "exportURL"), "file:///ex/a%20b");
}

TEST_F(ServerFixture, HugeAndRelativePathsAreRefusedWithoutTouchingAnything) {
    const std::string huge = "/" + std::string(1 << 20, 'x');
    for (const std::string& path : {huge, std::string("relative/dir"), std::string()}) {
        const auto reply = server->handleRequest(
            proto::kPublishRequest,
            payload({{"sender", str("A")}, {"requestID", str("r")}, {"pid", num(1)}, {"storageURL", str(path)}}).get());
        ASSERT_TRUE(reply);
        EXPECT_EQ(integer(reply->payload.get(), "result"), -1);
    }
    EXPECT_EQ(contents(), "/foreign\n");
    EXPECT_TRUE(server->getPublishedMap().empty());
}

TEST_F(ServerFixture, AClientOnTheSameCentreGetsResultsAndTheServersFailures) {
    auto client = ferrocore::makeShared<CDNSharedStorageClient>(center);
    const auto url = CURL::createWithPath(dir.str() + "/shared dir", true);
    client->publish(url, CString::create("A"), 0);
    EXPECT_EQ(contents(), "/foreign\n" + quill::CNFSSharedStoragePublisher::escapedFilePath(dir.str() + "/shared dir") +
                              " " + quill::platform::kExportOptions + "\n");
    const auto& map = server->getPublishedMap();
    ASSERT_EQ(map.size(), 1u);
    EXPECT_EQ(map.begin()->second.refCount(), 1);
    EXPECT_EQ(client->getServerPort(), -1);
    try {
        client->unpublish(CURL::createWithPath(dir.str() + "/other", true), CString::create("A"), 0);
        FAIL();
    } catch (const ISharedStorageException& e) {
        EXPECT_EQ(e.errorValue(), 0xFE030200u);
        EXPECT_EQ(e.message(), "entry [" + dir.str() + "/other] not present in publishedMap");
    }
    EXPECT_EQ(client->pendingRequestCount(), 0u);
    EXPECT_EQ(client->heldReplyCount(), 0u);
}

TEST(CDNSharedStorageClientReplies, LateRepliesAreDroppedAndTerminationOnlyPosts) {
    quill::platform::CNotificationCenter center{quill::platform::makeLoopbackNotificationTransport()};
    auto client = ferrocore::makeShared<CDNSharedStorageClient>(center);
    std::vector<std::string> seen;
    center.addObserver(
        &seen, [&](const quill::platform::CNotification& n) { seen.push_back(n.sender ? n.sender->str() : ""); },
        PLString::create(proto::kProcessTerminatedRequest).get(), nullptr);

    const std::string id = client->asyncGetServerPort(CString::create("corvane"));
    EXPECT_FALSE(client->asyncWaitForReply(id, 0.05));  // nobody answers
    center.post(PLString::create(proto::kGetServerPortReply).get(), PLString::create("corvane").get(),
                payload({{"sender", str("corvane")}, {"requestID", str(id)}, {"result", num(0)}}).get());
    quill::platform::CRunLoop::current().runFor(0.05);
    EXPECT_EQ(client->heldReplyCount(), 0u);
    EXPECT_EQ(client->pendingRequestCount(), 0u);

    client->processTerminated(4242);  // returns at once
    quilltest::runLoopUntil([&] { return !seen.empty(); }, 5.0);
    EXPECT_EQ(seen, std::vector<std::string>{"processTerminated"});

    // A failure reply carries the server's kind and message.
    const std::string failing = client->asyncPublish(CURL::createWithPath("/x", true), CString::create("A"), 0);
    center.post(PLString::create(proto::kPublishReply).get(), PLString::create("A").get(),
                payload({{"requestID", str(failing)},
                         {"result", num(-1)},
                         {"exceptionKind", num(4)},
                         {"exceptionMessage", str("boom")}})
                    .get());
    try {
        client->asyncWaitForReply(failing, 5.0);
        FAIL();
    } catch (const ferrocore::CException& e) {
        EXPECT_EQ(e.kind(), 4);
        EXPECT_EQ(e.message(), "boom");
    }
}

// Storage requests travel on the host-wide centre: the server and client
// made by default or by the factory meet there and never post on the
// process's (per-user) centre. Each pairs one side made by default with the
// other made on the host-wide centre explicitly, so a side on another centre
// would leave the request unanswered.
TEST(StorageCentres, DefaultsAndTheFactoryUseTheHostWideCentre) {
    quilltest::TempDir dir("centres");
    ScopedEnv file{quill::platform::kExportsFilePathVariable, dir.str() + "/exports"};
    quill::platform::CNotificationCenter host{quill::platform::makeLoopbackNotificationTransport()};
    quill::platform::CNotificationCenter user{quill::platform::makeLoopbackNotificationTransport()};
    quill::platform::CScopedHostNotificationCenter hostScope(host);
    quill::platform::CScopedNotificationCenter userScope(user);
    int onUser = 0;
    user.addObserver(
        &onUser, [&](const quill::platform::CNotification&) { ++onUser; }, nullptr, nullptr);
    auto storage = [] { return quill::ISharedStorageRef(ferrocore::makeShared<quill::CNFSSharedStorage>()); };

    {
        auto server = quill::CNFSSharedStorage::NewServer(quill::kServerRPCNotificationCenter);
        EXPECT_EQ(ferrocore::makeShared<CDNSharedStorageClient>(host)->getServerPort(), -1);
    }
    {
        auto server = ferrocore::makeShared<CDNSharedStorageServer>(storage());
        EXPECT_EQ(quill::CNFSSharedStorage::NewClient(quill::kServerRPCNotificationCenter)->getServerPort(), -1);
        EXPECT_EQ(quill::CNFSSharedStorage::NewPublisherClient(quill::kServerRPCNotificationCenter)->getServerPort(),
                  -1);
    }
    {
        auto server = ferrocore::makeShared<CDNSharedStorageServer>(storage(), host);
        EXPECT_EQ(ferrocore::makeShared<CDNSharedStorageClient>()->getServerPort(), -1);
    }
    int ended = 0;
    host.addObserver(
        &ended, [&](const quill::platform::CNotification&) { ++ended; },
        PLString::create(proto::kProcessTerminatedRequest).get(), nullptr);
    quill::CNFSSharedStorage::NewSubscriberClient(quill::kServerRPCNotificationCenter)->processTerminated(424242);
    EXPECT_TRUE(quilltest::runLoopUntil([&] { return ended == 1; }, 5.0));
    host.removeObserver(&ended);
    EXPECT_EQ(onUser, 0);
    user.removeObserver(&onUser);
}

}  // namespace
