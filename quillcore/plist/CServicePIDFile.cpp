#include <charconv>
#include <cmath>
#include <limits>
#include <string>

#include "RecordPaths.h"
#include <ferrocore/CException.h>
#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/platform/ProcessSpawner.h>
#include <quillcore/plist/CServicePIDFile.h>
#include <quillcore/util/PLUtil.h>

namespace quill {

namespace {

PL_CONSTANT_STRING(kAttributesKey, "attributes");
PL_CONSTANT_STRING(kKindKey, "Kind");
PL_CONSTANT_STRING(kNameKey, "Name");
PL_CONSTANT_STRING(kVersionKey, "Version");

// Both checks come before the base reads anything.
PLStringRef checkedPath(PLStringRef serviceKey, PLStringRef path) {
    if (!serviceKey) throw ferrocore::CNullPointerException("Error: serviceKey is null!");
    return path;
}

PLHolder<const PLString> pidKey(std::int32_t pid) { return PLString::create(std::to_string(pid)); }

// Whether the process named by an "attributes" key can be sent signal 0.
bool canSignal(PLTypeRef key) {
    const PLString* text = PLDynamicCast<PLString>(key);
    if (!text) return false;
    std::int32_t pid = 0;
    const char* first = text->utf8().data();
    const char* last = first + text->size();
    const auto [end, error] = std::from_chars(first, last, pid);
    if (error != std::errc() || end != last || pid <= 0) return false;
    return !platform::processSpawner().signalProcess(pid, 0);
}

}  // namespace

CServicePIDFile::CServicePIDFile(PLStringRef serviceKey)
    : CServicePIDFile(serviceKey,
                      records::expandedPath(checkedPath(serviceKey, QuillCorePrivate::kQuillPIDFilePath)).get()) {}

CServicePIDFile::CServicePIDFile(PLStringRef serviceKey, PLStringRef path)
    : CPropertyListBasicFile(checkedPath(serviceKey, path)), _serviceKey(PLHolder<const PLString>::retain(serviceKey)) {
    refresh();
}

CServicePIDFile::~CServicePIDFile() = default;

bool CServicePIDFile::refresh() {
    const bool result = CPropertyListBasicFile::refresh();
    _pids = fromArray(PLDynamicCast<PLArray>(contents()->get(_serviceKey.get())));
    return result;
}

bool CServicePIDFile::get(std::vector<std::int32_t>& pids) const {
    const PLHolder<const PLDictionary> top = readPropertyList();
    _pids = fromArray(PLDynamicCast<PLArray>(top->get(_serviceKey.get())));
    pids = _pids;
    return true;
}

bool CServicePIDFile::put(const std::vector<std::int32_t>& pids) {
    _pids = pids;
    flush();
    return true;
}

bool CServicePIDFile::flush() const {
    flushDerived([this](PLMutableDictionary& top) {
        PLHolder<const PLArray> array = toArray(_pids);
        if (array->count() > 0)
            top.set(PLHolder<const PLObject>::retain(_serviceKey.get()), std::move(array));
        else
            top.remove(_serviceKey.get());
    });
    return false;
}

std::vector<std::int32_t> CServicePIDFile::fromArray(PLArrayRef array) const {
    std::vector<std::int32_t> pids;
    if (!array) return pids;
    pids.reserve(array->count());
    for (const PLHolder<const PLObject>& element : array->values()) {
        const PLNumber* number = PLDynamicCast<PLNumber>(element.get());
        if (!number) continue;
        // Only lossless conversions count.
        constexpr double kLowest = std::numeric_limits<std::int32_t>::min();
        constexpr double kHighest = std::numeric_limits<std::int32_t>::max();
        if (number->isFloat()) {
            const double value = number->doubleValue();
            if (!(value >= kLowest && value <= kHighest) || std::trunc(value) != value) continue;  // NaN too
            pids.push_back(static_cast<std::int32_t>(value));
        } else {
            const std::int64_t value = number->int64Value();
            if (value < std::numeric_limits<std::int32_t>::min() || value > std::numeric_limits<std::int32_t>::max())
                continue;
            pids.push_back(static_cast<std::int32_t>(value));
        }
    }
    return pids;
}

PLHolder<const PLArray> CServicePIDFile::toArray(const std::vector<std::int32_t>& pids) const {
    PLHolder<PLMutableArray> array = PLMutableArray::create(pids.size());
    for (const std::int32_t pid : pids) {
        if (pid != 0) array->append(PLNumber::create(pid));
    }
    return array;
}

PLHolder<const PLDictionary> CServicePIDFile::getAttributes() const {
    return PLHolder<const PLDictionary>::retain(PLDynamicCast<PLDictionary>(contents()->get(kAttributesKey)));
}

void CServicePIDFile::setAttributes(PLDictionaryRef dict) {
    PLHolder<PLMutableDictionary> copy = PLUtil::PLDictMakeMutableCopy(contents());
    PLUtil::PLDictSet(copy.get(), kAttributesKey, dict && dict->count() > 0 ? dict : nullptr);
    CPropertyListBasicFile::fromPropertyList(copy.get());
}

PLHolder<const PLDictionary> CServicePIDFile::processAttributes(std::int32_t pid) const {
    const PLHolder<const PLDictionary> attributes = getAttributes();
    if (!attributes) return {};
    return PLHolder<const PLDictionary>::retain(PLDynamicCast<PLDictionary>(attributes->get(pidKey(pid).get())));
}

bool CServicePIDFile::processAttributes(std::int32_t pid, PLHolder<const PLString>& kind,
                                        PLHolder<const PLString>& name, PLHolder<const PLString>& version) {
    refresh();
    const PLHolder<const PLDictionary> attributes = processAttributes(pid);
    PLStringRef text = nullptr;
    PLUtil::PLDictGetString(attributes.get(), kKindKey, &text);
    kind = PLHolder<const PLString>::retain(text);
    PLUtil::PLDictGetString(attributes.get(), kNameKey, &text);
    name = PLHolder<const PLString>::retain(text);
    PLUtil::PLDictGetString(attributes.get(), kVersionKey, &text);
    version = PLHolder<const PLString>::retain(text);
    return static_cast<bool>(attributes);
}

void CServicePIDFile::setProcessAttributes(std::int32_t pid, PLDictionaryRef dict) {
    PLHolder<PLMutableDictionary> attributes = PLUtil::PLDictMakeMutableCopy(getAttributes().get());
    const PLHolder<const PLString> key = pidKey(pid);
    PLUtil::PLDictSet(attributes.get(), key.get(), dict && dict->count() > 0 ? dict : nullptr);
    setAttributes(attributes.get());
}

void CServicePIDFile::setProcessAttributes(std::int32_t pid, PLStringRef kind, PLStringRef name, PLStringRef version) {
    const CFileLockMonitorRef monitor = lockAndRefresh();

    if (const PLHolder<const PLDictionary> attributes = getAttributes()) {
        PLHolder<PLMutableDictionary> pruned = PLUtil::PLDictMakeMutableCopy(attributes.get());
        bool removed = false;
        for (const auto& [key, value] : attributes->entries()) {
            if (canSignal(key.get())) continue;
            pruned->remove(key.get());
            removed = true;
        }
        if (removed) setAttributes(pruned.get());
    }

    PLHolder<PLMutableDictionary> record = PLUtil::PLDictMakeMutableCopy(processAttributes(pid).get());
    PLUtil::PLDictSetString(record.get(), kKindKey, kind);
    PLUtil::PLDictSetString(record.get(), kNameKey, name);
    PLUtil::PLDictSetString(record.get(), kVersionKey, version);
    setProcessAttributes(pid, record.get());
    flush();
}

void CServicePIDFile::clearProcessAttributes(std::int32_t pid) {
    const CFileLockMonitorRef monitor = lockAndRefresh();
    setProcessAttributes(pid, nullptr);
    flush();
}

CPropertyListBasicFile::CFileLockMonitorRef CServicePIDFile::lockAndRefresh() {
    if (fileLock()) return {};
    lockForRW();
    CFileLockMonitorRef monitor;
    try {
        monitor = ferrocore::makeShared<CFileLockMonitor>(this);
    } catch (...) {
        unlock();
        throw;
    }
    refresh();
    return monitor;
}

}  // namespace quill
