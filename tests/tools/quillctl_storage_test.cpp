// quillctl storage: a request server and its clients in separate processes on
// a private system-style bus (the host-wide bus they use), with a stand-in
// mount command and a temporary exports file.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "quillcore/storage/ExportsFileSyntax.h"
#include "support/NotificationBus.h"
#include "support/StorageFixtures.h"
#include "support/TestSupport.h"
#include "tools/QuillctlTest.h"
#include <ferrocore/CURL.h>
#include <quillcore/platform/Host.h>
#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/storage/CSharedStorageUtils.h>
#include <quillcore/storage/StorageProtocol.h>

namespace {

using quilltest::PeerProcess;
using quilltest::ScopedEnv;
using testing::HasSubstr;
namespace proto = quill::storageprotocol;

class QuillctlStorage : public quilltest::QuillctlTest {
protected:
    void SetUp() override {
        QuillctlTest::SetUp();
        if (IsSkipped()) return;
        // Other notifications of quillctl stay on the test's own session bus.
        quilltest::privateBusAddress();
        quilltest::writeFile(_exports, "/foreign/line 10.0.0.0/8(ro)\n");
        startServer();
    }

    void TearDown() override {
        if (_server && !_server->finished()) {
            ::kill(_server->pid(), SIGTERM);
            EXPECT_EQ(_server->wait(20.0), 0) << _server->output();
        }
    }

    void startServer() {
        _server = std::make_unique<PeerProcess>(std::vector<std::string>{"storage", "serve"}, _tool);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (_server->output().find("serving") == std::string::npos && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        // Observing is in force once a request is answered.
        for (int attempt = 0; attempt < 20; ++attempt)
            if (storage({"port", "--timeout", "1"}).exitCode == 0) return;
        FAIL() << "the server never answered: " << _server->output();
    }

    quilltest::CommandResult storage(std::vector<std::string> args) const {
        args.insert(args.begin(), "storage");
        return run(args);
    }
    // A client of the server running on its own (for concurrent requests).
    std::unique_ptr<PeerProcess> startClient(std::vector<std::string> args) const {
        args.insert(args.begin(), "storage");
        return std::make_unique<PeerProcess>(args, _tool);
    }
    std::string exportsFile() const { return quilltest::readFile(_exports); }
    std::string line(const std::string& path) const { return path + " " + quill::platform::kExportOptions; }
    std::string dir(const std::string& name) const { return (_dir / name).string(); }

    quilltest::PrivateSystemBus _bus;
    ScopedEnv _systemBus{"DBUS_SYSTEM_BUS_ADDRESS", _bus.address()};
    quilltest::TempDir _dir{"storage"};
    quilltest::StandInMount _stand;
    std::string _exports = (_dir / "exports").string();
    ScopedEnv _exportsVariable{quill::platform::kExportsFilePathVariable, _exports};
    ScopedEnv _mount{quill::platform::kMountPathVariable, _stand.mountPath()};
    ScopedEnv _umount{quill::platform::kUmountPathVariable, _stand.umountPath()};
    ScopedEnv _limit{quill::platform::kCommandTimeLimitVariable, "2"};
    ScopedEnv _options{quill::platform::kExportOptionsVariable, std::nullopt};
    std::unique_ptr<PeerProcess> _server;
};

TEST_F(QuillctlStorage, ClientsPublishSubscribeListAndTheServerStopsCleanly) {
    const std::string shared = dir("shared dir");
    const std::string point = dir("mnt");
    ASSERT_EQ(storage({"publish", shared, "--client", "A", "--timeout", "10"}).exitCode, 0);
    auto subscribed = storage({"subscribe", "fileserver:/export/x", point, "--client", "A", "--pid", "77"});
    ASSERT_EQ(subscribed.exitCode, 0) << subscribed.err;
    EXPECT_EQ(subscribed.out, point + "\n");
    EXPECT_EQ(exportsFile(),
              "/foreign/line 10.0.0.0/8(ro)\n" + line(quill::storage::exportsfile::escapePath(shared)) + "\n");
    ASSERT_EQ(_stand.runs().size(), 1u);
    EXPECT_EQ(_stand.runs()[0], (std::vector<std::string>{_stand.mountPath(), "-o", "soft,intr,locallocks",
                                                          "fileserver:/export/x", point}));

    const auto listed = storage({"list", "--timeout", "10"});
    ASSERT_EQ(listed.exitCode, 0);
    EXPECT_THAT(listed.out, HasSubstr("published\t" + shared + "\t1\tA=["));
    EXPECT_THAT(listed.out, HasSubstr("subscribed\t" + point + "\tnfs://fileserver/export/x\t1\tA=[77]"));

    const auto refused = storage({"unpublish", dir("never"), "--timeout", "10"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_THAT(refused.err, HasSubstr("entry [" + dir("never") + "] not present in publishedMap"));
    EXPECT_EQ(storage({"subscribe", "no-host-here"}).exitCode, 2);
    EXPECT_EQ(storage({"port", "--timeout", "10"}).out, "-1\n");

    ::kill(_server->pid(), SIGTERM);
    EXPECT_EQ(_server->wait(20.0), 0);
    const auto unanswered = storage({"port", "--timeout", "1"});
    EXPECT_EQ(unanswered.exitCode, 1);
    EXPECT_THAT(unanswered.err, HasSubstr("did not answer"));
}

TEST_F(QuillctlStorage, AHungMountDelaysButNeverBlocksLaterRequests) {
    _stand.hangOn("hang");
    auto hung = startClient({"subscribe", "fileserver:/hang", dir("m1"), "--timeout", "30"});
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    auto later = startClient({"publish", dir("later"), "--timeout", "30"});
    // A client killed while its request waits behind the hung mount: the
    // request is still carried out, its reply goes to nobody.
    auto killed = startClient({"subscribe", "fileserver:/gone", dir("m2"), "--client", "K", "--timeout", "30"});
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ::kill(killed->pid(), SIGKILL);
    EXPECT_EQ(killed->wait(10.0), 128 + SIGKILL);
    EXPECT_EQ(hung->wait(40.0), 1);
    EXPECT_THAT(hung->output(), HasSubstr("command [" + _stand.mountPath() + " fileserver:/hang] timed out"));
    EXPECT_EQ(later->wait(40.0), 0) << later->output();
    EXPECT_THAT(exportsFile(), HasSubstr(line(dir("later"))));
    const auto listed = storage({"list", "--timeout", "10"});
    EXPECT_THAT(listed.out, HasSubstr("subscribed\t" + dir("m2") + "\tnfs://fileserver/gone\t1\tK=[" +
                                      std::to_string(killed->pid()) + "]"));
    EXPECT_EQ(_stand.mounted(), std::vector<std::string>{dir("m2")});
    // The host reports the killed client's end: its mount goes.
    EXPECT_EQ(storage({"terminated", std::to_string(killed->pid())}).exitCode, 0);
    EXPECT_EQ(storage({"port", "--timeout", "10"}).exitCode, 0);
    EXPECT_TRUE(_stand.mounted().empty());
}

TEST_F(QuillctlStorage, ReferencesOfKilledProcessesFollowTheCountingRules) {
    // The holders: processes whose IDs the references name.
    std::vector<std::unique_ptr<PeerProcess>> holders;
    for (int i = 0; i < 5; ++i)
        holders.push_back(std::make_unique<PeerProcess>(std::vector<std::string>{"300"}, "/bin/sleep"));
    const std::string location = dir("loc");
    const std::string point = dir("mnt");
    std::vector<std::unique_ptr<PeerProcess>> clients;
    for (int i = 0; i < 5; ++i) {
        const std::string pid = std::to_string(holders[i]->pid());
        const std::string client = i % 2 ? "A" : "B";
        clients.push_back(startClient({"publish", location, "--client", client, "--pid", pid, "--timeout", "30"}));
        clients.push_back(
            startClient({"subscribe", "fileserver:/x", point, "--client", client, "--pid", pid, "--timeout", "30"}));
    }
    for (auto& client : clients) EXPECT_EQ(client->wait(40.0), 0) << client->output();
    EXPECT_EQ(_stand.runs().size(), 1u);  // one mount for all
    EXPECT_THAT(storage({"list", "--timeout", "10"}).out, HasSubstr("published\t" + location + "\t5\t"));

    // Three holders die; the host tells the server.
    for (int i = 0; i < 3; ++i) {
        ::kill(holders[i]->pid(), SIGKILL);
        holders[i]->wait(10.0);
        EXPECT_EQ(storage({"terminated", std::to_string(holders[i]->pid())}).exitCode, 0);
    }
    // Observed through a later request: the server handles requests in order.
    const auto listed = storage({"list", "--timeout", "10"}).out;
    EXPECT_THAT(listed, HasSubstr("subscribed\t" + point + "\tnfs://fileserver/x\t2\t"));
    // An export with clients keeps its references when a process ends.
    EXPECT_THAT(listed, HasSubstr("published\t" + location + "\t5\t"));
    EXPECT_EQ(_stand.mounted(), std::vector<std::string>{point});

    for (int i = 3; i < 5; ++i) {
        const std::string pid = std::to_string(holders[i]->pid());
        const std::string client = i % 2 ? "A" : "B";
        EXPECT_EQ(storage({"unsubscribe", "fileserver:/x", point, "--client", client, "--pid", pid}).exitCode, 0);
        EXPECT_EQ(storage({"unpublish", location, "--client", client, "--pid", pid}).exitCode, 0);
    }
    EXPECT_TRUE(_stand.mounted().empty());                  // nobody holds the mount any more
    EXPECT_THAT(exportsFile(), HasSubstr(line(location)));  // the dead still hold the export
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(exportsFile(), HasSubstr(line(location)));
        EXPECT_EQ(
            storage({"unpublish", location, "--client", i % 2 ? "A" : "B", "--pid", std::to_string(holders[i]->pid())})
                .exitCode,
            0);
    }
    EXPECT_EQ(exportsFile(), "/foreign/line 10.0.0.0/8(ro)\n");
    EXPECT_TRUE(storage({"list", "--timeout", "10"}).out.empty());
}

TEST_F(QuillctlStorage, SubExportsLinkPublishAndTidyUp) {
    const auto dirPath = std::filesystem::canonical(_dir.path()) / "media";
    std::filesystem::create_directory(dirPath);
    quilltest::writeFile(dirPath / "clip.mov", "frames");
    const std::string sub = (dirPath / ".cvsubexp").string();

    // Through the verbs: the link, its URL with the server's port, and back.
    const auto begun = storage({"subexport", (dirPath / "clip.mov").string()});
    ASSERT_EQ(begun.exitCode, 0) << begun.err;
    EXPECT_EQ(begun.out, "file://" + sub + "/clip.mov?port=-1\n");
    EXPECT_TRUE(std::filesystem::exists(sub + "/clip.mov"));
    EXPECT_FALSE(std::filesystem::exists(dirPath / ".cvlock"));  // unlinked at once
    EXPECT_THAT(exportsFile(), HasSubstr(line(sub)));
    ASSERT_EQ(storage({"unsubexport", begun.out.substr(0, begun.out.size() - 1)}).exitCode, 0);
    EXPECT_FALSE(std::filesystem::exists(sub));
    EXPECT_EQ(exportsFile(), "/foreign/line 10.0.0.0/8(ro)\n");

    // In this process: the same file twice gets a second name, once.
    const auto file = ferrocore::CURL::createWithPath((dirPath / "clip.mov").string(), false);
    const auto first = quill::CSharedStorageUtils::beginSubexport(file);
    const auto second = quill::CSharedStorageUtils::beginSubexport(file);
    EXPECT_EQ(first->text(), "file://" + sub + "/clip.mov?port=-1");
    const std::string secondPath = second->fileSystemPath()->utf8();
    EXPECT_THAT(secondPath, testing::MatchesRegex(".*/\\.cvsubexp/clip[A-Za-z0-9]{6}\\.mov"));
    EXPECT_EQ(quilltest::readFile(secondPath), "frames");
    EXPECT_EQ(quilltest::consoleLinesWith("link() failed: file " + sub +
                                          "/clip.mov already exists, trying to link again as " + secondPath + ".")
                  .size(),
              1u);

    // The "._" companion is named from the URL's text form, so a companion
    // file beside the link stays; and so does the directory that holds it.
    quilltest::writeFile(sub + "/._clip.mov", "resource");
    quill::CSharedStorageUtils::endSubexport(first, false);
    EXPECT_FALSE(std::filesystem::exists(sub + "/clip.mov"));
    EXPECT_TRUE(std::filesystem::exists(sub + "/._clip.mov"));
    EXPECT_TRUE(std::filesystem::exists(secondPath));  // another link remains: the directory stays
    EXPECT_THAT(exportsFile(), HasSubstr(line(sub)));
    quill::CSharedStorageUtils::endSubexport(second, false);
    EXPECT_TRUE(std::filesystem::exists(sub + "/._clip.mov"));
    EXPECT_EQ(exportsFile(), "/foreign/line 10.0.0.0/8(ro)\n");
}

// Raw requests posted from this process, the way any program on the bus can.
TEST_F(QuillctlStorage, BadRequestsGetAnErrorOrNoReplyAndChangeNothing) {
    quill::platform::CNotificationCenter center{
        quill::platform::makeDBusNotificationTransport(quill::platform::NotificationBus::HostWide)};
    std::vector<PLHolder<const PLDictionary>> replies;
    int token = 0;
    for (const char* name : {proto::kPublishReply, proto::kSubscribeReply, proto::kGetServerPortReply})
        center.addObserver(
            &token, [&](const quill::platform::CNotification& n) { replies.push_back(n.userInfo); },
            PLString::create(name).get(), nullptr);
    auto post = [&](const char* name, std::vector<std::pair<std::string, PLHolder<const PLObject>>> entries) {
        auto payload = PLMutableDictionary::create();
        for (auto& [key, value] : entries) payload->set(PLString::create(key), value);
        center.post(PLString::create(name).get(), PLString::create("T").get(), payload.get());
    };
    auto str = [](const std::string& s) -> PLHolder<const PLObject> { return PLString::create(s); };
    auto num = [](std::int64_t n) -> PLHolder<const PLObject> { return PLNumber::create(n); };
    auto reply = [&](const std::string& id) -> PLHolder<const PLDictionary> {
        for (auto& r : replies) {
            const auto* rid = r ? PLDynamicCast<PLString>(r->get(std::string_view("requestID"))) : nullptr;
            if (rid && rid->str() == id) return r;
        }
        return nullptr;
    };
    // Our own observation is in force once our request gets its reply.
    for (int attempt = 0; attempt < 20 && !reply("warm"); ++attempt) {
        post(proto::kGetServerPortRequest, {{"sender", str("T")}, {"requestID", str("warm")}});
        quilltest::runLoopUntil([&] { return static_cast<bool>(reply("warm")); }, 1.0);
    }
    ASSERT_TRUE(reply("warm"));

    const std::string before = exportsFile();
    post(proto::kPublishRequest, {{"sender", str("T")}, {"requestID", str("nopid")}, {"storageURL", str(dir("a"))}});
    post(proto::kPublishRequest,
         {{"sender", str("T")}, {"requestID", str("strpid")}, {"pid", str("1")}, {"storageURL", str(dir("a"))}});
    post(proto::kSubscribeRequest,
         {{"sender", str("T")}, {"requestID", str("nolocal")}, {"pid", num(1)}, {"storageURL", str("/x")}});
    post(proto::kPublishRequest, {{"requestID", str("nosender")}, {"pid", num(1)}, {"storageURL", str(dir("a"))}});
    post("CorvaneSharedStorageSomethingElse2", {{"sender", str("T")}, {"requestID", str("unknown")}});
    post(proto::kProcessTerminatedRequest, {});
    post(proto::kPublishRequest, {{"sender", str("T")},
                                  {"requestID", str("huge")},
                                  {"pid", num(1)},
                                  {"storageURL", str("/" + std::string(2 << 20, 'h'))}});
    ASSERT_TRUE(quilltest::runLoopUntil(
        [&] { return reply("nopid") && reply("strpid") && reply("nolocal") && reply("huge"); }, 20.0));
    auto message = [&](const char* id) {
        const auto* m = PLDynamicCast<PLString>(reply(id)->get(std::string_view("exceptionMessage")));
        return m ? m->str() : std::string();
    };
    EXPECT_EQ(message("nopid"), "kPIDKey");
    EXPECT_EQ(message("strpid"), "kPIDKey");
    EXPECT_EQ(message("nolocal"), "kStorageLocalPathKey");
    const auto* result = PLDynamicCast<PLNumber>(reply("huge")->get(std::string_view("result")));
    ASSERT_TRUE(result);
    EXPECT_EQ(result->int64Value(), -1);
    // Requests are answered in order: once a later one is, the silent ones were seen.
    post(proto::kGetServerPortRequest, {{"sender", str("T")}, {"requestID", str("last")}});
    ASSERT_TRUE(quilltest::runLoopUntil([&] { return static_cast<bool>(reply("last")); }, 10.0));
    EXPECT_FALSE(reply("nosender"));
    EXPECT_FALSE(reply("unknown"));
    EXPECT_EQ(exportsFile(), before);
    EXPECT_TRUE(_stand.runs().empty());
    center.removeObserver(&token);
}

// Clients are ordinary users' programs and the server runs as root: a
// client of another user gets its requests carried out and answered. The
// session bus of the test (root's) is out of that client's reach, so only the
// host-wide bus can carry them.
TEST_F(QuillctlStorage, AClientOfAnotherUserIsAnsweredByTheServerRunningAsRoot) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to run a client as nobody";
    if (::access("/usr/bin/setpriv", X_OK) != 0) GTEST_SKIP() << "needs /usr/bin/setpriv to run a client as nobody";
    auto asNobody = [&](std::vector<std::string> args) {
        args.insert(args.begin(), {"--reuid=nobody", "--regid=nogroup", "--clear-groups", _tool, "storage"});
        PeerProcess client(args, "/usr/bin/setpriv");
        const int status = client.wait(40.0);
        return std::make_pair(status, client.output());
    };
    const std::string shared = dir("fromnobody");
    const std::string point = dir("nobodymnt");
    const auto published = asNobody({"publish", shared, "--client", "N", "--pid", "4242", "--timeout", "20"});
    ASSERT_EQ(published.first, 0) << published.second;
    EXPECT_THAT(exportsFile(), HasSubstr(line(shared)));
    const auto subscribed =
        asNobody({"subscribe", "fileserver:/export/n", point, "--client", "N", "--pid", "4242", "--timeout", "20"});
    ASSERT_EQ(subscribed.first, 0) << subscribed.second;
    EXPECT_EQ(_stand.mounted(), std::vector<std::string>{point});
    // The answer carries the server's maps back to that user.
    const auto listed = asNobody({"list", "--timeout", "20"});
    ASSERT_EQ(listed.first, 0) << listed.second;
    EXPECT_THAT(listed.second, HasSubstr("published\t" + shared + "\t1\tN=[4242]"));
    EXPECT_THAT(listed.second, HasSubstr("subscribed\t" + point + "\tnfs://fileserver/export/n\t1\tN=[4242]"));
    // And a refusal reaches it too, as an error.
    const auto refused = asNobody({"unpublish", dir("never"), "--client", "N", "--timeout", "20"});
    EXPECT_EQ(refused.first, 1);
    EXPECT_THAT(refused.second, HasSubstr("not present in publishedMap"));

    EXPECT_EQ(asNobody({"unsubscribe", "fileserver:/export/n", point, "--client", "N", "--pid", "4242"}).first, 0);
    EXPECT_EQ(asNobody({"unpublish", shared, "--client", "N", "--pid", "4242"}).first, 0);
    EXPECT_TRUE(_stand.mounted().empty());
    EXPECT_EQ(exportsFile(), "/foreign/line 10.0.0.0/8(ro)\n");
}

}  // namespace
