// CServiceUtil: what a service process needs at start, from the records of
// its service: whether the service is a job of the service manager or is run
// by the daemon, the argument vector of one instance's executable, and the
// standard streams of a service process.
//
// The argument vector is the contract between this library and every service
// executable of the cluster; docs/job-definitions.md describes it in prose.
//
// Threads: the functions keep no state; buildServiceArgs may run on any
// thread (it reads the cluster configuration file under its lock);
// setupStdStreams changes the process's standard descriptors and its
// file-creation mask, so call it once, early, before other threads start.
#pragma once

#include <vector>

#include <ferrocore/CString.h>
#include <quillcore/export.h>

namespace quill {

class CServiceCacheEntry;
class CServiceConfigEntry;

// Launch flags (launchFlagForService).
inline constexpr int kServiceLaunchedByDaemon = 1;
inline constexpr int kServiceLaunchedByServiceManager = 2;

class QUILL_EXPORT CServiceUtil final {
public:
    CServiceUtil() = delete;

    // 2 (kServiceLaunchedByServiceManager) when the entry's launch hint is
    // present and begins with "runwardd.": the service manager runs the
    // service through job definitions. 1 (kServiceLaunchedByDaemon) in every
    // other case, no hint included: the daemon starts it. Never throws.
    static int launchFlagForService(const CServiceCacheEntry& service) noexcept;

    // The executable path of `service` followed by its options, for instance
    // number `instance` (0-based) configured by `instanceConfig`:
    //   path            "Path"; "file://..." URL text becomes its file path
    //   -d              "DetachDaemon"
    //   -l              "LocalAds"
    //   -v              "Logging", or the cluster configuration's "LogToFile"
    //   -adv dn|mc|rv   "Advertising" 1, 2, any other non-zero value
    //   -idx N          always, the instance number in decimal
    //   -name NAME      when not empty: "ServerName"; "NAME N+1" above
    //                   instance 0; "NAME (HOST)" when "UserPrefs" holds a
    //                   "HostList" whose element at the instance is a
    //                   dictionary with a "HostName" string
    //   -id ID          when not empty: the configuration entry's name; else
    //                   the capture key (with "-N+1" above instance 0); else a
    //                   new UUID
    //   -ak KEY -ck KEY the access key ("ServerPassword" when both
    //                   "SharingEnabled" and "RequirePassword") and the
    //                   capture key, each when not empty; left out for a
    //                   service other than the cluster administrator whose
    //                   "LocalAds" is set and which has no "CaptureKey"
    //   -pu             "PerUserService"
    // Reads the cluster configuration file (CQuillConfigFile) once. Every
    // value is passed as one argument whatever it holds (spaces, quotes, line
    // feeds, a leading "-"). Throws ferrocore::CNullPointerException
    // "Error: path is null!" for a service without a path, and what reading
    // the cluster configuration throws.
    static std::vector<ferrocore::CStringRef> buildServiceArgs(const CServiceCacheEntry& service,
                                                               const CServiceConfigEntry& instanceConfig,
                                                               long instance);

    // Standard input becomes "/dev/null". When the cluster configuration has
    // a "StdoutPath", standard output and standard error are appended to that
    // file (made with mode 0666 under a file-creation mask of 0 when missing;
    // the previous mask is put back). A failure to open either file leaves
    // the affected streams as they were and is not reported. A cluster
    // configuration that cannot be read throws what CQuillConfigFile throws
    // (standard input has been redirected by then; the other streams are
    // untouched).
    static void setupStdStreams();
};

}  // namespace quill
