// The settings of one cluster: its member hosts, name, storage and limits.
//
// A value record with no file of its own: it is read from and written to a
// dictionary that its users keep wherever they keep cluster definitions. Keys
// it does not know survive a read and write-back, because toDict() starts
// from the dictionary that fromDict() read.
//
// Dictionary keys, types and the value when absent:
//   Cluster                         array    unset
//   Name                            string   unset
//   Storage                         string   unset
//   PrivateStorage                  boolean  false
//   PublishedStorage                boolean  true
//   StorageCleanupThreshold         integer  -1 (none)
//   StatusInterval                  integer  5
//   MaxActiveTargets                integer  -1 (no limit)
//   MaxActiveSegments               integer  -1 (no limit)
//   Local                           boolean  false
//   Shared                          boolean  false
//   UnmanagedServices               boolean  false
//   UnmanagedMultiCaptureThreshold  integer  0
// Numbers are 64-bit integers. A value of the wrong type reads as absent.
//
// Threads: a plain value; copies may be used on different threads.
// Exceptions: only std::bad_alloc.
#pragma once

#include <cstdint>

#include <quillcore/export.h>
#include <quillcore/platform/PLObject.h>

namespace quill {

class QUILL_EXPORT CClusterPrefs final {
public:
    // The defaults above, no source dictionary.
    CClusterPrefs() = default;
    CClusterPrefs(const CClusterPrefs&) = default;
    CClusterPrefs& operator=(const CClusterPrefs&) = default;
    CClusterPrefs(CClusterPrefs&&) noexcept = default;
    CClusterPrefs& operator=(CClusterPrefs&&) noexcept = default;
    ~CClusterPrefs() = default;

    // Every field from `dict` (absent keys give the defaults above; null reads
    // as an empty dictionary), and an immutable copy of `dict` kept as the
    // source of the next toDict().
    void fromDict(PLDictionaryRef dict);
    // A mutable copy of the source dictionary (a new one without it) with
    // each key set or removed:
    // - "Cluster", "Name", "Storage": set when the field holds a value;
    // - "PrivateStorage", "UnmanagedServices": true when true, else removed;
    // - "PublishedStorage": false when false, removed when true (the default);
    // - "StorageCleanupThreshold": removed when -1;
    // - "StatusInterval", "Local", "Shared": always set;
    // - "MaxActiveTargets", "MaxActiveSegments": removed when negative;
    // - "UnmanagedMultiCaptureThreshold": removed when 0.
    PLHolder<PLMutableDictionary> toDict() const;

    PLArrayRef cluster() const noexcept { return _cluster.get(); }
    PLStringRef name() const noexcept { return _name.get(); }
    PLStringRef storage() const noexcept { return _storage.get(); }
    // Replace the value (retained); null clears it.
    void setCluster(PLArrayRef cluster);
    void setName(PLStringRef name);
    void setStorage(PLStringRef storage);

    bool privateStorage = false;
    bool publishedStorage = true;
    std::int64_t storageCleanupThreshold = -1;
    std::int64_t statusInterval = 5;
    std::int64_t maxActiveTargets = -1;
    std::int64_t maxActiveSegments = -1;
    bool local = false;
    bool shared = false;
    bool unmanagedServices = false;
    std::int64_t unmanagedMultiCaptureThreshold = 0;

private:
    PLHolder<const PLDictionary> _source;
    PLHolder<const PLArray> _cluster;
    PLHolder<const PLString> _name;
    PLHolder<const PLString> _storage;
};

}  // namespace quill
