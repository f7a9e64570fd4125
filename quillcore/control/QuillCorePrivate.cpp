#include <quillcore/control/QuillCorePrivate.h>

namespace quill::QuillCorePrivate {

namespace {

constexpr char kConfigFileText[] = "~/Library/Application Support/Lumenforge/LumenforgeConfig.plist";
constexpr char kClusterAdminKindText[] = "jobcontroller:com.tessaly.corvane.cluster.admin";
constexpr char kClusterAdminDescText[] = "Corvane Cluster Admin";

PL_CONSTANT_STRING_STORAGE(sServiceConfigFilePath, kConfigFileText);
PL_CONSTANT_STRING_STORAGE(sServiceCacheFilePath, kConfigFileText);
PL_CONSTANT_STRING_STORAGE(sHostPerfScoreFilePath, kConfigFileText);
PL_CONSTANT_STRING_STORAGE(sRadHostsFilePath, kConfigFileText);
PL_CONSTANT_STRING_STORAGE(sQuillPIDFilePath, "~/Library/Application Support/Lumenforge/LumenforgePID.plist");
PL_CONSTANT_STRING_STORAGE(sQuillConfigPath, "~/Library/Application Support/Lumenforge/");
PL_CONSTANT_STRING_STORAGE(sQuillFileCachePath, "~/Library/Application Support/Lumenforge/Cache");
PL_CONSTANT_STRING_STORAGE(sQuillDefaultClusterStoragePath, "~/Library/Application Support/Lumenforge/Storage/");
PL_CONSTANT_STRING_STORAGE(sQuillClusterStorageMountPath,
                           "/Users/Shared/Library/Application Support/Lumenforge/Storage/");
PL_CONSTANT_STRING_STORAGE(sQuillClusterStorageExportsFilePath, "~/Library/Application Support/Lumenforge/exports");
PL_CONSTANT_STRING_STORAGE(sQuillClusterStorageSubPath, "shared");
PL_CONSTANT_STRING_STORAGE(sQuillClusterSubexpSubPath, "subexp");
PL_CONSTANT_STRING_STORAGE(sQuillSpooledJobsSubPath, "jobs");
PL_CONSTANT_STRING_STORAGE(sQuillJobResultsSubPath, "shared/results");
PL_CONSTANT_STRING_STORAGE(sQuillLocalClusterStoragePath, "/tmp/corvane");
PL_CONSTANT_STRING_STORAGE(
    sQuillClusterJobCacheFilePath,
    "~/Library/Application Support/Lumenforge/jobcontroller:com.tessaly.corvane.cluster.jobcache.db");
PL_CONSTANT_STRING_STORAGE(
    sQuillClusterJobCacheUserFilePath,
    "~/Library/Application Support/Lumenforge/jobcontroller:com.tessaly.lumenforge.cluster.jobcache.db");
PL_CONSTANT_STRING_STORAGE(
    sQuillCaptraConverterJobCacheFilePath,
    "~/Library/Application Support/Lumenforge/com.tessaly.lumenforge.LXCaptionSubtitleProcessor.jobcache.db");
PL_CONSTANT_STRING_STORAGE(sEmptyString, "");

PL_CONSTANT_STRING_STORAGE(sClusterServiceKind, kClusterAdminKindText);
PL_CONSTANT_STRING_STORAGE(sClusterServiceDesc, kClusterAdminDescText);

PL_CONSTANT_STRING_STORAGE(sDictKeyAdd, "add");
PL_CONSTANT_STRING_STORAGE(sDictKeyRemove, "remove");
PL_CONSTANT_STRING_STORAGE(sDictKeyReplace, "replace");
PL_CONSTANT_STRING_STORAGE(sDictKeyUpdate, "update");
PL_CONSTANT_STRING_STORAGE(sDictKeyMerge, "merge");
PL_CONSTANT_STRING_STORAGE(sDictKeyClear, "clear");
PL_CONSTANT_STRING_STORAGE(sDictKeyKind, "kind");
PL_CONSTANT_STRING_STORAGE(sDictKeySubkind, "subkind");
PL_CONSTANT_STRING_STORAGE(sDictKeyName, "name");
PL_CONSTANT_STRING_STORAGE(sDictKeyUniqueID, "uniqueID");
PL_CONSTANT_STRING_STORAGE(sDictKeyUserID, "uid");
PL_CONSTANT_STRING_STORAGE(sDictKeyProcessID, "pid");
PL_CONSTANT_STRING_STORAGE(sDictKeyAccessKey, "akey");
PL_CONSTANT_STRING_STORAGE(sDictKeyCaptureKey, "ckey");
PL_CONSTANT_STRING_STORAGE(sDictKeyCapturePermKey, "cpkey");
PL_CONSTANT_STRING_STORAGE(sDictKeyEnabled, "enabled");
PL_CONSTANT_STRING_STORAGE(sDictKeyPrefs, "prefs");
PL_CONSTANT_STRING_STORAGE(sDictKeyConfig, "config");
PL_CONSTANT_STRING_STORAGE(sDictKeyLogging, "logging");
PL_CONSTANT_STRING_STORAGE(sDictKeyDelay, "delay");
PL_CONSTANT_STRING_STORAGE(sDictKeyHeadless, "headless");
PL_CONSTANT_STRING_STORAGE(sDictKeyServiceType, "serviceType");
PL_CONSTANT_STRING_STORAGE(sDictKeyServiceConfigEntry, "serviceConfigEntry");
PL_CONSTANT_STRING_STORAGE(sDictKeyServiceInstance, "serviceInstance");
PL_CONSTANT_STRING_STORAGE(sDictKeyServiceKind, "service");
PL_CONSTANT_STRING_STORAGE(sDictKeyServiceList, "serviceList");
PL_CONSTANT_STRING_STORAGE(sDictKeyCancelJobs, "cancelJobs");
PL_CONSTANT_STRING_STORAGE(sDictKeyStorage, "storage");
PL_CONSTANT_STRING_STORAGE(sDictKeyTaskPtr, "taskPtr");

}  // namespace

// ------------------------------------------------------ paths and directories

const char* const kQuillConfigFilePath = kConfigFileText;
const PLStringRef kServiceConfigFilePath = &sServiceConfigFilePath;
const PLStringRef kServiceCacheFilePath = &sServiceCacheFilePath;
const PLStringRef kHostPerfScoreFilePath = &sHostPerfScoreFilePath;
const PLStringRef kRadHostsFilePath = &sRadHostsFilePath;
const PLStringRef kQuillPIDFilePath = &sQuillPIDFilePath;
const PLStringRef kQuillConfigPath = &sQuillConfigPath;
const char* const kQuillLogFilePath = "~/Library/Logs/Lumenforge/";
const PLStringRef kQuillFileCachePath = &sQuillFileCachePath;
const PLStringRef kQuillDefaultClusterStoragePath = &sQuillDefaultClusterStoragePath;
const PLStringRef kQuillClusterStorageMountPath = &sQuillClusterStorageMountPath;
const PLStringRef kQuillClusterStorageExportsFilePath = &sQuillClusterStorageExportsFilePath;
const PLStringRef kQuillClusterStorageSubPath = &sQuillClusterStorageSubPath;
const PLStringRef kQuillClusterSubexpSubPath = &sQuillClusterSubexpSubPath;
const PLStringRef kQuillSpooledJobsSubPath = &sQuillSpooledJobsSubPath;
const PLStringRef kQuillJobResultsSubPath = &sQuillJobResultsSubPath;
const PLStringRef kQuillLocalClusterStoragePath = &sQuillLocalClusterStoragePath;
const PLStringRef kQuillClusterJobCacheFilePath = &sQuillClusterJobCacheFilePath;
const PLStringRef kQuillClusterJobCacheUserFilePath = &sQuillClusterJobCacheUserFilePath;
const PLStringRef kQuillCaptraConverterJobCacheFilePath = &sQuillCaptraConverterJobCacheFilePath;
const char* const kQuillFrameworksInstallPath = "/TessalyInternal/Library/EmbeddedFrameworks/Kelvra/Frameworks/";
const char* const kLoopbackAddress = "127.0.0.1";
const std::int32_t kQuillDaemonPortNumber = 2189;
const PLStringRef kEmptyString = &sEmptyString;

// ------------------------------------------- service kinds and descriptions

const char* const kClusterAdminServiceKind = kClusterAdminKindText;
const PLStringRef kClusterServiceKind = &sClusterServiceKind;
const char* const kClusterUserServiceKind = "jobcontroller:com.tessaly.corvane.cluster.user";
const char* const kContentControllerServiceKind = "requestprocessor:com.tessaly.corvane.contentcontroller";
const char* const kExecutorServiceKind = "servicecontroller:com.tessaly.corvane.executor";
const char* const kTranscoderServiceKind = "servicecontroller:com.tessaly.tolva.transcoderx";
const char* const kContentAgentServiceKind = "contentcontroller:com.tessaly.corvane.contentagent";
const char* const kTolvaClusterAdminServiceKind = "jobcontroller:com.tessaly.lumenforge.cluster.admin";
const char* const kTolvaContentControllerServiceKind = "requestprocessor:com.tessaly.lumenforge.contentcontroller";
const char* const kTolvaTranscoderServiceKind = "servicecontroller:com.tessaly.tolva.transcoder.tolva";
const char* const kTolvaTranscoder32bitServiceKind = "servicecontroller:com.tessaly.tolva.transcoder32bit.tolva";
const char* const kClusterAdminServiceDesc = kClusterAdminDescText;
const PLStringRef kClusterServiceDesc = &sClusterServiceDesc;

// --------------------------------------------------------- dictionary keys

const PLStringRef kDictKeyAdd = &sDictKeyAdd;
const PLStringRef kDictKeyRemove = &sDictKeyRemove;
const PLStringRef kDictKeyReplace = &sDictKeyReplace;
const PLStringRef kDictKeyUpdate = &sDictKeyUpdate;
const PLStringRef kDictKeyMerge = &sDictKeyMerge;
const PLStringRef kDictKeyClear = &sDictKeyClear;
const PLStringRef kDictKeyKind = &sDictKeyKind;
const PLStringRef kDictKeySubkind = &sDictKeySubkind;
const PLStringRef kDictKeyName = &sDictKeyName;
const PLStringRef kDictKeyUniqueID = &sDictKeyUniqueID;
const PLStringRef kDictKeyUserID = &sDictKeyUserID;
const PLStringRef kDictKeyProcessID = &sDictKeyProcessID;
const PLStringRef kDictKeyAccessKey = &sDictKeyAccessKey;
const PLStringRef kDictKeyCaptureKey = &sDictKeyCaptureKey;
const PLStringRef kDictKeyCapturePermKey = &sDictKeyCapturePermKey;
const PLStringRef kDictKeyEnabled = &sDictKeyEnabled;
const PLStringRef kDictKeyPrefs = &sDictKeyPrefs;
const PLStringRef kDictKeyConfig = &sDictKeyConfig;
const PLStringRef kDictKeyLogging = &sDictKeyLogging;
const PLStringRef kDictKeyDelay = &sDictKeyDelay;
const PLStringRef kDictKeyHeadless = &sDictKeyHeadless;
const PLStringRef kDictKeyServiceType = &sDictKeyServiceType;
const PLStringRef kDictKeyServiceConfigEntry = &sDictKeyServiceConfigEntry;
const PLStringRef kDictKeyServiceInstance = &sDictKeyServiceInstance;
const PLStringRef kDictKeyServiceKind = &sDictKeyServiceKind;
const PLStringRef kDictKeyServiceList = &sDictKeyServiceList;
const PLStringRef kDictKeyCancelJobs = &sDictKeyCancelJobs;
const PLStringRef kDictKeyStorage = &sDictKeyStorage;
const PLStringRef kDictKeyTaskPtr = &sDictKeyTaskPtr;

}  // namespace quill::QuillCorePrivate
