// Brings the user's configuration file up to date with the master defaults
// that ship inside the cluster framework, once, at the daemon's start-up.
//
// The client application's configuration file (the shared file of the
// records) starts as a copy of the master defaults. When a newer framework
// ships newer defaults, the user's file takes them up without losing what the
// user changed: beside the file lies a copy of the defaults it was last based
// on, which tells the user's own changes from stale defaults.
//
// Paths. Three, kept in a process-wide table built when the library is loaded
// and resolved by resolveFilePaths():
//   the user's file          "~/Library/Application Support/Lumenforge/LumenforgeConfig.plist"
//   the user's defaults copy the same with ".default" appended
//   the master defaults      "@Frameworks/Corvane.framework/Resources/LumenforgeConfig.plist.default"
// "~" is the current user's home directory; "@Frameworks/" is the directory
// that holds Corvane.framework (see control/FrameworkPaths.h). A path that
// cannot be resolved (no home directory; the library not inside the
// frameworks) stays as it is written, and is then simply not present.
//
// Presence. A path counts as present when a status query of its file system
// (statfs) succeeds; that is the one test used throughout.
//
// Output. Progress goes to the stream given at construction, one line each.
// The lines of run() begin with the current time stamp (CTimeStamp: the text
// and ": "); the lines of needMergeLumenforgeConfigFile() and
// lumenforgeConfigFileContentsValid() have none. Every line ends with a line
// feed and a flush of the stream.
//
// Permissions. The user's file and its defaults copy are written with
// permissions 0600.
//
// Threads. An updater is used by one thread at a time. The files themselves
// are read and written under the locks of CPropertyListBasicFile, except for
// the whole-file copies, which take no lock (they run before the daemon's
// other users of the file start).
//
// Exceptions. run() catches every ferrocore::CException (see there); the
// other operations throw what they say, std::bad_alloc and failures of the
// output stream (if it throws) pass through everywhere.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

#include <quillcore/export.h>
#include <quillcore/platform/PLObject.h>

namespace quill {

class QUILL_EXPORT QuillConfigUpdater final {
public:
    // Mode of the files the updater writes.
    static constexpr std::uint32_t kFileMode = 0600;

    // Keeps a reference to `log`, which must outlive the updater. The paths
    // start as the table's unresolved texts.
    explicit QuillConfigUpdater(std::ostream& log);
    ~QuillConfigUpdater();
    QuillConfigUpdater(const QuillConfigUpdater&) = delete;
    QuillConfigUpdater& operator=(const QuillConfigUpdater&) = delete;

    // The whole update:
    // 1. resolveFilePaths();
    // 2. the user's file is not present: writes "Corvane daemon needs to copy
    //    the lumenforge config file <path>", copies, and stops;
    // 3. its contents are not valid: writes the same with " (invalid
    //    contents)" appended, copies, and stops;
    // 4. a merge is needed: writes "Corvane daemon needs to merge the
    //    lumenforge config file <path>" and merges.
    // A ferrocore::CException from any step is caught and written as
    // "Exception caught while copying/merging the lumenforge config file
    // <path>: <message>"; run() then returns normally. Other exceptions pass.
    void run();

    // Resolves the three paths of the table into the updater's paths.
    void resolveFilePaths();
    // `path` resolved: relative and home-based paths as below, others as they
    // are. False (with `resolved` set to `path`) when it cannot be resolved.
    bool resolveFilePath(const std::string& path, std::string& resolved) const;
    // Whether `path` begins with "@".
    static bool isRelativeFilePath(std::string_view path) noexcept;
    // "@Frameworks/<rest>" becomes "<directory holding Corvane.framework>/
    // <rest>". False (with `resolved` set to `path`) for any other "@" path
    // and when the framework is not found.
    bool resolveRelativeFilePath(const std::string& path, std::string& resolved) const;
    // Whether `path` begins with "~".
    static bool isUserHomeBasedFilePath(std::string_view path) noexcept;
    // "~/<rest>" against the current user's home directory; any other path
    // (also "~user/...") and every path when there is no home directory are
    // returned as they are.
    static std::string resolveUserHomeBasedFilePath(const std::string& path);

    // Whether the user's file must be copied from the master: it is not
    // present or its contents are not valid.
    bool needCopyLumenforgeConfigFile() const;
    // Copies the master to the user's defaults copy and then to the user's
    // file. Throws ferrocore::CFileException "QuillConfigUpdater: file
    // \"<master>\" not found" when the master is not present, and what
    // copyFile() throws.
    void copyLumenforgeConfigFile();
    // Whether the user's file can be read as the cluster configuration and as
    // the service cache, and each cached entry of the two transcoders and the
    // cluster admin service that is present names an executable path (a
    // non-empty "Path"). The kinds are QuillCorePrivate::
    // kTolvaTranscoderServiceKind, kTolvaTranscoder32bitServiceKind and
    // kTolvaClusterAdminServiceKind. A ferrocore::CException while reading is written
    // as "Exception caught while checking contents of the lumenforge config
    // file <path>: <message>" and makes the answer false.
    bool lumenforgeConfigFileContentsValid() const;
    // Whether the master's version is greater than the user file's (versions
    // as in compareVersions()). Throws the file-not-found exception for the
    // user's file when it is not present. When the master is not present,
    // writes "Corvane daemon can't find the master config file <path>" and
    // answers false. Throws what reading either file throws.
    bool needMergeLumenforgeConfigFile() const;
    // Merges the master into the user's file:
    // 1. without a defaults copy, the user's file becomes it (its current
    //    values count as the defaults they were based on);
    // 2. stops when the user's version equals the master's (isEqual);
    // 3. the user's version becomes the master's, and the master's settings
    //    are merged into the user's (mergeSettingsDict, with the defaults copy
    //    as the old defaults); the result is written over the user's file
    //    under its exclusive lock;
    // 4. the master is copied over the defaults copy.
    // Throws what reading, writing and copyFile() throw.
    void mergeLumenforgeConfigFile();

    // Whether `path` is present (see the top of this file).
    bool isFilePresent(const std::string& path) const;
    // Copies the contents of `from` over `to` (ferrocore::copyFileContents,
    // creating `to`) and gives `to` the permissions `mode`. Throws what the
    // copy throws, and ferrocore::CFileException (with errno)
    // "QuillConfigUpdater::copyFile: stat() on file <to> failed, error = <text>"
    // or "... chmod() on file <to> failed, error = <text>".
    void copyFile(const std::string& from, const std::string& to, std::uint32_t mode);
    // Gives `path` the permissions `mode`, unless the file's whole mode word
    // (type bits included) already equals `mode`, which for a regular file
    // never holds; so the mode is always set, on purpose. Throws
    // ferrocore::CFileException (with errno) "QuillConfigUpdater::
    // setFilePermissions: stat() on file <path> failed, error = <text>" or
    // "... chmod() on file <path> failed, error = <text>".
    void setFilePermissions(const std::string& path, std::uint32_t mode);
    // Value equality; two missing values are equal, one missing value is not
    // equal to anything.
    static bool isEqual(PLTypeRef a, PLTypeRef b) noexcept;
    // Merges `newDefaults` into `target`, key by key; returns whether `target`
    // changed. For each key of `newDefaults`:
    // - the user (target) has no value, or one of another type: the new value;
    // - not dictionaries: nothing when equal; else the user's value stays when
    //   an old default exists, is of the user value's type and differs from
    //   it (the user changed the setting); otherwise the new value;
    // - dictionaries: merged recursively (the old default is passed on only
    //   when it is a dictionary).
    // Keys only the user has are kept. `oldDefaults` may be null; a null
    // `target` or `newDefaults` changes nothing.
    bool mergeSettingsDict(PLMutableDictionaryRef target, PLDictionaryRef oldDefaults,
                           PLDictionaryRef newDefaults) const;
    // Throws ferrocore::CFileException "QuillConfigUpdater: file \"<path>\"
    // not found".
    [[noreturn]] void throwFileNotFoundException(const std::string& path) const;

    // Compares two version texts numerically, component by component
    // (components separated by "."; each the number its leading digits make,
    // 0 when it has none; missing components are 0): "1.10" is above "1.9",
    // "1.0" equals "1". Negative, zero or positive like strcmp.
    static int compareVersions(std::string_view a, std::string_view b) noexcept;

    // The current paths (resolved after resolveFilePaths()).
    const std::string& userFilePath() const noexcept { return _userFilePath; }
    const std::string& userDefaultsFilePath() const noexcept { return _userDefaultsFilePath; }
    const std::string& masterFilePath() const noexcept { return _masterFilePath; }

private:
    void writeStampedLine(std::string_view text) const;
    void writeLine(std::string_view text) const;
    void applyPermissions(const char* operation, const std::string& path, std::uint32_t mode) const;

    std::ostream& _log;
    std::string _userFilePath;
    std::string _userDefaultsFilePath;
    std::string _masterFilePath;
};

}  // namespace quill
