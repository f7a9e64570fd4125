#include <iostream>
#include <system_error>

#include "LogFile.h"
#include "LogRecord.h"
#include <ferrocore/CException.h>
#include <ferrocore/Format.h>
#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/control/QuillNotification.h>
#include <quillcore/logging/CQuillLogger.h>
#include <quillcore/platform/Host.h>
#include <quillcore/plist/CServiceCacheFile.h>
#include <quillcore/util/CFileUtil.h>

namespace quill {

using ferrocore::CAutoMutex;
using ferrocore::CStringRef;

namespace {

constexpr std::string_view kStandardErrorPath = "/dev/stderr";

}  // namespace

CQuillLogger::CQuillLogger() : _activeStream(OBufferStream::create()), _nullStream(ONullStream::create()) {}

CQuillLogger::~CQuillLogger() {
    bool observed;
    {
        CAutoMutex lock(_mutex);
        observed = _observingPrefs;
        _observingPrefs = false;
    }
    // Only a logger that ever observed has anything to remove; asking the
    // centre otherwise would connect to the bus for nothing.
    if (observed) ::unregisterForNotifications(this);
    if (_activeStream->kind() == OStream::kFileStream) {
        try {
            const std::string mark = logrecord::sessionMark(false);
            std::ostream& out = _activeStream->target();
            out.write(mark.data(), static_cast<std::streamsize>(mark.size()));
            out.flush();
        } catch (...) {
            // A destructor must not throw; the session simply stays open.
        }
    }
    // The streams refer to the file: point them away before it closes, in
    // case someone still holds the active stream.
    _activeStream->setTarget(OStream::kNullStream, std::cerr, nullptr);
}

namespace {

// The level of a cache entry: the user's own setting, else the entry's.
unsigned entryLogLevel(const CServiceCacheEntry& entry) {
    bool userSetting = false;
    const std::int32_t level = entry.logLevel(true, userSetting);
    return static_cast<unsigned>(userSetting ? level : entry.logLevel(false, userSetting));
}

bool entryTruncatesLog(const CServiceCacheEntry& entry) {
    bool userSetting = false;
    const bool truncate = entry.truncateLog(true, userSetting);
    return userSetting ? truncate : entry.truncateLog(false, userSetting);
}

bool findCacheEntry(const CStringRef& serviceName, CServiceCacheEntry& entry) {
    if (!serviceName) return false;
    const CServiceCacheFile cache;
    return cache.get(PLString::create(serviceName->utf8()).get(), entry);
}

}  // namespace

void CQuillLogger::readServiceSettings(const CStringRef& serviceName, unsigned& level, bool& truncate) {
    level = kDefaultLogLevel;
    truncate = false;
    const CServiceCacheFile cache;
    CServiceCacheEntry entry;
    bool found = false;
    if (serviceName) found = cache.get(PLString::create(serviceName->utf8()).get(), entry);
    if (!found) found = cache.getAtIndex(0, entry);
    if (!found) return;
    level = entryLogLevel(entry);
    truncate = entryTruncatesLog(entry);
}

void CQuillLogger::startupLogging(bool toFile, CStringRef serviceName, unsigned index) {
    {
        CAutoMutex lock(_mutex);
        if (_started) throw ferrocore::CParamException("Logging started already");
    }
    unsigned level;
    bool truncate;
    readServiceSettings(serviceName, level, truncate);
    if (toFile) {
        {
            CAutoMutex lock(_mutex);
            _serviceName = serviceName;
            _logLevel.store(level, std::memory_order_relaxed);
        }
        const PLHolder<const PLString> directory =
            CFileUtil::expandTildeInPath(PLString::create(QuillCorePrivate::kQuillLogFilePath).get());
        if (!directory) throw ferrocore::CNullPointerException("CQuillLogger::startupLogging: no home directory");
        platform::IHost& host = platform::host();
        const std::string directoryPath = directory->str();
        // A fresh home has no "Library/Logs" yet: the parents are made as
        // any directory of the user's, the log directory itself private.
        for (std::size_t slash = directoryPath.find('/', 1); slash < directoryPath.size() - 1;
             slash = directoryPath.find('/', slash + 1))
            host.createDirectory(directoryPath.substr(0, slash), 0755);
        {
            const platform::CScopedFileCreationMask noMask(0);
            if (host.createDirectory(directoryPath, 0700) == std::errc::file_exists)
                host.setFileMode(directoryPath, 0700);
        }
        std::string path = directoryPath + "/" + (serviceName ? serviceName->utf8() : std::string());
        if (index != 0) path += ferrocore::formatString("-%ld", static_cast<long>(index));
        path += ".log";
        startupLogging(ferrocore::CString::create(std::move(path)), truncate);
    } else {
        startupLogging(ferrocore::CString::create(kStandardErrorPath), false);
    }
    setLogLevel(level);
    setPrefsChangedHandler(true);
}

void CQuillLogger::startupLogging(CStringRef path, bool truncate) {
    if (!path) throw ferrocore::CNullPointerException("CQuillLogger::startupLogging: null path");
    CAutoMutex lock(_mutex);
    if (_started) throw ferrocore::CParamException("Logging started already");
    _started = 1;
    _logFilePath = path;
    platform::IHost& host = platform::host();
    std::error_code error;
    std::unique_ptr<LogFile> file;
    {
        const platform::CScopedFileCreationMask logMask(0122);
        file = LogFile::open(path->fileSystemRepresentation(), truncate, error);
    }
    if (!file) {
        _logFilePath = nullptr;
        const std::string message = "CQuillLogger::startupLogging[" + std::to_string(host.processID()) +
                                    "]: failed to open log file " + path->utf8() +
                                    ". Logging to stderr instead. The file likely already exists with prohibitive "
                                    "permissions - try deleting it.\n";
        std::cerr.write(message.data(), static_cast<std::streamsize>(message.size()));
        std::cerr.flush();
        return;
    }
    const bool isFile = path->utf8() != kStandardErrorPath;
    const bool emptyFile = isFile && file->isEmpty();
    _logFile = std::move(file);
    _loggingToFile = isFile;
    if (!isFile) _logFilePath = nullptr;
    _activeStream->setTarget(isFile ? OStream::kFileStream : OStream::kNonFileStream, _logFile->stream(),
                             isFile ? path : nullptr);
    if (isFile) beginFileSession(*_activeStream, emptyFile);
    initLogging();
}

void CQuillLogger::startupLogging(OStreamRef stream) {
    if (!stream) throw ferrocore::CNullPointerException("CQuillLogger::startupLogging: null stream");
    CAutoMutex lock(_mutex);
    if (_started) throw ferrocore::CParamException("Logging started already");
    _started = 1;
    const OStream::StreamKind kind = stream->kind();
    _loggingToFile = kind == OStream::kFileStream;
    _logFilePath = _loggingToFile ? stream->path() : nullptr;
    _activeStream->setTarget(kind, stream->target(), _logFilePath);
    if (_loggingToFile) {
        // A stream made by the caller tells its emptiness by its position.
        std::ostream& out = stream->target();
        bool emptyFile = false;
        if (out.good()) {
            emptyFile = out.tellp() == std::streampos(0);
            out.clear(out.rdstate() & ~std::ios::failbit);
        }
        beginFileSession(*_activeStream, emptyFile);
    }
    initLogging();
}

void CQuillLogger::beginFileSession(OStream& stream, bool emptyFile) {
    std::ostream& out = stream.target();
    std::string text = emptyFile && out.good() ? logrecord::fileHeader() : std::string();
    text += logrecord::sessionMark(true);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out.flush();
}

void CQuillLogger::initLogging() {}

CQuillLogger::OStream& CQuillLogger::log(unsigned level) {
    OStream& stream = level <= _logLevel.load(std::memory_order_relaxed) ? *_activeStream : *_nullStream;
    stream.setLevel(level);
    return stream;
}

void CQuillLogger::setLogLevel(unsigned level) {
    CAutoMutex lock(_mutex);
    if (_logLevel.exchange(level, std::memory_order_relaxed) == level) return;
    log(level) << "Setting log level = " << level << std::endl;
}

unsigned CQuillLogger::logLevel() const { return _logLevel.load(std::memory_order_relaxed); }

void CQuillLogger::setPrefsChangedHandler(bool observe) {
    CAutoMutex lock(_mutex);
    if (observe) {
        ::addObserver(this, &CQuillLogger::quillPrefsChanged, QuillNotification::kQuillPrefsChangedNotification,
                      QuillNotification::kPrefExternalID);
        _observingPrefs = true;
    } else if (_observingPrefs) {
        platform::notificationCenter().removeObserver(this, QuillNotification::kQuillPrefsChangedNotification,
                                                      QuillNotification::kPrefExternalID);
    }
}

void CQuillLogger::quillPrefsChanged(PLNotificationCenterRef, void* observer, PLStringRef, PLStringRef,
                                     PLDictionaryRef userInfo) {
    if (!observer) return;
    try {
        if (userInfo) {
            const PLBoolean* headless = PLDynamicCast<PLBoolean>(userInfo->get(QuillCorePrivate::kDictKeyHeadless));
            if (headless && headless->value() && !userInfo->get(QuillCorePrivate::kDictKeyLogging)) return;
        }
        CQuillLogger* logger = static_cast<CQuillLogger*>(observer);
        CServiceCacheEntry entry;
        if (findCacheEntry(logger->serviceName(), entry)) logger->setLogLevel(entryLogLevel(entry));
    } catch (...) {
        // The level stays as it was.
    }
}

bool CQuillLogger::isStarted() const {
    CAutoMutex lock(_mutex);
    return _started != 0;
}

bool CQuillLogger::isLoggingToFile() const {
    CAutoMutex lock(_mutex);
    return _loggingToFile != 0;
}

CStringRef CQuillLogger::logFilePath() const {
    CAutoMutex lock(_mutex);
    return _logFilePath;
}

CStringRef CQuillLogger::serviceName() const {
    CAutoMutex lock(_mutex);
    return _serviceName;
}

CStringRef CQuillLogger::escapedString(const CStringRef& message, unsigned level) {
    if (!message) return message;
    std::string escaped;
    if (!logrecord::escapeMessage(message->utf8(), level, escaped)) return message;
    return ferrocore::CString::create(std::move(escaped));
}

}  // namespace quill
