#include <cstring>
#include <string>
#include <string_view>
#include <system_error>

#include <ferrocore/CException.h>
#include <ferrocore/Format.h>
#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/Host.h>
#include <quillcore/platform/PLPropertyList.h>
#include <quillcore/servicemanager/CPListUpdater.h>

namespace quill {

namespace {

PL_CONSTANT_STRING(kVersionKey, "Version");

// Mode of a newly written property-list file (before the file-creation mask).
inline constexpr std::uint32_t kNewFileMode = 0644;

bool isValid(PLTypeRef data) { return PLPropertyListIsValid(data, PLPropertyListFormat::XML); }

void requireData(PLTypeRef data) {
    if (!data) throw ferrocore::CNullPointerException("Error: plistData is null!");
    if (!isValid(data)) throw ferrocore::CParamException("Property list not valid xml format");
}

PLHolder<const PLObject> immutableCopy(PLTypeRef data) {
    return PLPropertyListCreateDeepCopy(data, PLMutability::Immutable);
}

PLStringRef versionOf(PLTypeRef data) {
    const PLDictionary* dict = PLDynamicCast<PLDictionary>(data);
    return dict ? PLDynamicCast<PLString>(dict->get(kVersionKey)) : nullptr;
}

bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

// Compares two texts with runs of digits taken as numbers ("9" < "10",
// "1.9" < "1.10"); everything else bytewise. Negative, zero or positive.
int compareNumerically(std::string_view a, std::string_view b) noexcept {
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < a.size() && j < b.size()) {
        if (isDigit(a[i]) && isDigit(b[j])) {
            std::size_t endA = i;
            std::size_t endB = j;
            while (endA < a.size() && isDigit(a[endA])) ++endA;
            while (endB < b.size() && isDigit(b[endB])) ++endB;
            std::string_view runA = a.substr(i, endA - i);
            std::string_view runB = b.substr(j, endB - j);
            while (runA.size() > 1 && runA.front() == '0') runA.remove_prefix(1);
            while (runB.size() > 1 && runB.front() == '0') runB.remove_prefix(1);
            if (runA.size() != runB.size()) return runA.size() < runB.size() ? -1 : 1;
            if (const int c = runA.compare(runB); c != 0) return c;
            i = endA;
            j = endB;
            continue;
        }
        if (a[i] != b[j]) return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[j]) ? -1 : 1;
        ++i;
        ++j;
    }
    if (i == a.size() && j == b.size()) return 0;
    return i == a.size() ? -1 : 1;
}

// Merges `incoming` into `target` with `base` as the common ancestor (may be
// null): values the target changed against the base are kept, everything else
// follows the incoming dictionary. True when the target changed.
bool threeWayMerge(PLMutableDictionary& target, PLDictionaryRef base, const PLDictionary& incoming) {
    bool changed = false;
    for (const auto& [key, value] : incoming.entries()) {
        const PLObject* current = target.get(key.get());
        if (!current || current->typeID() != value->typeID()) {
            target.set(key, value);
            changed = true;
            continue;
        }
        if (const PLDictionary* incomingDict = PLDynamicCast<PLDictionary>(value.get())) {
            PLHolder<PLMutableDictionary> nested = PLDictionaryCreateMutableCopy(PLDynamicCast<PLDictionary>(current));
            const PLDictionary* baseDict = base ? PLDynamicCast<PLDictionary>(base->get(key.get())) : nullptr;
            if (threeWayMerge(*nested, baseDict, *incomingDict)) {
                target.set(key, PLHolder<const PLObject>(std::move(nested)));
                changed = true;
            }
            continue;
        }
        if (current->equals(*value)) continue;
        const PLObject* baseValue = base ? base->get(key.get()) : nullptr;
        if (baseValue && baseValue->typeID() == current->typeID() && !current->equals(*baseValue)) continue;
        target.set(key, value);
        changed = true;
    }
    return changed;
}

std::string parentOf(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

}  // namespace

CPListUpdater::CPListUpdater(const ferrocore::CStringRef& filePath) : _filePath(filePath) {
    if (_filePath) refresh();
}

CPListUpdater::~CPListUpdater() = default;

void CPListUpdater::refresh() {
    if (isFilePresent(_filePath)) _plistData = readFile(_filePath);
}

void CPListUpdater::setPListData(PLTypeRef data) {
    if (data && !isValid(data)) throw ferrocore::CParamException("Property list not valid xml format");
    _plistData = immutableCopy(data);
}

bool CPListUpdater::updateIfNeeded(const ferrocore::CStringRef& xmlText) {
    if (!xmlText) throw ferrocore::CNullPointerException("Error: plistText is null!");
    std::string error;
    const PLHolder<const PLObject> data =
        PLPropertyListCreateFromBytes(xmlText->utf8().data(), xmlText->utf8().size(), PLMutability::Immutable, &error);
    if (!data) throw ferrocore::CParamException("Couldn't parse property list, error = " + error);
    return updateIfNeeded(data.get());
}

bool CPListUpdater::updateIfNeeded(PLTypeRef data) {
    requireData(data);
    if (_plistData) {
        if (!needMerge(data)) return false;
        merge(data);
    } else {
        _plistData = immutableCopy(data);
    }
    writeFile(_filePath, _plistData.get());
    return true;
}

bool CPListUpdater::needMerge(PLTypeRef data) const {
    if (!data) throw ferrocore::CNullPointerException("Error: plistData is null!");
    if (!_plistData) return true;
    const PLStringRef currentVersion = versionOf(_plistData.get());
    if (!currentVersion) return true;
    const PLStringRef newVersion = versionOf(data);
    if (!newVersion) return false;
    return compareNumerically(currentVersion->utf8(), newVersion->utf8()) < 0;
}

void CPListUpdater::merge(PLTypeRef data) {
    requireData(data);
    if (_plistData) {
        // Intended: new data replaces data the object already holds whole,
        // keys that only the old data had included; nothing is merged.
        _plistData = immutableCopy(data);
        return;
    }
    const PLDictionary* incoming = PLDynamicCast<PLDictionary>(data);
    if (!incoming) {
        _plistData = immutableCopy(data);
        return;
    }
    PLHolder<PLMutableDictionary> target = PLMutableDictionary::create(incoming->count());
    threeWayMerge(*target, incoming, *incoming);
    _plistData = immutableCopy(target.get());
}

void CPListUpdater::writeFile(const ferrocore::CStringRef& filePath, PLTypeRef data) {
    if (!filePath) throw ferrocore::CNullPointerException("Error: filePath is null!");
    if (!data || !isValid(data)) throw ferrocore::CParamException("Property list not valid xml format");
    // Serialised before the file is opened, so that a value that cannot be
    // written never empties the file.
    std::string text;
    std::string error;
    if (!PLPropertyListWriteXML(data, text, &error))
        throw ferrocore::CParamException(ferrocore::formatString("Couldn't write property list to file %s, error = %s",
                                                                 filePath->c_str(), error.c_str()));
    platform::CFileDescriptor fd;
    if (const std::error_code ec = platform::host().openFileForAppending(filePath->utf8(), true, kNewFileMode, fd))
        throw ferrocore::CParamException(ferrocore::formatString("Couldn't open write stream to file %s, error = %d",
                                                                 filePath->c_str(), ec.value()));
    std::size_t written = 0;
    if (const std::error_code ec = platform::host().writeFile(fd.get(), text.data(), text.size(), written))
        throw ferrocore::CParamException(ferrocore::formatString("Couldn't write property list to file %s, error = %s",
                                                                 filePath->c_str(), ec.message().c_str()));
    if (const std::error_code ec = platform::host().closeFile(fd))
        throw ferrocore::CParamException(ferrocore::formatString("Couldn't write property list to file %s, error = %s",
                                                                 filePath->c_str(), ec.message().c_str()));
}

PLHolder<const PLObject> CPListUpdater::readFile(const ferrocore::CStringRef& filePath) {
    if (!filePath) throw ferrocore::CNullPointerException("Error: filePath is null!");
    platform::CFileDescriptor fd;
    if (const std::error_code ec = platform::host().openFileForReading(filePath->utf8(), fd))
        throw ferrocore::CParamException(ferrocore::formatString("Couldn't open read stream from file %s, error = %d",
                                                                 filePath->c_str(), ec.value()));
    std::uint64_t length = 0;
    std::string bytes;
    std::error_code ec = platform::host().fileLength(fd.get(), length);
    if (!ec) {
        bytes.resize(static_cast<std::size_t>(length));
        std::size_t got = 0;
        ec = platform::host().readFile(fd.get(), bytes.data(), bytes.size(), got);
        bytes.resize(got);
    }
    if (ec)
        throw ferrocore::CParamException(ferrocore::formatString("Couldn't read property list from file %s, error = %s",
                                                                 filePath->c_str(), ec.message().c_str()));
    std::string error;
    PLHolder<const PLObject> data =
        PLPropertyListCreateFromBytes(bytes.data(), bytes.size(), PLMutability::Immutable, &error);
    if (!data)
        throw ferrocore::CParamException(ferrocore::formatString("Couldn't read property list from file %s, error = %s",
                                                                 filePath->c_str(), error.c_str()));
    if (!isValid(data.get())) throw ferrocore::CParamException("Property list not valid xml format");
    return data;
}

bool CPListUpdater::flush() {
    if (!_plistData) throw ferrocore::CNullPointerException("Error: _plistData is null!");
    writeFile(_filePath, _plistData.get());
    return true;
}

bool CPListUpdater::isFilePresent(const ferrocore::CStringRef& path) {
    std::uint32_t mode = 0;
    return path && !platform::host().fileMode(path->utf8(), mode);
}

bool CPListUpdater::fileExists() const { return isFilePresent(_filePath); }

bool CPListUpdater::parentDirExists() const {
    if (!_filePath) return false;
    std::uint32_t mode = 0;
    return !platform::host().fileMode(parentOf(_filePath->utf8()), mode);
}

void CPListUpdater::makeParentDir(std::uint32_t mode) {
    if (!_filePath) throw ferrocore::CNullPointerException("Error: filePath is null!");
    const std::string directory = parentOf(_filePath->utf8());
    if (const std::error_code ec = platform::host().createDirectory(directory, mode))
        throw ferrocore::CParamException(
            ferrocore::formatString("mkdir(%s) failed, error = %s", directory.c_str(), ec.message().c_str()));
}

void CPListUpdater::makeParentDirIfNeeded(std::uint32_t mode) {
    if (!parentDirExists()) makeParentDir(mode);
}

}  // namespace quill
