#include <quillcore/storage/ISharedStorage.h>
#include <quillcore/storage/StorageProtocol.h>
#include <quillcore/util/PLUtil.h>

namespace quill::storageprotocol {

namespace {

struct NameEntry {
    RequestKind kind;
    const char* request;
    const char* reply;
};

constexpr NameEntry kNames[] = {
    {RequestKind::Publish, kPublishRequest, kPublishReply},
    {RequestKind::Unpublish, kUnpublishRequest, kUnpublishReply},
    {RequestKind::Subscribe, kSubscribeRequest, kSubscribeReply},
    {RequestKind::Unsubscribe, kUnsubscribeRequest, kUnsubscribeReply},
    {RequestKind::GetServerPort, kGetServerPortRequest, kGetServerPortReply},
    {RequestKind::ProcessTerminated, kProcessTerminatedRequest, nullptr},
    {RequestKind::List, kListRequest, kListReply},
};

[[noreturn]] void missing(const char* keyName) {
    throw ISharedStorageException(kSharedStorageRequestError, 7, keyName);
}

std::string readString(PLDictionaryRef payload, const char* key, const char* keyName) {
    PLStringRef value = nullptr;
    if (!PLUtil::PLDictGetString(payload, PLString::create(key).get(), &value)) missing(keyName);
    return value->str();
}

long readInteger(PLDictionaryRef payload, const char* key, const char* keyName) {
    PLTypeRef value = nullptr;
    PLUtil::PLDictGet(payload, PLString::create(key).get(), &value);
    const PLNumber* number = value ? PLDynamicCast<PLNumber>(value) : nullptr;
    if (!number || number->isFloat()) missing(keyName);
    const std::int64_t wide = number->int64Value();
    if (wide < -2147483648LL || wide > 2147483647LL) missing(keyName);  // not a process ID
    return static_cast<long>(wide);
}

// A host name a URL authority can carry: no separators, no white space.
bool isPlainHost(const std::string& host) {
    for (const unsigned char c : host)
        if (c <= 0x20 || c == 0x7f || c == '/' || c == '?' || c == '#' || c == '@' || c == '\\' || c == '%')
            return false;
    return true;
}

}  // namespace

std::optional<RequestKind> requestKindForName(std::string_view name) noexcept {
    for (const auto& entry : kNames)
        if (name == entry.request) return entry.kind;
    return std::nullopt;
}

const char* replyNameFor(RequestKind kind) noexcept {
    for (const auto& entry : kNames)
        if (entry.kind == kind) return entry.reply;
    return nullptr;
}

const char* requestNameFor(RequestKind kind) noexcept {
    for (const auto& entry : kNames)
        if (entry.kind == kind) return entry.request;
    return nullptr;
}

void decodeRequest(RequestKind kind, PLDictionaryRef payload, CStorageRequest& request) {
    request.kind = kind;
    if (kind != RequestKind::ProcessTerminated) {
        request.sender = readString(payload, kSenderKey, kSenderKeyName);
        request.hasSender = true;
        request.requestID = readString(payload, kRequestIDKey, kRequestIDKeyName);
        request.hasRequestID = true;
    }
    if (kind == RequestKind::GetServerPort || kind == RequestKind::List) return;
    request.pid = readInteger(payload, kPIDKey, kPIDKeyName);
    if (kind == RequestKind::ProcessTerminated) return;
    request.storagePath = readString(payload, kStorageURLKey, kStorageURLKeyName);
    if (kind == RequestKind::Publish || kind == RequestKind::Unpublish) return;
    request.localPath = readString(payload, kStorageLocalPathKey, kStorageLocalPathKeyName);
    PLTypeRef host = nullptr;
    if (PLUtil::PLDictGet(payload, PLString::create(kStorageHostKey).get(), &host)) {
        PLStringRef text = nullptr;
        if (!PLUtil::PLDictGetString(payload, PLString::create(kStorageHostKey).get(), &text) ||
            !isPlainHost(text->str()))
            missing("kStorageHostKey");
        request.storageHost = text->str();
    }
}

}  // namespace quill::storageprotocol
