#include <atomic>
#include <string>
#include <vector>

#include <quillcore/platform/Host.h>
#include <quillcore/util/PLUtil.h>

namespace quill::PLUtil {

namespace {

// The value under `key`, borrowed; null when absent or when either is null.
PLTypeRef lookUp(PLDictionaryRef dict, PLStringRef key) noexcept { return dict && key ? dict->get(key) : nullptr; }

template <class T>
const T* typedValue(PLDictionaryRef dict, PLStringRef key) noexcept {
    return PLDynamicCast<T>(lookUp(dict, key));
}

PLHolder<PLMutableArray> stringArray(const std::vector<std::string>& texts) {
    if (texts.empty()) return nullptr;
    PLHolder<PLMutableArray> array = PLMutableArray::create(texts.size());
    for (const std::string& text : texts) array->append(PLString::create(text));
    return array;
}

PLHolder<const PLString> firstString(const std::vector<std::string>& texts) {
    return texts.empty() ? nullptr : PLString::create(texts.front());
}

// Writes all of `data` to `fd` and closes it; false when either fails.
bool writeAndClose(platform::IHost& host, platform::CFileDescriptor& fd, PLDataRef data) {
    std::size_t written = 0;
    const bool ok = !host.writeFile(fd.get(), data->bytes(), data->size(), written);
    return !host.closeFile(fd) && ok;
}

// Writes to a fresh file beside `path` and renames it over `path`.
bool writeAtomically(const std::string& path, PLDataRef data) {
    static std::atomic<unsigned> counter{0};
    platform::IHost& host = platform::host();
    std::string::size_type slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string pid = std::to_string(host.processID());
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string temp = dir + "." + name + "." + pid + "." + std::to_string(counter.fetch_add(1)) + ".tmp";
        platform::CFileDescriptor fd;
        // A fresh name only: a file somebody else made under it is never reused.
        if (const std::error_code error = host.createFile(temp, 0666, fd)) {
            if (error == std::errc::file_exists) continue;
            return false;
        }
        if (writeAndClose(host, fd, data) && !host.renameFile(temp, path)) return true;
        (void)host.removeFile(temp);
        return false;
    }
    return false;
}

bool writeInPlace(const std::string& path, PLDataRef data) {
    platform::IHost& host = platform::host();
    platform::CFileDescriptor fd;
    if (host.openFileForAppending(path, true, 0666, fd)) return false;
    return writeAndClose(host, fd, data);
}

}  // namespace

// ---------------------------------------------------------------- dictionaries

PLHolder<PLMutableDictionary> PLDictMakeMutable() { return PLMutableDictionary::create(); }

PLHolder<PLMutableDictionary> PLDictMakeMutableCopy(PLDictionaryRef dict) {
    return dict ? PLDictionaryCreateMutableCopy(dict) : PLMutableDictionary::create();
}

bool PLDictGet(PLDictionaryRef dict, PLStringRef key, PLTypeRef* out) noexcept {
    PLTypeRef value = lookUp(dict, key);
    if (out) *out = value;
    return value != nullptr;
}

void PLDictAdd(PLMutableDictionaryRef dict, PLStringRef key, PLTypeRef value) {
    if (!dict || !key) return;
    if (!value) {
        dict->remove(key);
        return;
    }
    dict->add(PLHolder<const PLObject>::retain(key), PLHolder<const PLObject>::retain(value));
}

void PLDictSet(PLMutableDictionaryRef dict, PLStringRef key, PLTypeRef value) {
    if (!dict || !key) return;
    if (!value) {
        dict->remove(key);
        return;
    }
    dict->set(PLHolder<const PLObject>::retain(key), PLHolder<const PLObject>::retain(value));
}

bool PLDictGetBoolean(PLDictionaryRef dict, PLStringRef key, std::uint8_t* out) noexcept {
    const PLBoolean* value = typedValue<PLBoolean>(dict, key);
    if (out) *out = value && value->value() ? 1 : 0;
    return value != nullptr;
}

void PLDictSetBoolean(PLMutableDictionaryRef dict, PLStringRef key, std::uint8_t value) {
    PLDictSet(dict, key, value ? kPLBooleanTrue : kPLBooleanFalse);
}

bool PLDictGetInt(PLDictionaryRef dict, PLStringRef key, std::int32_t* out) noexcept {
    const PLNumber* value = typedValue<PLNumber>(dict, key);
    if (out) *out = value ? value->int32Value() : 0;
    return value != nullptr;
}

void PLDictSetInt(PLMutableDictionaryRef dict, PLStringRef key, std::int32_t value) {
    if (!dict || !key) return;
    PLDictSet(dict, key, PLNumber::create(value).get());
}

bool PLDictGetDouble(PLDictionaryRef dict, PLStringRef key, double* out) noexcept {
    const PLNumber* value = typedValue<PLNumber>(dict, key);
    if (out) *out = value ? value->doubleValue() : 0.0;
    return value != nullptr;
}

void PLDictSetDouble(PLMutableDictionaryRef dict, PLStringRef key, double value) {
    if (!dict || !key) return;
    PLDictSet(dict, key, PLNumber::create(value).get());
}

bool PLDictGetString(PLDictionaryRef dict, PLStringRef key, PLStringRef* out) noexcept {
    PLStringRef value = typedValue<PLString>(dict, key);
    if (out) *out = value;
    return value != nullptr;
}

void PLDictSetString(PLMutableDictionaryRef dict, PLStringRef key, PLStringRef value) { PLDictSet(dict, key, value); }

bool PLDictGetURL(PLDictionaryRef dict, PLStringRef key, PLURLRef* out) noexcept {
    PLURLRef value = typedValue<PLURL>(dict, key);
    if (out) *out = value;
    return value != nullptr;
}

void PLDictSetURL(PLMutableDictionaryRef dict, PLStringRef key, PLURLRef value) { PLDictSet(dict, key, value); }

// ---------------------------------------------------------------- arrays

PLHolder<PLMutableArray> PLArrayMakeMutable() { return PLMutableArray::create(); }

PLHolder<PLMutableArray> PLArrayMakeMutableCopy(PLArrayRef array) {
    return array ? PLArrayCreateMutableCopy(array) : PLMutableArray::create();
}

bool PLArrayContainsInt(PLArrayRef array, std::int32_t value) { return PLArrayFindInt(array, value) >= 0; }

std::int32_t PLArrayFindInt(PLArrayRef array, std::int32_t value) {
    if (!array) return -1;
    return static_cast<std::int32_t>(array->indexOf(PLNumber::create(value).get()));
}

std::int32_t PLArrayGetCountOfIntVal(PLArrayRef array, std::int32_t value) {
    if (!array) return 0;
    return static_cast<std::int32_t>(array->countOf(PLNumber::create(value).get()));
}

bool PLArrayGetIntAtIndex(PLArrayRef array, std::int32_t index, std::int32_t* out) noexcept {
    if (!array || index < 0 || static_cast<std::size_t>(index) >= array->count()) return false;
    const PLNumber* number = PLDynamicCast<PLNumber>(array->at(static_cast<std::size_t>(index)));
    if (!number) return false;
    if (out) *out = number->int32Value();
    return true;
}

bool PLArrayAddInt(PLMutableArrayRef array, std::int32_t value) {
    if (!array) return false;
    PLHolder<const PLNumber> number = PLNumber::create(value);
    if (array->indexOf(number.get()) >= 0) return false;
    array->append(std::move(number));
    return true;
}

void PLArrayAppendInt(PLMutableArrayRef array, std::int32_t value) {
    if (array) array->append(PLNumber::create(value));
}

bool PLArrayRemoveInt(PLMutableArrayRef array, std::int32_t value) {
    return PLArrayRemoveValueAtIndex(array, PLArrayFindInt(array, value));
}

bool PLArrayRemoveValueAtIndex(PLMutableArrayRef array, std::int32_t index) noexcept {
    if (!array || index < 0 || static_cast<std::size_t>(index) >= array->count()) return false;
    array->removeAt(static_cast<std::size_t>(index));
    return true;
}

// ---------------------------------------------------------------- host

void LogToConsole(const char* text) noexcept {
    if (!text) return;
    try {
        platform::host().logToConsole(text);
    } catch (...) {
        // The console is the last resort for messages; there is nowhere else to
        // report that it failed.
    }
}

PLHolder<PLMutableArray> HostNames() { return stringArray(platform::host().hostNames()); }

PLHolder<const PLString> HostName() { return firstString(platform::host().hostNames()); }

PLHolder<PLMutableArray> HostAddresses() { return stringArray(platform::host().hostAddresses()); }

PLHolder<const PLString> HostAddress() { return firstString(platform::host().hostAddresses()); }

// ---------------------------------------------------------------- files

bool PLDataWriteToURL(PLDataRef data, PLURLRef url, bool atomically) noexcept {
    if (!data || !url) return false;
    try {
        if (url->scheme() != "file") return false;
        std::string path = url->fileSystemPath();
        if (path.empty()) return false;
        return atomically ? writeAtomically(path, data) : writeInPlace(path, data);
    } catch (...) {
        return false;
    }
}

}  // namespace quill::PLUtil
