#include <quillcore/control/QuillNotification.h>
#include <quillcore/platform/Host.h>
#include <quillcore/util/CTimeStamp.h>

namespace quill::QuillNotification {

namespace {

PL_CONSTANT_STRING_STORAGE(sQuillDaemonID, "com.tessaly.corvane.corvaned");
PL_CONSTANT_STRING_STORAGE(sPrefPaneBundleID, "com.tessaly.corvane.prefpane");
PL_CONSTANT_STRING_STORAGE(sPrefExternalID, "com.tessaly.corvane.prefexternal");
PL_CONSTANT_STRING_STORAGE(sQuillLocalServerID, "com.tessaly.corvane.localserver");
PL_CONSTANT_STRING_STORAGE(sQuillAppID, "com.tessaly.corvane.app");

PL_CONSTANT_STRING_STORAGE(sDaemonRestart, "CorvaneDaemonRestartNotification2");
PL_CONSTANT_STRING_STORAGE(sServiceRestart, "CorvaneServiceRestartNotification2");
PL_CONSTANT_STRING_STORAGE(sDaemonRunning, "CorvaneDaemonRunningNotification2");
PL_CONSTANT_STRING_STORAGE(sDaemonStarted, "CorvaneDaemonStartedNotification2");
PL_CONSTANT_STRING_STORAGE(sDaemonScheduledShutdown, "CorvaneDaemonScheduledShutdownNotification2");
PL_CONSTANT_STRING_STORAGE(sCancelShutdown, "CorvaneCancelShutdownNotification2");
PL_CONSTANT_STRING_STORAGE(sStatus, "CorvaneStatusNotification2");
PL_CONSTANT_STRING_STORAGE(sDumpState, "CorvaneDumpStateNotification2");
PL_CONSTANT_STRING_STORAGE(sMgrServiceStart, "CorvaneMgrServiceStartNotification2");
PL_CONSTANT_STRING_STORAGE(sMgrServiceStop, "CorvaneMgrServiceStopNotification2");
PL_CONSTANT_STRING_STORAGE(sPrefsChanged, "CorvanePrefsChangedNotification2");
PL_CONSTANT_STRING_STORAGE(sServiceConfigChanged, "CorvaneServiceConfigChangedNotification2");
PL_CONSTANT_STRING_STORAGE(sServiceStartup, "CorvaneServiceStartupNotification2");
PL_CONSTANT_STRING_STORAGE(sServiceCapture, "CorvaneServiceCaptureNotification2");
PL_CONSTANT_STRING_STORAGE(sServiceStartAdvertising, "CorvaneServiceStartAdvertisingNotification2");
PL_CONSTANT_STRING_STORAGE(sServiceStopAdvertising, "CorvaneServiceStopAdvertisingNotification2");
PL_CONSTANT_STRING_STORAGE(sServiceStopped, "CorvaneServiceStoppedNotification2");
PL_CONSTANT_STRING_STORAGE(sServiceConfirmStop, "CorvaneServiceConfirmStopNotification2");
PL_CONSTANT_STRING_STORAGE(sServiceShutdownDelay, "CorvaneServiceShutdownDelayNotification2");
PL_CONSTANT_STRING_STORAGE(sServiceConnectionFailed, "CorvaneServiceConnectionFailedNotification2");
PL_CONSTANT_STRING_STORAGE(sServiceRequestStatus, "CorvaneServiceRequestStatusNotification2");
PL_CONSTANT_STRING_STORAGE(sServiceStatus, "CorvaneServiceStatusNotification2");
PL_CONSTANT_STRING_STORAGE(sAppStartup, "CorvaneAppStartupNotification2");
PL_CONSTANT_STRING_STORAGE(sAppStopping, "CorvaneAppTerminatedNotification2");
PL_CONSTANT_STRING_STORAGE(sAppTerminate, "CorvaneAppTerminateNotification2");
PL_CONSTANT_STRING_STORAGE(sTaskTerminated, "CorvaneTaskTerminatedNotification2");
PL_CONSTANT_STRING_STORAGE(sResetState, "CorvaneResetStateNotification2");
PL_CONSTANT_STRING_STORAGE(sSetSystemWideSalveeParams, "CorvaneSetSystemWideSalveeParams2");
PL_CONSTANT_STRING_STORAGE(sHostNameChange, "CorvaneHostNameChangeNotification2");
PL_CONSTANT_STRING_STORAGE(sLocalHostNameChange, "CorvaneLocalHostNameChangeNotification2");

}  // namespace

const PLStringRef kQuillDaemonID = &sQuillDaemonID;
const PLStringRef kPrefPaneBundleID = &sPrefPaneBundleID;
const PLStringRef kPrefExternalID = &sPrefExternalID;
const PLStringRef kQuillLocalServerID = &sQuillLocalServerID;
const PLStringRef kQuillAppID = &sQuillAppID;

const PLStringRef kQuillDaemonRestartNotification = &sDaemonRestart;
const PLStringRef kQuillServiceRestartNotification = &sServiceRestart;
const PLStringRef kQuillDaemonRunningNotification = &sDaemonRunning;
const PLStringRef kQuillDaemonStartedNotification = &sDaemonStarted;
const PLStringRef kQuillDaemonScheduledShutdownNotification = &sDaemonScheduledShutdown;
const PLStringRef kQuillCancelShutdownNotification = &sCancelShutdown;
const PLStringRef kQuillStatusNotification = &sStatus;
const PLStringRef kQuillDumpStateNotification = &sDumpState;
const PLStringRef kQuillMgrServiceStartNotification = &sMgrServiceStart;
const PLStringRef kQuillMgrServiceStopNotification = &sMgrServiceStop;
const PLStringRef kQuillPrefsChangedNotification = &sPrefsChanged;
const PLStringRef kQuillServiceConfigChangedNotification = &sServiceConfigChanged;
const PLStringRef kQuillServiceStartupNotification = &sServiceStartup;
const PLStringRef kQuillServiceCaptureNotification = &sServiceCapture;
const PLStringRef kQuillServiceStartAdvertisingNotification = &sServiceStartAdvertising;
const PLStringRef kQuillServiceStopAdvertisingNotification = &sServiceStopAdvertising;
const PLStringRef kQuillServiceStoppedNotification = &sServiceStopped;
const PLStringRef kQuillServiceConfirmStopNotification = &sServiceConfirmStop;
const PLStringRef kQuillServiceShutdownDelayNotification = &sServiceShutdownDelay;
const PLStringRef kQuillServiceConnectionFailedNotification = &sServiceConnectionFailed;
const PLStringRef kQuillServiceRequestStatusNotification = &sServiceRequestStatus;
const PLStringRef kQuillServiceStatusNotification = &sServiceStatus;
const PLStringRef kQuillAppStartupNotification = &sAppStartup;
const PLStringRef kQuillAppStoppingNotification = &sAppStopping;
const PLStringRef kQuillAppTerminateNotification = &sAppTerminate;
const PLStringRef kQuillTaskTerminatedNotification = &sTaskTerminated;
const PLStringRef kQuillResetStateNotification = &sResetState;
const PLStringRef kQuillSetSystemWideSalveeParams = &sSetSystemWideSalveeParams;
const PLStringRef kQuillHostNameChangeNotification = &sHostNameChange;
const PLStringRef kQuillLocalHostNameChangeNotification = &sLocalHostNameChange;

}  // namespace quill::QuillNotification

namespace {

namespace qn = quill::QuillNotification;

PL_CONSTANT_STRING(kKeyTime, "time");
PL_CONSTANT_STRING(kKeyType, "type");
PL_CONSTANT_STRING(kKeyFrom, "from");
PL_CONSTANT_STRING(kKeyPid, "pid");
PL_CONSTANT_STRING(kKeyMessage, "message");
PL_CONSTANT_STRING(kKeyUserInfo, "userInfo");
PL_CONSTANT_STRING(kTypeStatus, "status");
PL_CONSTANT_STRING(kTypeWarning, "warning");
PL_CONSTANT_STRING(kTypeError, "error");
PL_CONSTANT_STRING(kEmpty, "");

PLHolder<const PLObject> ref(PLTypeRef value) { return PLHolder<const PLObject>::retain(value); }

void post(PLStringRef name, PLStringRef sender, PLDictionaryRef userInfo) {
    if (!name) return;
    // Failures are already on the console log; callers of this API are not
    // told (a lost notification is like one that nobody observes).
    static_cast<void>(quill::platform::notificationCenter().post(name, sender, userInfo));
}

void postReport(PLStringRef type, PLStringRef name, PLStringRef sender, PLStringRef message, PLTypeRef userInfo) {
    PLHolder<PLMutableDictionary> payload = PLMutableDictionary::create(6);
    quill::CTimeStamp now(-1.0);
    payload->set(ref(kKeyTime), PLString::create(now.text()));
    payload->set(ref(kKeyType), ref(type));
    payload->set(ref(kKeyFrom), ref(sender ? sender : kEmpty));
    payload->set(ref(kKeyPid), PLNumber::create(quill::platform::host().processID()));
    payload->set(ref(kKeyMessage), ref(message ? message : kEmpty));
    if (userInfo) payload->set(ref(kKeyUserInfo), ref(userInfo));
    sendNotification(name, sender, payload.get());
}

void observe(const void* observer, PLNotificationCallback callback, PLStringRef name, PLStringRef sender) {
    quill::platform::notificationCenter().addObserver(observer, callback, name, sender);
}

}  // namespace

void sendNotification(PLStringRef name, PLStringRef sender, PLDictionaryRef userInfo) { post(name, sender, userInfo); }

void signalFrom(PLStringRef name, PLStringRef sender, PLDictionaryRef userInfo) { post(name, sender, userInfo); }

void signalDaemon(PLStringRef name, PLDictionaryRef userInfo) { post(name, qn::kPrefPaneBundleID, userInfo); }

void signalPrefsPane(PLStringRef name, PLDictionaryRef userInfo) { post(name, qn::kQuillDaemonID, userInfo); }

void sendStatusNotification(PLStringRef name, PLStringRef sender, PLStringRef message, PLTypeRef userInfo) {
    postReport(kTypeStatus, name, sender, message, userInfo);
}

void sendWarningNotification(PLStringRef name, PLStringRef sender, PLStringRef message, PLTypeRef userInfo) {
    postReport(kTypeWarning, name, sender, message, userInfo);
}

void sendErrorNotification(PLStringRef name, PLStringRef sender, PLStringRef message, PLTypeRef userInfo) {
    postReport(kTypeError, name, sender, message, userInfo);
}

void registerForNotification(const void* observer, PLNotificationCallback callback, PLStringRef name,
                             PLStringRef sender) {
    observe(observer, callback, name, sender);
}

void addObserver(const void* observer, PLNotificationCallback callback, PLStringRef name, PLStringRef sender) {
    observe(observer, callback, name, sender);
}

void addDaemonObserver(const void* observer, PLNotificationCallback callback, PLStringRef name) {
    observe(observer, callback, name, qn::kQuillDaemonID);
}

void addPrefsPaneObserver(const void* observer, PLNotificationCallback callback, PLStringRef name) {
    observe(observer, callback, name, qn::kPrefPaneBundleID);
}

void removeObserver(const void* observer, PLStringRef sender) {
    quill::platform::notificationCenter().removeObserver(observer, nullptr, sender);
}

void removeDaemonObserver(const void* observer) { removeObserver(observer, qn::kQuillDaemonID); }

void removePrefsPaneObserver(const void* observer) { removeObserver(observer, qn::kPrefPaneBundleID); }

void unregisterForNotifications(const void* observer) {
    quill::platform::notificationCenter().removeObserver(observer);
}
