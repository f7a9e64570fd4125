// Who holds one export (CSharedStoragePublishedEntry) or one mount
// (CSharedStorageSubscribedEntry): a reference table per client name, so that
// the owner removes the export or unmounts only when the last holder lets go,
// and drops the holders of a process that ended.
//
// The table is a dictionary: "_totalRefCount" (references taken and not given
// back one by one), "_returnedRefTicks" (anonymous releases that could not be
// matched to one process) and, per client name, an array with one process ID
// per reference taken, in order. refCount() is the total less the ticks; when
// the ticks catch up with the total the table is cleared.
//
// Entries are values: copies are independent (the table is copied deeply).
// Nothing here throws except std::bad_alloc; mismatches are written to the
// console log and leave the table as it was. Not thread-safe: the owner's
// thread uses them.
#pragma once

#include <cstdint>
#include <string>

#include <ferrocore/CSharedObject.h>
#include <ferrocore/CString.h>
#include <ferrocore/CURL.h>
#include <quillcore/export.h>
#include <quillcore/platform/PLObject.h>

namespace quill {

// The bookkeeping keys of a reference table.
QUILL_EXPORT extern const PLStringRef kSharedStorageTotalRefCountKey;     // "_totalRefCount"
QUILL_EXPORT extern const PLStringRef kSharedStorageReturnedRefTicksKey;  // "_returnedRefTicks"

// The reference table both entries share.
class QUILL_EXPORT CSharedStorageReferences : public ferrocore::CSharedObject {
public:
    CSharedStorageReferences(const CSharedStorageReferences& other);
    CSharedStorageReferences(CSharedStorageReferences&& other) noexcept;
    CSharedStorageReferences& operator=(const CSharedStorageReferences& other);
    CSharedStorageReferences& operator=(CSharedStorageReferences&& other) noexcept;
    ~CSharedStorageReferences() override;

    // An empty table: both counters 0, no client.
    void resetClients();
    // Appends pid to the client's array (made when new) and returns the new
    // total, not reduced by ticks.
    int addReference(ferrocore::CStringRef clientName, long pid);
    // Gives back one reference of the client; pid -1 is a release by an
    // unknown process. Returns refCount() afterwards.
    int deleteReference(ferrocore::CStringRef clientName, long pid);
    int refCount() const;
    int returnedRefTicks() const;
    // Client name -> array of process IDs, without the bookkeeping keys. A new
    // dictionary owned by the caller.
    PLHolder<PLMutableDictionary> copyClients() const;
    // The table itself (borrowed), for tests and diagnostics.
    PLDictionaryRef clients() const noexcept { return _clients.get(); }

protected:
    // `entryClass` names the class in the console messages.
    explicit CSharedStorageReferences(const char* entryClass);
    // Removes every reference of `pid` from every client.
    void dropReferencesOf(long pid);
    std::size_t tableSize() const;

private:
    const char* _entryClass;
    PLHolder<PLMutableDictionary> _clients;
};

class QUILL_EXPORT CSharedStoragePublishedEntry final : public CSharedStorageReferences {
public:
    // Holds `path` and takes the first reference of (clientName, pid).
    CSharedStoragePublishedEntry(ferrocore::CStringRef clientName, ferrocore::CStringRef path, long pid);
    CSharedStoragePublishedEntry(const CSharedStoragePublishedEntry& other) = default;
    CSharedStoragePublishedEntry(CSharedStoragePublishedEntry&& other) noexcept = default;
    CSharedStoragePublishedEntry& operator=(const CSharedStoragePublishedEntry& other) = default;
    CSharedStoragePublishedEntry& operator=(CSharedStoragePublishedEntry&& other) noexcept = default;
    ~CSharedStoragePublishedEntry() override;

    // Drops the references of an ended process, but only from a table that
    // holds no client at all: with clients present it changes nothing.
    void deleteReferences(long pid);

    ferrocore::CStringRef path() const { return _path; }
    std::string pathFileSystemRep() const { return _path ? _path->fileSystemRepresentation() : std::string(); }
    // Never filled: always none (null).
    PLDictionaryRef nodeHosts() const noexcept { return _nodeHosts.get(); }
    void addNodeHosts(PLDictionaryRef hosts);

private:
    ferrocore::CStringRef _path;
    PLHolder<const PLDictionary> _nodeHosts;
};

class QUILL_EXPORT CSharedStorageSubscribedEntry final : public CSharedStorageReferences {
public:
    // Holds the mount point and the remote location and takes the first
    // reference of (clientName, pid).
    CSharedStorageSubscribedEntry(ferrocore::CStringRef clientName, ferrocore::CStringRef mountPath,
                                  ferrocore::CURLRef exportURL, long pid);
    CSharedStorageSubscribedEntry(const CSharedStorageSubscribedEntry& other) = default;
    CSharedStorageSubscribedEntry(CSharedStorageSubscribedEntry&& other) noexcept = default;
    CSharedStorageSubscribedEntry& operator=(const CSharedStorageSubscribedEntry& other) = default;
    CSharedStorageSubscribedEntry& operator=(CSharedStorageSubscribedEntry&& other) noexcept = default;
    ~CSharedStorageSubscribedEntry() override;

    // Drops every reference of an ended process (when any client is present).
    void deleteReferences(long pid);

    ferrocore::CStringRef mountPath() const { return _mountPath; }
    ferrocore::CURLRef exportURL() const { return _exportURL; }
    std::string mountPathFileSystemRep() const {
        return _mountPath ? _mountPath->fileSystemRepresentation() : std::string();
    }
    // Sets the normalized mount path to the mount path with its links
    // resolved; throws as CSharedStorageUtils::normalizedPath.
    void normalizeMountPath();
    // Empty while normalizeMountPath() has not run.
    std::string normalizedMountPathFileSystemRep() const {
        return _normalizedMountPath ? _normalizedMountPath->fileSystemRepresentation() : std::string();
    }

private:
    ferrocore::CStringRef _mountPath;
    ferrocore::CStringRef _normalizedMountPath;
    ferrocore::CURLRef _exportURL;
};

}  // namespace quill
