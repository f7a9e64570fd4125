// Mounts directories that other hosts export, shares each mount among every
// client and process of the host by reference counting, and unmounts when the
// last holder lets go or its processes end.
//
// Commands (IHost::systemPath(Mount / Umount), run as terminal tasks):
//   <mount> -o [port=P,mountport=P,]soft,intr,locallocks <host>:<path> <mount point>
//   <umount> -f <mount point>
// Each may run for requestTimeout() - 5 = 55 seconds (less where the host
// says so, IHost::commandTimeLimit); then it is terminated and counts as
// timed out.
//
// Threads: not locked; the request server calls it from one thread, which a
// command blocks while it runs. Exceptions: ISharedStorageException (1, 12)
// for a failed or timed-out command, makeDir's failures, std::bad_alloc.
#pragma once

#include <vector>

#include <quillcore/export.h>
#include <quillcore/process/CArgsBuilder.h>
#include <quillcore/storage/ISharedStorage.h>

namespace quill {

class QUILL_EXPORT CNFSSharedStorageSubscriber : public ISharedStorageSubscriber {
public:
    CNFSSharedStorageSubscriber();
    CNFSSharedStorageSubscriber(const CNFSSharedStorageSubscriber&) = delete;
    CNFSSharedStorageSubscriber& operator=(const CNFSSharedStorageSubscriber&) = delete;

    // Makes the mount point and mounts `url` there, or adds a reference to
    // the mount that is there. A failed mount leaves the map unchanged.
    void subscribe(CURLRef url, ferrocore::CStringRef mountPoint, ferrocore::CStringRef clientName, long pid) override;
    // Gives back one reference; the last one unmounts. A mount point that is
    // not in the map is unmounted all the same.
    void unsubscribe(CURLRef url, ferrocore::CStringRef mountPoint, ferrocore::CStringRef clientName,
                     long pid) override;
    // Drops the references of `pid`; unmounts what nobody holds any more
    // (failures ignored).
    void processTerminated(long pid) override;
    SubscribedMap getSubscribedMap() const override { return _subscribedMap; }

    // Unmounts everything still held, ignoring failures; the map is emptied.
    void cleanMounts();
    // Does nothing.
    void startNFSDaemons() {}

    // The argument vectors of the two commands (after the program name).
    static std::vector<std::string> mountArguments(const CURLRef& url, const ferrocore::CStringRef& mountPoint);
    static std::vector<std::string> unmountArguments(const ferrocore::CStringRef& mountPoint);

protected:
    ~CNFSSharedStorageSubscriber() override;

    virtual void _subscribe(CURLRef url, ferrocore::CStringRef mountPoint);
    virtual void _unsubscribe(CURLRef url, ferrocore::CStringRef mountPoint);

private:
    SubscribedMap _subscribedMap;
};

using CNFSSharedStorageSubscriberRef = ferrocore::CSharedObjectRef<CNFSSharedStorageSubscriber>;

}  // namespace quill
