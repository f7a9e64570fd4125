#include "quillcore/storage/StorageText.h"
#include <ferrocore/CUUIDString.h>
#include <ferrocore/Format.h>
#include <quillcore/platform/Host.h>
#include <quillcore/storage/CDNSharedStorageClient.h>
#include <quillcore/storage/CSharedStorageUtils.h>
#include <quillcore/storage/StorageProtocol.h>
#include <quillcore/util/PLUtil.h>

namespace quill {

using ferrocore::CAutoMutex;
using ferrocore::CString;
using ferrocore::formatString;
using platform::host;
namespace proto = storageprotocol;

namespace {

constexpr const char* kReplyNames[] = {proto::kPublishReply,     proto::kUnpublishReply,     proto::kSubscribeReply,
                                       proto::kUnsubscribeReply, proto::kGetServerPortReply, proto::kListReply};

PLHolder<const PLString> key(const char* text) { return PLString::create(text); }

long effectivePID(long pid) { return pid == 0 ? static_cast<long>(host().processID()) : pid; }

PLHolder<PLMutableDictionary> basePayload(const ferrocore::CStringRef& sender, long pid) {
    auto payload = PLUtil::PLDictMakeMutable();
    PLUtil::PLDictSetString(payload.get(), key(proto::kSenderKey).get(), storage::plString(sender).get());
    PLUtil::PLDictSet(payload.get(), key(proto::kPIDKey).get(),
                      PLNumber::create(static_cast<std::int64_t>(effectivePID(pid))).get());
    return payload;
}

std::string urlPath(const CURLRef& url) {
    if (!url) throw ferrocore::CNullPointerException("Error: url is null!");
    return storage::utf8(url->fileSystemPath());
}

}  // namespace

CDNSharedStorageClient::CDNSharedStorageClient(platform::CNotificationCenter& center)
    : _pending(PLUtil::PLDictMakeMutable()), _replies(PLUtil::PLDictMakeMutable()), _center(center) {
    for (const char* name : kReplyNames)
        _center.addObserver(
            this, [this](const platform::CNotification& notification) { resultNotification(notification); },
            PLString::create(name).get(), nullptr);
    _observing = true;
}

CDNSharedStorageClient::~CDNSharedStorageClient() { unregisterForNotifications(); }

void CDNSharedStorageClient::unregisterForNotifications() {
    if (!_observing) return;
    _center.removeObserver(this);
    _observing = false;
}

void CDNSharedStorageClient::resultNotification(const platform::CNotification& notification) {
    PLStringRef requestID = nullptr;
    if (!notification.userInfo ||
        !PLUtil::PLDictGetString(notification.userInfo.get(), key(proto::kRequestIDKey).get(), &requestID))
        return;
    CAutoMutex lock(_mutex);
    // A reply nobody waits for (any more) is dropped.
    if (_pending->contains(requestID))
        _replies->set(PLHolder<const PLObject>::retain(requestID), notification.userInfo);
}

std::string CDNSharedStorageClient::post(const char* name, const ferrocore::CStringRef& sender,
                                         PLHolder<PLMutableDictionary> payload) {
    const std::string requestID = ferrocore::CUUIDString().str();
    const auto id = PLString::create(requestID);
    PLUtil::PLDictSetString(payload.get(), key(proto::kRequestIDKey).get(), id.get());
    {
        CAutoMutex lock(_mutex);
        _pending->set(id, payload);
    }
    _center.post(PLString::create(name).get(), storage::plString(sender).get(), payload.get());
    return requestID;
}

std::string CDNSharedStorageClient::asyncPublish(const CURLRef& url, const ferrocore::CStringRef& clientName,
                                                 long pid) {
    auto payload = basePayload(clientName, pid);
    PLUtil::PLDictSetString(payload.get(), key(proto::kStorageURLKey).get(), PLString::create(urlPath(url)).get());
    return post(proto::kPublishRequest, clientName, std::move(payload));
}

std::string CDNSharedStorageClient::asyncUnpublish(const CURLRef& url, const ferrocore::CStringRef& clientName,
                                                   long pid) {
    auto payload = basePayload(clientName, pid);
    PLUtil::PLDictSetString(payload.get(), key(proto::kStorageURLKey).get(), PLString::create(urlPath(url)).get());
    return post(proto::kUnpublishRequest, clientName, std::move(payload));
}

namespace {

PLHolder<PLMutableDictionary> subscribePayload(const CURLRef& url, const ferrocore::CStringRef& localPath,
                                               const ferrocore::CStringRef& clientName, long pid) {
    auto payload = basePayload(clientName, pid);
    PLUtil::PLDictSetString(payload.get(), key(proto::kStorageURLKey).get(), PLString::create(urlPath(url)).get());
    PLUtil::PLDictSetString(payload.get(), key(proto::kStorageLocalPathKey).get(), storage::plString(localPath).get());
    // The exporting host travels beside the path, which cannot carry it.
    const std::string host = storage::utf8(url->hostName());
    if (!host.empty())
        PLUtil::PLDictSetString(payload.get(), key(proto::kStorageHostKey).get(), PLString::create(host).get());
    return payload;
}

}  // namespace

std::string CDNSharedStorageClient::asyncSubscribe(const CURLRef& url, const ferrocore::CStringRef& localPath,
                                                   const ferrocore::CStringRef& clientName, long pid) {
    return post(proto::kSubscribeRequest, clientName, subscribePayload(url, localPath, clientName, pid));
}

std::string CDNSharedStorageClient::asyncUnsubscribe(const CURLRef& url, const ferrocore::CStringRef& localPath,
                                                     const ferrocore::CStringRef& clientName, long pid) {
    return post(proto::kUnsubscribeRequest, clientName, subscribePayload(url, localPath, clientName, pid));
}

std::string CDNSharedStorageClient::asyncGetServerPort(const ferrocore::CStringRef& sender) {
    return post(proto::kGetServerPortRequest, sender, basePayload(sender, 0));
}

std::string CDNSharedStorageClient::asyncList(const ferrocore::CStringRef& sender) {
    return post(proto::kListRequest, sender, basePayload(sender, 0));
}

PLHolder<const PLDictionary> CDNSharedStorageClient::waitForReply(const std::string& requestID, double timeoutSeconds) {
    if (timeoutSeconds < 0)
        timeoutSeconds = static_cast<double>(static_cast<long>(CSharedStorageUtils::requestTimeout()));
    const double deadline = host().currentTime() + timeoutSeconds;
    const auto id = PLString::create(requestID);
    PLHolder<const PLDictionary> reply;
    for (;;) {
        {
            CAutoMutex lock(_mutex);
            if (const auto* found = PLDynamicCast<PLDictionary>(_replies->get(id.get()))) {
                reply = PLHolder<const PLDictionary>::retain(found);
                _replies->remove(id.get());
                break;
            }
        }
        if (host().currentTime() >= deadline) break;
        CSharedStorageUtils::currentRunLoopRun(0.01);
    }
    {
        CAutoMutex lock(_mutex);
        _pending->remove(id.get());
        _replies->remove(id.get());
    }
    if (!reply) return reply;
    std::int32_t result = 0;
    PLTypeRef kind = nullptr;
    PLStringRef message = nullptr;
    if (PLUtil::PLDictGetInt(reply.get(), key(proto::kResultKey).get(), &result) && result != 0 &&
        PLUtil::PLDictGet(reply.get(), key(proto::kExceptionKindKey).get(), &kind) &&
        PLUtil::PLDictGetString(reply.get(), key(proto::kExceptionMessageKey).get(), &message)) {
        const PLNumber* number = PLDynamicCast<PLNumber>(kind);
        const std::int64_t value = number ? number->int64Value() : 0;
        if (ISharedStorageException::isStorageErrorValue(value))
            throw ISharedStorageException(static_cast<int>((value >> 16) & 0xFF),
                                          static_cast<std::uint8_t>((value >> 8) & 0xFF), message->str());
        throw ferrocore::CException(static_cast<int>(value), message->str());
    }
    return reply;
}

bool CDNSharedStorageClient::asyncWaitForReply(const std::string& requestID, double timeoutSeconds) {
    return static_cast<bool>(waitForReply(requestID, timeoutSeconds));
}

PLHolder<const PLDictionary> CDNSharedStorageClient::asyncWaitForReplyResult(const std::string& requestID,
                                                                             double timeoutSeconds) {
    return waitForReply(requestID, timeoutSeconds);
}

void CDNSharedStorageClient::waitOrThrow(const std::string& requestID, const char* timeoutKey,
                                         const std::string& argument) {
    if (asyncWaitForReply(requestID, -1)) return;
    throw ISharedStorageException(
        kSharedStoragePathError, 12,
        formatString(storage::utf8(ISharedStorage::localizedStringForKey(timeoutKey)), argument));
}

void CDNSharedStorageClient::publish(CURLRef url, ferrocore::CStringRef clientName, long pid) {
    waitOrThrow(asyncPublish(url, clientName, pid), "SharedStorageClient_publish_timed_out", url->text());
}

void CDNSharedStorageClient::unpublish(CURLRef url, ferrocore::CStringRef clientName, long pid) {
    waitOrThrow(asyncUnpublish(url, clientName, pid), "SharedStorageClient_unpublish_timed_out", url->text());
}

long CDNSharedStorageClient::getServerPort() {
    const auto reply = asyncWaitForReplyResult(asyncGetServerPort(CString::create("corvane")), -1);
    if (!reply)
        throw ISharedStorageException(
            kSharedStoragePathError, 12,
            storage::utf8(ISharedStorage::localizedStringForKey("SharedStorageClient_getServerPort_timed_out")));
    PLTypeRef port = nullptr;
    PLUtil::PLDictGet(reply.get(), key(proto::kServerPortKey).get(), &port);
    const PLNumber* number = PLDynamicCast<PLNumber>(port);
    return number ? static_cast<long>(number->int64Value()) : 0;
}

void CDNSharedStorageClient::subscribe(CURLRef url, ferrocore::CStringRef localPath, ferrocore::CStringRef clientName,
                                       long pid) {
    waitOrThrow(asyncSubscribe(url, localPath, clientName, pid), "SharedStorageClient_subscribe_timed_out",
                url->text());
    const std::string path = storage::utf8(localPath);
    platform::CFileSystemFacts facts;
    if (!host().fileSystemFacts(path, facts) && facts.local)
        PLUtil::LogToConsole(
            formatString("CDNSharedStorageClient::subscribe: client = %@, path = %@ is still local!", clientName, path)
                .c_str());
    const std::string info =
        formatString("%@/%@", path, CSharedStorageUtils::sharedInfoURL(clientName)->lastPathComponent());
    if (!CSharedStorageUtils::pathExists(CString::create(info)))
        PLUtil::LogToConsole(
            formatString("CDNSharedStorageClient::subscribe: client = %@, from = %@; info file %@ not accessible!",
                         clientName, url->string(), info)
                .c_str());
}

void CDNSharedStorageClient::unsubscribe(CURLRef url, ferrocore::CStringRef localPath, ferrocore::CStringRef clientName,
                                         long pid) {
    waitOrThrow(asyncUnsubscribe(url, localPath, clientName, pid), "SharedStorageClient_unsubscribe_timed_out",
                url->text());
}

void CDNSharedStorageClient::processTerminated(long pid) {
    auto payload = PLUtil::PLDictMakeMutable();
    PLUtil::PLDictSet(payload.get(), key(proto::kPIDKey).get(), PLNumber::create(static_cast<std::int64_t>(pid)).get());
    _center.post(key(proto::kProcessTerminatedRequest).get(), key(proto::kProcessTerminatedSender).get(),
                 payload.get());
}

std::size_t CDNSharedStorageClient::heldReplyCount() const {
    CAutoMutex lock(_mutex);
    return _replies->count();
}

std::size_t CDNSharedStorageClient::pendingRequestCount() const {
    CAutoMutex lock(_mutex);
    return _pending->count();
}

}  // namespace quill
