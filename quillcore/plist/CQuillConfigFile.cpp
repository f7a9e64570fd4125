#include <string>

#include "RecordPaths.h"
#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/platform/Host.h>
#include <quillcore/plist/CQuillConfigFile.h>
#include <quillcore/util/PLUtil.h>

namespace quill {

namespace {

PL_CONSTANT_STRING_STORAGE(kAllInterfacesStorage, "allinterfaces");

inline constexpr std::string_view kSectionKey = "corvaneconfig";

PL_CONSTANT_STRING(kStdoutPathKey, "StdoutPath");
PL_CONSTANT_STRING(kStdoutServicePathKey, "StdoutServicePath");
PL_CONSTANT_STRING(kDaemonEnabledKey, "DaemonEnabled");
PL_CONSTANT_STRING(kDaemonPortKey, "DaemonPort");
PL_CONSTANT_STRING(kLaunchContentAgentKey, "LaunchContentAgent");
PL_CONSTANT_STRING(kSharingEnabledKey, "SharingEnabled");
PL_CONSTANT_STRING(kSharingTypeKey, "SharingType");
PL_CONSTANT_STRING(kLogToFileKey, "LogToFile");
PL_CONSTANT_STRING(kRequirePasswordKey, "RequirePassword");
PL_CONSTANT_STRING(kServerPasswordKey, "ServerPassword");
PL_CONSTANT_STRING(kServerNameKey, "ServerName");
PL_CONSTANT_STRING(kAdvertisingKey, "Advertising");
PL_CONSTANT_STRING(kNetworkConnectionKey, "NetworkConnection");
PL_CONSTANT_STRING(kAllowSalveeAdsKey, "AllowSalveeAds");
PL_CONSTANT_STRING(kAllowRemoteAdsKey, "AllowRemoteAds");
PL_CONSTANT_STRING(kDNSDomainKey, "DNSDomain");
PL_CONSTANT_STRING(kUseDNSDomainKey, "UseDNSDomain");
PL_CONSTANT_STRING(kUsePortRangeKey, "UsePortRange");
PL_CONSTANT_STRING(kPortRangeStartKey, "PortRangeStart");
PL_CONSTANT_STRING(kPortRangePortsKey, "PortRangePorts");

PL_CONSTANT_STRING(kAdvertisingDN, "DN");
PL_CONSTANT_STRING(kAdvertisingMC, "MC");
PL_CONSTANT_STRING(kAdvertisingRV, "RV");

using Advertising = CQuillConfigFile::Advertising;

// The readers below take a value of the neighbouring type as well (no type
// check is made; see the header) and leave the field alone otherwise.
void readBool(PLDictionaryRef dict, PLStringRef key, bool& field) {
    const PLObject* value = dict->get(key);
    if (const PLBoolean* flag = PLDynamicCast<PLBoolean>(value))
        field = flag->value();
    else if (const PLNumber* number = PLDynamicCast<PLNumber>(value))
        field = number->doubleValue() != 0.0;
}

void readInt(PLDictionaryRef dict, PLStringRef key, std::int32_t& field) {
    const PLObject* value = dict->get(key);
    if (const PLNumber* number = PLDynamicCast<PLNumber>(value))
        field = number->int32Value();
    else if (const PLBoolean* flag = PLDynamicCast<PLBoolean>(value))
        field = flag->value() ? 1 : 0;
}

void readString(PLDictionaryRef dict, PLStringRef key, PLHolder<const PLString>& field) {
    if (const PLString* text = PLDynamicCast<PLString>(dict->get(key))) field = PLHolder<const PLString>::retain(text);
}

void readAdvertising(PLDictionaryRef dict, Advertising& field) {
    const PLString* text = PLDynamicCast<PLString>(dict->get(kAdvertisingKey));
    if (!text) return;
    if (text->equals(*kAdvertisingDN))
        field = Advertising::DN;
    else if (text->equals(*kAdvertisingMC))
        field = Advertising::MC;
    else if (text->equals(*kAdvertisingRV))
        field = Advertising::RV;
}

void setString(PLMutableDictionary& dict, PLStringRef key, PLStringRef value) {
    dict.set(PLHolder<const PLObject>::retain(key), PLHolder<const PLObject>::retain(value));
}

void setBool(PLMutableDictionary& dict, PLStringRef key, bool value) {
    dict.set(PLHolder<const PLObject>::retain(key), PLHolder<const PLObject>::retain(PLBoolean::get(value)));
}

void setInt(PLMutableDictionary& dict, PLStringRef key, std::int32_t value) {
    dict.set(PLHolder<const PLObject>::retain(key), PLNumber::create(value));
}

PLHolder<const PLString> emptyString() { return PLHolder<const PLString>::retain(QuillCorePrivate::kEmptyString); }

}  // namespace

const PLStringRef CQuillConfigFile::sAllInterfacesValue = &kAllInterfacesStorage;

CQuillConfigFile::CQuillConfigFile()
    : CQuillConfigFile(records::expandedPath(QuillCorePrivate::kQuillConfigFilePath).get()) {}

CQuillConfigFile::CQuillConfigFile(PLStringRef path) : CPropertyListBasicFile(path) {
    // The base has read the file once already; the settings come from the
    // full refresh below.
    stdoutPath.reset();
    stdoutServicePath.reset();
    serverPassword.reset();
    serverName.reset();
    networkConnection.reset();
    dnsDomain.reset();
    refresh();
}

CQuillConfigFile::~CQuillConfigFile() = default;

void CQuillConfigFile::initRefresh() {
    daemonEnabled = true;
    daemonPort = 0;
    launchContentAgent = true;
    sharingEnabled = false;
    sharingType = 0;
    logToFile = false;
    requirePassword = false;
    serverPassword.reset();
    serverName.reset();
    advertising = Advertising::RV;
    networkConnection.reset();
    allowSalveeAds = true;
    allowRemoteAds = true;
    dnsDomain.reset();
    useDNSDomain = false;
    usePortRange = false;
    portRangeStart = 0;
    portRangePorts = 0;
}

bool CQuillConfigFile::refresh() {
    initRefresh();
    const bool result = CPropertyListBasicFile::refresh();
    if (const PLDictionary* section = PLDynamicCast<PLDictionary>(contents()->get(kSectionKey)))
        fromPropertyList(section);
    applyReadDefaults();
    return result;
}

void CQuillConfigFile::fromPropertyList(PLDictionaryRef dict) {
    // The section may be part of the contents that the base call replaces;
    // hold it while its keys are read.
    const PLHolder<const PLDictionary> section = PLHolder<const PLDictionary>::retain(dict);
    CPropertyListBasicFile::fromPropertyList(section.get());

    readString(dict, kStdoutPathKey, stdoutPath);
    readString(dict, kStdoutServicePathKey, stdoutServicePath);
    readBool(dict, kDaemonEnabledKey, daemonEnabled);
    readInt(dict, kDaemonPortKey, daemonPort);
    readBool(dict, kLaunchContentAgentKey, launchContentAgent);
    readBool(dict, kSharingEnabledKey, sharingEnabled);
    readInt(dict, kSharingTypeKey, sharingType);
    readBool(dict, kLogToFileKey, logToFile);
    readBool(dict, kRequirePasswordKey, requirePassword);
    readString(dict, kServerPasswordKey, serverPassword);
    readString(dict, kServerNameKey, serverName);
    readAdvertising(dict, advertising);
    readString(dict, kNetworkConnectionKey, networkConnection);
    readBool(dict, kAllowSalveeAdsKey, allowSalveeAds);
    readBool(dict, kAllowRemoteAdsKey, allowRemoteAds);
    readString(dict, kDNSDomainKey, dnsDomain);
    readBool(dict, kUseDNSDomainKey, useDNSDomain);
    readBool(dict, kUsePortRangeKey, usePortRange);
    readInt(dict, kPortRangeStartKey, portRangeStart);
    readInt(dict, kPortRangePortsKey, portRangePorts);
    applyReadDefaults();
}

void CQuillConfigFile::applyReadDefaults() {
    if (daemonPort == 0) daemonPort = QuillCorePrivate::kQuillDaemonPortNumber;
    if (!serverName || serverName->empty()) {
        const std::string computerName = platform::host().computerName();
        serverName = computerName.empty() ? emptyString() : PLString::create(computerName);
    }
    if (!serverPassword) serverPassword = emptyString();
    if (!networkConnection) networkConnection = PLHolder<const PLString>::retain(sAllInterfacesValue);
    if (!dnsDomain) dnsDomain = emptyString();
}

PLHolder<PLMutableDictionary> CQuillConfigFile::toPropertyList() const {
    PLHolder<PLMutableDictionary> dict = PLMutableDictionary::create(20);
    setBool(*dict, kDaemonEnabledKey, daemonEnabled);
    if (daemonPort != QuillCorePrivate::kQuillDaemonPortNumber) setInt(*dict, kDaemonPortKey, daemonPort);
    if (stdoutPath) setString(*dict, kStdoutPathKey, stdoutPath.get());
    if (stdoutServicePath) setString(*dict, kStdoutServicePathKey, stdoutServicePath.get());
    if (!launchContentAgent) setBool(*dict, kLaunchContentAgentKey, false);
    setBool(*dict, kSharingEnabledKey, sharingEnabled);
    setInt(*dict, kSharingTypeKey, sharingType);
    setBool(*dict, kLogToFileKey, logToFile);
    setBool(*dict, kRequirePasswordKey, requirePassword);
    if (requirePassword)
        setString(*dict, kServerPasswordKey, serverPassword ? serverPassword.get() : QuillCorePrivate::kEmptyString);
    if (serverName) setString(*dict, kServerNameKey, serverName.get());
    if (advertising == Advertising::MC)
        setString(*dict, kAdvertisingKey, kAdvertisingMC);
    else if (advertising == Advertising::DN)
        setString(*dict, kAdvertisingKey, kAdvertisingDN);
    if (networkConnection && networkConnection->utf8() != sAllInterfacesValue->utf8())
        setString(*dict, kNetworkConnectionKey, networkConnection.get());
    if (!allowSalveeAds) setBool(*dict, kAllowSalveeAdsKey, false);
    if (!allowRemoteAds) setBool(*dict, kAllowRemoteAdsKey, false);
    if (dnsDomain) setString(*dict, kDNSDomainKey, dnsDomain.get());
    if (useDNSDomain) setBool(*dict, kUseDNSDomainKey, true);
    if (usePortRange) setBool(*dict, kUsePortRangeKey, true);
    if (portRangeStart != 0) setInt(*dict, kPortRangeStartKey, portRangeStart);
    if (portRangePorts != 0) setInt(*dict, kPortRangePortsKey, portRangePorts);
    return dict;
}

bool CQuillConfigFile::flush() const {
    flushDerived([this](PLMutableDictionary& top) {
        const PLHolder<PLMutableDictionary> section = toPropertyList();
        setValueAtPath(top, {kSectionKey}, section.get());
    });
    return false;
}

}  // namespace quill
