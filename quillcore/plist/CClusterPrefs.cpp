#include <quillcore/plist/CClusterPrefs.h>
#include <quillcore/util/PLUtil.h>

namespace quill {

namespace {

PL_CONSTANT_STRING(kClusterKey, "Cluster");
PL_CONSTANT_STRING(kNameKey, "Name");
PL_CONSTANT_STRING(kStorageKey, "Storage");
PL_CONSTANT_STRING(kPrivateStorageKey, "PrivateStorage");
PL_CONSTANT_STRING(kPublishedStorageKey, "PublishedStorage");
PL_CONSTANT_STRING(kStorageCleanupThresholdKey, "StorageCleanupThreshold");
PL_CONSTANT_STRING(kStatusIntervalKey, "StatusInterval");
PL_CONSTANT_STRING(kMaxActiveTargetsKey, "MaxActiveTargets");
PL_CONSTANT_STRING(kMaxActiveSegmentsKey, "MaxActiveSegments");
PL_CONSTANT_STRING(kLocalKey, "Local");
PL_CONSTANT_STRING(kSharedKey, "Shared");
PL_CONSTANT_STRING(kUnmanagedServicesKey, "UnmanagedServices");
PL_CONSTANT_STRING(kUnmanagedMultiCaptureThresholdKey, "UnmanagedMultiCaptureThreshold");

bool boolOr(PLDictionaryRef dict, PLStringRef key, bool fallback) {
    std::uint8_t value = 0;
    return PLUtil::PLDictGetBoolean(dict, key, &value) ? value != 0 : fallback;
}

std::int64_t int64Or(PLDictionaryRef dict, PLStringRef key, std::int64_t fallback) {
    const PLNumber* number = dict ? PLDynamicCast<PLNumber>(dict->get(key)) : nullptr;
    return number ? number->int64Value() : fallback;
}

template <class T>
PLHolder<const T> valueOf(PLDictionaryRef dict, PLStringRef key) {
    return PLHolder<const T>::retain(dict ? PLDynamicCast<T>(dict->get(key)) : nullptr);
}

void setInt64(PLMutableDictionary& dict, PLStringRef key, std::int64_t value) {
    dict.set(PLHolder<const PLObject>::retain(key), PLNumber::create(value));
}

}  // namespace

void CClusterPrefs::fromDict(PLDictionaryRef dict) {
    _cluster = valueOf<PLArray>(dict, kClusterKey);
    _name = valueOf<PLString>(dict, kNameKey);
    _storage = valueOf<PLString>(dict, kStorageKey);
    privateStorage = boolOr(dict, kPrivateStorageKey, false);
    local = boolOr(dict, kLocalKey, false);
    shared = boolOr(dict, kSharedKey, false);
    unmanagedServices = boolOr(dict, kUnmanagedServicesKey, false);
    publishedStorage = boolOr(dict, kPublishedStorageKey, true);
    storageCleanupThreshold = int64Or(dict, kStorageCleanupThresholdKey, -1);
    maxActiveTargets = int64Or(dict, kMaxActiveTargetsKey, -1);
    maxActiveSegments = int64Or(dict, kMaxActiveSegmentsKey, -1);
    statusInterval = int64Or(dict, kStatusIntervalKey, 5);
    unmanagedMultiCaptureThreshold = int64Or(dict, kUnmanagedMultiCaptureThresholdKey, 0);
    _source = PLDictionaryCreateCopy(dict);
}

PLHolder<PLMutableDictionary> CClusterPrefs::toDict() const {
    PLHolder<PLMutableDictionary> dict = PLUtil::PLDictMakeMutableCopy(_source.get());
    PLUtil::PLDictSet(dict.get(), kClusterKey, _cluster.get());
    PLUtil::PLDictSet(dict.get(), kNameKey, _name.get());
    PLUtil::PLDictSet(dict.get(), kStorageKey, _storage.get());
    PLUtil::PLDictSet(dict.get(), kPrivateStorageKey, privateStorage ? kPLBooleanTrue : nullptr);
    PLUtil::PLDictSet(dict.get(), kUnmanagedServicesKey, unmanagedServices ? kPLBooleanTrue : nullptr);
    PLUtil::PLDictSet(dict.get(), kPublishedStorageKey, publishedStorage ? nullptr : kPLBooleanFalse);
    if (storageCleanupThreshold != -1)
        setInt64(*dict, kStorageCleanupThresholdKey, storageCleanupThreshold);
    else
        dict->remove(kStorageCleanupThresholdKey);
    setInt64(*dict, kStatusIntervalKey, statusInterval);
    if (maxActiveTargets >= 0)
        setInt64(*dict, kMaxActiveTargetsKey, maxActiveTargets);
    else
        dict->remove(kMaxActiveTargetsKey);
    if (maxActiveSegments >= 0)
        setInt64(*dict, kMaxActiveSegmentsKey, maxActiveSegments);
    else
        dict->remove(kMaxActiveSegmentsKey);
    if (unmanagedMultiCaptureThreshold != 0)
        setInt64(*dict, kUnmanagedMultiCaptureThresholdKey, unmanagedMultiCaptureThreshold);
    else
        dict->remove(kUnmanagedMultiCaptureThresholdKey);
    PLUtil::PLDictSetBoolean(dict.get(), kLocalKey, local);
    PLUtil::PLDictSetBoolean(dict.get(), kSharedKey, shared);
    return dict;
}

void CClusterPrefs::setCluster(PLArrayRef cluster) { _cluster = PLHolder<const PLArray>::retain(cluster); }
void CClusterPrefs::setName(PLStringRef name) { _name = PLHolder<const PLString>::retain(name); }
void CClusterPrefs::setStorage(PLStringRef storage) { _storage = PLHolder<const PLString>::retain(storage); }

}  // namespace quill
