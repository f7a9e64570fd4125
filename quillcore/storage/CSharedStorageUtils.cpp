#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <iostream>

#include "quillcore/storage/StorageText.h"
#include <ferrocore/Format.h>
#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/Host.h>
#include <quillcore/platform/PLPropertyList.h>
#include <quillcore/platform/RunLoop.h>
#include <quillcore/storage/CNFSSharedStorage.h>
#include <quillcore/storage/CSharedStorageUtils.h>
#include <quillcore/storage/ISharedStorage.h>
#include <quillcore/util/CFileUtil.h>
#include <quillcore/util/PLUtil.h>

namespace quill {

using ferrocore::CException;
using ferrocore::CString;
using ferrocore::CStringRef;
using ferrocore::CURL;
using ferrocore::formatString;
using platform::host;

namespace {

std::string text(const CStringRef& s) { return s ? s->utf8() : std::string(); }

std::string mountRoot() {
    const auto expanded = CFileUtil::expandTildeInPath(QuillCorePrivate::kQuillClusterStorageMountPath);
    return expanded ? expanded->str() : QuillCorePrivate::kQuillClusterStorageMountPath->str();
}

bool entryExists(const std::string& path) {
    std::uint32_t mode = 0;
    return !host().fileMode(path, mode);
}

bool isDirectoryMode(std::uint32_t mode) { return (mode & 0170000u) == 0040000u; }

// Writes `plist` as an XML property list, in place (no temporary file).
bool writePropertyList(const PLObject* plist, const std::string& path) {
    const PLHolder<const PLData> data = PLPropertyListCreateXMLData(plist);
    if (!data) return false;
    const PLHolder<const PLURL> url = PLURL::createWithPath(path, false);
    return PLUtil::PLDataWriteToURL(data.get(), url.get(), false);
}

void writeInfoFile(const ferrocore::CURLRef& url, const CStringRef& identifier) {
    const std::string directory = text(url->fileSystemPath());
    const CStringRef dir = CString::create(directory);
    if (!CSharedStorageUtils::pathIsDirectory(dir))
        throw ISharedStorageException(kSharedStoragePathError, 6, "Path [%@] not a directory", directory);
    if (!CSharedStorageUtils::pathIsRW(dir))
        throw ISharedStorageException(kSharedStoragePathError, 5, "Path [%@] not read/write", directory);
    const std::string info = formatString("%@/%@", directory, CSharedStorageUtils::kSharedInfoFileName);
    auto dict = PLUtil::PLDictMakeMutable();
    PLUtil::PLDictSetString(dict.get(), PLString::create(CSharedStorageUtils::kStorageUUIDKey).get(),
                            storage::plString(identifier).get());
    if (!writePropertyList(dict.get(), info))
        throw ISharedStorageException(kSharedStoragePathError, 12, "Couldn't write info file [%@]", info);
    host().setFileMode(info, 0644);
}

}  // namespace

// ------------------------------------------------------------------ naming

ferrocore::CURLRef CSharedStorageUtils::normalizedURL(const ferrocore::CURLRef& url) {
    if (!url) throw ferrocore::CNullPointerException("Error: url is null!");
    std::string path = text(url->fileSystemPath());
    if (text(url->scheme()) != kStratafsScheme) path = text(normalizedPath(CString::create(path))->fileSystemPath());
    if (path.empty() || path.back() != '/') path += '/';
    return url->copyWithPath(path);
}

ferrocore::CURLRef CSharedStorageUtils::normalizedPath(const CStringRef& path) {
    std::string resolved;
    if (const std::error_code error = host().resolvePath(text(path), resolved))
        throw CException(ferrocore::kExceptionKindSystemCall,
                         formatString("Couldn't get realpath for file: %s (errno = %d)", text(path), error.value()),
                         error.value());
    return CURL::createWithPath(resolved, pathIsDirectory(CString::create(resolved)));
}

CStringRef CSharedStorageUtils::briefUniqueID(const CStringRef& identifier) {
    const std::string id = text(identifier);
    std::uint32_t hash = 0;
    for (const char byte : id) {
        hash = (hash << 1) | (hash >> 31);
        // The byte as a signed character, sign-extended: bytes of 0x80 and up
        // flip the upper 24 bits too. Intended; published names depend on it.
        hash ^= static_cast<std::uint32_t>(static_cast<std::int32_t>(static_cast<signed char>(byte)));
    }
    std::string prefix;
    std::size_t characters = 0;
    for (std::size_t i = 0; i < id.size() && characters < 8;) {
        if (id[i] == '-') break;
        std::size_t length = 1;
        while (i + length < id.size() && (static_cast<unsigned char>(id[i + length]) & 0xC0) == 0x80) ++length;
        prefix.append(id, i, length);
        i += length;
        ++characters;
    }
    return CString::sprintf("%s-%08X", prefix, hash);
}

ferrocore::CURLRef CSharedStorageUtils::publishedSharedURL(const ferrocore::CURLRef& url,
                                                           const CStringRef& identifier) {
    return normalizedURL(url)
        ->copyByAppendingPathComponent(text(briefUniqueID(identifier)), true)
        ->copyByAppendingPathComponent(QuillCorePrivate::kQuillClusterStorageSubPath->utf8(), true);
}

ferrocore::CURLRef CSharedStorageUtils::subscribedSharedURL(const CStringRef& identifier) {
    return CURL::createWithPath(mountRoot(), true)
        ->copyByAppendingPathComponent(text(briefUniqueID(identifier)), true)
        ->copyByAppendingPathComponent(QuillCorePrivate::kQuillClusterStorageSubPath->utf8(), true);
}

ferrocore::CURLRef CSharedStorageUtils::subscribedSharedURL(const ferrocore::CURLRef& url) {
    if (isStratafsClusterStorageURL(url)) return CURL::createWithPath(text(url->fileSystemPath()), true);
    const std::string brief = text(url->copyByDeletingLastPathComponent()->lastPathComponent());
    return CURL::createWithPath(mountRoot(), true)
        ->copyByAppendingPathComponent(brief, true)
        ->copyByAppendingPathComponent(QuillCorePrivate::kQuillClusterStorageSubPath->utf8(), true);
}

ferrocore::CURLRef CSharedStorageUtils::sharedInfoURL(const CStringRef& identifier) {
    return subscribedSharedURL(identifier)->copyByAppendingPathComponent(kSharedInfoFileName, false);
}

ferrocore::CURLRef CSharedStorageUtils::localClusterStorageURL() {
    return CURL::createWithPath(QuillCorePrivate::kQuillLocalClusterStoragePath->utf8(), true);
}

bool CSharedStorageUtils::isLocalClusterStorageURL(const ferrocore::CURLRef& url) {
    if (!url) return true;
    return text(url->fileSystemPath()) == QuillCorePrivate::kQuillLocalClusterStoragePath->utf8();
}

bool CSharedStorageUtils::isStratafsClusterStorageURL(const ferrocore::CURLRef& url) {
    return url && text(url->scheme()) == kStratafsScheme;
}

// ------------------------------------------------------------ marker files

void CSharedStorageUtils::addSharedInfoFile(const ferrocore::CURLRef& url, const CStringRef& identifier) {
    const std::string directory = text(url->fileSystemPath());
    if (!pathExists(CString::create(formatString("%@/%@", directory, kSharedInfoFileName))))
        writeInfoFile(url, identifier);
    const std::string marker = formatString("%@/%@", directory, kNeverIndexFileName);
    if (!pathExists(CString::create(marker))) {
        const auto empty = PLUtil::PLDictMakeMutable();
        if (writePropertyList(empty.get(), marker)) host().setFileMode(marker, 0644);
    }
}

void CSharedStorageUtils::addJobsInfoFile(const ferrocore::CURLRef& url, const CStringRef& identifier) {
    const std::string directory = text(url->fileSystemPath());
    if (pathExists(CString::create(formatString("%@/%@", directory, kSharedInfoFileName)))) return;
    writeInfoFile(url, identifier);
}

// ------------------------------------------------------------------ paths

bool CSharedStorageUtils::pathExists(const CStringRef& path) {
    // The volume statistics, not the file's status: a path exists as long as
    // its file system answers for it, even when it refuses (EACCES). Intended.
    const std::error_code error = host().fileSystemStatus(text(path));
    return !error || error == std::errc::permission_denied;
}

bool CSharedStorageUtils::pathIsDirectory(const CStringRef& path) {
    if (!path) throw ISharedStorageException(kSharedStoragePathError, 0, "Null path");
    std::uint32_t mode = 0;
    if (host().fileMode(text(path), mode))
        throw ISharedStorageException(kSharedStoragePathError, 2, "Non-existent path = [%@]", text(path));
    return isDirectoryMode(mode);
}

bool CSharedStorageUtils::pathIsReadable(const CStringRef& path) {
    return !host().checkAccess(text(path), true, false);
}

bool CSharedStorageUtils::pathIsWritable(const CStringRef& path) {
    return !host().checkAccess(text(path), false, true);
}

bool CSharedStorageUtils::pathIsRW(const CStringRef& path) { return pathIsReadable(path) && pathIsWritable(path); }

bool CSharedStorageUtils::pathIsOnReadOnlyVolume(const CStringRef& path) {
    platform::CFileSystemFacts facts;
    facts.readOnly = false;  // what an unfilled record reads as
    if (const std::error_code error = host().fileSystemFacts(text(path), facts)) {
        // Built and dropped, never thrown: the test answers false. Intended.
        [[maybe_unused]] const ISharedStorageException dropped(
            kSharedStorageResourceError, 12,
            formatString("[%ld] CSharedStorageUtils::pathIsOnReadOnlyVolume(): statfs(%@) failed: %s",
                         static_cast<long>(host().processID()), text(path), error.message()));
        return false;
    }
    return facts.readOnly;
}

CStringRef CSharedStorageUtils::getFilesystemType(const CStringRef& path) {
    platform::CFileSystemFacts facts;
    facts.typeName.clear();
    if (const std::error_code error = host().fileSystemFacts(text(path), facts)) {
        // Built and dropped, never thrown: the type reads as empty. Intended.
        [[maybe_unused]] const ISharedStorageException dropped(
            kSharedStorageResourceError, 12,
            formatString("[%ld] CSharedStorageUtils::getFilesystemType(): statfs(%@) failed: %s",
                         static_cast<long>(host().processID()), text(path), error.message()));
        return CString::create("");
    }
    return CString::create(facts.typeName);
}

bool CSharedStorageUtils::isStratafsBasedPath(const CStringRef& path) {
    return text(getFilesystemType(path)) == kStratafsType;
}

bool CSharedStorageUtils::isExFATBasedPath(const CStringRef& path) {
    return text(getFilesystemType(path)) == kExFATType;
}

CStringRef CSharedStorageUtils::getStratafsVolumeName(const CStringRef& path) {
    if (!path || !path->beginsWith(kVolumesPrefix)) return nullptr;
    ferrocore::CURLRef url = CURL::createWithPath(path->utf8(), false);
    std::string last = text(url->lastPathComponent());
    while (last != kVolumesComponent) {
        const ferrocore::CURLRef parent = url->copyByDeletingLastPathComponent();
        if (text(parent->fileSystemPath()) == text(url->fileSystemPath())) return nullptr;  // reached the root
        url = parent;
        const std::string previous = text(url->lastPathComponent());
        if (previous == kVolumesComponent) return CString::create(last);
        last = previous;
    }
    return nullptr;
}

CStringRef CSharedStorageUtils::getStratafsVolumePath(const CStringRef& path) {
    const CStringRef name = getStratafsVolumeName(path);
    return name ? CString::sprintf("/Volumes/%@", name) : nullptr;
}

bool CSharedStorageUtils::isStratafsBasedPathOnClusterStorageVolume(const ferrocore::CURLRef& url,
                                                                    const CStringRef& path) {
    if (!isStratafsClusterStorageURL(url) || !isStratafsBasedPath(path)) return false;
    const CStringRef urlVolume = getStratafsVolumeName(url->fileSystemPath());
    const CStringRef pathVolume = getStratafsVolumeName(path);
    return urlVolume && pathVolume && *urlVolume == *pathVolume;
}

bool CSharedStorageUtils::isVolumeMounted(const CStringRef& path) {
    const CStringRef volume = getStratafsVolumePath(path);
    if (!volume) throw ferrocore::CParamException(formatString("Path [%s] is not volume-based", text(path)));
    std::vector<platform::CMountedFileSystem> mounts;
    if (host().mountedFileSystems(mounts)) return false;
    for (const auto& mount : mounts)
        if (mount.mountPoint == volume->utf8()) return true;
    return false;
}

// ------------------------------------------------------------ directories

void CSharedStorageUtils::makeDir(const CStringRef& path, int permissions) {
    if (!path) throw ISharedStorageException(kSharedStoragePathError, 0, "Null path");
    if (entryExists(path->utf8())) return;
    platform::CScopedFileCreationMask mask(0);
    std::string prefix;
    std::string previous;
    const std::string& whole = path->utf8();
    std::size_t start = 0;
    while (start <= whole.size()) {
        std::size_t end = whole.find('/', start);
        if (end == std::string::npos) end = whole.size();
        const std::string component = whole.substr(start, end - start);
        start = end + 1;
        if (component.empty()) continue;
        const std::string parent = prefix.empty() ? std::string("/") : prefix;
        prefix += "/" + component;
        const bool volumesItself = prefix == "/Volumes";
        const bool volumeMountPoint = previous == kVolumesComponent;
        previous = component;
        if (volumesItself || volumeMountPoint || entryExists(prefix)) continue;
        if (const std::error_code error = host().createDirectory(prefix, static_cast<std::uint32_t>(permissions))) {
            std::string message;
            if (error == std::errc::permission_denied || error == std::errc::operation_not_permitted ||
                error == std::errc::read_only_file_system) {
                message = formatString(text(ISharedStorage::localizedStringForKey("WritePermissionsMissingForFolder")),
                                       parent);
            } else {
                message = formatString(text(ISharedStorage::localizedStringForKey("CreateDirectoryErrorFormat")),
                                       prefix, error.message());
            }
            throw ISharedStorageException(kSharedStoragePathError, 6, message);
        }
    }
}

std::vector<std::string> CSharedStorageUtils::getDirContents(const CStringRef& path) {
    std::vector<std::string> names;
    host().listDirectory(text(path), names);
    return names;
}

// ------------------------------------------------------------ sub-exports

ferrocore::CURLRef CSharedStorageUtils::beginSubexport(const ferrocore::CURLRef& fileURL) {
    if (!fileURL) throw ferrocore::CNullPointerException("Error: fileURL is null!");
    const std::string source = text(fileURL->fileSystemPath());
    const ferrocore::CURLRef directory = fileURL->copyByDeletingLastPathComponent();
    if (isExFATBasedPath(CString::create(source)))
        throw ISharedStorageException(
            kSharedStoragePathError, 0,
            formatString(text(ISharedStorage::localizedStringForKey("ExFATExportNotSupported")),
                         directory->fileSystemPath()));
    const ferrocore::CURLRef subexport =
        normalizedURL(directory)->copyByAppendingPathComponent(kSubexportDirectoryName, true);
    ferrocore::CURLRef result = subexport->copyByAppendingPathComponent(text(fileURL->lastPathComponent()), false);

    const std::string lockPath = text(result->copyByDeletingLastPathComponent()
                                          ->copyByDeletingLastPathComponent()
                                          ->copyByAppendingPathComponent(kSubexportLockFileName, false)
                                          ->fileSystemPath());
    platform::CFileDescriptor lock;
    if (const std::error_code error = host().openLockedFile(lockPath, platform::FileLock::Exclusive, lock))
        throw CException(ferrocore::kExceptionKindSystemCall,
                         formatString("Couldn't create lock file: %s (errno = %d)", lockPath, error.value()),
                         error.value());
    // Unlinked at once; the lock is held through the open descriptor. Intended.
    host().removeFile(lockPath);

    std::error_code linkError;
    try {
        makeDir(subexport->fileSystemPath(), 0777);
        linkError = host().linkFile(source, text(result->fileSystemPath()));
        if (linkError == std::errc::file_exists) {
            // Exactly one retry, under a mktemp name with the same extension.
            const ferrocore::CURLRef stem = result->copyByDeletingPathExtension();
            std::string pathTemplate = text(stem->fileSystemPath()) + "XXXXXX";
            const std::string triedTemplate = pathTemplate;
            if (const std::error_code error = host().makeUniqueName(pathTemplate))
                throw CException(ferrocore::kExceptionKindSystemCall,
                                 formatString("mktemp(%s) failed: %s", triedTemplate, error.message()), error.value());
            ferrocore::CURLRef candidate = result->copyWithPath(pathTemplate);
            const std::string extension = text(result->pathExtension());
            if (!extension.empty()) candidate = candidate->copyByAppendingPathExtension(extension);
            PLUtil::LogToConsole(formatString("link() failed: file %s already exists, trying to link again as %s.\n",
                                              result->fileSystemPath(), candidate->fileSystemPath())
                                     .c_str());
            linkError = host().linkFile(source, text(candidate->fileSystemPath()));
            if (!linkError) result = candidate;
        }
    } catch (...) {
        host().closeFile(lock);
        throw;
    }
    host().closeFile(lock);
    if (linkError)
        throw CException(ferrocore::kExceptionKindSystemCall,
                         formatString("Source subexp link(%s, %s) failed: %s", source, result->fileSystemPath(),
                                      linkError.message()),
                         linkError.value());

    const std::string type = fileURL->getFileTypeCode();
    const std::string creator = fileURL->getCreatorCode();
    if (type != result->getFileTypeCode() || creator != result->getCreatorCode()) {
        result->setFileTypeCode(type);
        result->setCreatorCode(creator);
    }

    const ISharedStoragePublisherRef publisher = CNFSSharedStorage::NewPublisherClient(kServerRPCNotificationCenter);
    publisher->publish(subexport, CString::create(kSubexportClientName), 0);
    const long port = publisher->getServerPort();
    result->setQueryParameterValue(kSubexportPortParameter, std::to_string(port));
    return result;
}

void CSharedStorageUtils::endSubexport(const ferrocore::CURLRef& subexportURL, bool ownedByThisProcess) {
    if (!subexportURL) throw ferrocore::CNullPointerException("Error: subexportURL is null!");
    const ferrocore::CURLRef subexport = subexportURL->copyByDeletingLastPathComponent();
    const ISharedStoragePublisherRef publisher = CNFSSharedStorage::NewPublisherClient(kServerRPCNotificationCenter);
    publisher->unpublish(subexport, CString::create(kSubexportClientName),
                         ownedByThisProcess ? static_cast<long>(host().processID()) : -1L);

    const std::string lockPath = text(subexport->copyByDeletingLastPathComponent()
                                          ->copyByAppendingPathComponent(kSubexportLockFileName, false)
                                          ->fileSystemPath());
    platform::CFileDescriptor lock;
    if (const std::error_code error = host().openLockedFile(lockPath, platform::FileLock::Exclusive, lock))
        std::cout << "Couldn't create lock file: " << lockPath << " (errno = " << error.value() << ")" << std::endl;
    host().removeFile(lockPath);

    if (!host().removeFile(text(subexportURL->fileSystemPath()))) {
        // The URL's text form, not a file-system path, names the companion:
        // intended, kept as it has always been.
        host().removeFile(formatString("%@._%@", subexport->string(), subexportURL->lastPathComponent()));
    }

    const std::string directory = text(subexport->fileSystemPath());
    const std::vector<std::string> names = getDirContents(CString::create(directory));
    bool onlyMarkers = names.size() <= 2;
    for (const auto& name : names)
        onlyMarkers = onlyMarkers && (name == kSharedInfoFileName || name == kNeverIndexFileName);
    if (onlyMarkers) {
        host().removeFile(directory + "/" + kSharedInfoFileName);
        host().removeFile(directory + "/" + kNeverIndexFileName);
        if (const std::error_code error = host().removeDirectory(directory))
            std::cerr << "Couldn't remove subexp directory: " << directory << " (errno = " << error.value() << ")"
                      << std::endl;
    }
    if (lock) host().closeFile(lock);
}

void CSharedStorageUtils::currentRunLoopRun(double seconds) { platform::CRunLoop::current().runFor(seconds); }

}  // namespace quill
