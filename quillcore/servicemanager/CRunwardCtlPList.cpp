#include <string>
#include <string_view>
#include <system_error>

#include "HostPaths.h"
#include <ferrocore/CException.h>
#include <ferrocore/Format.h>
#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/Host.h>
#include <quillcore/platform/PLPropertyList.h>
#include <quillcore/platform/ProcessSpawner.h>
#include <quillcore/plist/CServiceCacheFile.h>
#include <quillcore/plist/CServiceConfigFile.h>
#include <quillcore/process/CArgsBuilder.h>
#include <quillcore/servicemanager/CRunwardCtlPList.h>
#include <quillcore/servicemanager/CServiceUtil.h>

namespace quill {

namespace {

PL_CONSTANT_STRING(kLabelKey, "Label");
PL_CONSTANT_STRING(kRunAtLoadKey, "RunAtLoad");
PL_CONSTANT_STRING(kKeepAliveKey, "KeepAlive");
PL_CONSTANT_STRING(kPathStateKey, "PathState");
PL_CONSTANT_STRING(kProgramArgumentsKey, "ProgramArguments");

// The generic job. No XML declaration or document type precedes it.
constexpr std::string_view kGenericJobTemplate =
    "<plist version=\"1.0\">\n<dict>\n\t<key>Label</key>\n\t<string></string>\n\t<key>RunAtLoad</key>\n\t<false/>\n"
    "\t<key>KeepAlive</key>\n\t<dict>\n\t\t<key>SuccessfulExit</key>\n\t\t<true/>\n\t</dict>\n"
    "\t<key>ExitTimeOut</key>\n\t<integer>30</integer>\n\t<key>ProgramArguments</key>\n\t<array>\n\t</array>\n"
    "</dict>\n</plist>\n";

inline constexpr std::uint32_t kTriggerFileMode = 0644;

PLHolder<const PLObject> key(PLStringRef constant) { return PLHolder<const PLObject>::retain(constant); }

PLHolder<const PLString> plString(const ferrocore::CStringRef& text) {
    return text ? PLString::create(text->utf8()) : nullptr;
}

// The service family of `kind`: the text after its first ":". A family that
// would leave the job directory or read as an option is refused too.
std::string_view serviceFamily(PLStringRef kind) {
    const std::string_view text = kind ? kind->utf8() : std::string_view();
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos)
        throw ferrocore::CParamException(ferrocore::formatString("Can't find service family in service kind %s", text));
    const std::string_view family = text.substr(colon + 1);
    if (family.empty() || family.starts_with('-') || family == "." || family == ".." ||
        family.find_first_of(std::string_view("/\0", 2)) != std::string_view::npos)
        throw ferrocore::CParamException(ferrocore::formatString("Invalid service family in service kind %s", text));
    return family;
}

void requireSupportedHint(const CServiceCacheEntry& service) {
    const std::string_view hint = service.launchHint() ? service.launchHint()->utf8() : std::string_view();
    if (hint != kRunwardAgentUserLaunchHint)
        throw ferrocore::CParamException(ferrocore::formatString("Unsupported service launch hint: %s", hint));
}

// A mutable copy of the job dictionary, or the null-pointer failure.
PLHolder<PLMutableDictionary> mutableJob(PLTypeRef data, const char* failure) {
    const PLDictionary* dict = PLDynamicCast<PLDictionary>(data);
    if (!dict) throw ferrocore::CNullPointerException(failure);
    return PLDictionaryCreateMutableCopy(dict);
}

// A mutable copy of the dictionary under `name` in `parent` (a new one when
// absent); a value of another type throws.
PLHolder<PLMutableDictionary> mutableSubDictionary(const PLDictionary& parent, PLStringRef name, const char* invalid,
                                                   const char* nullFailure) {
    const PLObject* value = parent.get(name);
    if (value && !PLDictionary::matches(*value)) throw ferrocore::CParamException(invalid);
    PLHolder<PLMutableDictionary> copy =
        value ? PLDictionaryCreateMutableCopy(PLDynamicCast<PLDictionary>(value)) : PLMutableDictionary::create();
    if (!copy) throw ferrocore::CNullPointerException(nullFailure);
    return copy;
}

}  // namespace

CRunwardCtlPList::CRunwardCtlPList(const ferrocore::CStringRef& filePath) : CPListUpdater(filePath) {}

CRunwardCtlPList::~CRunwardCtlPList() = default;

ferrocore::CStringRef CRunwardCtlPList::getLabel() const {
    const PLDictionary* dict = PLDynamicCast<PLDictionary>(plistData());
    const PLString* label = dict ? PLDynamicCast<PLString>(dict->get(kLabelKey)) : nullptr;
    return label ? ferrocore::CString::create(label->utf8()) : nullptr;
}

void CRunwardCtlPList::setLabel(const ferrocore::CStringRef& label) {
    PLHolder<PLMutableDictionary> job = mutableJob(plistData(), "Error: plistData() is null!");
    if (label)
        job->set(key(kLabelKey), plString(label));
    else
        job->remove(kLabelKey);
    setPListData(job.get());
}

ferrocore::CStringRef CRunwardCtlPList::labelForService(const CServiceCacheEntry& service, unsigned instance) {
    requireSupportedHint(service);
    const std::string_view family = serviceFamily(service.name());
    // Intended: the first instance has no suffix and the second is "-2"; no
    // label ever ends in "-1".
    if (instance == 0) return ferrocore::CString::create(family);
    return ferrocore::CString::sprintf("%@-%u", family, instance + 1);
}

void CRunwardCtlPList::setLabelForService(const CServiceCacheEntry& service, unsigned instance) {
    setLabel(labelForService(service, instance));
}

std::vector<ferrocore::CStringRef> CRunwardCtlPList::getProgramArguments() const {
    std::vector<ferrocore::CStringRef> arguments;
    const PLDictionary* dict = PLDynamicCast<PLDictionary>(plistData());
    const PLArray* array = dict ? PLDynamicCast<PLArray>(dict->get(kProgramArgumentsKey)) : nullptr;
    if (!array) return arguments;
    for (const auto& element : array->values()) {
        if (const PLString* text = PLDynamicCast<PLString>(element.get()))
            arguments.push_back(ferrocore::CString::create(text->utf8()));
    }
    return arguments;
}

void CRunwardCtlPList::setProgramArguments(const std::vector<ferrocore::CStringRef>& arguments) {
    PLHolder<PLMutableArray> array = PLMutableArray::create(arguments.size());
    if (!array) throw ferrocore::CNullPointerException("Error: argsArray is null!");
    for (const ferrocore::CStringRef& argument : arguments) {
        if (argument) array->append(plString(argument));
    }
    if (!plistData()) throw ferrocore::CNullPointerException("Error: plistData() is null!");
    PLHolder<PLMutableDictionary> job = mutableJob(plistData(), "Error: plistDict.getObjectRef() is null!");
    job->set(key(kProgramArgumentsKey), std::move(array));
    setPListData(job.get());
}

void CRunwardCtlPList::setProgramArgumentsForService(const CServiceCacheEntry& service, unsigned instance) {
    std::vector<CServiceConfigEntry> configurations;
    CServiceConfigFile(service.name()).get(configurations);
    const CServiceConfigEntry configuration =
        instance < configurations.size() ? configurations[instance] : CServiceConfigEntry();

    CServiceCacheEntry current(service.name(), service.toDict().get());
    current.updateRuntimeServicePath();

    CArgsBuilder builder(25);
    builder.addArgs(CServiceUtil::buildServiceArgs(current, configuration, static_cast<long>(instance)));
    setProgramArguments(static_cast<std::vector<ferrocore::CStringRef>>(builder));
}

bool CRunwardCtlPList::getRunAtLoad() const noexcept {
    const PLDictionary* dict = PLDynamicCast<PLDictionary>(plistData());
    const PLBoolean* flag = dict ? PLDynamicCast<PLBoolean>(dict->get(kRunAtLoadKey)) : nullptr;
    return flag && flag->value();
}

void CRunwardCtlPList::setRunAtLoad(bool flag) {
    PLHolder<PLMutableDictionary> job = mutableJob(plistData(), "Error: plistDict.getObjectRef() is null!");
    if (flag) {
        job->set(key(kRunAtLoadKey), PLHolder<const PLObject>::retain(kPLBooleanTrue));
        job->set(key(kKeepAliveKey), PLHolder<const PLObject>::retain(kPLBooleanTrue));
    } else {
        job->remove(kRunAtLoadKey);
        // Intended: clearing the flag leaves "KeepAlive" as it is (with its
        // "SuccessfulExit"); the empty dictionary made here is not stored.
        const PLHolder<PLMutableDictionary> keepAlive = PLMutableDictionary::create();
        if (!keepAlive) throw ferrocore::CNullPointerException("Error: keepAliveDict.getObjectRef() is null!");
    }
    setPListData(job.get());
}

void CRunwardCtlPList::addKeepAlivePathState(const ferrocore::CStringRef& path, bool flag) {
    if (!path) throw ferrocore::CNullPointerException("Error: path is null!");
    PLHolder<PLMutableDictionary> job = mutableJob(plistData(), "Error: plistDict.getObjectRef() is null!");
    PLHolder<PLMutableDictionary> keepAlive = mutableSubDictionary(
        *job, kKeepAliveKey, "Invalid \"KeepAlive\" dictionary", "Error: keepAliveDict.getObjectRef() is null!");
    PLHolder<PLMutableDictionary> pathState = mutableSubDictionary(
        *keepAlive, kPathStateKey, "Invalid \"PathState\" dictionary", "Error: pathStateDict.getObjectRef() is null!");
    pathState->set(plString(path), PLHolder<const PLObject>::retain(PLBoolean::get(flag)));
    keepAlive->set(key(kPathStateKey), std::move(pathState));
    job->set(key(kKeepAliveKey), std::move(keepAlive));
    setPListData(job.get());
}

ferrocore::CStringRef CRunwardCtlPList::getTransientTriggerFilePath(bool perUser) const {
    const ferrocore::CStringRef label = getLabel();
    if (!label) return nullptr;
    ferrocore::CStringRef path = ferrocore::CString::sprintf("/tmp/%@.runwardagent", label);
    if (perUser) {
        const auto user = static_cast<unsigned long>(platform::processSpawner().effectiveUserID());
        path = ferrocore::CString::sprintf("%@.%lu", path, user);
    }
    return path;
}

ferrocore::CStringRef CRunwardCtlPList::getPersistentTriggerFilePath(bool flag) const {
    if (!flag) return nullptr;
    const ferrocore::CStringRef label = getLabel();
    if (!label) return nullptr;
    const std::optional<std::string> path = servicemanager::expandTildeInFilePath(
        ferrocore::formatString("%s/%@.runwardagent", kRunwardAgentsDirectory, label));
    return path ? ferrocore::CString::create(*path) : nullptr;
}

bool CRunwardCtlPList::addTriggerFile(const ferrocore::CStringRef& path) {
    if (!path) throw ferrocore::CNullPointerException("Error: path is null!");
    platform::CFileDescriptor fd;
    const std::error_code ec = platform::host().createFile(path->utf8(), kTriggerFileMode, fd);
    if (ec == std::errc::file_exists) return false;
    if (ec)
        throw ferrocore::CParamException(
            ferrocore::formatString("CRunwardCtlPList::addTriggerFile: failed to create trigger file %s, error = %s",
                                    path->utf8(), ec.message()));
    platform::host().closeFile(fd);
    return true;
}

bool CRunwardCtlPList::removeTriggerFile(const ferrocore::CStringRef& path) {
    if (!path) throw ferrocore::CNullPointerException("Error: path is null!");
    const std::error_code ec = platform::host().removeFile(path->utf8());
    if (ec == std::errc::no_such_file_or_directory) return false;
    if (ec)
        throw ferrocore::CParamException(
            ferrocore::formatString("CRunwardCtlPList::removeTriggerFile: failed to remove trigger file %s, error = %s",
                                    path->utf8(), ec.message()));
    return true;
}

ferrocore::CStringRef CRunwardCtlPList::plistFilePathForService(const CServiceCacheEntry& service, unsigned instance) {
    const ferrocore::CStringRef label = labelForService(service, instance);
    return ferrocore::CString::sprintf("%s/%@.plist", kRunwardAgentsDirectory, label);
}

ferrocore::CStringRef CRunwardCtlPList::expandedPListFilePathForService(const CServiceCacheEntry& service,
                                                                        unsigned instance) {
    const std::optional<std::string> path =
        servicemanager::expandTildeInFilePath(plistFilePathForService(service, instance)->utf8());
    return path ? ferrocore::CString::create(*path) : nullptr;
}

PLHolder<const PLDictionary> CRunwardCtlPList::plistDataForService(const CServiceCacheEntry& service,
                                                                   unsigned instance) {
    CRunwardCtlPList job(nullptr);
    job.setPListData(plistDataForGenericService().get());
    job.setLabelForService(service, instance);
    job.setProgramArgumentsForService(service, instance);
    job.setRunAtLoad(false);
    job.addKeepAlivePathState(job.getTransientTriggerFilePath(true), true);
    return PLHolder<const PLDictionary>::retain(PLDynamicCast<PLDictionary>(job.plistData()));
}

PLHolder<const PLDictionary> CRunwardCtlPList::plistDataForGenericService() {
    std::string error;
    PLHolder<const PLObject> parsed = PLPropertyListCreateFromBytes(
        kGenericJobTemplate.data(), kGenericJobTemplate.size(), PLMutability::Immutable, &error);
    const PLDictionary* dict = PLDynamicCast<PLDictionary>(parsed.get());
    if (!dict) throw ferrocore::CException(255, "Couldn't parse the generic job template, error = " + error);
    return PLHolder<const PLDictionary>::retain(dict);
}

}  // namespace quill
