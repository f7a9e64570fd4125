// Fuzz target for the storage request server's handling of request payloads.
//
// Input: one byte that picks the notification name (the six requests, the
// list request, or a name that is none of them), then the payload bytes as a
// process on the bus could send them (an XML or binary property list). The
// payload goes through the notification decoder and then through the
// server's handlers, over a storage that only records what it is asked to do
// (nothing touches the file system or starts a command). Checked: no
// exception leaves the handlers; a reply comes exactly for an addressable
// request that has one; it copies "sender" and "requestID", its "result" is
// 0 or -1 and says whether the storage was reached and succeeded; a failure
// carries "exceptionKind". Any violation aborts. Inputs are capped at 1 MiB.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include <quillcore/platform/Host.h>
#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/storage/CDNSharedStorageServer.h>
#include <quillcore/storage/StorageProtocol.h>

namespace {

constexpr std::size_t kMaxInput = 1 << 20;
namespace proto = quill::storageprotocol;

[[noreturn]] void failCheck(const char* what) {
    std::fprintf(stderr, "storage_request_fuzz: %s\n", what);
    std::abort();
}

// Records the calls; paths containing "fail" make it throw, as a real
// storage does for a path it cannot use.
class RecordingStorage final : public quill::ISharedStorage {
public:
    int calls = 0;
    bool threw = false;

    void publish(quill::CURLRef url, ferrocore::CStringRef, long) override { work(url); }
    void unpublish(quill::CURLRef url, ferrocore::CStringRef, long) override { work(url); }
    long getServerPort() override {
        ++calls;
        return -1;
    }
    void subscribe(quill::CURLRef url, ferrocore::CStringRef, ferrocore::CStringRef, long) override { work(url); }
    void unsubscribe(quill::CURLRef url, ferrocore::CStringRef, ferrocore::CStringRef, long) override { work(url); }
    void processTerminated(long) override { ++calls; }

private:
    void work(const quill::CURLRef& url) {
        ++calls;
        if (!url) failCheck("the storage got a null URL");
        if (url->text().find("fail") != std::string::npos) {
            threw = true;
            throw quill::ISharedStorageException(quill::kSharedStoragePathError, 2, "failing path");
        }
    }
};

const char* nameFor(std::uint8_t selector) {
    switch (selector % 8) {
        case 0: return proto::kPublishRequest;
        case 1: return proto::kUnpublishRequest;
        case 2: return proto::kSubscribeRequest;
        case 3: return proto::kUnsubscribeRequest;
        case 4: return proto::kGetServerPortRequest;
        case 5: return proto::kProcessTerminatedRequest;
        case 6: return proto::kListRequest;
        default: return "CorvaneSharedStorageNotARequest2";
    }
}

const PLString* stringAt(PLDictionaryRef dict, const char* key) {
    return dict ? PLDynamicCast<PLString>(dict->get(std::string_view(key))) : nullptr;
}

}  // namespace

// The handlers report every failure on the console log; keep those lines out
// of the system log.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv(quill::platform::kConsoleLogVariable, "/dev/null", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0 || size > kMaxInput) return -1;
    using namespace quill::platform;
    PLHolder<const PLDictionary> payload;
    if (!decodeNotificationPayload(data + 1, size - 1, payload, nullptr)) return 0;

    static CNotificationCenter center(makeLoopbackNotificationTransport());
    auto storage = ferrocore::makeShared<RecordingStorage>();
    auto server = ferrocore::makeShared<quill::CDNSharedStorageServer>(quill::ISharedStorageRef(storage), center);
    const char* name = nameFor(data[0]);
    std::optional<quill::CDNSharedStorageServer::CReply> reply;
    try {
        reply = server->handleRequest(name, payload.get());
    } catch (...) {
        failCheck("an exception left the handler");
    }
    server->unregisterForNotifications();

    const auto kind = proto::requestKindForName(name);
    const bool addressable =
        stringAt(payload.get(), proto::kSenderKey) && stringAt(payload.get(), proto::kRequestIDKey);
    const bool answered = kind && *kind != proto::RequestKind::ProcessTerminated && addressable;
    if (static_cast<bool>(reply) != answered) failCheck("a reply where none belongs, or none where one does");
    if (!reply) return 0;
    if (reply->name != proto::replyNameFor(*kind)) failCheck("the reply has the wrong name");
    PLDictionaryRef out = reply->payload.get();
    if (stringAt(out, proto::kSenderKey)->str() != stringAt(payload.get(), proto::kSenderKey)->str() ||
        stringAt(out, proto::kRequestIDKey)->str() != stringAt(payload.get(), proto::kRequestIDKey)->str())
        failCheck("sender or requestID not copied");
    const auto* result = PLDynamicCast<PLNumber>(out->get(std::string_view(proto::kResultKey)));
    if (!result) failCheck("no result");
    const bool succeeded = result->int64Value() == 0;
    if (!succeeded && result->int64Value() != -1) failCheck("a result other than 0 and -1");
    if (!succeeded && !out->get(std::string_view(proto::kExceptionKindKey))) failCheck("a failure without its kind");
    const bool reachesStorage = *kind != proto::RequestKind::List;  // the list only reads the maps
    if (succeeded && ((reachesStorage && storage->calls == 0) || storage->threw))
        failCheck("success without the work done");
    if (storage->threw && succeeded) failCheck("a failure of the storage reported as success");
    return 0;
}
