#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/storage/CDNSharedStorageClient.h>
#include <quillcore/storage/CDNSharedStorageServer.h>
#include <quillcore/storage/CNFSSharedStorage.h>

namespace quill {

namespace {

void checkType(ServerRPCType type) {
    if (type != kServerRPCNotificationCenter)
        throw ISharedStorageException(kSharedStorageFactoryError, 8, "Unsupported server RPC type");
}

}  // namespace

CNFSSharedStorage::CNFSSharedStorage()
    : _publisher(ferrocore::makeShared<CNFSSharedStoragePublisher>()),
      _subscriber(ferrocore::makeShared<CNFSSharedStorageSubscriber>()) {}

CNFSSharedStorage::CNFSSharedStorage(CNFSSharedStoragePublisherRef publisher, CNFSSharedStorageSubscriberRef subscriber)
    : _publisher(std::move(publisher)), _subscriber(std::move(subscriber)) {}

CNFSSharedStorage::~CNFSSharedStorage() = default;

void CNFSSharedStorage::publish(CURLRef url, ferrocore::CStringRef clientName, long pid) {
    _publisher->publish(std::move(url), std::move(clientName), pid);
}
void CNFSSharedStorage::unpublish(CURLRef url, ferrocore::CStringRef clientName, long pid) {
    _publisher->unpublish(std::move(url), std::move(clientName), pid);
}
long CNFSSharedStorage::getServerPort() { return _publisher->getServerPort(); }
PublishedMap CNFSSharedStorage::getPublishedMap() const { return _publisher->getPublishedMap(); }
void CNFSSharedStorage::subscribe(CURLRef url, ferrocore::CStringRef localPath, ferrocore::CStringRef clientName,
                                  long pid) {
    _subscriber->subscribe(std::move(url), std::move(localPath), std::move(clientName), pid);
}
void CNFSSharedStorage::unsubscribe(CURLRef url, ferrocore::CStringRef localPath, ferrocore::CStringRef clientName,
                                    long pid) {
    _subscriber->unsubscribe(std::move(url), std::move(localPath), std::move(clientName), pid);
}
SubscribedMap CNFSSharedStorage::getSubscribedMap() const { return _subscriber->getSubscribedMap(); }
void CNFSSharedStorage::processTerminated(long pid) {
    _subscriber->processTerminated(pid);  // unmount first, then unexport
    _publisher->processTerminated(pid);
}

CDNSharedStorageServerRef CNFSSharedStorage::NewServer(ServerRPCType type) {
    checkType(type);
    return ferrocore::makeShared<CDNSharedStorageServer>(ISharedStorageRef(ferrocore::makeShared<CNFSSharedStorage>()),
                                                         platform::hostNotificationCenter());
}

CDNSharedStorageServerRef CNFSSharedStorage::NewServer(CNFSSharedStoragePublisherRef publisher,
                                                       CNFSSharedStorageSubscriberRef subscriber, ServerRPCType type) {
    checkType(type);
    return ferrocore::makeShared<CDNSharedStorageServer>(
        ISharedStorageRef(ferrocore::makeShared<CNFSSharedStorage>(std::move(publisher), std::move(subscriber))),
        platform::hostNotificationCenter());
}

ISharedStorageRef CNFSSharedStorage::NewClient(ServerRPCType type) {
    checkType(type);
    return ISharedStorageRef(ferrocore::makeShared<CDNSharedStorageClient>(platform::hostNotificationCenter()));
}

ISharedStoragePublisherRef CNFSSharedStorage::NewPublisherClient(ServerRPCType type) {
    checkType(type);
    return ISharedStoragePublisherRef(
        ferrocore::makeShared<CDNSharedStorageClient>(platform::hostNotificationCenter()));
}

ISharedStorageSubscriberRef CNFSSharedStorage::NewSubscriberClient(ServerRPCType type) {
    checkType(type);
    return ISharedStorageSubscriberRef(
        ferrocore::makeShared<CDNSharedStorageClient>(platform::hostNotificationCenter()));
}

}  // namespace quill
