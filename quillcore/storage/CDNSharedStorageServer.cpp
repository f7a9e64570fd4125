#include "quillcore/storage/StorageText.h"
#include <ferrocore/Format.h>
#include <quillcore/storage/CDNSharedStorageServer.h>
#include <quillcore/storage/StorageProtocol.h>
#include <quillcore/util/PLUtil.h>

namespace quill {

using ferrocore::CString;
using ferrocore::CStringRef;
using ferrocore::formatString;
namespace proto = storageprotocol;

namespace {

constexpr const char* kRequestNames[] = {
    proto::kPublishRequest,     proto::kUnpublishRequest,     proto::kSubscribeRequest,
    proto::kUnsubscribeRequest, proto::kGetServerPortRequest, proto::kProcessTerminatedRequest,
    proto::kListRequest,
};

const char* handlerNameFor(proto::RequestKind kind) {
    switch (kind) {
        case proto::RequestKind::Publish:
        case proto::RequestKind::Unpublish: return "publishNotification";
        case proto::RequestKind::Subscribe:
        case proto::RequestKind::Unsubscribe: return "subscribeNotification";
        case proto::RequestKind::GetServerPort: return "getServerPortNotification";
        case proto::RequestKind::ProcessTerminated: return "processTerminatedNotification";
        case proto::RequestKind::List: return "listNotification";
    }
    return "unknownNotification";
}

PLHolder<const PLString> key(const char* text) { return PLString::create(text); }

// The location of a subscribe request: the exporting host (when given) and
// the exported path.
CURLRef remoteURL(const proto::CStorageRequest& request) {
    const CURLRef local = ferrocore::CURL::createWithPath(request.storagePath, false);
    if (request.storageHost.empty()) return local;
    const std::string& text = local->text();
    const CURLRef remote = ferrocore::CURL::create("nfs://" + request.storageHost + text.substr(text.find("//") + 2));
    if (!remote) throw ISharedStorageException(kSharedStorageRequestError, 7, "kStorageHostKey");
    return remote;
}

PLHolder<const PLNumber> number(std::int64_t value) { return PLNumber::create(value); }

}  // namespace

CDNSharedStorageServer::CDNSharedStorageServer(ISharedStorageRef storage, platform::CNotificationCenter& center)
    : _storage(std::move(storage)), _center(center) {
    if (!_storage) throw ferrocore::CNullPointerException("Error: storage is null!");
    for (const char* name : kRequestNames) {
        _center.addObserver(
            this,
            [this](const platform::CNotification& notification) {
                const auto kind = proto::requestKindForName(notification.name ? notification.name->utf8() : "");
                if (!kind) return;
                handle(handlerNameFor(*kind), notification);
            },
            PLString::create(name).get(), nullptr);
    }
    _observing = true;
}

CDNSharedStorageServer::~CDNSharedStorageServer() { unregisterForNotifications(); }

void CDNSharedStorageServer::unregisterForNotifications() {
    if (!_observing) return;
    _center.removeObserver(this);
    _observing = false;
}

std::optional<CDNSharedStorageServer::CReply> CDNSharedStorageServer::handleRequest(std::string_view name,
                                                                                    PLDictionaryRef payload) {
    const auto kind = proto::requestKindForName(name);
    if (!kind) return std::nullopt;  // not ours: ignored without a reply
    const char* handlerName = handlerNameFor(*kind);
    proto::CStorageRequest request;
    auto reply = PLUtil::PLDictMakeMutable();
    bool failed = false;
    try {
        proto::decodeRequest(*kind, payload, request);
        const CStringRef sender = CString::create(request.sender);
        switch (*kind) {
            case proto::RequestKind::Publish:
            case proto::RequestKind::Unpublish: {
                if (request.storagePath.empty() || request.storagePath.front() != '/')
                    throw ferrocore::CParamException(
                        formatString("storageURL [%@] is not an absolute path", request.storagePath));
                const CURLRef url = ferrocore::CURL::createWithPath(request.storagePath, false);
                if (*kind == proto::RequestKind::Publish)
                    _storage->publish(url, sender, request.pid);
                else
                    _storage->unpublish(url, sender, request.pid);
                break;
            }
            case proto::RequestKind::Subscribe:
            case proto::RequestKind::Unsubscribe: {
                if (request.storagePath.empty() || request.storagePath.front() != '/' || request.localPath.empty() ||
                    request.localPath.front() != '/')
                    throw ferrocore::CParamException(
                        formatString("storageURL [%@] or storageLocalPath [%@] is not "
                                     "an absolute path",
                                     request.storagePath, request.localPath));
                const CURLRef url = remoteURL(request);
                const CStringRef localPath = CString::create(request.localPath);
                if (*kind == proto::RequestKind::Subscribe)
                    _storage->subscribe(url, localPath, sender, request.pid);
                else
                    _storage->unsubscribe(url, localPath, sender, request.pid);
                break;
            }
            case proto::RequestKind::GetServerPort: {
                const long port = _storage->getServerPort();
                PLUtil::PLDictSet(reply.get(), key(proto::kServerPortKey).get(), number(port).get());
                break;
            }
            case proto::RequestKind::ProcessTerminated: _storage->processTerminated(request.pid); break;
            case proto::RequestKind::List:
                PLUtil::PLDictSet(reply.get(), key(proto::kPublishedMapKey).get(),
                                  describePublishedMap(_storage->getPublishedMap()).get());
                PLUtil::PLDictSet(reply.get(), key(proto::kSubscribedMapKey).get(),
                                  describeSubscribedMap(_storage->getSubscribedMap()).get());
                break;
        }
    } catch (const ISharedStorageException& e) {
        PLUtil::LogToConsole(formatString("CDNSharedStorageServer::%s: CException: %s", handlerName, e.what()).c_str());
        failed = true;
        PLUtil::PLDictSet(reply.get(), key(proto::kExceptionKindKey).get(), number(e.errorValue()).get());
        if (!e.message().empty())
            PLUtil::PLDictSetString(reply.get(), key(proto::kExceptionMessageKey).get(),
                                    PLString::create(e.message()).get());
    } catch (const ferrocore::CException& e) {
        PLUtil::LogToConsole(formatString("CDNSharedStorageServer::%s: CException: %s", handlerName, e.what()).c_str());
        failed = true;
        PLUtil::PLDictSet(reply.get(), key(proto::kExceptionKindKey).get(), number(e.kind()).get());
        if (!e.message().empty())
            PLUtil::PLDictSetString(reply.get(), key(proto::kExceptionMessageKey).get(),
                                    PLString::create(e.message()).get());
    } catch (...) {
        PLUtil::LogToConsole(formatString("CDNSharedStorageServer::%s: unknown exception", handlerName).c_str());
        failed = true;
    }
    // Nobody to answer: process-terminated requests, and requests that
    // cannot be addressed.
    const char* replyName = proto::replyNameFor(*kind);
    if (!replyName || !request.hasSender || !request.hasRequestID) return std::nullopt;
    if (failed) reply->remove(key(proto::kServerPortKey).get());
    PLUtil::PLDictSetString(reply.get(), key(proto::kSenderKey).get(), PLString::create(request.sender).get());
    PLUtil::PLDictSetString(reply.get(), key(proto::kRequestIDKey).get(), PLString::create(request.requestID).get());
    PLUtil::PLDictSetInt(reply.get(), key(proto::kResultKey).get(), failed ? -1 : 0);
    return CReply{replyName, std::move(reply)};
}

void CDNSharedStorageServer::handle(const char*, const platform::CNotification& notification) {
    try {
        auto reply = handleRequest(notification.name ? notification.name->utf8() : "", notification.userInfo.get());
        if (!reply) return;
        PLStringRef sender = nullptr;
        PLUtil::PLDictGetString(reply->payload.get(), key(proto::kSenderKey).get(), &sender);
        sendNotification(reply->name, sender ? sender->str() : std::string(), reply->payload.get());
    } catch (...) {
        PLUtil::LogToConsole("CDNSharedStorageServer: a request could not be answered");
    }
}

void CDNSharedStorageServer::publishNotification(const platform::CNotification& n) { handle("publishNotification", n); }
void CDNSharedStorageServer::subscribeNotification(const platform::CNotification& n) {
    handle("subscribeNotification", n);
}
void CDNSharedStorageServer::getServerPortNotification(const platform::CNotification& n) {
    handle("getServerPortNotification", n);
}
void CDNSharedStorageServer::processTerminatedNotification(const platform::CNotification& n) {
    handle("processTerminatedNotification", n);
}
void CDNSharedStorageServer::listNotification(const platform::CNotification& n) { handle("listNotification", n); }

void CDNSharedStorageServer::sendNotification(const std::string& name, const std::string& object,
                                              PLDictionaryRef payload) {
    _center.post(PLString::create(name).get(), PLString::create(object).get(), payload);
}

PLHolder<PLMutableDictionary> CDNSharedStorageServer::describePublishedMap(const PublishedMap& map) {
    auto described = PLUtil::PLDictMakeMutable();
    for (const auto& [path, entry] : map) {
        auto item = PLUtil::PLDictMakeMutable();
        PLUtil::PLDictSetInt(item.get(), key(proto::kRefCountKey).get(), entry.refCount());
        PLUtil::PLDictSet(item.get(), key(proto::kClientsKey).get(), entry.copyClients().get());
        PLUtil::PLDictSet(described.get(), PLString::create(path).get(), item.get());
    }
    return described;
}

PLHolder<PLMutableDictionary> CDNSharedStorageServer::describeSubscribedMap(const SubscribedMap& map) {
    auto described = PLUtil::PLDictMakeMutable();
    for (const auto& [mountPoint, entry] : map) {
        auto item = PLUtil::PLDictMakeMutable();
        PLUtil::PLDictSetInt(item.get(), key(proto::kRefCountKey).get(), entry.refCount());
        PLUtil::PLDictSet(item.get(), key(proto::kClientsKey).get(), entry.copyClients().get());
        if (entry.exportURL())
            PLUtil::PLDictSetString(item.get(), key(proto::kExportURLKey).get(),
                                    PLString::create(entry.exportURL()->text()).get());
        PLUtil::PLDictSet(described.get(), PLString::create(mountPoint).get(), item.get());
    }
    return described;
}

void CDNSharedStorageServer::publish(CURLRef url, ferrocore::CStringRef clientName, long pid) {
    _storage->publish(std::move(url), std::move(clientName), pid);
}
void CDNSharedStorageServer::unpublish(CURLRef url, ferrocore::CStringRef clientName, long pid) {
    _storage->unpublish(std::move(url), std::move(clientName), pid);
}
long CDNSharedStorageServer::getServerPort() { return _storage->getServerPort(); }
PublishedMap CDNSharedStorageServer::getPublishedMap() const { return _storage->getPublishedMap(); }
void CDNSharedStorageServer::subscribe(CURLRef url, ferrocore::CStringRef localPath, ferrocore::CStringRef clientName,
                                       long pid) {
    _storage->subscribe(std::move(url), std::move(localPath), std::move(clientName), pid);
}
void CDNSharedStorageServer::unsubscribe(CURLRef url, ferrocore::CStringRef localPath, ferrocore::CStringRef clientName,
                                         long pid) {
    _storage->unsubscribe(std::move(url), std::move(localPath), std::move(clientName), pid);
}
SubscribedMap CDNSharedStorageServer::getSubscribedMap() const { return _storage->getSubscribedMap(); }
void CDNSharedStorageServer::processTerminated(long pid) { _storage->processTerminated(pid); }

}  // namespace quill
