#include "RecordPaths.h"
#include <ferrocore/CException.h>
#include <ferrocore/Format.h>
#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/plist/CServiceConfigFile.h>
#include <quillcore/util/PLUtil.h>

namespace quill {

namespace {

inline constexpr std::string_view kSectionKey = "serviceconfig";

template <class T>
PLHolder<const T> valueOf(PLDictionaryRef dict, PLStringRef key) {
    return PLHolder<const T>::retain(dict ? PLDynamicCast<T>(dict->get(key)) : nullptr);
}

void setValue(PLMutableDictionary& dict, PLStringRef key, PLTypeRef value) {
    if (value) dict.set(PLHolder<const PLObject>::retain(key), PLHolder<const PLObject>::retain(value));
}

// The file's path, once the kind has been checked (before anything is read).
PLHolder<const PLString> configFilePath(PLStringRef serviceKind) {
    if (!serviceKind) throw ferrocore::CNullPointerException("Error: serviceKind is null!");
    return records::expandedPath(QuillCorePrivate::kServiceConfigFilePath);
}

}  // namespace

// ----------------------------------------------------- CServiceConfigEntry

CServiceConfigEntry::CServiceConfigEntry(PLStringRef name, PLDictionaryRef dict)
    : _name(PLHolder<const PLString>::retain(name)) {
    if (dict) fromDict(dict);
}

void CServiceConfigEntry::fromDict(PLDictionaryRef dict) {
    _accessKey = valueOf<PLString>(dict, QuillCorePrivate::kDictKeyAccessKey);
    _captureKey = valueOf<PLString>(dict, QuillCorePrivate::kDictKeyCaptureKey);
    _capturePermKey = valueOf<PLString>(dict, QuillCorePrivate::kDictKeyCapturePermKey);
    _config = PLHolder<const PLObject>::retain(dict ? dict->get(QuillCorePrivate::kDictKeyConfig) : nullptr);
}

PLHolder<PLMutableDictionary> CServiceConfigEntry::toDict() const {
    PLHolder<PLMutableDictionary> dict = PLMutableDictionary::create(4);
    setValue(*dict, QuillCorePrivate::kDictKeyAccessKey, _accessKey.get());
    setValue(*dict, QuillCorePrivate::kDictKeyCaptureKey, _captureKey.get());
    setValue(*dict, QuillCorePrivate::kDictKeyCapturePermKey, _capturePermKey.get());
    setValue(*dict, QuillCorePrivate::kDictKeyConfig, _config.get());
    return dict;
}

void CServiceConfigEntry::setAccessKey(PLStringRef value) { _accessKey = PLHolder<const PLString>::retain(value); }
void CServiceConfigEntry::setCaptureKey(PLStringRef value) { _captureKey = PLHolder<const PLString>::retain(value); }
void CServiceConfigEntry::setCapturePermKey(PLStringRef value) {
    _capturePermKey = PLHolder<const PLString>::retain(value);
}
void CServiceConfigEntry::setConfig(PLTypeRef value) { _config = PLHolder<const PLObject>::retain(value); }

// ------------------------------------------------------ CServiceConfigFile

CServiceConfigFile::CServiceConfigFile(PLStringRef serviceKind) : CPropertyListFile(configFilePath(serviceKind).get()) {
    setOrdered(true);
    _serviceKind = PLString::create(serviceKind->utf8());
    refresh();
}

CServiceConfigFile::~CServiceConfigFile() = default;

bool CServiceConfigFile::refresh() { return refreshList({kSectionKey, _serviceKind->utf8()}); }

bool CServiceConfigFile::flush() const { return flushList({kSectionKey, _serviceKind->utf8()}); }

}  // namespace quill

namespace {

PLHolder<const PLString> adminServiceKind() {
    return PLString::create(quill::QuillCorePrivate::kTolvaClusterAdminServiceKind);
}

void logFailure(const char* function, const ferrocore::CException& error) {
    quill::PLUtil::LogToConsole(
        ferrocore::formatString("QuillConfig::%s failed, exception = %s.\n", function, error.what()).c_str());
}

}  // namespace

bool getCancelActiveJobsOnRestart() {
    try {
        const quill::CServiceConfigFile file(adminServiceKind().get());
        quill::CServiceConfigEntry entry;
        if (!file.getAtIndex(0, entry)) return false;
        std::uint8_t cancel = 0;
        return quill::PLUtil::PLDictGetBoolean(PLDynamicCast<PLDictionary>(entry.config()),
                                               quill::QuillCorePrivate::kDictKeyCancelJobs, &cancel) &&
               cancel != 0;
    } catch (const ferrocore::CException& error) {
        logFailure("getCancelActiveJobsOnRestart", error);
        return false;
    }
}

void setCancelActiveJobsOnRestart(bool cancel) {
    try {
        quill::CServiceConfigFile file(adminServiceKind().get());
        quill::CServiceConfigEntry entry;
        if (!file.getAtIndex(0, entry)) return;
        PLHolder<PLMutableDictionary> config =
            quill::PLUtil::PLDictMakeMutableCopy(PLDynamicCast<PLDictionary>(entry.config()));
        if (cancel)
            quill::PLUtil::PLDictSetBoolean(config.get(), quill::QuillCorePrivate::kDictKeyCancelJobs, 1);
        else
            config->remove(quill::QuillCorePrivate::kDictKeyCancelJobs);
        entry.setConfig(config.get());
        file.putAtIndex(0, entry);
        file.flush();
    } catch (const ferrocore::CException& error) {
        logFailure("setCancelActiveJobsOnRestart", error);
    }
}
