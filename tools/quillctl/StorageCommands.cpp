// quillctl storage: the shared-storage request server and its clients.
//
//   storage serve [--clean-exports]
//       runs a request server (the NFS publisher and subscriber of this
//       host) until SIGTERM or Ctrl-C; prints "serving" once it observes.
//   storage publish PATH [--client NAME] [--pid PID]
//   storage unpublish PATH [--client NAME] [--pid PID]
//   storage subscribe HOST:PATH [MOUNTPOINT] [--client NAME] [--pid PID]
//   storage unsubscribe HOST:PATH [MOUNTPOINT] [--client NAME] [--pid PID]
//   storage port
//   storage list
//   storage terminated PID
//   storage subexport FILE
//   storage unsubexport URL [--owned]
// The client verbs send one request to the serving process and wait for its
// reply (--timeout seconds, 60 by default). PID is the process that holds the
// reference (default: this quillctl process). MOUNTPOINT defaults to the
// cluster's mount point for the client name.
// The server and its clients meet on the host-wide bus (the system bus, or
// the one DBUS_SYSTEM_BUS_ADDRESS names), so that a client of any user
// reaches a server that runs as root.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "Commands.h"
#include <ferrocore/CURL.h>
#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/platform/RunLoop.h>
#include <quillcore/storage/CDNSharedStorageClient.h>
#include <quillcore/storage/CNFSSharedStorage.h>
#include <quillcore/storage/CSharedStorageUtils.h>
#include <quillcore/storage/StorageProtocol.h>
#include <quillcore/util/PLUtil.h>

namespace quillctl {

namespace {

using ferrocore::CString;
using ferrocore::CURL;
using quill::platform::CRunLoop;
namespace proto = quill::storageprotocol;

struct ClientOptions {
    std::string client = "quillctl";
    long pid = 0;
    double timeout = 60.0;
};

struct LocationOptions : ClientOptions {
    std::string location;
    std::string mountPoint;
    std::string url;
    long terminatedPID = 0;
    bool owned = false;
};

// Waits for the reply of `id`; prints a time-out and returns false.
bool waitFor(quill::CDNSharedStorageClient& client, const std::string& id, double timeout,
             PLHolder<const PLDictionary>* reply = nullptr) {
    auto result = client.asyncWaitForReplyResult(id, timeout);
    if (!result) {
        printError("the storage server did not answer within " + std::to_string(static_cast<long>(timeout)) +
                   " seconds");
        return false;
    }
    if (reply) *reply = result;
    return true;
}

ferrocore::CURLRef localURL(const std::string& path) {
    return CURL::createWithPath(std::filesystem::absolute(path).lexically_normal().string(), true);
}

// "host:/path" as a remote location; null when it has no ":/".
ferrocore::CURLRef remoteURL(const std::string& location) {
    const auto colon = location.find(":/");
    if (colon == std::string::npos) return nullptr;
    const std::string host = location.substr(0, colon);
    if (host.find_first_of("/?#@ \t\\%") != std::string::npos) return nullptr;
    const std::string file = CURL::createWithPath(location.substr(colon + 1), false)->text();
    return CURL::create("nfs://" + host + file.substr(std::string("file://").size()));
}

std::string mountPointFor(const LocationOptions& options) {
    if (!options.mountPoint.empty()) return std::filesystem::absolute(options.mountPoint).lexically_normal().string();
    return quill::CSharedStorageUtils::subscribedSharedURL(CString::create(options.client))->fileSystemPath()->utf8();
}

int publishVerb(const LocationOptions& options, bool publish) {
    auto client = ferrocore::makeShared<quill::CDNSharedStorageClient>(quill::platform::hostNotificationCenter());
    const auto url = localURL(options.location);
    const auto name = CString::create(options.client);
    const std::string id =
        publish ? client->asyncPublish(url, name, options.pid) : client->asyncUnpublish(url, name, options.pid);
    return waitFor(*client, id, options.timeout) ? 0 : 1;
}

int subscribeVerb(const LocationOptions& options, bool subscribe) {
    const auto url = remoteURL(options.location);
    if (!url) {
        printError("not a location of the form HOST:/PATH: " + options.location);
        return 2;
    }
    auto client = ferrocore::makeShared<quill::CDNSharedStorageClient>(quill::platform::hostNotificationCenter());
    const auto point = CString::create(mountPointFor(options));
    const auto name = CString::create(options.client);
    const std::string id = subscribe ? client->asyncSubscribe(url, point, name, options.pid)
                                     : client->asyncUnsubscribe(url, point, name, options.pid);
    if (!waitFor(*client, id, options.timeout)) return 1;
    if (subscribe) std::printf("%s\n", point->c_str());
    return 0;
}

int portVerb(const ClientOptions& options) {
    auto client = ferrocore::makeShared<quill::CDNSharedStorageClient>(quill::platform::hostNotificationCenter());
    PLHolder<const PLDictionary> reply;
    if (!waitFor(*client, client->asyncGetServerPort(CString::create("corvane")), options.timeout, &reply)) return 1;
    const auto* port = PLDynamicCast<PLNumber>(reply->get(std::string_view(proto::kServerPortKey)));
    std::printf("%lld\n", port ? static_cast<long long>(port->int64Value()) : 0LL);
    return 0;
}

std::string describeClients(const PLObject* clients) {
    std::string out;
    const auto* dict = PLDynamicCast<PLDictionary>(clients);
    if (!dict) return out;
    for (const auto& [key, value] : dict->entries()) {
        const auto* name = PLDynamicCast<PLString>(key.get());
        const auto* pids = PLDynamicCast<PLArray>(value.get());
        out += ' ';
        out += name ? name->str() : std::string("?");
        out += "=[";
        for (std::size_t i = 0; pids && i < pids->count(); ++i) {
            const auto* pid = PLDynamicCast<PLNumber>(pids->at(i));
            if (i) out += ',';
            out += std::to_string(pid ? pid->int64Value() : 0);
        }
        out += "]";
    }
    return out;
}

void printMap(const char* label, const PLObject* map) {
    const auto* dict = PLDynamicCast<PLDictionary>(map);
    if (!dict) return;
    for (const auto& [key, value] : dict->entries()) {
        const auto* path = PLDynamicCast<PLString>(key.get());
        const auto* entry = PLDynamicCast<PLDictionary>(value.get());
        if (!path || !entry) continue;
        const auto* count = PLDynamicCast<PLNumber>(entry->get(std::string_view(proto::kRefCountKey)));
        const auto* from = PLDynamicCast<PLString>(entry->get(std::string_view(proto::kExportURLKey)));
        std::printf("%s\t%s\t%s%lld\t%s\n", label, path->c_str(), from ? (from->str() + "\t").c_str() : "",
                    count ? static_cast<long long>(count->int64Value()) : 0LL,
                    describeClients(entry->get(std::string_view(proto::kClientsKey))).c_str() + 1);
    }
}

int listVerb(const ClientOptions& options) {
    auto client = ferrocore::makeShared<quill::CDNSharedStorageClient>(quill::platform::hostNotificationCenter());
    PLHolder<const PLDictionary> reply;
    if (!waitFor(*client, client->asyncList(CString::create(options.client)), options.timeout, &reply)) return 1;
    printMap("published", reply->get(std::string_view(proto::kPublishedMapKey)));
    printMap("subscribed", reply->get(std::string_view(proto::kSubscribedMapKey)));
    return 0;
}

int terminatedVerb(long pid) {
    auto client = ferrocore::makeShared<quill::CDNSharedStorageClient>(quill::platform::hostNotificationCenter());
    client->processTerminated(pid);
    quill::platform::hostNotificationCenter().flush(2.0);
    return 0;
}

int stopPipe[2] = {-1, -1};

void requestStop(int) {
    const int saved = errno;
    [[maybe_unused]] const auto written = ::write(stopPipe[1], "x", 1);
    errno = saved;
}

int serveVerb(bool cleanExports) {
    // SIGTERM and Ctrl-C end the server between two requests. A handler that
    // writes to a pipe, not blocked signals and a signalfd: the mount
    // commands the server starts would inherit a blocked mask and could then
    // not be stopped when they hang.
    if (::pipe2(stopPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        printError("can't watch for SIGTERM");
        return 1;
    }
    struct sigaction action {};
    action.sa_handler = requestStop;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    auto publisher = ferrocore::makeShared<quill::CNFSSharedStoragePublisher>();
    if (cleanExports) publisher->cleanExports();
    auto subscriber = ferrocore::makeShared<quill::CNFSSharedStorageSubscriber>();
    auto server = quill::CNFSSharedStorage::NewServer(publisher, subscriber, quill::kServerRPCNotificationCenter);

    CRunLoop& loop = CRunLoop::current();
    bool done = false;
    auto stopSource = loop.addFileDescriptorSource(stopPipe[0], CRunLoop::kReadable, [&](int, unsigned) {
        done = true;
        loop.stop();
    });
    std::printf("serving\n");
    std::fflush(stdout);
    while (!done) loop.runFor(3600.0);
    // Stop observing first: requests still queued are dropped unanswered.
    server->unregisterForNotifications();
    quill::platform::hostNotificationCenter().flush(2.0);
    stopSource.remove();
    return 0;
}

void addClientOptions(CLI::App* verb, ClientOptions& options, bool holder) {
    verb->add_option("--timeout", options.timeout, "Seconds to wait for the server's reply")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    if (!holder) return;
    verb->add_option("--client", options.client, "Client name under which the reference is counted")
        ->capture_default_str();
    verb->add_option("--pid", options.pid, "Process that holds the reference (default: this one)");
}

void addStorageCommands(CLI::App& app) {
    CLI::App* storage = app.add_subcommand("storage", "Shared storage: the request server and its clients");
    storage->require_subcommand(1);

    CLI::App* serve = storage->add_subcommand("serve", "Run the storage request server until SIGTERM");
    auto clean = std::make_shared<bool>(false);
    serve->add_flag("--clean-exports", *clean, "Remove the cluster's lines from the exports file first");
    setAction(serve, [clean] { return serveVerb(*clean); });

    for (const bool on : {true, false}) {
        auto options = std::make_shared<LocationOptions>();
        CLI::App* verb = storage->add_subcommand(on ? "publish" : "unpublish",
                                                 on ? "Export a local directory" : "Give back one export reference");
        verb->add_option("path", options->location, "Local directory")->required();
        addClientOptions(verb, *options, true);
        setAction(verb, [options, on] { return publishVerb(*options, on); });
    }
    for (const bool on : {true, false}) {
        auto options = std::make_shared<LocationOptions>();
        CLI::App* verb = storage->add_subcommand(on ? "subscribe" : "unsubscribe",
                                                 on ? "Mount another host's export" : "Give back one mount reference");
        verb->add_option("location", options->location, "HOST:/PATH of the export")->required();
        verb->add_option("mountpoint", options->mountPoint, "Local mount point");
        addClientOptions(verb, *options, true);
        setAction(verb, [options, on] { return subscribeVerb(*options, on); });
    }
    auto portOptions = std::make_shared<ClientOptions>();
    CLI::App* port = storage->add_subcommand("port", "Print the NFS server port the server reports");
    addClientOptions(port, *portOptions, false);
    setAction(port, [portOptions] { return portVerb(*portOptions); });

    auto listOptions = std::make_shared<ClientOptions>();
    CLI::App* list = storage->add_subcommand("list", "Print the server's exports and mounts with their holders");
    addClientOptions(list, *listOptions, false);
    setAction(list, [listOptions] { return listVerb(*listOptions); });

    auto terminatedOptions = std::make_shared<LocationOptions>();
    CLI::App* terminated = storage->add_subcommand("terminated", "Tell the server that a process has ended");
    terminated->add_option("pid", terminatedOptions->terminatedPID, "The ended process")->required();
    setAction(terminated, [terminatedOptions] { return terminatedVerb(terminatedOptions->terminatedPID); });

    auto subOptions = std::make_shared<LocationOptions>();
    CLI::App* subexport = storage->add_subcommand("subexport", "Make one file reachable by the cluster");
    subexport->add_option("file", subOptions->location, "The file")->required();
    setAction(subexport, [subOptions] {
        const auto file = CURL::createWithPath(std::filesystem::absolute(subOptions->location).string(), false);
        std::printf("%s\n", quill::CSharedStorageUtils::beginSubexport(file)->text().c_str());
        return 0;
    });

    auto unsubOptions = std::make_shared<LocationOptions>();
    CLI::App* unsubexport = storage->add_subcommand("unsubexport", "End a sub-export");
    unsubexport->add_option("url", unsubOptions->url, "The URL subexport printed")->required();
    unsubexport->add_flag("--owned", unsubOptions->owned, "Release as this process rather than an unknown one");
    setAction(unsubexport, [unsubOptions] {
        const auto url = CURL::create(unsubOptions->url);
        if (!url) {
            printError("not a URL: " + unsubOptions->url);
            return 2;
        }
        quill::CSharedStorageUtils::endSubexport(url, unsubOptions->owned);
        return 0;
    });
}

}  // namespace

QUILLCTL_COMMANDS(addStorageCommands);

}  // namespace quillctl
