// The storage of the serving process: the NFS publisher and the NFS
// subscriber as one ISharedStorage, and the factory of servers and clients.
//
// Threads: as its publisher and subscriber (one thread). The factory
// functions may be called from any thread; a client must then be used on the
// thread that made it (see CDNSharedStorageClient).
#pragma once

#include <quillcore/export.h>
#include <quillcore/storage/CDNSharedStorageServer.h>
#include <quillcore/storage/CNFSSharedStoragePublisher.h>
#include <quillcore/storage/CNFSSharedStorageSubscriber.h>
#include <quillcore/storage/ISharedStorage.h>

namespace quill {

using CDNSharedStorageServerRef = ferrocore::CSharedObjectRef<CDNSharedStorageServer>;

// How servers and clients talk: 0, the notification centre, is the only one.
using ServerRPCType = int;
inline constexpr ServerRPCType kServerRPCNotificationCenter = 0;

class QUILL_EXPORT CNFSSharedStorage final : public ISharedStorage {
public:
    // A new publisher and a new subscriber.
    CNFSSharedStorage();
    CNFSSharedStorage(CNFSSharedStoragePublisherRef publisher, CNFSSharedStorageSubscriberRef subscriber);

    void publish(CURLRef url, ferrocore::CStringRef clientName, long pid) override;
    void unpublish(CURLRef url, ferrocore::CStringRef clientName, long pid) override;
    long getServerPort() override;
    PublishedMap getPublishedMap() const override;
    void subscribe(CURLRef url, ferrocore::CStringRef localPath, ferrocore::CStringRef clientName, long pid) override;
    void unsubscribe(CURLRef url, ferrocore::CStringRef localPath, ferrocore::CStringRef clientName, long pid) override;
    SubscribedMap getSubscribedMap() const override;
    // Unmounts before it unexports: the subscriber first, then the publisher.
    void processTerminated(long pid) override;

    const CNFSSharedStoragePublisherRef& publisher() const noexcept { return _publisher; }
    const CNFSSharedStorageSubscriberRef& subscriber() const noexcept { return _subscriber; }

    // The factory. Every function throws ISharedStorageException (2, 8) for a
    // type other than 0. Servers observe and clients wait on the process's
    // host-wide centre (platform::hostNotificationCenter()) and on the
    // calling thread's run loop.
    static CDNSharedStorageServerRef NewServer(ServerRPCType type);
    static CDNSharedStorageServerRef NewServer(CNFSSharedStoragePublisherRef publisher,
                                               CNFSSharedStorageSubscriberRef subscriber, ServerRPCType type);
    static ISharedStorageRef NewClient(ServerRPCType type);
    static ISharedStoragePublisherRef NewPublisherClient(ServerRPCType type);
    static ISharedStorageSubscriberRef NewSubscriberClient(ServerRPCType type);

private:
    ~CNFSSharedStorage() override;

    CNFSSharedStoragePublisherRef _publisher;
    CNFSSharedStorageSubscriberRef _subscriber;
};

}  // namespace quill
