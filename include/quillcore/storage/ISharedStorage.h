// The faces of shared storage: what a program that exports or mounts cluster
// storage talks to, whether the work happens in this process (the NFS
// publisher and subscriber behind CNFSSharedStorage) or in the serving
// process (a CDNSharedStorageClient sending requests to a
// CDNSharedStorageServer). CNFSSharedStorage's factory functions hand them
// out.
//
// Arguments. url names a storage location (a file URL of a local directory
// for publishing; a URL whose host is the exporting host and whose path is
// the exported directory for subscribing); clientName is the holder under
// which a reference is counted; pid is the process holding it, -1 for an
// unknown process (a client replaces 0 by its own process ID).
//
// Failures of the subsystem are ISharedStorageException; other failures are
// ferrocore::CException. Threads: see each implementation.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include <ferrocore/CException.h>
#include <ferrocore/CSharedObject.h>
#include <ferrocore/CString.h>
#include <ferrocore/CURL.h>
#include <quillcore/export.h>
#include <quillcore/storage/CSharedStorageEntry.h>

namespace quill {

using ferrocore::CURLRef;

// The kinds of storage failure; the numbers are part of the error values that
// replies carry.
enum ISharedStorageExceptionType : std::uint8_t {
    kSharedStorageRequestError = 1,   // a request lacks a key; a command failed or timed out
    kSharedStorageFactoryError = 2,   // a transport the factory does not offer
    kSharedStoragePathError = 3,      // paths, directories, info files, time-outs of a client
    kSharedStorageResourceError = 5,  // the library's bundle; volume statistics
};

// A failure of shared storage: a type, a one-byte code and a message. Its
// error value, 0xFE000000 + type * 0x10000 + code * 0x100, is also its kind()
// (as a 32-bit signed number), so it travels in replies as it is.
class QUILL_EXPORT ISharedStorageException : public ferrocore::CException {
public:
    ISharedStorageException(int type, std::uint8_t code, std::string message = {});
    // `format` with one "%@" (or "%s") filled by `argument`.
    ISharedStorageException(int type, std::uint8_t code, std::string_view format, const std::string& argument);
    ~ISharedStorageException() override;

    static constexpr std::uint32_t errorValueFor(int type, std::uint8_t code) noexcept {
        return 0xFE000000u + static_cast<std::uint32_t>(type) * 0x10000u + static_cast<std::uint32_t>(code) * 0x100u;
    }
    // Whether `kind` (of any CException) is a storage error value, and its parts.
    static bool isStorageErrorValue(std::int64_t kind) noexcept { return ((kind & 0xFFFFFFFF) >> 24) == 0xFE; }

    int type() const noexcept { return _type; }
    std::uint8_t code() const noexcept { return _code; }
    std::uint32_t errorValue() const noexcept { return errorValueFor(_type, _code); }

private:
    int _type;
    std::uint8_t _code;
};

using PublishedMap = std::map<std::string, CSharedStoragePublishedEntry>;
using SubscribedMap = std::map<std::string, CSharedStorageSubscribedEntry>;

// Exports local directories, counting references per client name and process.
class QUILL_EXPORT ISharedStoragePublisher : public virtual ferrocore::CSharedObject {
public:
    virtual void publish(CURLRef url, ferrocore::CStringRef clientName, long pid) = 0;
    virtual void unpublish(CURLRef url, ferrocore::CStringRef clientName, long pid) = 0;
    // The NFS server's port; -1 for the standard ports.
    virtual long getServerPort() = 0;
    // Gives back every reference that process `pid` held.
    virtual void processTerminated(long pid) = 0;
    // A copy of the exported directories and their holders (none by default).
    virtual PublishedMap getPublishedMap() const { return {}; }

protected:
    ~ISharedStoragePublisher() override;
};

// Mounts other hosts' exports, counting references per client name and process.
class QUILL_EXPORT ISharedStorageSubscriber : public virtual ferrocore::CSharedObject {
public:
    virtual void subscribe(CURLRef url, ferrocore::CStringRef localPath, ferrocore::CStringRef clientName,
                           long pid) = 0;
    virtual void unsubscribe(CURLRef url, ferrocore::CStringRef localPath, ferrocore::CStringRef clientName,
                             long pid) = 0;
    virtual void processTerminated(long pid) = 0;
    // A copy of the mount points and their holders (none by default).
    virtual SubscribedMap getSubscribedMap() const { return {}; }

protected:
    ~ISharedStorageSubscriber() override;
};

class QUILL_EXPORT ISharedStorage : public ISharedStoragePublisher, public ISharedStorageSubscriber {
public:
    // Both bases name it; one operation ends every reference of the process.
    void processTerminated(long pid) override = 0;

    // The localized text for `key` in the library's own bundle
    // ("com.tessaly.corvane.QuillCore", English at least), which is looked up
    // once per process and kept. Throws ISharedStorageException (5, 2,
    // "QuillCore.framework not found") while the bundle cannot be found; a
    // key the bundle lacks comes back as itself.
    static ferrocore::CStringRef localizedStringForKey(std::string_view key);

protected:
    ~ISharedStorage() override;
};

using ISharedStorageRef = ferrocore::CSharedObjectRef<ISharedStorage>;
using ISharedStoragePublisherRef = ferrocore::CSharedObjectRef<ISharedStoragePublisher>;
using ISharedStorageSubscriberRef = ferrocore::CSharedObjectRef<ISharedStorageSubscriber>;

}  // namespace quill
