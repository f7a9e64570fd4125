// The service cache: the host's record of every installed cluster service,
// what it is called, which executable and bundle it runs from, for which
// users, how many instances, with which logging, and whether it is enabled,
// visible and shared.
//
// CServiceCacheEntry is one record; CServiceCacheFile is the list of them,
// kept in the shared configuration file (by default kServiceCacheFilePath with
// its "~/" expanded against the current HOME) under the top-level key
// "corvaneservices": a dictionary from service name to entry dictionary,
// without an order list. The other sections of the file belong to other
// records and are preserved by flush().
//
// Entry dictionary (key, type, value when absent on reading, when written):
//   SharePref         boolean  false      always
//   NetworkName       string   unset      when set
//   DisplayName       string   unset      when set
//   Description       string   unset      when set
//   Executable        string   unset      when set
//   Path              string   unset      when set
//   BundlePath        string   unset      when set
//   CaptureKey        string   unset      when set
//   UserPrefs         dict     unset      always (empty when unset), holding
//                                         "StdoutPath" and the per-user
//                                         "LogLevel" / "TruncateLog" overrides
//   Version           integer  0          when non-zero (64-bit)
//   UserID            integer  -1         always
//   UserIDs           array    unset      when set
//   Instances         integer  0          always; a negative count means one
//                                         instance per that many processors
//                                         and is made real on reading
//   PerUserService    boolean  false      only when true
//   Enabled, ExplicitSyncOnly, DetachDaemon, LocalAds, Logging
//                     boolean  false      always
//   LogLevel          integer  3          only when not 3
//   TruncateLog       boolean  false      only when true
//   Visible           boolean  false      always
//   Advertising       integer  0          when non-zero
//   LaunchHint        string   unchanged  when non-empty
// A value of the wrong type reads as the default for numbers and flags. Under
// a string, array or dictionary key it is taken as it is: the field reads as
// unset, but the value is kept and written back unchanged by toDict() unless
// the field has been set since (a "Path" stored as a number survives a
// rewrite of the cache).
//
// Read-modify-write and the lock (read this before taking a lock yourself).
// After refresh() the in-memory contents are the "corvaneservices" section,
// not the whole file (see CPropertyListFile). flush() without a lock held is
// safe: it takes the exclusive lock, reads the whole file afresh and replaces
// only "corvaneservices". But a caller that takes lockForRW(), calls refresh()
// and then flush() writes the SECTION AS THE WHOLE FILE: every other top-level
// key (the cluster configuration, the service configurations, the host scores)
// is lost. To change the cache atomically between processes, lock, refresh,
// change the entries, then read the whole file again under that lock
// (readPropertyList()), set "corvaneservices" in a mutable copy of it to
// toPropertyList(), writePropertyList() the copy, and unlock.
//
// Threads: entries are plain values; a file object is used by one thread at a
// time. Exceptions: entries throw only std::bad_alloc; the file throws the
// ferrocore::CException values of CPropertyListBasicFile.
#pragma once

#include <cstdint>

#include <quillcore/export.h>
#include <quillcore/platform/PLObject.h>
#include <quillcore/plist/CPropertyListFile.h>

namespace quill {

class QUILL_EXPORT CServiceCacheEntry final {
public:
    // The default log level, also the level at which no override is kept.
    static constexpr std::int32_t kDefaultLogLevel = 3;

    // Every string and container unset, user ID -1, log level 3, every other
    // number and flag 0 or false.
    CServiceCacheEntry() = default;
    // The defaults, the name (retained), then fromDict(dict).
    CServiceCacheEntry(PLStringRef name, PLDictionaryRef dict);
    CServiceCacheEntry(const CServiceCacheEntry&) = default;
    CServiceCacheEntry& operator=(const CServiceCacheEntry&) = default;
    CServiceCacheEntry(CServiceCacheEntry&&) noexcept = default;
    CServiceCacheEntry& operator=(CServiceCacheEntry&&) noexcept = default;
    ~CServiceCacheEntry() = default;

    // Reads every key of the table from `dict` (null reads as empty):
    // absent values give the defaults above, a negative "Instances" is made
    // real at once (ConvertToRealInstanceCount), and two fields keep their
    // previous value unless the dictionary holds a non-empty one: the stdout
    // path (taken from "StdoutPath" inside "UserPrefs") and the launch hint.
    void fromDict(PLDictionaryRef dict);
    // A new dictionary by the table's writing rules. The stdout path is
    // stored only inside "UserPrefs" (a copy of the user preferences).
    PLHolder<PLMutableDictionary> toDict() const;

    // `count` when it is 0 or more. A negative count means one instance per
    // -count processors of the host (IHost::processorCount; an unknown count
    // counts as 1): their number divided by -count, and 1 when that is 0.
    // For example -2 on an 8-processor host gives 4, -16 gives 1.
    static std::int32_t ConvertToRealInstanceCount(std::int32_t count);

    // The log level. perUser false: the entry's own level, found true.
    // perUser true: the override "LogLevel" of the user preferences, found
    // true, or 3 with found false when there is none.
    std::int32_t logLevel(bool perUser, bool& found) const;
    // perUser false: sets the entry's own level. perUser true: nothing when
    // `level` is 3 and there are no user preferences; otherwise, in a copy of
    // the preferences (or new ones), removes the override when `level` and
    // the entry's own level are both 3, else sets it to `level`.
    void setLogLevel(std::int32_t level, bool perUser);
    // Log truncation. perUser false: the entry's own flag, found true.
    // perUser true: found says whether "TruncateLog" is in the user
    // preferences; the result is found and its value.
    bool truncateLog(bool perUser, bool& found) const;
    // perUser false: sets the entry's own flag. perUser true: nothing when
    // there are no user preferences and `truncate` is false; otherwise, in a
    // copy of the preferences (or new ones), removes the override when
    // `truncate` and the entry's own flag are both true, else sets it to
    // `truncate`. (Unlike the log level, a false override is kept: the two
    // rules differ on purpose.)
    void setTruncateLog(bool truncate, bool perUser);

    // Translates the path and then the bundle path, each when set, with
    // getRuntimePath() and stores a result that differs from the stored text.
    // True when either changed.
    bool updateRuntimeServicePath();

    PLStringRef name() const noexcept { return _name.get(); }
    PLStringRef networkName() const noexcept { return _networkName.get(); }
    PLStringRef displayName() const noexcept { return _displayName.get(); }
    PLStringRef description() const noexcept { return _description.get(); }
    PLStringRef executable() const noexcept { return _executable.get(); }
    PLStringRef path() const noexcept { return _path.get(); }
    PLStringRef bundlePath() const noexcept { return _bundlePath.get(); }
    PLStringRef captureKey() const noexcept { return _captureKey.get(); }
    PLDictionaryRef userPrefs() const noexcept { return _userPrefs.get(); }
    PLArrayRef userIDs() const noexcept { return _userIDs.get(); }
    PLStringRef stdoutPath() const noexcept { return _stdoutPath.get(); }
    PLStringRef launchHint() const noexcept { return _launchHint.get(); }

    // Each replaces one value (retained); null clears it.
    void setNetworkName(PLStringRef value);
    void setDisplayName(PLStringRef value);
    void setDescription(PLStringRef value);
    void setExecutable(PLStringRef value);
    void setPath(PLStringRef value);
    void setBundlePath(PLStringRef value);
    void setCaptureKey(PLStringRef value);
    void setUserIDs(PLArrayRef value);
    void setUserPrefs(PLDictionaryRef value);
    void setStdoutPath(PLStringRef value);
    void setLaunchHint(PLStringRef value);

    bool sharePref() const noexcept { return _sharePref; }
    std::int64_t version() const noexcept { return _version; }
    std::int32_t userID() const noexcept { return _userID; }
    std::int32_t instances() const noexcept { return _instances; }
    bool perUserService() const noexcept { return _perUserService; }
    bool enabled() const noexcept { return _enabled; }
    bool explicitSyncOnly() const noexcept { return _explicitSyncOnly; }
    bool detachDaemon() const noexcept { return _detachDaemon; }
    bool localAds() const noexcept { return _localAds; }
    bool logging() const noexcept { return _logging; }
    bool visible() const noexcept { return _visible; }
    std::int32_t advertising() const noexcept { return _advertising; }

    void setSharePref(bool value) noexcept { _sharePref = value; }
    void setVersion(std::int64_t value) noexcept { _version = value; }
    void setUserID(std::int32_t value) noexcept { _userID = value; }
    // Stored as given; a negative count is made real only on reading.
    void setInstances(std::int32_t value) noexcept { _instances = value; }
    void setPerUserService(bool value) noexcept { _perUserService = value; }
    void setEnabled(bool value) noexcept { _enabled = value; }
    void setExplicitSyncOnly(bool value) noexcept { _explicitSyncOnly = value; }
    void setDetachDaemon(bool value) noexcept { _detachDaemon = value; }
    void setLocalAds(bool value) noexcept { _localAds = value; }
    void setLogging(bool value) noexcept { _logging = value; }
    void setVisible(bool value) noexcept { _visible = value; }
    void setAdvertising(std::int32_t value) noexcept { _advertising = value; }

private:
    bool _sharePref = false;
    PLHolder<const PLString> _name;
    PLHolder<const PLString> _networkName;
    PLHolder<const PLString> _displayName;
    PLHolder<const PLString> _description;
    PLHolder<const PLString> _executable;
    PLHolder<const PLString> _path;
    PLHolder<const PLString> _bundlePath;
    PLHolder<const PLString> _captureKey;
    PLHolder<const PLDictionary> _userPrefs;
    std::int64_t _version = 0;
    std::int32_t _userID = -1;
    PLHolder<const PLArray> _userIDs;
    std::int32_t _instances = 0;
    bool _perUserService = false;
    bool _enabled = false;
    bool _explicitSyncOnly = false;
    bool _detachDaemon = false;
    bool _localAds = false;
    bool _logging = false;
    std::int32_t _logLevel = kDefaultLogLevel;
    bool _truncateLog = false;
    bool _visible = false;
    std::int32_t _advertising = 0;
    PLHolder<const PLString> _stdoutPath;
    PLHolder<const PLString> _launchHint;
    // Values found under the string, array and dictionary keys with another
    // type, by key; written back as they are (null when there are none).
    PLHolder<const PLDictionary> _otherTypedValues;

    void writeOtherTypedValues(PLMutableDictionary& dict) const;
};

class QUILL_EXPORT CServiceCacheFile : public CPropertyListFile<CServiceCacheEntry> {
public:
    // The shared configuration file of the current user. Throws
    // ferrocore::CNullPointerException when there is no home directory.
    CServiceCacheFile();
    // The file at `path` (copied), used as it is.
    explicit CServiceCacheFile(PLStringRef path);
    ~CServiceCacheFile() override;

    // The base refresh (the whole file), then the entries from
    // "corvaneservices" when the file holds it; otherwise the list keeps what
    // it had. Throws what the base refresh throws.
    bool refresh();
    // Replaces "corvaneservices" with the entries. Without a lock held: takes
    // the exclusive lock, re-reads the whole file under it and gives the lock
    // back, so every other top-level key is preserved. With the caller's lock
    // held it starts from the in-memory contents instead: see the top of this
    // file. Returns false whenever it does not throw.
    bool flush() const;

    // Runs updateRuntimeServicePath() on every entry and stores the changed
    // ones back in place. True when any changed. Does not flush.
    bool updateRuntimeServicePaths();
};

}  // namespace quill
