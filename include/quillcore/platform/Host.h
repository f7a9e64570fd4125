// The host seam: everything QuillCore asks of the machine it runs on, behind
// one interface, so that tests can replace any part of it.
//
// host() is the interface the library uses. By default it is the real Linux
// host (defaultHost()); a test installs a substitute with setHost() or, better,
// a CScopedHost, usually a CHostWrapper that overrides the one or two methods
// the test cares about and forwards everything else to the real host.
//
// Threads. The default host is safe to call from any thread at once. setHost()
// itself is atomic, but a substitute must stay alive for as long as it is
// installed and as long as any thread may still be calling into it; install
// and remove substitutes while no other thread uses the host. Substitutes used
// from several threads must be thread-safe themselves.
//
// Exceptions. Unless a method says otherwise, host methods report failures
// through their results and throw only std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/PLObject.h>
#include <quillcore/platform/export.h>

namespace quill::platform {

// A moment on the Gregorian calendar in the system time zone.
struct CCalendarDate {
    std::int32_t year = 2001;
    std::int32_t month = 1;    // 1 ... 12
    std::int32_t day = 1;      // 1 ... 31
    std::int32_t hour = 0;     // 0 ... 23
    std::int32_t minute = 0;   // 0 ... 59
    double second = 0.0;       // 0 ... below 61 (fraction included)
    std::int32_t weekday = 1;  // 1 = Monday ... 7 = Sunday
};

// The limit on open files of the process. Both values use kUnlimited for
// "no limit", whatever the kernel's own representation is.
struct CResourceLimit {
    static constexpr std::int64_t kUnlimited = std::numeric_limits<std::int64_t>::max();
    std::int64_t soft = 0;
    std::int64_t hard = 0;
};

// External programs and files whose locations the system fixes. Each may be
// moved elsewhere through an environment variable, read at every call with
// secure_getenv (so a privileged program is never redirected by its caller's
// environment), so that tests can point them at fakes.
enum class SystemPath : std::uint8_t {
    RunwardCtl,   // the service manager's control command
    Mount,        // the mount command
    Umount,       // the unmount command
    ExportsFile,  // the NFS exports file
};

inline constexpr const char* kRunwardCtlPath = "/bin/runwardctl";
inline constexpr const char* kRunwardCtlPathVariable = "QUILL_RUNWARDCTL";
// The mount and unmount commands default to the mount adapter installed with
// the library (quill-nfs-mount and quill-nfs-umount in its helper directory,
// <prefix>/libexec/quillcore unless configured otherwise; the path is fixed
// when the library is built). The adapter takes the storage subscriber's
// command lines and runs Linux's mount(8) and umount(8) for NFS; see
// docs/storage.md. Set QUILL_MOUNT=/sbin/mount and QUILL_UMOUNT=/sbin/umount
// (kSbinMountPath, kSbinUmountPath) on a host whose own commands take those
// command lines as they are.
QUILL_PLATFORM_EXPORT extern const char* const kMountPath;
inline constexpr const char* kMountPathVariable = "QUILL_MOUNT";
QUILL_PLATFORM_EXPORT extern const char* const kUmountPath;
inline constexpr const char* kUmountPathVariable = "QUILL_UMOUNT";
inline constexpr const char* kSbinMountPath = "/sbin/mount";
inline constexpr const char* kSbinUmountPath = "/sbin/umount";
inline constexpr const char* kExportsFilePath = "/etc/exports";
inline constexpr const char* kExportsFilePathVariable = "QUILL_EXPORTS_FILE";

// The longest a mount or unmount command may run, in seconds, on a host that
// does not say otherwise; an environment variable (read with secure_getenv)
// may shorten it, never lengthen it, so that tests need not wait that long.
inline constexpr const char* kCommandTimeLimitVariable = "QUILL_COMMAND_TIME_LIMIT";
// The text after the path on a line of the NFS exports file that QuillCore
// writes (exports(5)): every host may read and write. An environment variable
// (secure_getenv) replaces it; docs/storage.md describes the choice.
inline constexpr const char* kExportOptions = "*(rw,insecure,no_subtree_check)";
inline constexpr const char* kExportOptionsVariable = "QUILL_EXPORT_OPTIONS";

// What the volume statistics of a path tell (statfs).
struct CFileSystemFacts {
    // The file system's type name as the mount table gives it ("ext4",
    // "nfs", "exfat", "tmpfs"); the kernel's magic number in hexadecimal
    // ("0x1234abcd") for a type the host does not know by name.
    std::string typeName;
    bool readOnly = false;  // mounted read-only
    bool local = true;      // not a network file system
};

// One entry of the table of mounted file systems.
struct CMountedFileSystem {
    std::string source;      // what is mounted ("host:/path", "/dev/sda1")
    std::string mountPoint;  // where, decoded
    std::string type;        // the file-system type name
};

// When this environment variable names a file, console entries are appended to
// that file instead of going to the system log (read with secure_getenv).
inline constexpr const char* kConsoleLogVariable = "QUILL_CONSOLE_LOG";

// How IHost::openLockedFile opens a file and which whole-file advisory lock
// (flock semantics) it takes.
enum class FileLock : std::uint8_t {
    Shared,     // read-only, shared lock; a missing file fails with ENOENT
    Exclusive,  // read-write, exclusive lock; a missing file is created with mode 0600
};

// What the host tells about its processors (the first one, where they
// differ). Every field may be unknown; each says how that reads. Frequencies
// are in hertz.
struct CProcessorFacts {
    // The machine architecture as the kernel names it ("x86_64", "i686",
    // "aarch64"); empty when even that is unknown.
    std::string architecture;
    // The manufacturer's identification ("GenuineIntel", "AuthenticAMD");
    // empty when unknown.
    std::string vendor;
    // The family and model numbers of the processor identification (x86:
    // "cpu family" and "model"); -1 when unknown.
    std::int32_t family = -1;
    std::int32_t model = -1;
    // The marketing name ("Intel(R) Xeon(R) CPU E5-2680 v4 @ 2.40GHz"); empty
    // when unknown.
    std::string brand;
    // The nominal clock frequency; 0 when unknown.
    std::uint64_t frequency = 0;
    // The lowest and highest frequency the processor runs at; 0 when unknown.
    std::uint64_t minimumFrequency = 0;
    std::uint64_t maximumFrequency = 0;
};

// What a file-status query (stat, following symbolic links) tells of a file.
struct CFileStatus {
    std::uint32_t mode = 0;         // st_mode: type and permission bits
    std::uint32_t ownerUserID = 0;  // st_uid
    std::uint64_t size = 0;         // st_size, in bytes
};

// Everything the library takes from the host.
class QUILL_PLATFORM_EXPORT IHost {
public:
    IHost() = default;
    IHost(const IHost&) = delete;
    IHost& operator=(const IHost&) = delete;
    virtual ~IHost();

    // ------------------------------------------------------------ clock

    // The current absolute time (seconds since 2001-01-01 00:00:00 UTC).
    virtual PLAbsoluteTime currentTime() = 0;

    // ---------------------------------------------- time zone and calendar

    // `at` as a date in the system time zone. The zone is the one TZ names at
    // the moment of the call (the real host re-reads it every time). Never
    // fails: times of more than 10^16 seconds either way are clamped to that
    // range and NaN is taken as 0.
    virtual CCalendarDate calendarDate(PLAbsoluteTime at) = 0;

    // The absolute time of a local date in the system time zone; `weekday` is
    // ignored. Fields out of their ranges carry over (hour 24 is midnight of
    // the next day, month 13 is January of the next year). A local time that
    // a daylight-saving change skips or repeats resolves as the C library's
    // mktime does. NaN when the date cannot be represented.
    virtual PLAbsoluteTime absoluteTime(const CCalendarDate& local) = 0;

    // The setting that selects the system time zone right now (the real host:
    // the TZ environment variable, null when unset). The text belongs to the
    // host and stays valid until the setting changes; callers that cache
    // calendar results compare it (pointer and text) to notice a change, and
    // never keep it.
    virtual const char* timeZoneSetting() = 0;

    // ------------------------------------------------------- host facts

    // The user-visible name of the computer; empty when it has none.
    virtual std::string computerName() = 0;
    // The names of this host, primary first; empty when it reports none.
    virtual std::vector<std::string> hostNames() = 0;
    // The network addresses of this host as text, primary first; empty when
    // there are none.
    virtual std::vector<std::string> hostAddresses() = 0;
    // The number of processors available to the system; -1 when unknown.
    virtual std::int32_t processorCount() = 0;
    // The facts about the processors; see CProcessorFacts.
    virtual CProcessorFacts processorFacts() = 0;
    // The files of the program and of every shared object loaded into this
    // process, program first, then in load order, as the loader names them
    // (symbolic links not resolved; absolute unless a program loaded an
    // object by a relative path). Objects without a file (the kernel's
    // virtual one) are left out.
    virtual std::vector<std::string> loadedImagePaths() = 0;
    // The name of the running program (without directory).
    virtual std::string processName() = 0;
    virtual std::int32_t processID() = 0;
    // The environment of this process as a NULL-terminated vector of
    // "NAME=value" entries, to hand on unchanged to a child that is to run
    // with the caller's environment. Borrowed: valid until the environment
    // next changes (setenv, putenv, unsetenv); never null.
    virtual const char* const* processEnvironment() = 0;
    // The home directory of the current user; empty when it cannot be found.
    virtual std::string homeDirectory() = 0;
    // The directory for temporary files, without a trailing "/" (except "/").
    virtual std::string temporaryDirectory() = 0;

    // -------------------------------------------------- external commands

    virtual std::string systemPath(SystemPath which) = 0;
    // The time limit for a mount or unmount command whose standard limit is
    // `standardSeconds`: that, or less where the host is told so (the real
    // host: kCommandTimeLimitVariable when it holds a smaller positive
    // number).
    virtual double commandTimeLimit(double standardSeconds) = 0;
    // The text after the path on an exports line (the real host:
    // kExportOptionsVariable when set and not empty, else kExportOptions).
    virtual std::string exportOptions() = 0;

    // ------------------------------------------------------------ console

    // Writes one entry to the system console log. Trailing line feeds of
    // `text` are dropped; never fails visibly.
    virtual void logToConsole(std::string_view text) = 0;

    // ---------------------------------------------------- resource limits

    // The limit on open files (RLIMIT_NOFILE). On failure returns the system
    // error and leaves `limit` unchanged.
    virtual std::error_code getOpenFilesLimit(CResourceLimit& limit) = 0;
    virtual std::error_code setOpenFilesLimit(const CResourceLimit& limit) = 0;

    // ----------------------------------------------------- files and locks
    //
    // Opening hands out a CFileDescriptor that owns the descriptor; the
    // reading and writing calls borrow it as a plain int, which stays owned
    // by the caller's CFileDescriptor. Descriptors are opened close-on-exec so
    // that launched programs never inherit a lock. Failures come back as the
    // system's errno value (system category; message() is the system's text).

    // Opens `path` as `lock` says and takes that lock in the same step, before
    // any byte is read or written; blocks until the lock is granted, without
    // time-out (interrupted waits are resumed). The lock lives exactly as long
    // as the descriptor: closing it (or the process ending) gives it back. On
    // success `fd` owns the descriptor (one it held before is closed); on
    // failure nothing stays open and `fd` is left as it was.
    virtual std::error_code openLockedFile(const std::string& path, FileLock lock, CFileDescriptor& fd) = 0;
    // Closes the descriptor `fd` owns and reports the system's error; `fd` is
    // empty afterwards, and the descriptor gone, even when an error is
    // reported. An empty `fd` is EBADF.
    virtual std::error_code closeFile(CFileDescriptor& fd) = 0;
    // The length of the file, found by seeking to its end; the offset is put
    // back at the start of the file.
    virtual std::error_code fileLength(int fd, std::uint64_t& length) = 0;
    // Reads from the current offset until `size` bytes are in `buffer` or the
    // file ends, resuming after partial and interrupted reads. `got` is the
    // number of bytes read, also on failure; reaching the end early is no
    // error.
    virtual std::error_code readFile(int fd, void* buffer, std::size_t size, std::size_t& got) = 0;
    // Writes all `size` bytes at `offset` (positional writes, resumed after
    // partial and interrupted ones). `written` is the number of bytes written,
    // also on failure.
    virtual std::error_code writeFileAt(int fd, std::uint64_t offset, const void* data, std::size_t size,
                                        std::size_t& written) = 0;
    // Cuts (or extends) the file to `length` bytes.
    virtual std::error_code truncateFile(int fd, std::uint64_t length) = 0;
    // Opens `path` for appending, without a lock: every write goes to the
    // end of the file as it is at that moment, also with other writers. A
    // missing file is made with `mode` less the file-creation mask; with
    // `truncate` the file is emptied first. On success `fd` owns the
    // descriptor; on failure it is left as it was.
    virtual std::error_code openFileForAppending(const std::string& path, bool truncate, std::uint32_t mode,
                                                 CFileDescriptor& fd) = 0;
    // Opens `path` for reading only, without a lock. On success `fd` owns the
    // descriptor; on failure it is left as it was.
    virtual std::error_code openFileForReading(const std::string& path, CFileDescriptor& fd) = 0;
    // Makes the new file `path` with `mode` less the file-creation mask and
    // opens it for writing; an existing entry of that name (a symbolic link
    // included) is never opened and fails with std::errc::file_exists. On
    // success `fd` owns the descriptor; on failure it is left as it was.
    virtual std::error_code createFile(const std::string& path, std::uint32_t mode, CFileDescriptor& fd) = 0;
    // Writes all `size` bytes at the current offset (for a file opened for
    // appending, its end), resuming after partial and interrupted writes;
    // `written` as for writeFileAt().
    virtual std::error_code writeFile(int fd, const void* data, std::size_t size, std::size_t& written) = 0;
    // Makes the descriptor `to` refer to the open file of `from` (dup2,
    // resumed when interrupted), closing what `to` referred to before; `to`
    // is not close-on-exec afterwards. For replacing the process's standard
    // streams (0, 1, 2): the caller keeps owning `from`.
    virtual std::error_code duplicateDescriptor(int from, int to) = 0;

    // ------------------------------------------------------- file status
    //
    // Failures come back as the system's errno value, as above.

    // Whether a status query of the file system that holds `path` (statfs)
    // succeeds: a test that `path` exists and can be reached, whatever it is.
    virtual std::error_code fileSystemStatus(const std::string& path) = 0;
    // The same query, with what it tells about the file system; `facts` is
    // left as it was on failure.
    virtual std::error_code fileSystemFacts(const std::string& path, CFileSystemFacts& facts) = 0;
    // The table of mounted file systems, read without waiting for any of
    // them to answer; on failure `mounts` is left as it was.
    virtual std::error_code mountedFileSystems(std::vector<CMountedFileSystem>& mounts) = 0;
    // Whether the calling process may read (`read`) and write (`write`)
    // `path` (access(2) with the real user's rights): success, or the
    // system's error (EACCES when a right is missing, ENOENT, ...).
    virtual std::error_code checkAccess(const std::string& path, bool read, bool write) = 0;
    // `path` absolute, with every symbolic link, "." and ".." resolved
    // (realpath); on failure `resolved` is left as it was.
    virtual std::error_code resolvePath(const std::string& path, std::string& resolved) = 0;
    // Makes `to` a new hard link to the file `from` (link(2)); an existing
    // `to` fails with std::errc::file_exists.
    virtual std::error_code linkFile(const std::string& from, const std::string& to) = 0;
    // Replaces the trailing "XXXXXX" of `pathTemplate` by characters that
    // make the name of no existing entry at that moment (mktemp: nothing is
    // created, so the name may be taken before the caller uses it). EINVAL
    // when the template does not end in six "X"; `pathTemplate` is then left
    // as it was.
    virtual std::error_code makeUniqueName(std::string& pathTemplate) = 0;
    // The whole mode word of `path` (stat's st_mode: type and permission
    // bits), following symbolic links.
    virtual std::error_code fileMode(const std::string& path, std::uint32_t& mode) = 0;
    // The mode, owner and size of `path` (stat, following symbolic links). On
    // failure `status` is left as it was.
    virtual std::error_code fileStatus(const std::string& path, CFileStatus& status) = 0;
    // Sets the permission bits of `path` (chmod).
    virtual std::error_code setFileMode(const std::string& path, std::uint32_t mode) = 0;
    // Makes the directory `path` with `mode` less the file-creation mask
    // (mkdir); an existing one is reported as std::errc::file_exists.
    virtual std::error_code createDirectory(const std::string& path, std::uint32_t mode) = 0;
    // Sets the process's file-creation mask (umask) and returns the one it
    // replaces. The mask is process-wide: callers set it around one creation
    // and put the old one back at once, with a CScopedFileCreationMask.
    virtual std::uint32_t setFileCreationMask(std::uint32_t mask) = 0;

    // ------------------------------------------------ directory entries
    //
    // Failures come back as the system's errno value, as above.

    // Renames `from` to `to` in one step (rename(2)): an existing `to` is
    // replaced atomically; both must be on one file system.
    virtual std::error_code renameFile(const std::string& from, const std::string& to) = 0;
    // Removes the directory entry `path` (unlink(2)); a directory is refused
    // (EISDIR).
    virtual std::error_code removeFile(const std::string& path) = 0;
    // Removes the empty directory `path` (rmdir(2)).
    virtual std::error_code removeDirectory(const std::string& path) = 0;
    // The names of the entries of the directory `path`, without "." and "..",
    // sorted bytewise. On failure `names` is left as it was.
    virtual std::error_code listDirectory(const std::string& path, std::vector<std::string>& names) = 0;
};

// Forwards every call to a target host. Derive from it and override what a
// test needs to change. The target must outlive the wrapper. The wrapper is as
// thread-safe as its target and its overrides.
class QUILL_PLATFORM_EXPORT CHostWrapper : public IHost {
public:
    // Wraps the default (real) host.
    CHostWrapper();
    // Wraps `target`, which must not be null.
    explicit CHostWrapper(IHost* target) noexcept : _target(target) {}
    ~CHostWrapper() override;

    IHost& target() const noexcept { return *_target; }

    PLAbsoluteTime currentTime() override;
    CCalendarDate calendarDate(PLAbsoluteTime at) override;
    PLAbsoluteTime absoluteTime(const CCalendarDate& local) override;
    const char* timeZoneSetting() override;
    std::string computerName() override;
    std::vector<std::string> hostNames() override;
    std::vector<std::string> hostAddresses() override;
    std::int32_t processorCount() override;
    CProcessorFacts processorFacts() override;
    std::vector<std::string> loadedImagePaths() override;
    std::string processName() override;
    std::int32_t processID() override;
    const char* const* processEnvironment() override;
    std::string homeDirectory() override;
    std::string temporaryDirectory() override;
    std::string systemPath(SystemPath which) override;
    double commandTimeLimit(double standardSeconds) override;
    std::string exportOptions() override;
    void logToConsole(std::string_view text) override;
    std::error_code getOpenFilesLimit(CResourceLimit& limit) override;
    std::error_code setOpenFilesLimit(const CResourceLimit& limit) override;
    std::error_code openLockedFile(const std::string& path, FileLock lock, CFileDescriptor& fd) override;
    std::error_code closeFile(CFileDescriptor& fd) override;
    std::error_code fileLength(int fd, std::uint64_t& length) override;
    std::error_code readFile(int fd, void* buffer, std::size_t size, std::size_t& got) override;
    std::error_code writeFileAt(int fd, std::uint64_t offset, const void* data, std::size_t size,
                                std::size_t& written) override;
    std::error_code truncateFile(int fd, std::uint64_t length) override;
    std::error_code openFileForAppending(const std::string& path, bool truncate, std::uint32_t mode,
                                         CFileDescriptor& fd) override;
    std::error_code openFileForReading(const std::string& path, CFileDescriptor& fd) override;
    std::error_code createFile(const std::string& path, std::uint32_t mode, CFileDescriptor& fd) override;
    std::error_code writeFile(int fd, const void* data, std::size_t size, std::size_t& written) override;
    std::error_code duplicateDescriptor(int from, int to) override;
    std::error_code fileSystemStatus(const std::string& path) override;
    std::error_code fileSystemFacts(const std::string& path, CFileSystemFacts& facts) override;
    std::error_code mountedFileSystems(std::vector<CMountedFileSystem>& mounts) override;
    std::error_code checkAccess(const std::string& path, bool read, bool write) override;
    std::error_code resolvePath(const std::string& path, std::string& resolved) override;
    std::error_code linkFile(const std::string& from, const std::string& to) override;
    std::error_code makeUniqueName(std::string& pathTemplate) override;
    std::error_code fileMode(const std::string& path, std::uint32_t& mode) override;
    std::error_code fileStatus(const std::string& path, CFileStatus& status) override;
    std::error_code setFileMode(const std::string& path, std::uint32_t mode) override;
    std::error_code createDirectory(const std::string& path, std::uint32_t mode) override;
    std::uint32_t setFileCreationMask(std::uint32_t mask) override;
    std::error_code renameFile(const std::string& from, const std::string& to) override;
    std::error_code removeFile(const std::string& path) override;
    std::error_code removeDirectory(const std::string& path) override;
    std::error_code listDirectory(const std::string& path, std::vector<std::string>& names) override;

private:
    IHost* const _target;
};

// The real Linux host. It belongs to the library, lives for the whole process
// (it is never destroyed, so it may be used during static destruction) and
// must never be deleted.
QUILL_PLATFORM_EXPORT IHost& defaultHost() noexcept;

// The host currently in use: the installed substitute, else defaultHost().
QUILL_PLATFORM_EXPORT IHost& host() noexcept;

// Installs `substitute` (null reinstalls the default host) and returns the host
// that was installed before (null when it was the default). The caller keeps
// ownership of the substitute.
QUILL_PLATFORM_EXPORT IHost* setHost(IHost* substitute) noexcept;

// Installs a host for the lifetime of the object and then puts the previous
// one back. Scopes must end in the reverse order of their creation.
class QUILL_PLATFORM_EXPORT CScopedHost final {
public:
    explicit CScopedHost(IHost& substitute) noexcept : _previous(setHost(&substitute)) {}
    ~CScopedHost() { setHost(_previous); }
    CScopedHost(const CScopedHost&) = delete;
    CScopedHost& operator=(const CScopedHost&) = delete;

private:
    IHost* const _previous;
};

}  // namespace quill::platform
