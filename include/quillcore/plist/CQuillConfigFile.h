// The host's cluster configuration: whether the cluster daemon runs and on
// which port, where its output goes, whether this host shares its services
// and how it advertises them, and the password and port range used for that.
//
// The settings live in the shared configuration file (by default
// kQuillConfigFilePath with its "~/" expanded against the current HOME) under
// the top-level key "corvaneconfig"; the other sections of that file belong to
// other records and are preserved by flush(). The settings are plain public
// fields, read and assigned directly.
//
// Section layout (keys of "corvaneconfig"; the value a field has after a
// refresh when its key is absent):
//   StdoutPath         string   not set (see below)
//   StdoutServicePath  string   not set (see below)
//   DaemonEnabled      boolean  true
//   DaemonPort         integer  2189 (kQuillDaemonPortNumber); a stored 0 also reads as 2189
//   LaunchContentAgent boolean  true
//   SharingEnabled     boolean  false
//   SharingType        integer  0
//   LogToFile          boolean  false
//   RequirePassword    boolean  false
//   ServerPassword     string   ""
//   ServerName         string   the host's computer name, "" when it has none
//   Advertising        string   "RV": one of "DN" (1), "MC" (2), "RV" (3)
//   NetworkConnection  string   "allinterfaces" (sAllInterfacesValue) or one interface's name
//   AllowSalveeAds     boolean  true
//   AllowRemoteAds     boolean  true
//   DNSDomain          string   ""
//   UseDNSDomain       boolean  false
//   UsePortRange       boolean  false
//   PortRangeStart     integer  0
//   PortRangePorts     integer  0
// A written section holds only what differs from the defaults, except for the
// keys that toPropertyList() always writes (see there).
//
// The two stdout paths are deliberately kept across refreshes of one object:
// once read, a stdout path keeps its value even if its key has since vanished
// from the file. A fresh object starts without them.
//
// Read-modify-write and the lock (read this before taking a lock yourself).
// After refresh() the in-memory contents are the "corvaneconfig" section, not
// the whole file (the same rule as every list record, see CPropertyListFile).
// flush() without a lock held is safe: it takes the exclusive lock, reads the
// whole file afresh and replaces only "corvaneconfig". But a caller that takes
// lockForRW(), calls refresh() and then flush() writes the SECTION AS THE
// WHOLE FILE: every other top-level key (the service cache, the service
// configurations, the host scores) is lost. To change the settings atomically
// between processes, lock, refresh, change the fields, then read the whole
// file again under that lock (readPropertyList()), set "corvaneconfig" in a
// mutable copy of it to toPropertyList() and writePropertyList() the copy,
// and unlock.
//
// Threads: one object is used by one thread at a time (see
// CPropertyListBasicFile). Exceptions: the constructors, refresh() and flush()
// throw the ferrocore::CException values of CPropertyListBasicFile (an
// unreadable or malformed file, a lock or write failure); after a failed
// refresh flush() refuses to write. A missing file yields the defaults.
#pragma once

#include <cstdint>

#include <quillcore/export.h>
#include <quillcore/platform/PLObject.h>
#include <quillcore/plist/CPropertyListBasicFile.h>

namespace quill {

class QUILL_EXPORT CQuillConfigFile : public CPropertyListBasicFile {
public:
    // How the host advertises its services; stored as its two-letter text.
    enum class Advertising : std::int32_t {
        DN = 1,  // "DN"
        MC = 2,  // "MC"
        RV = 3,  // "RV", the default (never written)
    };

    // The network-connection value that means every network interface:
    // "allinterfaces".
    static const PLStringRef sAllInterfacesValue;

    // The shared configuration file of the current user. Throws
    // ferrocore::CNullPointerException when there is no home directory.
    CQuillConfigFile();
    // The file at `path`, used as it is.
    explicit CQuillConfigFile(PLStringRef path);
    ~CQuillConfigFile() override;

    // Puts every field except the two stdout paths back to its value before a
    // read: the table's defaults, except that the daemon port becomes 0 and
    // the server password, server name, network connection and DNS domain
    // become unset. refresh() fills them in again.
    void initRefresh();

    // initRefresh(), the base refresh (the whole file), then
    // fromPropertyList() with "corvaneconfig" when the file holds it as a
    // dictionary, then the post-read defaults (port 0 -> 2189, an unset or
    // empty server name -> the computer name or "", unset password, network
    // connection and DNS domain -> "", "allinterfaces", ""). Returns true;
    // throws what the base refresh throws (the fields are then at their
    // pre-read values).
    bool refresh();

    // Takes in `dict`, the "corvaneconfig" section: the base fromPropertyList
    // (the contents become the section, on purpose; see the top of this
    // file), then each key of the table that is present into its field, then
    // the post-read defaults. There is no type check; the library's own
    // writer made the values. A boolean field takes a boolean, or a number
    // (non-zero is true); a number field takes a number (converted to 32 bits)
    // or a boolean (1 or 0); string fields take strings; "Advertising" is
    // compared case-sensitively with "DN", "MC" and "RV". A value that fits
    // none of these leaves its field as it was. Throws kind 4 for a null
    // dictionary (from the base).
    void fromPropertyList(PLDictionaryRef dict);

    // A new "corvaneconfig" dictionary. Always written: "DaemonEnabled",
    // "SharingEnabled", "SharingType", "LogToFile", "RequirePassword".
    // Written when: "DaemonPort" the port is not 2189; "StdoutPath",
    // "StdoutServicePath", "ServerName", "DNSDomain" set (also when empty);
    // "LaunchContentAgent", "AllowSalveeAds", "AllowRemoteAds" false;
    // "ServerPassword" a password is required (the password, or "" when
    // unset), so turning the requirement off drops the stored password by
    // design; "Advertising" 1 or 2 ("DN" or "MC"); "NetworkConnection" set
    // and not "allinterfaces"; "UseDNSDomain", "UsePortRange" true;
    // "PortRangeStart", "PortRangePorts" non-zero. Numbers are 32-bit
    // integers. The version is not written.
    PLHolder<PLMutableDictionary> toPropertyList() const;

    // Replaces "corvaneconfig" with toPropertyList(). Without a lock held:
    // takes the exclusive lock, re-reads the whole file under it and gives the
    // lock back, so every other top-level key is preserved. With the caller's
    // lock held it starts from the in-memory contents instead: see the top of
    // this file. Returns false whenever it does not throw.
    bool flush() const;

    PLHolder<const PLString> stdoutPath;
    PLHolder<const PLString> stdoutServicePath;
    bool daemonEnabled = true;
    std::int32_t daemonPort = 0;
    bool launchContentAgent = true;
    bool sharingEnabled = false;
    std::int32_t sharingType = 0;
    bool logToFile = false;
    bool requirePassword = false;
    PLHolder<const PLString> serverPassword;
    PLHolder<const PLString> serverName;
    Advertising advertising = Advertising::RV;
    PLHolder<const PLString> networkConnection;
    bool allowSalveeAds = true;
    bool allowRemoteAds = true;
    PLHolder<const PLString> dnsDomain;
    bool useDNSDomain = false;
    bool usePortRange = false;
    std::int32_t portRangeStart = 0;
    std::int32_t portRangePorts = 0;

private:
    void applyReadDefaults();
};

}  // namespace quill
