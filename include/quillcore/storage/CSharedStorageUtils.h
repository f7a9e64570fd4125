// Static helpers of shared storage: how a storage location is named (URL and
// path), where a published location is exported and where a subscriber sees
// it, the marker files of a shared directory, path and volume tests, chains
// of directories, sub-exports of single files, and the request client's wait.
//
// Threads: no state of its own; safe from any thread (makeDir sets the
// process-wide file-creation mask around its creations). Between processes,
// sub-exports of one directory are serialised by a lock on its ".cvlock" file.
//
// Exceptions: ISharedStorageException and ferrocore::CException as each
// operation says; std::bad_alloc.
#pragma once

#include <string>
#include <vector>

#include <ferrocore/CString.h>
#include <ferrocore/CURL.h>
#include <quillcore/export.h>

namespace quill {

class QUILL_EXPORT CSharedStorageUtils final {
public:
    CSharedStorageUtils() = delete;

    static constexpr const char* kStratafsScheme = "stratafs";
    static constexpr const char* kStratafsType = "stfs";
    static constexpr const char* kExFATType = "exfat";
    static constexpr const char* kVolumesPrefix = "/Volumes/";
    static constexpr const char* kVolumesComponent = "Volumes";
    static constexpr const char* kSharedInfoFileName = ".corvane.plist";
    static constexpr const char* kStorageUUIDKey = "storage-uuid";
    static constexpr const char* kNeverIndexFileName = ".metadata_never_index";
    static constexpr const char* kSubexportPortParameter = "port";
    static constexpr const char* kSubexportDirectoryName = ".cvsubexp";
    static constexpr const char* kSubexportLockFileName = ".cvlock";
    static constexpr const char* kSubexportClientName = "cvsubexp";

    // ------------------------------------------------------------ naming

    // The canonical form of a storage URL: the path resolved on this host
    // (except for a "stratafs" URL, kept as it is) and ending in "/"; scheme,
    // host and query unchanged. Throws as normalizedPath.
    static ferrocore::CURLRef normalizedURL(const ferrocore::CURLRef& url);
    // A file URL of `path` with every link resolved, in directory form when
    // it is a directory. Throws CException kind 4 "Couldn't get realpath for
    // file: %s (errno = %d)".
    static ferrocore::CURLRef normalizedPath(const ferrocore::CStringRef& path);
    // "%s-%08X": up to 8 characters of `identifier` before its first "-", and
    // a 32-bit rotate-and-xor hash of its bytes (taken as signed characters).
    static ferrocore::CStringRef briefUniqueID(const ferrocore::CStringRef& identifier);
    // normalizedURL(url) + briefUniqueID(identifier) + "shared", a directory.
    static ferrocore::CURLRef publishedSharedURL(const ferrocore::CURLRef& url,
                                                 const ferrocore::CStringRef& identifier);
    // The mount root (kQuillClusterStorageMountPath, "~" expanded) +
    // briefUniqueID(identifier) + "shared".
    static ferrocore::CURLRef subscribedSharedURL(const ferrocore::CStringRef& identifier);
    // For a URL made by publishedSharedURL: a "stratafs" URL's own path, else
    // the mount root + the published URL's brief identifier + "shared".
    static ferrocore::CURLRef subscribedSharedURL(const ferrocore::CURLRef& url);
    // subscribedSharedURL(identifier) + ".corvane.plist".
    static ferrocore::CURLRef sharedInfoURL(const ferrocore::CStringRef& identifier);
    // Directory URL of kQuillLocalClusterStoragePath ("/tmp/corvane").
    static ferrocore::CURLRef localClusterStorageURL();
    // True for a null URL or one whose path is exactly "/tmp/corvane".
    static bool isLocalClusterStorageURL(const ferrocore::CURLRef& url);
    static bool isStratafsClusterStorageURL(const ferrocore::CURLRef& url);

    // ------------------------------------------------------- marker files

    // Writes ".corvane.plist" ("storage-uuid" = identifier, mode 0644) when it
    // is missing, then ".metadata_never_index" (an empty dictionary) when it
    // is missing. Throws ISharedStorageException (3, 6) "Path [%@] not a
    // directory", (3, 5) "Path [%@] not read/write", (3, 12) "Couldn't write
    // info file [%@]"; a failure with the second file is ignored.
    static void addSharedInfoFile(const ferrocore::CURLRef& url, const ferrocore::CStringRef& identifier);
    // The first half of addSharedInfoFile only.
    static void addJobsInfoFile(const ferrocore::CURLRef& url, const ferrocore::CStringRef& identifier);

    // ------------------------------------------------------------ paths

    // Whether the volume statistics of `path` can be had (or are refused for
    // lack of rights): a path counts as existing as long as its file system
    // answers. Never throws.
    static bool pathExists(const ferrocore::CStringRef& path);
    // Throws ISharedStorageException (3, 0) for a null path and (3, 2)
    // "Non-existent path = [%@]" for a missing one.
    static bool pathIsDirectory(const ferrocore::CStringRef& path);
    static bool pathIsReadable(const ferrocore::CStringRef& path);
    static bool pathIsWritable(const ferrocore::CStringRef& path);
    static bool pathIsRW(const ferrocore::CStringRef& path);
    // These two never throw: when the statistics cannot be had the failure is
    // built as an exception (5, 12) and dropped, and the answer is false,
    // respectively the empty name.
    static bool pathIsOnReadOnlyVolume(const ferrocore::CStringRef& path);
    static ferrocore::CStringRef getFilesystemType(const ferrocore::CStringRef& path);
    static bool isStratafsBasedPath(const ferrocore::CStringRef& path);
    static bool isExFATBasedPath(const ferrocore::CStringRef& path);
    // The component directly under "/Volumes/" ("SAN1" for
    // "/Volumes/SAN1/media/a.mov"); null for a path elsewhere.
    static ferrocore::CStringRef getStratafsVolumeName(const ferrocore::CStringRef& path);
    // "/Volumes/<name>", or null.
    static ferrocore::CStringRef getStratafsVolumePath(const ferrocore::CStringRef& path);
    static bool isStratafsBasedPathOnClusterStorageVolume(const ferrocore::CURLRef& url,
                                                          const ferrocore::CStringRef& path);
    // Whether the volume of `path` is in the mount table. Throws CException
    // kind 1 "Path [%s] is not volume-based" for a path outside "/Volumes/".
    static bool isVolumeMounted(const ferrocore::CStringRef& path);

    // ------------------------------------------------------- directories

    // Makes every missing directory of `path`, one level at a time, with
    // `permissions` (file-creation mask 0 meanwhile), never "/Volumes" itself
    // nor a volume's mount point. Throws ISharedStorageException (3, 0) for a
    // null path, (3, 6) with the localized "WritePermissionsMissingForFolder"
    // or "CreateDirectoryErrorFormat" text when a creation fails.
    static void makeDir(const ferrocore::CStringRef& path, int permissions);
    // The names in a directory (bytewise order); empty when it cannot be read.
    static std::vector<std::string> getDirContents(const ferrocore::CStringRef& path);

    // ------------------------------------------------------- sub-exports

    // Hard-links the file into a ".cvsubexp" directory beside it, publishes
    // that directory (client "cvsubexp") through a publisher client, and
    // returns the link's URL with the "port" query parameter. Throws
    // ISharedStorageException (3, 0) with the localized
    // "ExFATExportNotSupported" text; CException kind 4 "Couldn't create lock
    // file: %s (errno = %d)", "mktemp(%s) failed: %s", "Source subexp link(%s,
    // %s) failed: %s"; whatever publishing throws.
    static ferrocore::CURLRef beginSubexport(const ferrocore::CURLRef& fileURL);
    // Unpublishes the link's directory (as this process when
    // `ownedByThisProcess`, else as an unknown one), removes the link and,
    // when only marker files remain, the directory. Prints its own failures
    // and throws only what unpublishing throws.
    static void endSubexport(const ferrocore::CURLRef& subexportURL, bool ownedByThisProcess);

    // ------------------------------------------------ run loop and time-out

    // Serves the calling thread's run loop for `seconds`.
    static void currentRunLoopRun(double seconds);
    // 60 seconds: how long a request client waits for a reply.
    static double requestTimeout() noexcept { return 60.0; }
};

}  // namespace quill
