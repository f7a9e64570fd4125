#include "RecordPaths.h"
#include <quillcore/control/FrameworkPaths.h>
#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/platform/Host.h>
#include <quillcore/plist/CServiceCacheFile.h>
#include <quillcore/util/PLUtil.h>

namespace quill {

namespace {

inline constexpr std::string_view kSectionKey = "corvaneservices";

PL_CONSTANT_STRING(kSharePrefKey, "SharePref");
PL_CONSTANT_STRING(kNetworkNameKey, "NetworkName");
PL_CONSTANT_STRING(kDisplayNameKey, "DisplayName");
PL_CONSTANT_STRING(kDescriptionKey, "Description");
PL_CONSTANT_STRING(kExecutableKey, "Executable");
PL_CONSTANT_STRING(kPathKey, "Path");
PL_CONSTANT_STRING(kBundlePathKey, "BundlePath");
PL_CONSTANT_STRING(kCaptureKeyKey, "CaptureKey");
PL_CONSTANT_STRING(kUserPrefsKey, "UserPrefs");
PL_CONSTANT_STRING(kVersionKey, "Version");
PL_CONSTANT_STRING(kUserIDKey, "UserID");
PL_CONSTANT_STRING(kUserIDsKey, "UserIDs");
PL_CONSTANT_STRING(kInstancesKey, "Instances");
PL_CONSTANT_STRING(kPerUserServiceKey, "PerUserService");
PL_CONSTANT_STRING(kEnabledKey, "Enabled");
PL_CONSTANT_STRING(kExplicitSyncOnlyKey, "ExplicitSyncOnly");
PL_CONSTANT_STRING(kDetachDaemonKey, "DetachDaemon");
PL_CONSTANT_STRING(kLocalAdsKey, "LocalAds");
PL_CONSTANT_STRING(kLoggingKey, "Logging");
PL_CONSTANT_STRING(kLogLevelKey, "LogLevel");
PL_CONSTANT_STRING(kTruncateLogKey, "TruncateLog");
PL_CONSTANT_STRING(kVisibleKey, "Visible");
PL_CONSTANT_STRING(kAdvertisingKey, "Advertising");
PL_CONSTANT_STRING(kStdoutPathKey, "StdoutPath");
PL_CONSTANT_STRING(kLaunchHintKey, "LaunchHint");

template <class T>
PLHolder<const T> valueOf(PLDictionaryRef dict, PLStringRef key) {
    return PLHolder<const T>::retain(dict ? PLDynamicCast<T>(dict->get(key)) : nullptr);
}

bool boolOf(PLDictionaryRef dict, PLStringRef key) {
    std::uint8_t value = 0;
    return PLUtil::PLDictGetBoolean(dict, key, &value) && value != 0;
}

std::int32_t int32Or(PLDictionaryRef dict, PLStringRef key, std::int32_t fallback) {
    std::int32_t value = 0;
    return PLUtil::PLDictGetInt(dict, key, &value) ? value : fallback;
}

std::int64_t int64Or(PLDictionaryRef dict, PLStringRef key, std::int64_t fallback) {
    const PLNumber* number = dict ? PLDynamicCast<PLNumber>(dict->get(key)) : nullptr;
    return number ? number->int64Value() : fallback;
}

bool nonEmpty(PLStringRef text) noexcept { return text && !text->empty(); }

void setValue(PLMutableDictionary& dict, PLStringRef key, PLTypeRef value) {
    if (value) dict.set(PLHolder<const PLObject>::retain(key), PLHolder<const PLObject>::retain(value));
}

void setBool(PLMutableDictionary& dict, PLStringRef key, bool value) { setValue(dict, key, PLBoolean::get(value)); }

void setInt32(PLMutableDictionary& dict, PLStringRef key, std::int32_t value) {
    dict.set(PLHolder<const PLObject>::retain(key), PLNumber::create(value));
}

// The translated `stored` when it differs from it; else null.
PLHolder<const PLString> changedRuntimePath(PLStringRef stored, PLURLRef corvane, PLURLRef lumenforge) {
    if (!stored) return {};
    PLHolder<const PLString> runtime = getRuntimePath(stored, corvane, lumenforge);
    if (!runtime || runtime->utf8() == stored->utf8()) return {};
    return runtime;
}

}  // namespace

// ------------------------------------------------------ CServiceCacheEntry

CServiceCacheEntry::CServiceCacheEntry(PLStringRef name, PLDictionaryRef dict)
    : _name(PLHolder<const PLString>::retain(name)) {
    fromDict(dict);
}

namespace {

// The keys of the string, array and dictionary fields. A value of another
// type under one of them is kept as it is and written back unchanged.
const PLStringRef kKeptAsIsKeys[] = {kNetworkNameKey, kDisplayNameKey, kDescriptionKey, kExecutableKey, kPathKey,
                                     kBundlePathKey,  kCaptureKeyKey,  kUserIDsKey,     kUserPrefsKey};

bool hasExpectedType(PLStringRef key, const PLObject& value) {
    if (key == kUserIDsKey) return PLArray::matches(value);
    if (key == kUserPrefsKey) return PLDictionary::matches(value);
    return PLString::matches(value);
}

}  // namespace

void CServiceCacheEntry::fromDict(PLDictionaryRef dict) {
    _otherTypedValues.reset();
    if (dict) {
        PLHolder<PLMutableDictionary> kept;
        for (const PLStringRef key : kKeptAsIsKeys) {
            const PLObject* value = dict->get(key);
            if (!value || hasExpectedType(key, *value)) continue;
            if (!kept) kept = PLMutableDictionary::create();
            kept->set(PLHolder<const PLObject>::retain(key), PLHolder<const PLObject>::retain(value));
        }
        if (kept) _otherTypedValues = std::move(kept);
    }
    _networkName = valueOf<PLString>(dict, kNetworkNameKey);
    _displayName = valueOf<PLString>(dict, kDisplayNameKey);
    _description = valueOf<PLString>(dict, kDescriptionKey);
    _executable = valueOf<PLString>(dict, kExecutableKey);
    _path = valueOf<PLString>(dict, kPathKey);
    _bundlePath = valueOf<PLString>(dict, kBundlePathKey);
    _captureKey = valueOf<PLString>(dict, kCaptureKeyKey);
    _userIDs = valueOf<PLArray>(dict, kUserIDsKey);
    _userPrefs = valueOf<PLDictionary>(dict, kUserPrefsKey);

    _version = int64Or(dict, kVersionKey, 0);
    _userID = int32Or(dict, kUserIDKey, -1);
    _instances = ConvertToRealInstanceCount(int32Or(dict, kInstancesKey, 0));
    _logLevel = int32Or(dict, kLogLevelKey, kDefaultLogLevel);

    PLStringRef stdoutPath = nullptr;
    if (PLUtil::PLDictGetString(_userPrefs.get(), kStdoutPathKey, &stdoutPath) && nonEmpty(stdoutPath))
        _stdoutPath = PLHolder<const PLString>::retain(stdoutPath);

    _sharePref = boolOf(dict, kSharePrefKey);
    _perUserService = boolOf(dict, kPerUserServiceKey);
    _enabled = boolOf(dict, kEnabledKey);
    _explicitSyncOnly = boolOf(dict, kExplicitSyncOnlyKey);
    _detachDaemon = boolOf(dict, kDetachDaemonKey);
    _localAds = boolOf(dict, kLocalAdsKey);
    _logging = boolOf(dict, kLoggingKey);
    _truncateLog = boolOf(dict, kTruncateLogKey);
    _visible = boolOf(dict, kVisibleKey);
    _advertising = int32Or(dict, kAdvertisingKey, 0);

    PLStringRef launchHint = nullptr;
    if (PLUtil::PLDictGetString(dict, kLaunchHintKey, &launchHint) && nonEmpty(launchHint))
        _launchHint = PLHolder<const PLString>::retain(launchHint);
}

PLHolder<PLMutableDictionary> CServiceCacheEntry::toDict() const {
    PLHolder<PLMutableDictionary> dict = PLMutableDictionary::create(26);
    setBool(*dict, kSharePrefKey, _sharePref);
    setValue(*dict, kNetworkNameKey, _networkName.get());
    setValue(*dict, kDisplayNameKey, _displayName.get());
    setValue(*dict, kDescriptionKey, _description.get());
    setValue(*dict, kExecutableKey, _executable.get());
    setValue(*dict, kPathKey, _path.get());
    setValue(*dict, kBundlePathKey, _bundlePath.get());
    setValue(*dict, kCaptureKeyKey, _captureKey.get());

    PLHolder<PLMutableDictionary> userPrefs = PLUtil::PLDictMakeMutableCopy(_userPrefs.get());
    if (nonEmpty(_stdoutPath.get())) setValue(*userPrefs, kStdoutPathKey, _stdoutPath.get());
    setValue(*dict, kUserPrefsKey, userPrefs.get());

    if (_version != 0) dict->set(PLHolder<const PLObject>::retain(kVersionKey), PLNumber::create(_version));
    setInt32(*dict, kUserIDKey, _userID);
    setValue(*dict, kUserIDsKey, _userIDs.get());
    setInt32(*dict, kInstancesKey, _instances);
    if (_perUserService) setBool(*dict, kPerUserServiceKey, true);
    setBool(*dict, kEnabledKey, _enabled);
    setBool(*dict, kExplicitSyncOnlyKey, _explicitSyncOnly);
    setBool(*dict, kDetachDaemonKey, _detachDaemon);
    setBool(*dict, kLocalAdsKey, _localAds);
    setBool(*dict, kLoggingKey, _logging);
    if (_logLevel != kDefaultLogLevel) setInt32(*dict, kLogLevelKey, _logLevel);
    if (_truncateLog) setBool(*dict, kTruncateLogKey, true);
    setBool(*dict, kVisibleKey, _visible);
    if (_advertising != 0) setInt32(*dict, kAdvertisingKey, _advertising);
    if (nonEmpty(_launchHint.get())) setValue(*dict, kLaunchHintKey, _launchHint.get());
    writeOtherTypedValues(*dict);
    return dict;
}

void CServiceCacheEntry::writeOtherTypedValues(PLMutableDictionary& dict) const {
    if (!_otherTypedValues) return;
    for (const auto& [key, value] : _otherTypedValues->entries()) {
        const PLObject* written = dict.get(key.get());
        // A field set since (or user preferences made for the stdout path)
        // wins over the kept value.
        const bool emptyPrefs = PLEqual(key.get(), kUserPrefsKey) && !_userPrefs && !nonEmpty(_stdoutPath.get());
        if (written && !emptyPrefs) continue;
        dict.set(key, value);
    }
}

std::int32_t CServiceCacheEntry::ConvertToRealInstanceCount(std::int32_t count) {
    if (count >= 0) return count;
    std::int64_t processors = platform::host().processorCount();
    if (processors < 1) processors = 1;
    // Widened: -INT32_MIN does not fit 32 bits.
    const std::int64_t real = processors / -static_cast<std::int64_t>(count);
    return real == 0 ? 1 : static_cast<std::int32_t>(real);
}

std::int32_t CServiceCacheEntry::logLevel(bool perUser, bool& found) const {
    if (!perUser) {
        found = true;
        return _logLevel;
    }
    std::int32_t level = 0;
    found = PLUtil::PLDictGetInt(_userPrefs.get(), kLogLevelKey, &level);
    return found ? level : kDefaultLogLevel;
}

void CServiceCacheEntry::setLogLevel(std::int32_t level, bool perUser) {
    if (!perUser) {
        _logLevel = level;
        return;
    }
    if (level == kDefaultLogLevel && !_userPrefs) return;
    PLHolder<PLMutableDictionary> prefs = PLUtil::PLDictMakeMutableCopy(_userPrefs.get());
    if (level == kDefaultLogLevel && _logLevel == kDefaultLogLevel)
        prefs->remove(kLogLevelKey);
    else
        PLUtil::PLDictSetInt(prefs.get(), kLogLevelKey, level);
    _userPrefs = std::move(prefs);
}

bool CServiceCacheEntry::truncateLog(bool perUser, bool& found) const {
    if (!perUser) {
        found = true;
        return _truncateLog;
    }
    std::uint8_t value = 0;
    found = PLUtil::PLDictGetBoolean(_userPrefs.get(), kTruncateLogKey, &value);
    return found && value != 0;
}

void CServiceCacheEntry::setTruncateLog(bool truncate, bool perUser) {
    if (!perUser) {
        _truncateLog = truncate;
        return;
    }
    if (!_userPrefs && !truncate) return;
    PLHolder<PLMutableDictionary> prefs = PLUtil::PLDictMakeMutableCopy(_userPrefs.get());
    if (truncate && _truncateLog)
        prefs->remove(kTruncateLogKey);
    else
        PLUtil::PLDictSetBoolean(prefs.get(), kTruncateLogKey, truncate);
    _userPrefs = std::move(prefs);
}

bool CServiceCacheEntry::updateRuntimeServicePath() {
    if (!_path && !_bundlePath) return false;
    const PLHolder<const PLURL> corvane = PLHolder<const PLURL>::adopt(getCorvaneFrameworkURL());
    const PLHolder<const PLURL> lumenforge = PLHolder<const PLURL>::adopt(getLumenforgeFrameworkURL());
    bool changed = false;
    if (PLHolder<const PLString> path = changedRuntimePath(_path.get(), corvane.get(), lumenforge.get())) {
        _path = std::move(path);
        changed = true;
    }
    if (PLHolder<const PLString> bundlePath = changedRuntimePath(_bundlePath.get(), corvane.get(), lumenforge.get())) {
        _bundlePath = std::move(bundlePath);
        changed = true;
    }
    return changed;
}

void CServiceCacheEntry::setNetworkName(PLStringRef value) { _networkName = PLHolder<const PLString>::retain(value); }
void CServiceCacheEntry::setDisplayName(PLStringRef value) { _displayName = PLHolder<const PLString>::retain(value); }
void CServiceCacheEntry::setDescription(PLStringRef value) { _description = PLHolder<const PLString>::retain(value); }
void CServiceCacheEntry::setExecutable(PLStringRef value) { _executable = PLHolder<const PLString>::retain(value); }
void CServiceCacheEntry::setPath(PLStringRef value) { _path = PLHolder<const PLString>::retain(value); }
void CServiceCacheEntry::setBundlePath(PLStringRef value) { _bundlePath = PLHolder<const PLString>::retain(value); }
void CServiceCacheEntry::setCaptureKey(PLStringRef value) { _captureKey = PLHolder<const PLString>::retain(value); }
void CServiceCacheEntry::setUserIDs(PLArrayRef value) { _userIDs = PLHolder<const PLArray>::retain(value); }
void CServiceCacheEntry::setUserPrefs(PLDictionaryRef value) {
    _userPrefs = PLHolder<const PLDictionary>::retain(value);
}
void CServiceCacheEntry::setStdoutPath(PLStringRef value) { _stdoutPath = PLHolder<const PLString>::retain(value); }
void CServiceCacheEntry::setLaunchHint(PLStringRef value) { _launchHint = PLHolder<const PLString>::retain(value); }

// ------------------------------------------------------- CServiceCacheFile

CServiceCacheFile::CServiceCacheFile()
    : CServiceCacheFile(records::expandedPath(QuillCorePrivate::kServiceCacheFilePath).get()) {}

CServiceCacheFile::CServiceCacheFile(PLStringRef path) : CPropertyListFile(path) {
    setOrdered(false);
    refresh();
}

CServiceCacheFile::~CServiceCacheFile() = default;

bool CServiceCacheFile::refresh() { return refreshList({kSectionKey}); }

bool CServiceCacheFile::flush() const { return flushList({kSectionKey}); }

bool CServiceCacheFile::updateRuntimeServicePaths() {
    bool changed = false;
    CServiceCacheEntry entry;
    for (int index = 0; getAtIndex(index, entry); ++index) {
        if (entry.updateRuntimeServicePath()) {
            putAtIndex(index, entry);
            changed = true;
        }
    }
    return changed;
}

}  // namespace quill
