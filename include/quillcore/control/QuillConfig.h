// The service-control interface: the exported plain functions through which
// the daemon, the services, the preferences pane and the client application
// find the daemon, start, restart, stop and ping it, install, enable, disable
// and synchronise the cluster's services on this host, and ask the host about
// the console user and about files.
//
// A service goes from its bundle to a running job in three steps:
//   installService      records a service cache entry (CServiceCacheFile) and,
//                       for a service of the service manager (launch flag 2,
//                       CServiceUtil), writes one job definition per instance
//                       into "~/Library/RunwardAgents" (CRunwardCtlPList);
//   enableService       sets the entry's enabled flag;
//   syncServices        creates each instance's trigger file and loads its job
//                       definition (CRunwardCtl), or removes the trigger file
//                       of a disabled service; daemon-run services (launch
//                       flag 1) are passed to the daemon in the
//                       preferences-changed notification instead.
// docs/job-definitions.md describes the job files, labels, trigger files and
// argument vectors.
//
// All functions have C linkage. Strings, URLs, arrays and dictionaries are
// host runtime values; results that are new values belong to the caller
// (adopt them into a PLHolder). Paths beginning with "~" are expanded against
// the home directory of the current user (HOME).
//
// Failures. Functions that say "never throws a ferrocore::CException" catch
// every such exception, write one line beginning "QuillConfig::" to the
// console log (PLUtil::LogToConsole) and return normally; other exceptions
// (std::bad_alloc) pass on. The others throw ferrocore::CException values
// (of CServiceCacheFile, CServicePIDFile, CRunwardCtl, CRunwardCtlPList,
// CPListUpdater) as stated.
//
// Threads. The functions keep no state between calls and may be called from
// any thread; startDaemon runs the calling thread's run loop while it waits,
// so handlers registered on that loop may run during the call.
#pragma once

#include <cstdint>

#include <quillcore/control/FrameworkPaths.h>
#include <quillcore/export.h>
#include <quillcore/platform/PLObject.h>

namespace quill::platform {
class CBundle;
}

// ================================================== host and file helpers

// The user ID of the owner of "/dev/console" (the user logged in at the
// console). The status of the query is not tested: where "/dev/console" is
// missing the result is meaningless (0).
QUILL_EXTERN_C QUILL_EXPORT std::uint32_t currentUser() noexcept;
// `path` with a leading "~" or "~/" replaced by the current user's home
// directory; a path without a leading tilde is returned as it is. Wildcards
// are never expanded and the path need not exist. Null for a null path, text
// that is not UTF-8, a "~user" form, or when the home directory cannot be
// found. New reference.
QUILL_EXTERN_C QUILL_EXPORT const PLString* expandTildeInFilePath(const PLString* path) noexcept;
// Whether a file-status query on `path` succeeds (anything that exists,
// directories included). False for null.
QUILL_EXTERN_C QUILL_EXPORT bool fileExists(const PLString* path) noexcept;
// The size in bytes of `path`, or -1 when the status query fails.
QUILL_EXTERN_C QUILL_EXPORT std::int64_t fileSize(const PLString* path) noexcept;

// ======================================================= daemon lifecycle

// The daemon executable inside "Corvane.framework", its process and PID-file
// name, and the version this library counts as its own daemon.
inline constexpr const char* kCorvaneDaemonExecutableSubpath = "Resources/corvaned";
inline constexpr const char* kCorvaneDaemonName = "corvaned";
inline constexpr const char* kCorvaneDaemonVersion = "2";
// The client application's service bundles, in the "Resources" directory of
// "Lumenforge.framework".
inline constexpr const char* kLumenforgeJobControllerBundleName = "LumenforgeJobController.bundle";
inline constexpr const char* kLumenforgeTranscoderBundleName = "LumenforgeTranscoder.bundle";
inline constexpr const char* kLumenforgeTranscoder32BitBundleName = "LumenforgeTranscoder32Bit.bundle";
// Information-dictionary keys of a service bundle.
inline constexpr const char* kCorvaneServiceKindKey = "CorvaneServiceKind";
inline constexpr const char* kCorvaneServiceConfigKey = "CorvaneServiceConfig";
// The PID-file name under which client processes are recorded.
inline constexpr const char* kCorvaneClientsName = "corvaneclients";

// The string under "CorvaneServiceKind" of `bundle`'s information
// dictionary; null for a null bundle, a missing key or a value that is not a
// string. New reference.
QUILL_EXTERN_C QUILL_EXPORT const PLString* getServiceKindFromBundle(const quill::platform::CBundle* bundle) noexcept;
// The URLs of the job controller, transcoder and 32-bit transcoder bundles in
// "Lumenforge.framework/Resources". All three are set to null first; each is
// set (a new reference) only when its bundle exists. Null slots are skipped.
QUILL_EXTERN_C QUILL_EXPORT void getLumenforgeServiceBundleURLs(const PLURL** jobController, const PLURL** transcoder,
                                                                const PLURL** transcoder32) noexcept;
// The service kinds (not identifiers, despite the name) read from the three
// bundles, in the same order; each a new reference. The first two slots are
// set to null first; the third is left untouched unless a kind is found for
// the 32-bit transcoder, so callers set it to null themselves.
QUILL_EXTERN_C QUILL_EXPORT void getLumenforgeServiceBundleIDs(const PLString** jobController,
                                                               const PLString** transcoder,
                                                               const PLString** transcoder32) noexcept;

// Whether a daemon of this library runs: a process ID recorded in the PID
// file under "corvaned" whose process exists (signal 0), is named exactly
// "corvaned", and whose record has "Version" "2". An unreadable PID file
// gives false. Never throws a ferrocore::CException.
QUILL_EXTERN_C QUILL_EXPORT bool isDaemonRunning() noexcept;
// Whether a "corvaned" process of the caller's effective user runs that is
// not this library's daemon: true when the PID file cannot be read or lists
// nothing under "corvaned", when that process's record lacks "Version" or
// holds another one, or when no record is found for it; false when there is
// no such process or its record says "Version" "2". Never throws a
// ferrocore::CException.
QUILL_EXTERN_C QUILL_EXPORT bool IsOtherVersionOfDaemonRunning() noexcept;
// Returns at once when isDaemonRunning(). Otherwise starts
// "Corvane.framework/Resources/corvaned" detached (its own session, the
// caller's environment, no arguments, only the three standard descriptors)
// and runs the calling thread's run loop in steps of 0.1 s until the daemon
// has recorded itself (isDaemonRunning) or about ten seconds have passed.
// Throws ferrocore::CParamException "Corvane.framework not found",
// "Couldn't launch corvane daemon with path %s, error = %s" or
// "Couldn't start corvane daemon: PID time-out".
QUILL_EXTERN_C QUILL_EXPORT void startDaemon();
// Send "CorvaneDaemonRestartNotification2" from "corvaneprefs" with
// { "cancelJobs": cancelJobs }. stopDaemon sends the very same request: the
// daemon decides from its own settings whether a restart ends it. Never throw
// a ferrocore::CException ("QuillConfig::restartDaemon failed, exception =
// %s." / "QuillConfig::stopDaemon failed, exception = %s." on the console).
QUILL_EXTERN_C QUILL_EXPORT void restartDaemon(bool cancelJobs);
QUILL_EXTERN_C QUILL_EXPORT void stopDaemon(bool cancelJobs);
// Sends "CorvaneDaemonRunningNotification2" from
// "com.tessaly.corvane.prefpane" without user information; a running daemon
// answers with its own notifications, which are not awaited here.
QUILL_EXTERN_C QUILL_EXPORT void pingDaemon();

// ======================================== service installation and sync

// installServiceWithName(null, bundleURL).
QUILL_EXTERN_C QUILL_EXPORT bool installService(const PLURL* bundleURL);
// Records the service of the bundle at `bundleURL` in the service cache under
// `name` (or, when null, its kind) and, for a service of the service manager,
// writes the job definition of every configured instance (also when the cache
// is not written). An existing entry's instance count above 0 is kept. The
// cache is not written when an entry of the same or a newer version with the
// same executable exists. The result is false for a bundle that cannot be
// opened or lacks a kind, a configuration or an executable, and when the
// cache is not written; otherwise it is the result of the cache's flush,
// which is false whenever the flush does not throw. So a caller learns of
// success from serviceInstalled(), not from this result. Throws the
// exceptions of the cache file and of the job definitions.
QUILL_EXTERN_C QUILL_EXPORT bool installServiceWithName(const PLString* name, const PLURL* bundleURL);
// For each string of `kinds` with a cache entry: a service of the service
// manager has, per configured instance, its trigger file created and its job
// definition loaded when enabled, or its trigger file removed when disabled;
// a daemon-run service is put into the service list as kind -> enabled.
// Then sends "CorvanePrefsChangedNotification2" (signalDaemon) with
// { "serviceList": list } when the list is not empty, else without user
// information (also for null or empty `kinds`). Throws the exceptions of the
// cache file, CRunwardCtl and CRunwardCtlPList; the first one ends the loop.
QUILL_EXTERN_C QUILL_EXPORT void syncServices(const PLArray* kinds);
// startDaemon(). Never throws a ferrocore::CException ("\nQuillConfig::
// startCorvaneServices failed, exception = %s.\n..." on the console).
QUILL_EXTERN_C QUILL_EXPORT void startCorvaneServices();
// When the client application's job controller and transcoder kinds are
// found: addCorvaneClient(), startDaemon() and syncServices() of those kinds
// (and of the 32-bit transcoder's when present and runnable); then, in every
// case, syncServices(null) once more. Never throws a ferrocore::CException
// ("\nQuillConfig::startLumenforgeServices failed, exception = %s.\n..." on
// the console).
QUILL_EXTERN_C QUILL_EXPORT void startLumenforgeServices();
// syncServices() of the client application's kinds (the 32-bit transcoder's
// whenever present), when the first two are found. Neither starts the daemon
// nor tests for a 32-bit runtime. Throws what syncServices throws.
QUILL_EXTERN_C QUILL_EXPORT void syncLumenforgeServices();
// Makes "~/Library/Application Support/Lumenforge/" (mode 0755; an existing
// one is fine) and records this process under "corvaneclients" in the PID
// file. Returns 0 when it was recorded already, 1 when it was added. Throws
// ferrocore::CException "Couldn't create directory \"%s\", error = %s",
// ferrocore::CNullPointerException "Error: home directory is null!" without a
// home directory, and the exceptions of the PID file.
QUILL_EXTERN_C QUILL_EXPORT int addCorvaneClient();
// Service restart requests: "CorvaneServiceRestartNotification2" with a null
// sender. None throws a ferrocore::CException (each writes its
// "QuillConfig::..." line to the console instead).
//   restartCorvaneService   { "serviceType": kind, "uid": effective user ID }
//   restartCorvaneJCService { "serviceType": client cluster admin kind,
//                             "uid": ..., "cancelJobs": cancelJobs }
//   restartCorvaneServices  the job controller, then the client transcoders,
//                           the transcoder, the client content controller and
//                           the content agent
QUILL_EXTERN_C QUILL_EXPORT void restartCorvaneServices(bool cancelJobs);
QUILL_EXTERN_C QUILL_EXPORT void restartCorvaneJCService(bool cancelJobs);
QUILL_EXTERN_C QUILL_EXPORT void restartCorvaneService(const PLString* kind);
// Sends "CorvanePrefsChangedNotification2" (signalDaemon) with
// { "serviceList": { kind: "Restart", ... } } for the strings of `kinds`.
QUILL_EXTERN_C QUILL_EXPORT void restartServices(const PLArray* kinds);

// Cache-entry operations. Each opens the service cache file and throws what
// it throws.
// Removes the entry of `kind` and writes the cache: true when there was one.
QUILL_EXTERN_C QUILL_EXPORT bool removeService(const PLString* kind);
// The same for the kind read from the bundle at `bundlePath` (false when the
// bundle or its kind cannot be found).
QUILL_EXTERN_C QUILL_EXPORT bool removeServiceByPath(const PLString* bundlePath);
QUILL_EXTERN_C QUILL_EXPORT bool serviceInstalled(const PLString* kind);
QUILL_EXTERN_C QUILL_EXPORT bool serviceEnabled(const PLString* kind);
// Whether a process recorded in the PID file under `kind` exists (signal 0).
QUILL_EXTERN_C QUILL_EXPORT bool isServiceRunning(const PLString* kind);
// Set or clear the entry's enabled flag and write the cache: true when there
// was an entry.
QUILL_EXTERN_C QUILL_EXPORT bool enableService(const PLString* kind);
QUILL_EXTERN_C QUILL_EXPORT bool disableService(const PLString* kind);
// Builds the entry afresh from the "CorvaneServiceConfig" of its bundle
// ("BundlePath"), keeping its bundle and executable paths, and writes the
// cache: the user's changes (enabled flag, instance count, preferences) are
// dropped. False when there is no entry or its bundle has no configuration.
QUILL_EXTERN_C QUILL_EXPORT bool resetServiceEntry(const PLString* kind);

// Dynamic instances: extra instances of a service of the service manager
// beyond its R configured ones (R the entry's real instance count); the n-th
// (from 0) has instance number R + n, so its label ends in "-<R+n+1>". They
// are not recorded in the cache; only their job definitions exist. Each
// function does nothing (or returns null) unless `kind` has an entry whose
// launch flag is 2, and throws the exceptions of the cache file and the job
// definitions.
// Writes the job definitions of instances R ... R+count-1.
QUILL_EXTERN_C QUILL_EXPORT void installDynamicServiceInstances(const PLString* kind, std::int32_t count);
// Starts (enable) or stops instances R ... R+count-1 as syncServices does.
QUILL_EXTERN_C QUILL_EXPORT void syncDynamicServiceInstances(const PLString* kind, std::int32_t count, bool enable);
// Writes the job definition of instance R+n and returns the argument that
// follows its first "-id" (a new reference), or null.
QUILL_EXTERN_C QUILL_EXPORT const PLString* installDynamicServiceInstance(const PLString* kind, std::int32_t n);
QUILL_EXTERN_C QUILL_EXPORT void syncDynamicServiceInstance(const PLString* kind, std::int32_t n, bool enable);
