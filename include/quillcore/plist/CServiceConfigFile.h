// The service configuration: for each kind of cluster service, a small ordered
// list of entries holding the keys that grant access to the service and to its
// capture function, and a free-form settings dictionary that the service
// itself defines.
//
// CServiceConfigEntry is one entry; CServiceConfigFile is the list of one
// service kind. The lists live in the shared configuration file
// (kServiceConfigFilePath with its "~/" expanded against the current HOME)
// under "serviceconfig", then under the kind's own text:
//   "serviceconfig" -> kind -> { entry name -> entry dictionary,
//                                "_orderList" -> [names] (two or more entries),
//                                "Version" (optional) }
// An entry dictionary holds "akey" (kDictKeyAccessKey), "ckey"
// (kDictKeyCaptureKey), "cpkey" (kDictKeyCapturePermKey), each a string, and
// "config" (kDictKeyConfig, any value, in practice a dictionary), each only
// when set. The list is ordered: "_orderList" decides the order on reading,
// and an entry it does not name is not loaded.
//
// flush() replaces only this kind's list; the lists of other kinds and every
// other top-level key of the file are preserved.
//
// Read-modify-write and the lock (read this before taking a lock yourself).
// After refresh() the in-memory contents are this kind's list, not the whole
// file (see CPropertyListFile). flush() without a lock held is safe: it takes
// the exclusive lock, reads the whole file afresh and replaces only this
// kind's list. But a caller that takes lockForRW(), calls refresh() and then
// flush() writes THE LIST AS THE WHOLE FILE: every other top-level key and
// every other kind's list is lost. To change a list atomically between
// processes, lock, refresh, change the entries, then read the whole file
// again under that lock (readPropertyList()), set the list in a mutable copy
// of it ("serviceconfig", then the kind) to toPropertyList(),
// writePropertyList() the copy, and unlock.
//
// Threads: entries are plain values; a file object is used by one thread at a
// time. Exceptions: entries throw only std::bad_alloc; the file throws the
// ferrocore::CException values of CPropertyListBasicFile.
#pragma once

#include <quillcore/export.h>
#include <quillcore/platform/PLObject.h>
#include <quillcore/plist/CPropertyListFile.h>

namespace quill {

class QUILL_EXPORT CServiceConfigEntry final {
public:
    CServiceConfigEntry() = default;
    // The name (retained), the four values cleared, then fromDict(dict) when
    // `dict` is given.
    CServiceConfigEntry(PLStringRef name, PLDictionaryRef dict);
    CServiceConfigEntry(const CServiceConfigEntry&) = default;
    CServiceConfigEntry& operator=(const CServiceConfigEntry&) = default;
    CServiceConfigEntry(CServiceConfigEntry&&) noexcept = default;
    CServiceConfigEntry& operator=(CServiceConfigEntry&&) noexcept = default;
    ~CServiceConfigEntry() = default;

    // Each of the four values from its key; absent keys (and strings of
    // another type) clear. Null reads as an empty dictionary.
    void fromDict(PLDictionaryRef dict);
    // A new dictionary holding each value that is set.
    PLHolder<PLMutableDictionary> toDict() const;

    PLStringRef name() const noexcept { return _name.get(); }
    PLStringRef accessKey() const noexcept { return _accessKey.get(); }
    PLStringRef captureKey() const noexcept { return _captureKey.get(); }
    PLStringRef capturePermKey() const noexcept { return _capturePermKey.get(); }
    PLTypeRef config() const noexcept { return _config.get(); }

    // Each replaces one value (retained); null clears it.
    void setAccessKey(PLStringRef value);
    void setCaptureKey(PLStringRef value);
    void setCapturePermKey(PLStringRef value);
    void setConfig(PLTypeRef value);

private:
    PLHolder<const PLString> _name;
    PLHolder<const PLString> _accessKey;
    PLHolder<const PLString> _captureKey;
    PLHolder<const PLString> _capturePermKey;
    PLHolder<const PLObject> _config;
};

class QUILL_EXPORT CServiceConfigFile : public CPropertyListFile<CServiceConfigEntry> {
public:
    // The list of `serviceKind` (copied) in the shared configuration file of
    // the current user. Throws ferrocore::CNullPointerException for a null
    // kind ("Error: serviceKind is null!") or when there is no home
    // directory, and what refresh() throws.
    explicit CServiceConfigFile(PLStringRef serviceKind);
    ~CServiceConfigFile() override;

    PLStringRef serviceKind() const noexcept { return _serviceKind.get(); }

    // The base refresh (the whole file), then the list from "serviceconfig" ->
    // kind when the file holds it ("_orderList" honoured); otherwise the list
    // keeps what it had. Throws what the base refresh throws.
    bool refresh();
    // Replaces "serviceconfig" -> kind with the list. Without a lock held:
    // takes the exclusive lock, re-reads the whole file under it and gives the
    // lock back, so everything else is preserved. With the caller's lock held
    // it starts from the in-memory contents instead: see the top of this
    // file. Returns false whenever it does not throw.
    bool flush() const;

private:
    PLHolder<const PLString> _serviceKind;
};

}  // namespace quill

// Whether the client cluster administrator (kTolvaClusterAdminServiceKind)
// cancels its active jobs when it is restarted: true only when the first entry
// of its service configuration has a "config" dictionary holding "cancelJobs"
// (kDictKeyCancelJobs) as true. No entry, no key, or any ferrocore::CException
// (which is written to the console log as "QuillConfig::
// getCancelActiveJobsOnRestart failed, exception = <message>.") gives false.
// Other exceptions (std::bad_alloc) pass through.
QUILL_EXTERN_C QUILL_EXPORT bool getCancelActiveJobsOnRestart();

// Sets that choice: when the list has an entry at index 0, "cancelJobs" is set
// to true in a copy of its "config" dictionary (`cancel` true) or removed from
// it (`cancel` false), and the list is flushed. Without a first entry nothing
// is written: the installation of the service makes it. A
// ferrocore::CException is written to the console log as "QuillConfig::
// setCancelActiveJobsOnRestart failed, exception = <message>." and swallowed;
// other exceptions pass through. The read (when the list is opened) and the
// write (flush) are not under one lock: a concurrent change of the same list
// in between is overwritten.
QUILL_EXTERN_C QUILL_EXPORT void setCancelActiveJobsOnRestart(bool cancel);
