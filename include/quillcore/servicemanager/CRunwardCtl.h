// CRunwardCtl: the service manager's control command ("/bin/runwardctl", or
// the command QUILL_RUNWARDCTL names; see platform::SystemPath::RunwardCtl)
// for one job-definition file: list, load and unload. The command runs as a
// terminal task (CTask2) with an explicit argument vector, never through a
// shell, and the object keeps what it printed on its last run so that the
// caller can log it.
//
// Command lines (each value one argument):
//   load   [-S <session>] [-D <domain>] <job-definition path>
//   unload [-S <session>] [-D <domain>] <job-definition path>
//   list -x <label>
// Session types: 0 none, 1 "Aqua", 2 "LoginWindow", 3 "Background",
// 4 "StandardIO", 5 "System". Domain types: 0 none, 1 "system", 2 "local",
// 3 "network", 4 "user", 5 "all". A type above 5 is refused when a command is
// built, before any process starts.
//
// isLoaded() never reports a loaded job, whatever the command printed: the
// service synchronisation relies on that to load an enabled service's job
// every time, and stops a disabled service by removing its trigger file
// rather than by unloading.
//
// Threads: one object is used by one thread at a time; a command blocks the
// calling thread until it ends, without time-out. Nothing is logged here.
#pragma once

#include <ferrocore/CSharedObject.h>
#include <ferrocore/CString.h>
#include <quillcore/export.h>
#include <quillcore/platform/PLObject.h>

namespace quill {

class QUILL_EXPORT CRunwardCtl : public ferrocore::CSharedObject {
public:
    // Stores the three values; nothing is checked here. The task output
    // starts null.
    CRunwardCtl(const ferrocore::CStringRef& plistPath, unsigned long sessionType, unsigned long domainType);
    ~CRunwardCtl() override;
    CRunwardCtl(const CRunwardCtl&) = delete;
    CRunwardCtl& operator=(const CRunwardCtl&) = delete;

    // Runs "list -x <label>"; with a null label, the label of the job
    // definition at the path. Always returns false, also when the command
    // lists the job. The output replaces the task output (also when the
    // command cannot be started). Throws ferrocore::CNullPointerException
    // "Error: label is null!" when there is no label, and the launch failure
    // of load().
    bool isLoaded(const ferrocore::CStringRef& label);
    // Run "load ..." and "unload ...". The previous task output is dropped
    // first; the new one is stored also when the command fails. Throw
    // ferrocore::CNullPointerException "Error: _plistPath is null!" (before
    // anything else), ferrocore::CParamException "Invalid sessionType: 0x%lx"
    // or "Invalid domainType: 0x%lx" (no process is started),
    // ferrocore::CException of kind 255 carrying errno "CRunwardCtlTask failed
    // to launch, error = %s" when the command cannot be started, and
    // ferrocore::CParamException "CRunwardCtlTask exited with error = %d" when
    // it ends with a non-zero status.
    void load();
    void unload();

    // What the command printed on its last run (standard output and standard
    // error, joined); null before any run and when it printed nothing. A new
    // reference.
    PLHolder<const PLData> getTaskOutput() const { return _taskOutput; }

    // The text of a type by the tables above; null for 0. A value above 5
    // throws ferrocore::CParamException "Invalid sessionType: 0x%lx" or
    // "Invalid domainType: 0x%lx".
    ferrocore::CStringRef getSessionTypeString(unsigned long sessionType) const;
    ferrocore::CStringRef getDomainTypeString(unsigned long domainType) const;

    const ferrocore::CStringRef& plistPath() const noexcept { return _plistPath; }

private:
    void runJobCommand(const char* verb);

    const ferrocore::CStringRef _plistPath;
    const unsigned long _sessionType;
    const unsigned long _domainType;
    PLHolder<const PLData> _taskOutput;
};

using CRunwardCtlRef = ferrocore::CSharedObjectRef<CRunwardCtl>;

}  // namespace quill
