// The request client: every operation becomes a request to the serving
// process's CDNSharedStorageServer, and the synchronous ones wait for the
// reply while serving the calling thread's run loop in 0.01-second steps, for
// up to requestTimeout() (60 seconds).
//
// Threads. The replies are observed on the run loop of the thread that made
// the client, so wait only on that thread. One mutex guards the tables of
// pending requests and of replies against the reply handler. A reply to a
// request nobody waits for any more (after a time-out) is dropped.
//
// Exceptions: a failure the server reports is rethrown with its kind and
// message (an ISharedStorageException when the kind is a storage error
// value); a time-out throws ISharedStorageException (3, 12) with the
// localized "SharedStorageClient_<operation>_timed_out" text.
#pragma once

#include <string>

#include <ferrocore/CMutex.h>
#include <ferrocore/ThreadAnnotations.h>
#include <quillcore/export.h>
#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/storage/ISharedStorage.h>

namespace quill {

class QUILL_EXPORT CDNSharedStorageClient final : public ISharedStorage {
public:
    // Observes the reply names on `center` (by default the host-wide centre,
    // where the serving process listens), which must outlive the client.
    explicit CDNSharedStorageClient(platform::CNotificationCenter& center = platform::hostNotificationCenter());

    void unregisterForNotifications();

    // Each posts its request and returns its request ID. pid 0 stands for the
    // calling process. A subscribe and unsubscribe request carry the URL's
    // host, when it has one, in "storageHost".
    std::string asyncPublish(const CURLRef& url, const ferrocore::CStringRef& clientName, long pid);
    std::string asyncUnpublish(const CURLRef& url, const ferrocore::CStringRef& clientName, long pid);
    std::string asyncSubscribe(const CURLRef& url, const ferrocore::CStringRef& localPath,
                               const ferrocore::CStringRef& clientName, long pid);
    std::string asyncUnsubscribe(const CURLRef& url, const ferrocore::CStringRef& localPath,
                                 const ferrocore::CStringRef& clientName, long pid);
    std::string asyncGetServerPort(const ferrocore::CStringRef& sender);
    // Our addition: asks for the server's maps.
    std::string asyncList(const ferrocore::CStringRef& sender);

    // Waits for the reply (a negative time-out: requestTimeout()); false on
    // time-out; throws what the server reports.
    bool asyncWaitForReply(const std::string& requestID, double timeoutSeconds);
    // The same, returning the reply (null on time-out).
    PLHolder<const PLDictionary> asyncWaitForReplyResult(const std::string& requestID, double timeoutSeconds);

    void publish(CURLRef url, ferrocore::CStringRef clientName, long pid) override;
    void unpublish(CURLRef url, ferrocore::CStringRef clientName, long pid) override;
    long getServerPort() override;
    // Checks after a mount (written to the console log, never thrown): a
    // mount point still on a local file system, an info file not reachable.
    void subscribe(CURLRef url, ferrocore::CStringRef localPath, ferrocore::CStringRef clientName, long pid) override;
    void unsubscribe(CURLRef url, ferrocore::CStringRef localPath, ferrocore::CStringRef clientName, long pid) override;
    // Only posts; the server never answers it.
    void processTerminated(long pid) override;

    // The number of replies held, for tests.
    std::size_t heldReplyCount() const;
    std::size_t pendingRequestCount() const;

private:
    ~CDNSharedStorageClient() override;

    std::string post(const char* name, const ferrocore::CStringRef& sender, PLHolder<PLMutableDictionary> payload);
    void resultNotification(const platform::CNotification& notification);
    PLHolder<const PLDictionary> waitForReply(const std::string& requestID, double timeoutSeconds);
    void waitOrThrow(const std::string& requestID, const char* timeoutKey, const std::string& argument);

    mutable ferrocore::CMutex _mutex;
    PLHolder<PLMutableDictionary> _pending FERRO_GUARDED_BY(_mutex);
    PLHolder<PLMutableDictionary> _replies FERRO_GUARDED_BY(_mutex);
    platform::CNotificationCenter& _center;
    bool _observing = false;
};

using CDNSharedStorageClientRef = ferrocore::CSharedObjectRef<CDNSharedStorageClient>;

}  // namespace quill
