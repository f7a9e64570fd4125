// The request server: observes the storage requests on a notification centre,
// carries each out on the storage it wraps (normally a CNFSSharedStorage) and
// posts the reply (docs/storage.md has the protocol).
//
// Requests are handled one at a time, in arrival order, on the run loop of the
// thread that made the server (the thread whose loop the centre delivers its
// observations to); a slow mount delays every later request. A request
// without "sender" or "requestID" gets no reply, nor does a process-terminated
// request; every failure is written to the console log. No exception leaves a
// handler.
//
// Threads: make, use and destroy a server on one thread. The centre must
// outlive the server.
#pragma once

#include <optional>
#include <string>

#include <quillcore/export.h>
#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/storage/ISharedStorage.h>

namespace quill {

class QUILL_EXPORT CDNSharedStorageServer final : public ISharedStorage {
public:
    // A reply as the handlers build it: the name to post it under and its
    // payload (the sender is the payload's "sender").
    struct CReply {
        std::string name;
        PLHolder<PLMutableDictionary> payload;
    };

    // Observes the request names on `center`: by default the host-wide
    // centre, since clients are other users' programs (docs/storage.md,
    // "Buses"). `storage` must not be null.
    explicit CDNSharedStorageServer(ISharedStorageRef storage,
                                    platform::CNotificationCenter& center = platform::hostNotificationCenter());

    // Stops observing; a request delivered after this is not seen.
    void unregisterForNotifications();

    // Carries out one request and returns its reply (none when it gets none),
    // without posting it. Never throws except std::bad_alloc.
    std::optional<CReply> handleRequest(std::string_view name, PLDictionaryRef payload);
    // The four handlers: each posts what handleRequest() returns.
    void publishNotification(const platform::CNotification& notification);
    void subscribeNotification(const platform::CNotification& notification);
    void getServerPortNotification(const platform::CNotification& notification);
    void processTerminatedNotification(const platform::CNotification& notification);
    void listNotification(const platform::CNotification& notification);
    // Posts on the server's centre.
    void sendNotification(const std::string& name, const std::string& object, PLDictionaryRef payload);

    // ISharedStorage: forwarded to the wrapped storage.
    void publish(CURLRef url, ferrocore::CStringRef clientName, long pid) override;
    void unpublish(CURLRef url, ferrocore::CStringRef clientName, long pid) override;
    long getServerPort() override;
    PublishedMap getPublishedMap() const override;
    void subscribe(CURLRef url, ferrocore::CStringRef localPath, ferrocore::CStringRef clientName, long pid) override;
    void unsubscribe(CURLRef url, ferrocore::CStringRef localPath, ferrocore::CStringRef clientName, long pid) override;
    SubscribedMap getSubscribedMap() const override;
    void processTerminated(long pid) override;

    // The list reply's maps (see StorageProtocol.h), for the list request.
    static PLHolder<PLMutableDictionary> describePublishedMap(const PublishedMap& map);
    static PLHolder<PLMutableDictionary> describeSubscribedMap(const SubscribedMap& map);

private:
    ~CDNSharedStorageServer() override;
    void handle(const char* handlerName, const platform::CNotification& notification);

    ISharedStorageRef _storage;
    platform::CNotificationCenter& _center;
    bool _observing = false;
};

}  // namespace quill
