// The PID file: which processes each cluster service runs as, so that the
// daemon-control functions can find, signal and stop them later, and what
// each of those processes is (its service kind, name and version).
//
// A file of its own (by default kQuillPIDFilePath with its "~/" expanded
// against the current HOME). One object looks after the process list of one
// service key; the process attributes are shared by all services in the file.
//
// Layout of the top-level dictionary:
//   <service key>  array of 32-bit integers, the process IDs of that service;
//                  absent when it has none
//   "attributes"   dictionary from a process ID in decimal ("4711") to that
//                  process's dictionary of "Kind", "Name" and "Version"
//                  (strings); absent when no process has attributes
//   "Version"      the base's file version, if any
//
// Unlike the list records, refresh() keeps the WHOLE file as the in-memory
// contents, so a caller that holds lockForRW() and refreshed may flush: the
// write then starts from the in-memory contents, with this service's list and
// the attributes as they are in memory. Without a lock held, flush() takes the
// exclusive lock, re-reads the file and replaces only this service's list, so
// attributes changed in memory alone (setAttributes, the two-argument
// setProcessAttributes) are not written; the attribute changes that write
// (setProcessAttributes with kind, name and version, clearProcessAttributes)
// take the lock and refresh first themselves.
//
// Threads: one object is used by one thread at a time. Exceptions: the
// ferrocore::CException values of CPropertyListBasicFile (an unreadable or
// malformed file, a lock or write failure); after a failed refresh no write
// is made.
#pragma once

#include <cstdint>
#include <vector>

#include <quillcore/export.h>
#include <quillcore/platform/PLObject.h>
#include <quillcore/plist/CPropertyListBasicFile.h>

namespace quill {

class QUILL_EXPORT CServicePIDFile : public CPropertyListBasicFile {
public:
    // The process list of `serviceKey` (retained) in the current user's PID
    // file, or in the file at `path` (used as it is). Both read the file.
    // Throw ferrocore::CNullPointerException for a null key
    // ("Error: serviceKey is null!") or when there is no home directory, and
    // what refresh() throws.
    explicit CServicePIDFile(PLStringRef serviceKey);
    CServicePIDFile(PLStringRef serviceKey, PLStringRef path);
    ~CServicePIDFile() override;

    PLStringRef serviceKey() const noexcept { return _serviceKey.get(); }

    // The base refresh (the whole file), then the list becomes the array
    // under the service key (empty when the key is absent).
    bool refresh();
    // Reads the file afresh (through the held lock, else under a shared lock)
    // without changing the in-memory contents; the list becomes the array
    // under the service key, or empty. Copies the list into `pids`; returns
    // true. Throws what readPropertyList() throws.
    bool get(std::vector<std::int32_t>& pids) const;
    // Replaces the list and flush()es; returns true.
    bool put(const std::vector<std::int32_t>& pids);
    // Sets the service key to toArray(list) when that has an element, else
    // removes it, in the base dictionary, and writes: without a lock held the
    // file read afresh under the exclusive lock (taken and given back here),
    // with the caller's lock the in-memory contents. Returns false whenever it
    // does not throw.
    bool flush() const;

    // The elements of `array` as integers, in order. Elements that are not
    // numbers, or numbers that are not integers within 32 bits, are skipped;
    // null gives an empty list.
    std::vector<std::int32_t> fromArray(PLArrayRef array) const;
    // A new array of 32-bit numbers in order, without the zeros.
    PLHolder<const PLArray> toArray(const std::vector<std::int32_t>& pids) const;

    // The in-memory "attributes" dictionary, or null.
    PLHolder<const PLDictionary> getAttributes() const;
    // Memory only: "attributes" becomes `dict`, or is removed when `dict` is
    // null or empty.
    void setAttributes(PLDictionaryRef dict);
    // The in-memory attributes of `pid`, or null.
    PLHolder<const PLDictionary> processAttributes(std::int32_t pid) const;
    // refresh(), then the "Kind", "Name" and "Version" strings of `pid`'s
    // attributes (each null when missing). Returns whether `pid` has
    // attributes. Throws what refresh() throws.
    bool processAttributes(std::int32_t pid, PLHolder<const PLString>& kind, PLHolder<const PLString>& name,
                           PLHolder<const PLString>& version);
    // Memory only: `pid`'s attributes become `dict`, or are removed when
    // `dict` is null or empty; when no process has attributes left,
    // "attributes" itself is removed.
    void setProcessAttributes(std::int32_t pid, PLDictionaryRef dict);
    // Records `pid` as a process of `kind`, `name` and `version` (a null
    // string removes its key), under the exclusive lock from the read to the
    // write: unless the caller holds a lock, takes lockForRW() and
    // refresh()es, and gives the lock back at the end. First the attributes
    // of every process that is gone are dropped: a process counts as gone
    // when signal 0 cannot be sent to it, so a process of another user that
    // may not be signalled counts as gone too (the services record
    // themselves as the daemon's user), and so does a key that is not a
    // positive process ID. Then flush(). Throws what the lock, refresh() and
    // flush() throw.
    void setProcessAttributes(std::int32_t pid, PLStringRef kind, PLStringRef name, PLStringRef version);
    // Removes `pid`'s attributes and flush()es, under the exclusive lock from
    // the read to the write like the call above (without its pruning).
    void clearProcessAttributes(std::int32_t pid);

private:
    // Takes the exclusive lock and refreshes when no lock is held; the result
    // gives that lock back when it goes (empty when the caller holds a lock).
    CFileLockMonitorRef lockAndRefresh();

    PLHolder<const PLString> _serviceKey;
    // get() is const but takes in what it read.
    mutable std::vector<std::int32_t> _pids;
};

}  // namespace quill
