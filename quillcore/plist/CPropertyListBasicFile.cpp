#include <algorithm>
#include <cerrno>
#include <limits>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <ferrocore/CException.h>
#include <ferrocore/Format.h>
#include <quillcore/platform/Host.h>
#include <quillcore/platform/PLPropertyList.h>
#include <quillcore/plist/CPropertyListBasicFile.h>
#include <quillcore/util/PLUtil.h>

namespace quill {

namespace {

using ferrocore::CException;
using ferrocore::formatString;
using ferrocore::kExceptionKindHostRuntime;
using ferrocore::kExceptionKindSystemCall;

PL_CONSTANT_STRING(kVersionKey, "Version");
PL_CONSTANT_STRING(kDefaultVersion, "1.0");

int currentProcessID() { return platform::host().processID(); }

const char* pathText(PLStringRef path) noexcept { return path ? path->c_str() : nullptr; }

// Failed host file calls become exceptions here and only here (this one and
// lockError): the operation's message prefix, what failed, and the system's
// text for the error.
CException systemCallError(const char* operation, PLStringRef path, const char* what, std::error_code error) {
    return CException(kExceptionKindSystemCall,
                      formatString("CPropertyListBasicFile::%s[%d](%s): %s, error = %s", operation, currentProcessID(),
                                   pathText(path), what, ferrocore::errorText(error.value())),
                      error.value());
}

// A failed open-and-lock of a COpenFile.
CException lockError(bool readWrite, PLStringRef path, std::error_code error) {
    return CException(kExceptionKindSystemCall,
                      formatString(readWrite ? "CPropertyListBasicFile::COpenFile::open[%d](RW, %s): can't get write "
                                               "file lock, error = %s"
                                             : "CPropertyListBasicFile::COpenFile::open[%d](Read, %s): can't get read "
                                               "file lock, error = %s",
                                   currentProcessID(), pathText(path), ferrocore::errorText(error.value())),
                      error.value());
}

CException runtimeError(const char* operation, PLStringRef path, std::string what) {
    return CException(kExceptionKindHostRuntime, formatString("CPropertyListBasicFile::%s[%d](%s): %@", operation,
                                                              currentProcessID(), pathText(path), what));
}

// Whether `value` is already what reading its XML back gives: immutable
// throughout, integers of the narrowest kind the reader makes, dictionary keys
// in ascending bytewise order (the writer's order, which the reader keeps).
// Only trees the XML writer accepted come here.
bool inParsedForm(const PLObject* value) noexcept {
    if (value->isMutable()) return false;
    switch (value->typeID()) {
        case PLTypeID::Number: {
            const auto* number = static_cast<const PLNumber*>(value);
            if (number->numberType() != PLNumberType::SInt64) return true;
            const std::int64_t n = number->int64Value();
            return n < std::numeric_limits<std::int32_t>::min() || n > std::numeric_limits<std::int32_t>::max();
        }
        case PLTypeID::Array:
            for (const auto& element : static_cast<const PLArray*>(value)->values())
                if (!inParsedForm(element.get())) return false;
            return true;
        case PLTypeID::Dictionary: {
            std::string_view previous;
            bool first = true;
            for (const auto& [key, element] : static_cast<const PLDictionary*>(value)->entries()) {
                const auto* name = static_cast<const PLString*>(key.get());
                if (name->isMutable() || (!first && !(previous < name->utf8())) || !inParsedForm(element.get()))
                    return false;
                previous = name->utf8();
                first = false;
            }
            return true;
        }
        default: return true;
    }
}

// `value` as reading its XML back would give it (see inParsedForm), sharing
// every part that already is.
PLHolder<const PLObject> parsedForm(const PLObject* value) {
    if (inParsedForm(value)) return PLHolder<const PLObject>::retain(value);
    switch (value->typeID()) {
        case PLTypeID::String: return PLString::create(static_cast<const PLString*>(value)->utf8());
        case PLTypeID::Data: {
            const auto* data = static_cast<const PLData*>(value);
            return PLData::create(data->bytes(), data->size());
        }
        case PLTypeID::Number:  // a 64-bit integer within the 32-bit range
            return PLNumber::create(static_cast<const PLNumber*>(value)->int32Value());
        case PLTypeID::Array: {
            std::vector<PLHolder<const PLObject>> elements;
            elements.reserve(static_cast<const PLArray*>(value)->count());
            for (const auto& element : static_cast<const PLArray*>(value)->values())
                elements.push_back(parsedForm(element.get()));
            return PLArray::createFromValues(std::move(elements));
        }
        case PLTypeID::Dictionary: {
            std::vector<PLDictionaryEntry> entries;
            entries.reserve(static_cast<const PLDictionary*>(value)->count());
            for (const auto& [key, element] : static_cast<const PLDictionary*>(value)->entries())
                entries.emplace_back(parsedForm(key.get()), parsedForm(element.get()));
            std::sort(entries.begin(), entries.end(), [](const PLDictionaryEntry& a, const PLDictionaryEntry& b) {
                return static_cast<const PLString*>(a.first.get())->utf8() <
                       static_cast<const PLString*>(b.first.get())->utf8();
            });
            return PLDictionary::createFromEntries(std::move(entries));
        }
        default: return PLHolder<const PLObject>::retain(value);
    }
}

PLHolder<const PLString> requirePath(PLStringRef path) {
    if (!path) throw ferrocore::CNullPointerException("Error: path is null!");
    return PLHolder<const PLString>::retain(path);
}

// Sets `value` at [first, last) below `dict`; see setValueAtPath.
void setAt(PLMutableDictionary& dict, const std::string_view* first, const std::string_view* last, PLTypeRef value) {
    PLHolder<const PLString> key = PLString::create(*first);
    if (first + 1 == last) {
        if (value)
            dict.set(key, PLHolder<const PLObject>::retain(value));
        else
            dict.remove(key.get());
        return;
    }
    const PLDictionary* existing = PLDynamicCast<PLDictionary>(dict.get(key.get()));
    if (!value && !existing) return;  // nothing to remove below a missing step
    PLHolder<PLMutableDictionary> child = PLUtil::PLDictMakeMutableCopy(existing);
    setAt(*child, first + 1, last, value);
    dict.set(key, std::move(child));
}

}  // namespace

// ------------------------------------------------------------ COpenFile

CPropertyListBasicFile::COpenFile::COpenFile(PLStringRef path, std::int32_t mode)
    : _path(requirePath(path)), _mode(mode), _lastError(0) {
    open();
}

CPropertyListBasicFile::COpenFile::COpenFile(int fd) noexcept : _mode(kOpenModeAdopted), _fd(fd), _lastError(0) {}

CPropertyListBasicFile::COpenFile::~COpenFile() { close(); }

bool CPropertyListBasicFile::COpenFile::open() {
    if (_fd) return false;
    if (_mode != kOpenModeRead && _mode != kOpenModeReadWrite) {
        throw CException(kExceptionKindSystemCall,
                         formatString("CPropertyListBasicFile::COpenFile::open[%d](%s): wrong open mode = %d",
                                      currentProcessID(), pathText(_path.get()), _mode));
    }
    const bool readWrite = _mode == kOpenModeReadWrite;
    const std::error_code error = platform::host().openLockedFile(
        _path->str(), readWrite ? platform::FileLock::Exclusive : platform::FileLock::Shared, _fd);
    if (error) {
        _lastError = error.value();
        if (!readWrite && error.value() == ENOENT) return false;
        throw lockError(readWrite, _path.get(), error);
    }
    _lastError = 0;
    return true;
}

bool CPropertyListBasicFile::COpenFile::close() noexcept {
    if (!_fd) return false;
    // The descriptor is gone whatever close reports, and the lock with it;
    // there is nothing a caller could do about an error here.
    (void)platform::host().closeFile(_fd);
    return true;
}

// ------------------------------------------------------ CFileLockMonitor

CPropertyListBasicFile::CFileLockMonitor::~CFileLockMonitor() {
    if (_file && _file->fileLock()) _file->unlock();
}

// ------------------------------------------------ CPropertyListBasicFile

CPropertyListBasicFile::CPropertyListBasicFile(PLStringRef path)
    : _path(requirePath(path)), _version(PLHolder<const PLString>::retain(kDefaultVersion)) {
    refresh();
}

CPropertyListBasicFile::CPropertyListBasicFile(PLStringRef path, std::int32_t lockMode)
    : _path(requirePath(path)), _version(PLHolder<const PLString>::retain(kDefaultVersion)) {
    if (lockMode == kOpenModeRead || lockMode == kOpenModeReadWrite) {
        COpenFileRef file = ferrocore::makeShared<COpenFile>(_path.get(), lockMode);
        if (file->isOpen()) _lock = std::move(file);
    }
    refresh();
}

CPropertyListBasicFile::~CPropertyListBasicFile() = default;

bool CPropertyListBasicFile::refresh() {
    fromPropertyList(readPropertyList().get());
    return true;
}

PLHolder<const PLDictionary> CPropertyListBasicFile::readPropertyList() const {
    try {
        // The bytes are read under the lock; parsing needs no lock, so a
        // lock taken for this read alone is given back before it.
        std::string bytes;
        {
            COpenFileRef temporary;
            const COpenFile* file = _lock.get();
            if (!file) {
                temporary = ferrocore::makeShared<COpenFile>(_path.get(), kOpenModeRead);
                file = temporary.get();
            }
            if (file->isOpen()) {
                platform::IHost& host = platform::host();
                std::uint64_t length = 0;
                if (std::error_code error = host.fileLength(file->descriptor(), length))
                    throw systemCallError("refresh", _path.get(), "can't read file", error);
                bytes.resize(length);
                std::size_t got = 0;
                const std::error_code error = host.readFile(file->descriptor(), bytes.data(), length, got);
                if (got < length) throw systemCallError("refresh", _path.get(), "can't read file", error);
            }
        }

        PLHolder<const PLDictionary> result;
        if (!bytes.empty()) {
            result = parse(std::move(bytes));
        } else {
            result = PLDictionaryCreateMutable();
            if (!result) throw runtimeError("refresh", _path.get(), "PLDictionaryCreateMutable() failed");
        }
        _lastRefreshFailed = false;
        return result;
    } catch (const CException& error) {
        _lastRefreshFailed = true;
        PLUtil::LogToConsole(error.what());
        throw;
    }
}

PLHolder<const PLDictionary> CPropertyListBasicFile::parse(std::string&& bytes) const {
    if (_keptDictionary && bytes == _keptBytes) return _keptDictionary;
    std::string reason;
    PLHolder<const PLObject> plist =
        PLPropertyListCreateFromBytes(bytes.data(), bytes.size(), PLMutability::Immutable, &reason);
    if (plist && !PLDictionary::matches(*plist)) {
        reason = formatString("the top level is of type %s, not a dictionary", PLTypeName(plist->typeID()));
        plist.reset();
    }
    if (!plist)
        throw runtimeError("refresh", _path.get(), "PLPropertyListCreateFromXMLData() failed, error = " + reason);
    _keptDictionary = PLHolder<const PLDictionary>::adopt(static_cast<const PLDictionary*>(plist.detach()));
    _keptBytes = std::move(bytes);
    return _keptDictionary;
}

void CPropertyListBasicFile::fromPropertyList(PLDictionaryRef plist) {
    if (!plist) {
        throw CException(
            kExceptionKindSystemCall,
            formatString("CPropertyListBasicFile::fromPropertyList[%d](): propertyList is NULL", currentProcessID()));
    }
    PLHolder<PLMutableDictionary> copy = PLDictionaryCreateMutableCopy(plist);
    PLStringRef version = nullptr;
    if (!PLUtil::PLDictGetString(copy.get(), kVersionKey, &version)) version = kDefaultVersion;
    _version = PLHolder<const PLString>::retain(version);
    _contents = std::move(copy);
}

PLHolder<PLMutableDictionary> CPropertyListBasicFile::toPropertyList() const { return _contents; }

bool CPropertyListBasicFile::flush() const {
    writePropertyList(_contents.get());
    return false;
}

void CPropertyListBasicFile::writePropertyList(PLDictionaryRef plist) const {
    try {
        if (_lastRefreshFailed)
            throw runtimeError("writePropertyList", _path.get(), "not proceeding since the last refresh failed");

        std::string xml;
        std::string reason = "no property list";
        if (!plist || !PLPropertyListWriteXML(plist, xml, &reason))
            throw runtimeError("writePropertyList", _path.get(),
                               "PLPropertyListCreateXMLData() failed, error = " + reason);

        COpenFileRef temporary;
        const COpenFile* file = _lock.get();
        if (!file) {
            temporary = ferrocore::makeShared<COpenFile>(_path.get(), kOpenModeReadWrite);
            file = temporary.get();
        }
        // From here on the file may change, whatever happens.
        _keptDictionary.reset();
        _keptBytes.clear();
        platform::IHost& host = platform::host();
        std::size_t written = 0;
        std::error_code error = host.writeFileAt(file->descriptor(), 0, xml.data(), xml.size(), written);
        if (error || written < xml.size())
            throw systemCallError("writePropertyList", _path.get(), "can't write file", error);
        error = host.truncateFile(file->descriptor(), written);
        if (error) throw systemCallError("writePropertyList", _path.get(), "can't truncate file", error);

        _keptDictionary =
            PLHolder<const PLDictionary>::adopt(static_cast<const PLDictionary*>(parsedForm(plist).detach()));
        _keptBytes = std::move(xml);
    } catch (const CException& error) {
        // Logged here as well, so that a failure leaves a trace even when the
        // caller swallows it.
        PLUtil::LogToConsole(error.what());
        throw;
    }
}

bool CPropertyListBasicFile::lockForRead() const {
    if (_lock) return false;
    COpenFileRef file = ferrocore::makeShared<COpenFile>(_path.get(), kOpenModeRead);
    if (!file->isOpen()) return false;
    _lock = std::move(file);
    return true;
}

bool CPropertyListBasicFile::lockForRW() const {
    if (_lock) return false;
    _lock = ferrocore::makeShared<COpenFile>(_path.get(), kOpenModeReadWrite);
    return true;
}

bool CPropertyListBasicFile::unlock() const noexcept {
    if (!_lock) return false;
    _lock.reset();
    return true;
}

void CPropertyListBasicFile::setFileVersion(PLStringRef version) {
    _version = PLHolder<const PLString>::retain(version);
    if (!_contents) return;
    if (version && !version->empty())
        _contents->set(PLHolder<const PLObject>::retain(kVersionKey), PLHolder<const PLObject>::retain(version));
    else
        _contents->remove(kVersionKey);
}

void CPropertyListBasicFile::flushDerived(const std::function<void(PLMutableDictionary& top)>& edit) const {
    PLHolder<const PLDictionary> base = _contents;
    CFileLockMonitorRef monitor;  // only for a lock this flush takes itself
    if (!_lock) {
        lockForRW();
        try {
            monitor = ferrocore::makeShared<CFileLockMonitor>(this);
        } catch (...) {
            unlock();
            throw;
        }
        base = readPropertyList();
    }
    PLHolder<PLMutableDictionary> top = PLUtil::PLDictMakeMutableCopy(base.get());
    edit(*top);
    writePropertyList(top.get());
}

PLTypeRef CPropertyListBasicFile::valueAtPath(PLDictionaryRef top, KeyPath path) noexcept {
    PLTypeRef node = top;
    for (std::string_view key : path) {
        const PLDictionary* dict = PLDynamicCast<PLDictionary>(node);
        if (!dict) return nullptr;
        node = dict->get(key);
    }
    return node;
}

void CPropertyListBasicFile::setValueAtPath(PLMutableDictionary& top, KeyPath path, PLTypeRef value) {
    if (path.size() == 0) return;
    setAt(top, path.begin(), path.end(), value);
}

}  // namespace quill
