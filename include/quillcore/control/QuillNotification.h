// Cluster notifications: the names and party identities that the cluster's
// processes use to talk to each other on the host-wide notification centre,
// and the exported functions through which the whole library posts and
// observes them.
//
// Every posting in the library goes through sendNotification(), every
// observation through registerForNotification() or one of the observer
// functions. They all work on the process's notification centre
// (quill::platform::notificationCenter()), whose header describes matching,
// the run loop that callbacks run on, ordering and removal.
//
// A notification has a name, a sender (the identity of the sending party, or
// null) and user information (a dictionary of property-list values, or null).
//
// Threads. Every function may be called from any thread, also from an
// observer callback. Callbacks run on the run loop of the thread that
// registered them, when that loop runs.
//
// Failures. Posting and observing report nothing to the caller: a
// notification that nobody observes, or that cannot be sent, is lost (the
// centre notes a failed send on the console log). Arguments are borrowed;
// nothing is kept beyond the call except copies of names and senders.
//
// The constants are string objects made at compile time: immortal, readable
// from any thread, and usable before any code runs.
#pragma once

#include <quillcore/export.h>
#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/platform/PLObject.h>

namespace quill::QuillNotification {

// ----------------------------------------------------------- party identities

// The daemon: "com.tessaly.corvane.corvaned".
QUILL_EXPORT extern const PLStringRef kQuillDaemonID;
// The preferences pane: "com.tessaly.corvane.prefpane".
QUILL_EXPORT extern const PLStringRef kPrefPaneBundleID;
// An external preferences editor, also the sender whose preference changes the
// logger listens to: "com.tessaly.corvane.prefexternal".
QUILL_EXPORT extern const PLStringRef kPrefExternalID;
// The local server: "com.tessaly.corvane.localserver".
QUILL_EXPORT extern const PLStringRef kQuillLocalServerID;
// The client application: "com.tessaly.corvane.app".
QUILL_EXPORT extern const PLStringRef kQuillAppID;

// ------------------------------------------------------- notification names
//
// Every name ends in "2"; the suffix is part of the name.

QUILL_EXPORT extern const PLStringRef kQuillDaemonRestartNotification;
QUILL_EXPORT extern const PLStringRef kQuillServiceRestartNotification;
QUILL_EXPORT extern const PLStringRef kQuillDaemonRunningNotification;
QUILL_EXPORT extern const PLStringRef kQuillDaemonStartedNotification;
QUILL_EXPORT extern const PLStringRef kQuillDaemonScheduledShutdownNotification;
QUILL_EXPORT extern const PLStringRef kQuillCancelShutdownNotification;
QUILL_EXPORT extern const PLStringRef kQuillStatusNotification;
QUILL_EXPORT extern const PLStringRef kQuillDumpStateNotification;
QUILL_EXPORT extern const PLStringRef kQuillMgrServiceStartNotification;
QUILL_EXPORT extern const PLStringRef kQuillMgrServiceStopNotification;
QUILL_EXPORT extern const PLStringRef kQuillPrefsChangedNotification;
QUILL_EXPORT extern const PLStringRef kQuillServiceConfigChangedNotification;
QUILL_EXPORT extern const PLStringRef kQuillServiceStartupNotification;
QUILL_EXPORT extern const PLStringRef kQuillServiceCaptureNotification;
QUILL_EXPORT extern const PLStringRef kQuillServiceStartAdvertisingNotification;
QUILL_EXPORT extern const PLStringRef kQuillServiceStopAdvertisingNotification;
QUILL_EXPORT extern const PLStringRef kQuillServiceStoppedNotification;
QUILL_EXPORT extern const PLStringRef kQuillServiceConfirmStopNotification;
QUILL_EXPORT extern const PLStringRef kQuillServiceShutdownDelayNotification;
QUILL_EXPORT extern const PLStringRef kQuillServiceConnectionFailedNotification;
QUILL_EXPORT extern const PLStringRef kQuillServiceRequestStatusNotification;
QUILL_EXPORT extern const PLStringRef kQuillServiceStatusNotification;
QUILL_EXPORT extern const PLStringRef kQuillAppStartupNotification;
// Careful: the "stopping" constant carries "CorvaneAppTerminatedNotification2"
// and the "terminate" constant "CorvaneAppTerminateNotification2". Both texts
// are what other processes listen for; never swap or "fix" them.
QUILL_EXPORT extern const PLStringRef kQuillAppStoppingNotification;
QUILL_EXPORT extern const PLStringRef kQuillAppTerminateNotification;
QUILL_EXPORT extern const PLStringRef kQuillTaskTerminatedNotification;
QUILL_EXPORT extern const PLStringRef kQuillResetStateNotification;
QUILL_EXPORT extern const PLStringRef kQuillSetSystemWideSalveeParams;
QUILL_EXPORT extern const PLStringRef kQuillHostNameChangeNotification;
QUILL_EXPORT extern const PLStringRef kQuillLocalHostNameChangeNotification;

}  // namespace quill::QuillNotification

// --------------------------------------------------------------- posting

// Posts `name` (required; a null name posts nothing) with `sender` and
// `userInfo` (each may be null) for immediate delivery.
QUILL_EXTERN_C QUILL_EXPORT void sendNotification(PLStringRef name, PLStringRef sender, PLDictionaryRef userInfo);
// The same as sendNotification().
QUILL_EXTERN_C QUILL_EXPORT void signalFrom(PLStringRef name, PLStringRef sender, PLDictionaryRef userInfo);
// Posts with the sender kPrefPaneBundleID: the preferences pane speaking to
// the daemon.
QUILL_EXTERN_C QUILL_EXPORT void signalDaemon(PLStringRef name, PLDictionaryRef userInfo);
// Posts with the sender kQuillDaemonID: the daemon speaking to the
// preferences pane.
QUILL_EXTERN_C QUILL_EXPORT void signalPrefsPane(PLStringRef name, PLDictionaryRef userInfo);

// Post `name` with `sender` and a new dictionary:
//   "time"     the current time as CTimeStamp text,
//   "type"     "status", "warning" or "error",
//   "from"     the sender, or "" when null,
//   "pid"      the process ID (integer),
//   "message"  the message, or "" when null,
//   "userInfo" `userInfo`, absent when null.
// A failure to build the dictionary (what CTimeStamp or the runtime throws)
// passes to the caller before anything is posted.
QUILL_EXTERN_C QUILL_EXPORT void sendStatusNotification(PLStringRef name, PLStringRef sender, PLStringRef message,
                                                        PLTypeRef userInfo);
QUILL_EXTERN_C QUILL_EXPORT void sendWarningNotification(PLStringRef name, PLStringRef sender, PLStringRef message,
                                                         PLTypeRef userInfo);
QUILL_EXTERN_C QUILL_EXPORT void sendErrorNotification(PLStringRef name, PLStringRef sender, PLStringRef message,
                                                       PLTypeRef userInfo);

// -------------------------------------------------------------- observing

// Registers `callback` for `observer` (compared, never followed) for the
// notifications named `name` from `sender`; a null name or sender matches
// any. Registering the same observer, name and sender again replaces the
// callback. The callback runs on the calling thread's run loop.
QUILL_EXTERN_C QUILL_EXPORT void registerForNotification(const void* observer, PLNotificationCallback callback,
                                                         PLStringRef name, PLStringRef sender);
// The same as registerForNotification().
QUILL_EXTERN_C QUILL_EXPORT void addObserver(const void* observer, PLNotificationCallback callback, PLStringRef name,
                                             PLStringRef sender);
// Observes `name` when sent by kQuillDaemonID.
QUILL_EXTERN_C QUILL_EXPORT void addDaemonObserver(const void* observer, PLNotificationCallback callback,
                                                   PLStringRef name);
// Observes `name` when sent by kPrefPaneBundleID.
QUILL_EXTERN_C QUILL_EXPORT void addPrefsPaneObserver(const void* observer, PLNotificationCallback callback,
                                                      PLStringRef name);

// Removes the observer's registrations for `sender`, for every name; a null
// sender removes the registrations for every sender.
QUILL_EXTERN_C QUILL_EXPORT void removeObserver(const void* observer, PLStringRef sender);
// Removes the observer's registrations for the sender kQuillDaemonID; those
// for other senders stay.
QUILL_EXTERN_C QUILL_EXPORT void removeDaemonObserver(const void* observer);
// Removes the observer's registrations for the sender kPrefPaneBundleID.
QUILL_EXTERN_C QUILL_EXPORT void removePrefsPaneObserver(const void* observer);
// Removes every registration of the observer.
QUILL_EXTERN_C QUILL_EXPORT void unregisterForNotifications(const void* observer);
