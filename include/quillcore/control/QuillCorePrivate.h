// Paths, service kinds, service descriptions and dictionary keys shared by
// the whole cluster. Every literal that more than one component (or more than
// one process) uses is defined here once; the daemon, the services and the
// client application link against these same constants, so a key written by
// one process is read by another with the same text.
//
// Storage forms are part of the interface, because callers pass a constant
// straight to whatever needs that form:
// - byte text (`const char* const`): NUL-terminated UTF-8, for joining and
//   comparing with plain character operations;
// - string object (`PLStringRef`): an immutable runtime string made at compile
//   time, for dictionary keys and runtime calls. Retaining and releasing one
//   changes nothing; it is never freed;
// - integer (`std::int32_t`).
//
// Paths beginning with "~/" are stored unexpanded: users expand the tilde
// against the home directory of the user on whose behalf they run before
// touching the file system. Directory paths that end with "/" take further
// names without another separator.
//
// All constants are read-only data, initialised before any code runs, and may
// be read from any thread.
#pragma once

#include <cstdint>

#include <quillcore/export.h>
#include <quillcore/platform/PLObject.h>

namespace quill::QuillCorePrivate {

// ------------------------------------------------------ paths and directories

// The cluster configuration, the service configuration, the service cache, the
// host performance scores and the hosts list are one file: each of these five
// constants holds "~/Library/Application Support/Lumenforge/LumenforgeConfig.plist",
// and each record owns its own top-level section of that property list (and
// therefore shares its lock). The names stay distinct so that one of them can
// move without touching the users of the others.
QUILL_EXPORT extern const char* const kQuillConfigFilePath;
QUILL_EXPORT extern const PLStringRef kServiceConfigFilePath;
QUILL_EXPORT extern const PLStringRef kServiceCacheFilePath;
QUILL_EXPORT extern const PLStringRef kHostPerfScoreFilePath;
QUILL_EXPORT extern const PLStringRef kRadHostsFilePath;  // for clients; not read here

QUILL_EXPORT extern const PLStringRef kQuillPIDFilePath;
// Directory of all per-user state (made with mode 0755 when a client is added).
QUILL_EXPORT extern const PLStringRef kQuillConfigPath;
QUILL_EXPORT extern const char* const kQuillLogFilePath;
QUILL_EXPORT extern const PLStringRef kQuillFileCachePath;  // for clients
QUILL_EXPORT extern const PLStringRef kQuillDefaultClusterStoragePath;
// Root under which other hosts' storage is mounted.
QUILL_EXPORT extern const PLStringRef kQuillClusterStorageMountPath;
// Per-user record of exported storage.
QUILL_EXPORT extern const PLStringRef kQuillClusterStorageExportsFilePath;
QUILL_EXPORT extern const PLStringRef kQuillClusterStorageSubPath;
QUILL_EXPORT extern const PLStringRef kQuillClusterSubexpSubPath;
QUILL_EXPORT extern const PLStringRef kQuillSpooledJobsSubPath;  // for clients
QUILL_EXPORT extern const PLStringRef kQuillJobResultsSubPath;   // for clients
QUILL_EXPORT extern const PLStringRef kQuillLocalClusterStoragePath;
// Job caches. Their file names embed a service kind, colon included, on
// purpose.
QUILL_EXPORT extern const PLStringRef kQuillClusterJobCacheFilePath;
QUILL_EXPORT extern const PLStringRef kQuillClusterJobCacheUserFilePath;
QUILL_EXPORT extern const PLStringRef kQuillCaptraConverterJobCacheFilePath;
// Fixed install directory of the frameworks.
QUILL_EXPORT extern const char* const kQuillFrameworksInstallPath;
// Address of the local daemon.
QUILL_EXPORT extern const char* const kLoopbackAddress;
// Default TCP port of the daemon; a configuration stores its port only when it
// differs from this one.
QUILL_EXPORT extern const std::int32_t kQuillDaemonPortNumber;
// Default of absent string fields.
QUILL_EXPORT extern const PLStringRef kEmptyString;

// ------------------------------------------- service kinds and descriptions

// A service kind is a role word ("jobcontroller", "requestprocessor",
// "servicecontroller", "contentcontroller"), a colon and the service bundle's
// identifier; kinds are compared as whole texts.
//
// The cluster family.
QUILL_EXPORT extern const char* const kClusterAdminServiceKind;
// The same kind as kClusterAdminServiceKind, as a string object.
QUILL_EXPORT extern const PLStringRef kClusterServiceKind;
QUILL_EXPORT extern const char* const kClusterUserServiceKind;
QUILL_EXPORT extern const char* const kContentControllerServiceKind;
QUILL_EXPORT extern const char* const kExecutorServiceKind;
QUILL_EXPORT extern const char* const kTranscoderServiceKind;
QUILL_EXPORT extern const char* const kContentAgentServiceKind;
// The client family: bundles of the client application and of the transcoding
// engine.
QUILL_EXPORT extern const char* const kTolvaClusterAdminServiceKind;
QUILL_EXPORT extern const char* const kTolvaContentControllerServiceKind;
QUILL_EXPORT extern const char* const kTolvaTranscoderServiceKind;
QUILL_EXPORT extern const char* const kTolvaTranscoder32bitServiceKind;

QUILL_EXPORT extern const char* const kClusterAdminServiceDesc;
// The same text as kClusterAdminServiceDesc, as a string object.
QUILL_EXPORT extern const PLStringRef kClusterServiceDesc;

// --------------------------------------------------------- dictionary keys

// Keys of cluster notifications, service configuration entries and
// service-control requests.
QUILL_EXPORT extern const PLStringRef kDictKeyAdd;      // for clients
QUILL_EXPORT extern const PLStringRef kDictKeyRemove;   // for clients
QUILL_EXPORT extern const PLStringRef kDictKeyReplace;  // for clients
QUILL_EXPORT extern const PLStringRef kDictKeyUpdate;   // for clients
QUILL_EXPORT extern const PLStringRef kDictKeyMerge;    // for clients
QUILL_EXPORT extern const PLStringRef kDictKeyClear;    // for clients
QUILL_EXPORT extern const PLStringRef kDictKeyKind;
QUILL_EXPORT extern const PLStringRef kDictKeySubkind;
QUILL_EXPORT extern const PLStringRef kDictKeyName;
QUILL_EXPORT extern const PLStringRef kDictKeyUniqueID;
QUILL_EXPORT extern const PLStringRef kDictKeyUserID;
QUILL_EXPORT extern const PLStringRef kDictKeyProcessID;
QUILL_EXPORT extern const PLStringRef kDictKeyAccessKey;
QUILL_EXPORT extern const PLStringRef kDictKeyCaptureKey;
QUILL_EXPORT extern const PLStringRef kDictKeyCapturePermKey;
QUILL_EXPORT extern const PLStringRef kDictKeyEnabled;
QUILL_EXPORT extern const PLStringRef kDictKeyPrefs;
QUILL_EXPORT extern const PLStringRef kDictKeyConfig;
QUILL_EXPORT extern const PLStringRef kDictKeyLogging;
QUILL_EXPORT extern const PLStringRef kDictKeyDelay;  // for clients
QUILL_EXPORT extern const PLStringRef kDictKeyHeadless;
QUILL_EXPORT extern const PLStringRef kDictKeyServiceType;
QUILL_EXPORT extern const PLStringRef kDictKeyServiceConfigEntry;
QUILL_EXPORT extern const PLStringRef kDictKeyServiceInstance;  // for clients
QUILL_EXPORT extern const PLStringRef kDictKeyServiceKind;
QUILL_EXPORT extern const PLStringRef kDictKeyServiceList;
QUILL_EXPORT extern const PLStringRef kDictKeyCancelJobs;
QUILL_EXPORT extern const PLStringRef kDictKeyStorage;  // for clients
QUILL_EXPORT extern const PLStringRef kDictKeyTaskPtr;

}  // namespace quill::QuillCorePrivate
