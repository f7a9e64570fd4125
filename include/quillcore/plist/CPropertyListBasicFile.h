// A property-list file that several processes of one host read and rewrite at
// once: the common base of every persistent record of the library.
//
// The file is an XML property list whose top level is a dictionary. The object
// reads it whole, keeps the top-level dictionary in memory (its "contents"),
// writes it back in place, and serialises access between processes with
// whole-file advisory locks (flock semantics) held on an open descriptor:
// shared for reading, exclusive for writing, both blocking without time-out.
// A lock lives exactly as long as its descriptor; it is never taken or given
// back apart from opening and closing.
//
// File format. One top-level key is reserved here: "Version", a string. A file
// without it, or with a value of another type there, has version "1.0". A
// missing or empty (zero-length) file reads as an empty dictionary. Writing
// is in place: seek to the start, one write, truncate to the written length;
// no temporary file, no rename, no sync. Readers never see a half-written file
// as long as every access goes through this class (they wait for the writer's
// exclusive lock); a process killed in the middle of its write can leave a
// damaged file, which every later reader then refuses (see below).
//
// Parsing is skipped when the bytes read are exactly those this object last
// read or wrote: it keeps those bytes (a copy of the file) and the immutable
// dictionary they parse to, and hands that out again. The kept dictionary is
// exactly what parsing would give (same values, number kinds and key order),
// so the only visible difference is speed. A process that rewrites the file
// repeatedly (flock hands the lock straight back to the process that just
// released it) therefore parses only what other processes wrote.
//
// A file that cannot be read is never overwritten: a failed read sets the
// last-refresh-failed flag, and every write is refused while it is set. Only a
// later successful read clears it.
//
// Paths. The path is used exactly as given; a leading "~/" is NOT expanded
// here. The shared path constants are stored with their tilde, and the record
// classes expand it (CFileUtil::expandTildeInPath) before they build their
// base, so this class always sees a real path.
//
// Derived files. `refresh`, `flush`, `fromPropertyList` and `toPropertyList`
// are ordinary (non-virtual) operations that each record class defines again
// under the same name and that are called on the concrete class. The only
// virtual operation is the destructor. flushDerived() below is the common
// flush of the records; CPropertyListFile<T> adds the list records' refresh.
//
// Threads. An object is used by one thread at a time; nothing in it is
// guarded against concurrent use. Different objects (in one process or in
// several) coordinate through the file locks alone. Note that flock locks
// belong to the open descriptor, not to the process: two objects of one
// process that lock the same file exclusively exclude each other like two
// processes do (the second blocks, so one thread must not do that).
//
// Exceptions. Failures are thrown as ferrocore::CException: kind
// kExceptionKindSystemCall (4) for failed system calls and a missing
// dictionary, kExceptionKindHostRuntime (255) for failures of the runtime
// (parsing, serialising, making a dictionary) and for a write refused after a
// failed read. Reads and writes also write the exception's message to the
// console log (PLUtil::LogToConsole) before they throw it on. Messages carry
// the process ID in brackets and the file path in parentheses, for example
// "CPropertyListBasicFile::writePropertyList[4711](/x/y.plist): can't write
// file, error = No space left on device". std::bad_alloc passes through.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>

#include <ferrocore/CSharedObject.h>
#include <quillcore/export.h>
#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/PLObject.h>

namespace quill {

class QUILL_EXPORT CPropertyListBasicFile {
public:
    // Open modes of COpenFile and lock modes of the two-argument constructor.
    static constexpr std::int32_t kOpenModeRead = 1;       // read-only, shared lock
    static constexpr std::int32_t kOpenModeReadWrite = 2;  // read-write, exclusive lock, created 0600
    static constexpr std::int32_t kOpenModeAdopted = 99;   // a descriptor handed in, no path

    class COpenFile;
    class CFileLockMonitor;
    using COpenFileRef = ferrocore::CSharedObjectRef<COpenFile>;
    using CFileLockMonitorRef = ferrocore::CSharedObjectRef<CFileLockMonitor>;

    // An open descriptor with the lock of its mode; the lock ends when the
    // descriptor is closed (close(), or the last reference going away).
    // Reference-counted: a CPropertyListBasicFile holds its current lock
    // through a COpenFileRef, and fileLock() hands out further references.
    class QUILL_EXPORT COpenFile : public ferrocore::CSharedObject {
    public:
        // Retains `path` and opens it in `mode` (see open()). Throws what
        // open() throws; ferrocore::CNullPointerException for a null path.
        COpenFile(PLStringRef path, std::int32_t mode);
        // Adopts the open descriptor `fd` (closed when this object goes):
        // mode kOpenModeAdopted, no path, last error 0.
        explicit COpenFile(int fd) noexcept;

        // Does nothing and returns false when the descriptor is already open.
        // Otherwise opens by mode and takes the lock, blocking until granted:
        // - kOpenModeReadWrite: read-write, created with permissions 0600 when
        //   missing, exclusive lock. Failure throws kind 4 "CPropertyListBasicFile::
        //   COpenFile::open[pid](RW, path): can't get write file lock, error = ...".
        // - kOpenModeRead: read-only, shared lock. A missing file is no error:
        //   the last error becomes ENOENT, the descriptor stays -1 and the
        //   result is false. Any other failure throws kind 4 "...open[pid](Read,
        //   path): can't get read file lock, error = ...".
        // - any other mode (an adopted descriptor after close() included)
        //   throws kind 4 "...open[pid](path): wrong open mode = N".
        // On success the last error becomes 0 and the result is true. A failed
        // open stores its errno as the last error.
        bool open();
        // False when not open; otherwise closes the descriptor (ending its
        // lock), sets it to -1 and returns true.
        bool close() noexcept;

        bool isOpen() const noexcept { return _fd.valid(); }
        // The path (borrowed; null for an adopted descriptor).
        PLStringRef path() const noexcept { return _path.get(); }
        std::int32_t openMode() const noexcept { return _mode; }
        // The descriptor, -1 when not open.
        int descriptor() const noexcept { return _fd.get(); }
        // errno of the last failed open, 0 after a successful one.
        std::int32_t lastError() const noexcept { return _lastError; }

    protected:
        // Closes the descriptor if it is open.
        ~COpenFile() override;

    private:
        PLHolder<const PLString> _path;
        std::int32_t _mode;
        platform::CFileDescriptor _fd;
        std::int32_t _lastError;
    };

    // Gives a file's lock back when it goes away: its destructor calls
    // `unlock()` on the file if the file then holds a lock. A derived flush
    // that took the lock itself keeps one in a local reference, so the lock is
    // released however the flush ends. The file must outlive the monitor.
    class QUILL_EXPORT CFileLockMonitor : public ferrocore::CSharedObject {
    public:
        explicit CFileLockMonitor(const CPropertyListBasicFile* file) noexcept : _file(file) {}

    protected:
        ~CFileLockMonitor() override;

    private:
        const CPropertyListBasicFile* _file;  // not owned
    };

    // Stores `path` (retained; used as given, see the top of this file), holds
    // no lock, then refresh(). Throws what refresh() throws, and
    // ferrocore::CNullPointerException ("Error: path is null!") for a null
    // path.
    explicit CPropertyListBasicFile(PLStringRef path);
    // Stores `path`; for lockMode kOpenModeRead or kOpenModeReadWrite opens a
    // COpenFile in that mode and keeps it as the current lock, dropping it at
    // once if it did not open (read mode on a missing file); any other value
    // takes no lock. Then refresh(), under that lock when one is held. Throws
    // what COpenFile and refresh() throw.
    CPropertyListBasicFile(PLStringRef path, std::int32_t lockMode);
    // Drops the lock reference: the descriptor closes (and the lock ends)
    // unless a fileLock() result is still held elsewhere.
    virtual ~CPropertyListBasicFile();

    // The object is tied to its lock and to monitors that point at it.
    CPropertyListBasicFile(const CPropertyListBasicFile&) = delete;
    CPropertyListBasicFile& operator=(const CPropertyListBasicFile&) = delete;

    // readPropertyList(), then fromPropertyList() with the result. Returns
    // true (a dictionary was obtained); failures throw (see
    // readPropertyList), leaving the contents as they were.
    bool refresh();

    // Reads the whole file and returns its top-level dictionary as a new
    // reference (immutable as parsed; a new empty mutable dictionary for a
    // missing or empty file). The contents are not touched; only the
    // last-refresh-failed flag changes: cleared on success, set on failure.
    // Reads through the held lock's descriptor whatever its mode, else under a
    // shared lock taken for this read alone. Throws, after logging to the
    // console:
    // - what COpenFile::open throws;
    // - kind 4 "CPropertyListBasicFile::refresh[pid](path): can't read file,
    //   error = ..." when fewer bytes than the file's length could be read;
    // - kind 255 "CPropertyListBasicFile::refresh[pid](path):
    //   PLPropertyListCreateFromXMLData() failed, error = <parser's reason>"
    //   for bytes that are not a property list (XML or binary), and also for
    //   one whose top level is not a dictionary (reason "the top level is of
    //   type <type>, not a dictionary").
    // The messages say "refresh" because a read is the first step of one.
    PLHolder<const PLDictionary> readPropertyList() const;

    // The contents become a mutable (shallow) copy of `plist`; the version
    // becomes its "Version" string, or "1.0". Throws kind 4
    // "CPropertyListBasicFile::fromPropertyList[pid](): propertyList is NULL"
    // for a null dictionary.
    void fromPropertyList(PLDictionaryRef plist);
    // A new reference to the contents themselves (not a copy): changes made
    // through it change the object.
    PLHolder<PLMutableDictionary> toPropertyList() const;

    // writePropertyList(contents). Returns false whenever it does not throw.
    bool flush() const;

    // Writes `plist` over the file in place:
    // 1. refused while the last-refresh-failed flag is set: kind 255
    //    "CPropertyListBasicFile::writePropertyList[pid](path): not proceeding
    //    since the last refresh failed";
    // 2. serialised as an XML property list, else kind 255 "...:
    //    PLPropertyListCreateXMLData() failed, error = <reason>";
    // 3. through the held lock's descriptor, else under an exclusive lock
    //    taken for this write alone (the file is created 0600 when missing);
    //    a shared lock's read-only descriptor makes the write fail;
    // 4. written at the start in one piece, else kind 4 "...: can't write
    //    file, error = ..." (the file may then be partly written);
    // 5. truncated to the written length, else kind 4 "...: can't truncate
    //    file, error = ...".
    // Every failure is logged to the console before it is thrown; the flag is
    // not changed by a write.
    void writePropertyList(PLDictionaryRef plist) const;

    // Lock operations are const: the current lock is bookkeeping, not part of
    // the file's value. There is no upgrade from shared to exclusive; unlock()
    // first.
    //
    // False at once when a lock is held. Otherwise takes a shared lock
    // (blocking): true when the file exists and the lock is now held, false
    // for a missing file (no lock). Throws what COpenFile::open throws.
    bool lockForRead() const;
    // False at once when a lock is held. Otherwise takes the exclusive lock
    // (blocking), creating the file with permissions 0600 if needed, and
    // returns true. Throws what COpenFile::open throws.
    bool lockForRW() const;
    // False when no lock is held; otherwise drops the lock reference (the lock
    // ends unless a fileLock() result is still held) and returns true.
    bool unlock() const noexcept;
    // A new reference to the current lock, or an empty one.
    COpenFileRef fileLock() const noexcept { return _lock; }

    // The stored path and version, borrowed from the object.
    PLStringRef filePath() const noexcept { return _path.get(); }
    PLStringRef fileVersion() const noexcept { return _version.get(); }
    // Stores `version` (retained; may be null). A non-empty version is also
    // set in the contents under "Version"; a null or empty one removes
    // "Version" from the contents.
    void setFileVersion(PLStringRef version);

    // Whether the last read failed (and writes are therefore refused).
    bool lastRefreshFailed() const noexcept { return _lastRefreshFailed; }

protected:
    // The in-memory top level, borrowed (null before the first read).
    PLMutableDictionaryRef contents() const noexcept { return _contents.get(); }

    // The flush of the record classes. `edit` receives a mutable copy of the
    // base dictionary, changes only the record's own keys in it (see
    // setValueAtPath), and the copy is then written with writePropertyList.
    // The base dictionary is:
    // - when the object holds no lock: the file read afresh under the
    //   exclusive lock, which this call takes (lockForRW, creating the file if
    //   needed) and gives back on every way out (a CFileLockMonitor). So keys
    //   that other processes wrote since this object's last refresh survive;
    // - when the caller holds a lock: the in-memory contents, as they are, and
    //   the lock stays held afterwards.
    // Mind the second case. A list record's refresh leaves its OWN SECTION in
    // the contents, not the whole file (see CPropertyListFile). A record that
    // is refreshed and then flushed while its caller holds the lock therefore
    // writes its section, with the section key added, as the whole file: every
    // other top-level key of the file is lost. This is the established
    // behaviour and is kept; callers that need an atomic read-modify-write of
    // the whole file use the base class (lockForRW, refresh, change the
    // contents, writePropertyList(contents), unlock).
    // Throws what lockForRW, readPropertyList, `edit` and writePropertyList
    // throw.
    void flushDerived(const std::function<void(PLMutableDictionary& top)>& edit) const;

    // A key path: top-level key first, each next key inside the previous
    // key's dictionary.
    using KeyPath = std::initializer_list<std::string_view>;

    // The value at `path` below `top` (borrowed), or null when a key is
    // missing or a value on the way is not a dictionary.
    static PLTypeRef valueAtPath(PLDictionaryRef top, KeyPath path) noexcept;
    // Sets `value` at `path` below `top` (null removes the last key).
    // Dictionaries on the way are replaced by changed copies, so everything
    // else in them is kept; a missing step, or one that is not a dictionary,
    // becomes a new dictionary. An empty path does nothing.
    static void setValueAtPath(PLMutableDictionary& top, KeyPath path, PLTypeRef value);

private:
    // Parses `bytes` (the whole file, not empty), or takes the kept
    // dictionary when they are the kept bytes. Throws the parse failure.
    PLHolder<const PLDictionary> parse(std::string&& bytes) const;

    PLHolder<const PLString> _path;
    mutable bool _lastRefreshFailed = false;
    mutable COpenFileRef _lock;
    PLHolder<const PLString> _version;
    PLHolder<PLMutableDictionary> _contents;
    // The bytes last read or written and the dictionary they parse to (empty
    // when there are none).
    mutable std::string _keptBytes;
    mutable PLHolder<const PLDictionary> _keptDictionary;
};

}  // namespace quill
