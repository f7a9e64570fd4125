// CRunwardCtlPList: the job-definition file of one service instance, as the
// service manager (runwardd) reads it from the per-user job directory
// "~/Library/RunwardAgents". It fixes the job's label and file name from the
// service kind and the instance number, fills the program arguments from the
// service's configuration, and ties the job's life to a trigger file: the
// service manager keeps the job running while that file exists, so a service
// instance is started by creating its trigger file and stopped by removing
// it, while the job definition itself stays loaded.
//
// Job dictionary written for a service instance (docs/job-definitions.md):
//   Label             string   the label (below)
//   KeepAlive         dict     { SuccessfulExit: true,
//                                PathState: { <trigger path>: true } }
//   ExitTimeOut       integer  30
//   ProgramArguments  array    CServiceUtil::buildServiceArgs
// and no "RunAtLoad": loading the job does not start it.
//
// Labels and files, for the service kind "role:family" and instance n:
//   label             family for n = 0, "family-<n+1>" above (so the second
//                     instance is "-2": no instance carries "-1")
//   job file          ~/Library/RunwardAgents/<label>.plist
//   trigger file      /tmp/<label>.runwardagent.<effective user ID>
// Only the launch hint "runwardd.RunwardAgent.User" is accepted.
//
// Threads and exceptions: as CPListUpdater. The data changes only by storing
// a complete copy, so an exception leaves it as it was.
#pragma once

#include <cstdint>
#include <vector>

#include <ferrocore/CString.h>
#include <quillcore/export.h>
#include <quillcore/platform/PLObject.h>
#include <quillcore/servicemanager/CPListUpdater.h>

namespace quill {

class CServiceCacheEntry;

// The one launch hint whose services get job definitions.
inline constexpr const char* kRunwardAgentUserLaunchHint = "runwardd.RunwardAgent.User";
// The per-user job directory (unexpanded).
inline constexpr const char* kRunwardAgentsDirectory = "~/Library/RunwardAgents";

class QUILL_EXPORT CRunwardCtlPList : public CPListUpdater {
public:
    // Opens the job-definition file at `filePath` (read when it exists; null
    // for a definition without a file). Throws what CPListUpdater throws.
    explicit CRunwardCtlPList(const ferrocore::CStringRef& filePath);
    ~CRunwardCtlPList() override;

    // "Label", or null when there is no data or no such string.
    ferrocore::CStringRef getLabel() const;
    // Replaces "Label". Without data throws ferrocore::CNullPointerException
    // "Error: plistData() is null!".
    void setLabel(const ferrocore::CStringRef& label);
    // setLabel(the label of `service`'s instance), see the top of this file.
    // Throws ferrocore::CParamException "Unsupported service launch hint: %s"
    // or "Can't find service family in service kind %s".
    void setLabelForService(const CServiceCacheEntry& service, unsigned instance);

    // "ProgramArguments" as strings (elements of other types are skipped);
    // empty when absent.
    std::vector<ferrocore::CStringRef> getProgramArguments() const;
    // Replaces "ProgramArguments" with the strings of `arguments`. Without
    // data throws "Error: plistData() is null!".
    void setProgramArguments(const std::vector<ferrocore::CStringRef>& arguments);
    // The arguments of `service`'s instance: the instance's entry of the
    // service configuration (a default entry beyond the configured ones), the
    // service with its paths made current (updateRuntimeServicePath), then
    // CServiceUtil::buildServiceArgs. Throws what those throw.
    void setProgramArgumentsForService(const CServiceCacheEntry& service, unsigned instance);

    // True only when there is data and "RunAtLoad" is the boolean true.
    bool getRunAtLoad() const noexcept;
    // true: "RunAtLoad" true and "KeepAlive" the boolean true (replacing any
    // dictionary). false: "RunAtLoad" is removed (not set to false) and
    // "KeepAlive" is left as it is. Without data throws
    // ferrocore::CNullPointerException "Error: plistDict.getObjectRef() is
    // null!".
    void setRunAtLoad(bool flag);
    // Sets `path` -> `flag` in "PathState" inside "KeepAlive", making either
    // dictionary when absent. Throws ferrocore::CParamException
    // "Invalid \"KeepAlive\" dictionary" or "Invalid \"PathState\"
    // dictionary" when one is present with another type, and
    // "Error: plistDict.getObjectRef() is null!" without data.
    void addKeepAlivePathState(const ferrocore::CStringRef& path, bool flag);

    // "/tmp/<label>.runwardagent", with ".<effective user ID>" appended when
    // `perUser`. Null without a label.
    ferrocore::CStringRef getTransientTriggerFilePath(bool perUser) const;
    // "~/Library/RunwardAgents/<label>.runwardagent" with the tilde expanded
    // when `flag` is set; null when it is clear or there is no label.
    ferrocore::CStringRef getPersistentTriggerFilePath(bool flag) const;
    // Creates the empty file `path` (mode 0644, never following or reusing an
    // existing entry): true when it was made, false when it existed. Any
    // other failure throws ferrocore::CParamException
    // "CRunwardCtlPList::addTriggerFile: failed to create trigger file %s,
    // error = %s".
    static bool addTriggerFile(const ferrocore::CStringRef& path);
    // Removes `path`: true when it was removed, false when it did not exist.
    // Any other failure throws ferrocore::CParamException
    // "CRunwardCtlPList::removeTriggerFile: failed to remove trigger file %s,
    // error = %s".
    static bool removeTriggerFile(const ferrocore::CStringRef& path);

    // "~/Library/RunwardAgents/<label>.plist", unexpanded. Throws as
    // setLabelForService.
    static ferrocore::CStringRef plistFilePathForService(const CServiceCacheEntry& service, unsigned instance);
    // The same with the tilde expanded (expandTildeInFilePath); null when the
    // home directory cannot be found.
    static ferrocore::CStringRef expandedPListFilePathForService(const CServiceCacheEntry& service, unsigned instance);
    // The complete job dictionary of `service`'s instance (see the top of
    // this file). Throws what the steps throw.
    static PLHolder<const PLDictionary> plistDataForService(const CServiceCacheEntry& service, unsigned instance);
    // The generic job template, parsed (immutable).
    static PLHolder<const PLDictionary> plistDataForGenericService();

    // The label of `service`'s instance `instance`.
    static ferrocore::CStringRef labelForService(const CServiceCacheEntry& service, unsigned instance);
};

using CRunwardCtlPListRef = ferrocore::CSharedObjectRef<CRunwardCtlPList>;

}  // namespace quill
