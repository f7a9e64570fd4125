// The storage request protocol: the notifications that clients post to the
// serving process and the replies it posts back (docs/storage.md describes
// it in prose). Every message is a notification whose sender is the client
// name (the process-terminated request: "processTerminated") and whose user
// information is a dictionary of the keys below.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <quillcore/export.h>
#include <quillcore/platform/PLObject.h>

namespace quill::storageprotocol {

// Requests and their replies.
inline constexpr const char* kPublishRequest = "CorvaneSharedStoragePublishNotification2";
inline constexpr const char* kPublishReply = "CorvaneSharedStoragePublishResultNotification2";
inline constexpr const char* kUnpublishRequest = "CorvaneSharedStorageUnpublishNotification2";
inline constexpr const char* kUnpublishReply = "CorvaneSharedStorageUnpublishResultNotification2";
inline constexpr const char* kSubscribeRequest = "CorvaneSharedStorageSubscribeNotification2";
inline constexpr const char* kSubscribeReply = "CorvaneSharedStorageSubscribeResultNotification2";
inline constexpr const char* kUnsubscribeRequest = "CorvaneSharedStorageUnsubscribeNotification2";
inline constexpr const char* kUnsubscribeReply = "CorvaneSharedStorageUnsubscribeResultNotification2";
inline constexpr const char* kGetServerPortRequest = "CorvaneGetServerPortNotification2";
inline constexpr const char* kGetServerPortReply = "CorvaneGetServerPortResultNotification2";
// Never answered.
inline constexpr const char* kProcessTerminatedRequest = "CorvaneProcessTerminatedNotification2";
inline constexpr const char* kProcessTerminatedSender = "processTerminated";
// Our addition: the server's published and subscribed maps with their holders.
inline constexpr const char* kListRequest = "CorvaneSharedStorageListNotification2";
inline constexpr const char* kListReply = "CorvaneSharedStorageListResultNotification2";

// Request keys.
inline constexpr const char* kSenderKey = "sender";                      // string
inline constexpr const char* kRequestIDKey = "requestID";                // string
inline constexpr const char* kPIDKey = "pid";                            // integer
inline constexpr const char* kStorageURLKey = "storageURL";              // string: a file-system path
inline constexpr const char* kStorageLocalPathKey = "storageLocalPath";  // string: the mount point
// Our addition to subscribe and unsubscribe requests: the exporting host of
// "storageURL" (string). Without it (or empty) the location has no host.
inline constexpr const char* kStorageHostKey = "storageHost";

// Reply keys.
inline constexpr const char* kResultKey = "result";  // integer: 0 success, -1 failure
inline constexpr const char* kServerPortKey = "serverPort";
inline constexpr const char* kExceptionKindKey = "exceptionKind";
inline constexpr const char* kExceptionMessageKey = "exceptionMessage";
// List replies: path (or mount point) -> dictionary of the keys below.
inline constexpr const char* kPublishedMapKey = "publishedMap";
inline constexpr const char* kSubscribedMapKey = "subscribedMap";
inline constexpr const char* kRefCountKey = "refCount";
inline constexpr const char* kClientsKey = "clients";      // client name -> array of process IDs
inline constexpr const char* kExportURLKey = "exportURL";  // subscribed entries: the remote location's text

// The names under which a missing key is reported (the message of an
// ISharedStorageException (1, 7)).
inline constexpr const char* kSenderKeyName = "kSenderKey";
inline constexpr const char* kRequestIDKeyName = "kRequestIDKey";
inline constexpr const char* kPIDKeyName = "kPIDKey";
inline constexpr const char* kStorageURLKeyName = "kStorageURLKey";
inline constexpr const char* kStorageLocalPathKeyName = "kStorageLocalPathKey";

enum class RequestKind : std::uint8_t {
    Publish,
    Unpublish,
    Subscribe,
    Unsubscribe,
    GetServerPort,
    ProcessTerminated,
    List,
};

// The request a notification name stands for; none for any other name.
QUILL_EXPORT std::optional<RequestKind> requestKindForName(std::string_view name) noexcept;
// The reply name of a request; null for the process-terminated request.
QUILL_EXPORT const char* replyNameFor(RequestKind kind) noexcept;
QUILL_EXPORT const char* requestNameFor(RequestKind kind) noexcept;

// A request read from its payload. Only the keys the kind uses are set.
struct CStorageRequest {
    RequestKind kind = RequestKind::Publish;
    std::string sender;
    std::string requestID;
    bool hasSender = false;
    bool hasRequestID = false;
    long pid = 0;
    std::string storagePath;
    std::string storageHost;  // empty: no host given
    std::string localPath;
};

// Reads the keys of `kind` from `payload` in the order the server checks
// them: sender, requestID, pid, storageURL, storageLocalPath. A key that is
// missing or of another type throws ISharedStorageException (1, 7) with the
// key's name; what was read before stays in `request` (so the server can
// still address its reply). A "storageHost" that is not a string, or a host
// that a URL cannot carry, throws (1, 7) "kStorageHostKey".
QUILL_EXPORT void decodeRequest(RequestKind kind, PLDictionaryRef payload, CStorageRequest& request);

}  // namespace quill::storageprotocol
