// The notification centre: named notifications with a sender text and a
// property-list dictionary, posted by one process and delivered to the
// observers of every process of the same user on the same host (the poster
// included), or, on the host-wide bus (hostNotificationCenter()), of every
// process of the host whatever its user.
//
// A CNotificationCenter keeps the registrations of its process and hands each
// notification to the run loop of the thread that registered the matching
// observer. What carries notifications between processes is an
// INotificationTransport: the D-Bus one (makeDBusNotificationTransport) for
// real use, an in-process loopback (makeLoopbackNotificationTransport) for
// tests whose subject is not the bus itself.
//
// Matching. An observer registers for a name and a sender; either may be null,
// which matches any. A non-null sender matches only the same text, so a
// registration for the sender "" does not see notifications without a sender,
// and the other way round.
//
// Delivery. Callbacks run on the run loop of the thread that registered them
// (CRunLoop::current() of that thread), when that loop runs, one notification
// at a time and never concurrently with each other on that loop. The
// notifications of one posting thread reach an observer in the order of
// posting. A registration whose thread ends is dropped at that moment;
// notifications still queued for it are discarded.
//
// Removal takes effect at once: after a remove call returns on the thread that
// runs the observer's loop, the observer gets no further callback for the
// removed registrations, not even for notifications already queued. Removed
// from another thread, a callback that has already begun may still finish.
//
// Threads. Every member function of CNotificationCenter may be called from any
// thread, also from inside a callback. No exception crosses a callback: one
// that escapes is caught by the run loop and reported on the console log.
//
// Failures. Posting never waits for a reply. What may hold a poster up is
// bounded: connecting (on first use or after a loss; at most about two
// seconds for a bus that accepts but does not answer, and then not again for
// ten seconds) and a full send queue (at most 0.1 s for room, once per
// episode). A notification that cannot be sent (no bus, a full send queue,
// user information that is not a property list) is lost; post() says why,
// and the centre writes one line to the console log.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include <quillcore/platform/PLObject.h>
#include <quillcore/platform/export.h>

namespace quill::platform {
class CNotificationCenter;
}  // namespace quill::platform

// The centre an observer callback was called from, or null.
using PLNotificationCenterRef = quill::platform::CNotificationCenter*;

extern "C" {
// The notification centre's callback type, usable from C: the centre (or
// null), the observer pointer given at registration, the notification's name,
// its sender (null when it has none) and its user information (null when it
// has none). Every pointer is borrowed for the duration of the call.
using PLNotificationCallback = void (*)(PLNotificationCenterRef center, void* observer, PLStringRef name,
                                        PLStringRef sender, PLDictionaryRef userInfo);
}

namespace quill::platform {

// One received notification, as the C++ callable API hands it out. The values
// are immutable and may be kept (copy the holders).
struct CNotification {
    PLHolder<const PLString> name;
    PLHolder<const PLString> sender;        // null when the poster gave none
    PLHolder<const PLDictionary> userInfo;  // null when the poster gave none
};

using NotificationHandler = std::function<void(const CNotification& notification)>;

// Receives what a transport brings in. Implemented by CNotificationCenter.
class QUILL_PLATFORM_EXPORT INotificationSink {
public:
    INotificationSink() = default;
    INotificationSink(const INotificationSink&) = delete;
    INotificationSink& operator=(const INotificationSink&) = delete;

    // Called by the transport, on any of its threads, with notifications in
    // the order of arrival (one or more at a time; calls do not overlap).
    // `sender` and `userInfo` may be null. Must not throw.
    virtual void deliver(std::vector<CNotification>&& notifications) noexcept = 0;

protected:
    ~INotificationSink() = default;
};

// Carries notifications between processes. Implementations are thread-safe:
// send() and the filter calls may come from any thread at once.
class QUILL_PLATFORM_EXPORT INotificationTransport {
public:
    INotificationTransport() = default;
    INotificationTransport(const INotificationTransport&) = delete;
    INotificationTransport& operator=(const INotificationTransport&) = delete;
    virtual ~INotificationTransport();

    // Called once by the owning centre before any other call; `sink` outlives
    // the transport's use of it (the centre destroys the transport first).
    virtual void attach(INotificationSink& sink) = 0;

    // Sends one notification to every process, this one included. Must not
    // wait for a reply, and waits at most briefly for the bus. Returns an error when the notification was
    // not sent: std::errc::invalid_argument for a name or sender that the
    // transport cannot carry or user information that is not a property list,
    // std::errc::no_buffer_space when the send queue is full, a connection
    // error when there is no bus. Reports the failure on the console log.
    virtual std::error_code send(const PLString& name, PLStringRef sender, PLDictionaryRef userInfo) = 0;

    // Waits until what was sent so far has left this process, at most
    // `timeoutSeconds`; false when something is still waiting (or there is no
    // connection).
    virtual bool flush(double timeoutSeconds) = 0;

    // Asks for the notifications that match `name` and `sender` (null: any)
    // to be brought in. Filters are counted: each addFilter is undone by one
    // removeFilter with the same arguments. A transport may bring in more
    // than asked for; the centre filters again.
    virtual void addFilter(PLStringRef name, PLStringRef sender) = 0;
    virtual void removeFilter(PLStringRef name, PLStringRef sender) = 0;

    // Called on a thread that has just registered an observer. A transport
    // may then also read incoming notifications on that thread's run loop
    // (while it runs), which saves a thread switch on the way to the
    // observers there.
    virtual void watchFromCurrentThread() = 0;
};

// Which processes a D-Bus transport reaches.
enum class NotificationBus : std::uint8_t {
    // The processes of the same user: the session bus, else the private
    // per-user bus, which the transport starts when none answers.
    User,
    // Every process of the host, whatever its user: the system bus, at
    // DBUS_SYSTEM_BUS_ADDRESS (read with secure_getenv at every connection
    // attempt) or else kSystemBusSocketPath. Never started by the library;
    // the bus must let our signal through (the policy file installed as
    // kSystemBusPolicyFileName). Storage requests and their replies travel
    // here, between ordinary users' programs and the serving process.
    HostWide,
};

// The D-Bus transport: one connection to the bus `bus` names (see
// docs/notification-bus.md for the buses, the signal and the private per-user
// bus). Connects on first use; a lost connection is reported on the console
// log and made again by the next send or filter change, which also puts every
// filter back. Throws std::bad_alloc only; connection failures surface as
// send() errors.
QUILL_PLATFORM_EXPORT std::unique_ptr<INotificationTransport> makeDBusNotificationTransport(
    NotificationBus bus = NotificationBus::User);

// A transport that hands every notification straight back to its own centre,
// on the posting thread (delivery still goes through the observers' run
// loops). Nothing leaves the process.
QUILL_PLATFORM_EXPORT std::unique_ptr<INotificationTransport> makeLoopbackNotificationTransport();

// Observers and their registrations, over one transport.
class QUILL_PLATFORM_EXPORT CNotificationCenter final : public INotificationSink {
public:
    // Takes over `transport`, which must not be null.
    explicit CNotificationCenter(std::unique_ptr<INotificationTransport> transport);
    // Stops the transport first; undelivered notifications are discarded.
    // No thread may use the centre while or after it is destroyed.
    ~CNotificationCenter();

    // Posts for immediate delivery. Ownership stays with the caller. Returns
    // what the transport's send() returns; see the failure notes above.
    // `name` must not be null (std::errc::invalid_argument).
    std::error_code post(PLStringRef name, PLStringRef sender, PLDictionaryRef userInfo);

    // Waits until every notification posted so far has left the process, at
    // most `timeoutSeconds`; false when that time was not enough. The default
    // centre does this (for up to a second) when the process exits normally,
    // so that a program may post and end at once.
    bool flush(double timeoutSeconds) { return _transport->flush(timeoutSeconds); }

    // Registers `callback` for `observer` (any pointer that identifies the
    // observer; only compared, never followed). Registering the same
    // observer, name and sender again replaces the callback instead of adding
    // a second registration. A null callback is ignored. The name and sender
    // are copied.
    void addObserver(const void* observer, PLNotificationCallback callback, PLStringRef name, PLStringRef sender);
    // The same with a C++ callable. The centre keeps it until the
    // registration is removed and no queued delivery refers to it any more; it
    // is then destroyed on whichever thread lets go last. A null handler is
    // ignored.
    void addObserver(const void* observer, NotificationHandler handler, PLStringRef name, PLStringRef sender);

    // Removes the observer's registrations whose name equals `name` and whose
    // sender equals `sender`; a null argument stands for every name or every
    // sender (so removeObserver(o, nullptr, nullptr) removes everything of o).
    void removeObserver(const void* observer, PLStringRef name, PLStringRef sender);
    // Removes every registration of the observer.
    void removeObserver(const void* observer) { removeObserver(observer, nullptr, nullptr); }

    // The number of registrations, for tests and diagnostics.
    std::size_t registrationCount() const;

    // INotificationSink.
    void deliver(std::vector<CNotification>&& notifications) noexcept override;

private:
    struct State;
    std::unique_ptr<State> _state;
    std::unique_ptr<INotificationTransport> _transport;
};

// The process's centre: the one installed with setNotificationCenter(), else
// the default one over the D-Bus transport, made on first use. The default
// centre belongs to the library and lives until the process ends; a child
// made with fork() must exec before it posts or observes (the centre refuses
// to work in a child that did not).
QUILL_PLATFORM_EXPORT CNotificationCenter& notificationCenter();

// Installs `substitute` as the process's centre (null reinstalls the
// default) and returns the one installed before (null for the default). The
// caller keeps ownership. Install and remove substitutes while no other thread
// posts or registers.
QUILL_PLATFORM_EXPORT CNotificationCenter* setNotificationCenter(CNotificationCenter* substitute) noexcept;

// The process's centre on the host-wide bus (NotificationBus::HostWide):
// the one installed with setHostNotificationCenter(), else a default one made
// on first use, which, like the default centre, belongs to the library, lives
// until the process ends and flushes for up to a second at a normal exit.
QUILL_PLATFORM_EXPORT CNotificationCenter& hostNotificationCenter();

// Installs `substitute` as the process's host-wide centre (null reinstalls the
// default) and returns the one installed before (null for the default). Same
// rules as setNotificationCenter().
QUILL_PLATFORM_EXPORT CNotificationCenter* setHostNotificationCenter(CNotificationCenter* substitute) noexcept;

// Installs a centre for the lifetime of the object.
class QUILL_PLATFORM_EXPORT CScopedNotificationCenter final {
public:
    explicit CScopedNotificationCenter(CNotificationCenter& substitute) noexcept
        : _previous(setNotificationCenter(&substitute)) {}
    ~CScopedNotificationCenter() { setNotificationCenter(_previous); }
    CScopedNotificationCenter(const CScopedNotificationCenter&) = delete;
    CScopedNotificationCenter& operator=(const CScopedNotificationCenter&) = delete;

private:
    CNotificationCenter* const _previous;
};

// Installs a host-wide centre for the lifetime of the object.
class QUILL_PLATFORM_EXPORT CScopedHostNotificationCenter final {
public:
    explicit CScopedHostNotificationCenter(CNotificationCenter& substitute) noexcept
        : _previous(setHostNotificationCenter(&substitute)) {}
    ~CScopedHostNotificationCenter() { setHostNotificationCenter(_previous); }
    CScopedHostNotificationCenter(const CScopedHostNotificationCenter&) = delete;
    CScopedHostNotificationCenter& operator=(const CScopedHostNotificationCenter&) = delete;

private:
    CNotificationCenter* const _previous;
};

// ------------------------------------------------------------ wire format

// What the D-Bus transport sends: a broadcast signal from this object path, of
// this interface and member, with the arguments (name s, sender s, has-sender
// b, payload ay). docs/notification-bus.md describes it in full.
inline constexpr const char* kNotificationBusPath = "/com/tessaly/quillcore/Notifications";
inline constexpr const char* kNotificationBusInterface = "com.tessaly.quillcore.Notifications";
inline constexpr const char* kNotificationBusMember = "Notification";
inline constexpr const char* kNotificationBusSignature = "ssbay";

// Where the private per-user bus lives when no session bus answers, below the
// user's runtime directory ($XDG_RUNTIME_DIR, else /run/user/<uid> when it is
// the user's own) or else in /tmp/quillcore-<uid>.
inline constexpr const char* kPrivateBusDirectoryName = "quillcore";
inline constexpr const char* kPrivateBusTmpPrefix = "/tmp/quillcore-";
inline constexpr const char* kPrivateBusSocketName = "bus";
inline constexpr const char* kPrivateBusLockName = "bus.lock";
inline constexpr const char* kPrivateBusPidName = "bus.pid";
// The bus daemon started for it; the environment variable, when set, names
// another program (for tests).
inline constexpr const char* kDBusDaemonPath = "/usr/bin/dbus-daemon";
inline constexpr const char* kDBusDaemonPathVariable = "QUILL_DBUS_DAEMON";

// The host-wide bus: the system bus's standard socket, the environment
// variable that names another address, and the policy file that lets our
// signal through, installed in the bus's system.d directory (docs/storage.md).
inline constexpr const char* kSystemBusSocketPath = "/run/dbus/system_bus_socket";
inline constexpr const char* kSystemBusAddressVariable = "DBUS_SYSTEM_BUS_ADDRESS";
inline constexpr const char* kSystemBusPolicyFileName = "com.tessaly.quillcore.Notifications.conf";

// ------------------------------------------------------------ payload

// The user information travels as a binary property list ("bplist00") of the
// dictionary; no user information travels as zero bytes. The reader also
// takes XML property lists, for hand-made signals.

// Encodes `userInfo`: null gives true and a null result. Returns false with a
// reason when the dictionary holds something that is not a property list
// (URLs included).
QUILL_PLATFORM_EXPORT bool encodeNotificationPayload(PLDictionaryRef userInfo, PLHolder<const PLData>& out,
                                                     std::string* errorDescription);

// Decodes a received payload: empty gives true and a null dictionary; a
// property list whose root is a dictionary gives true and that (immutable)
// dictionary; anything else gives false and a reason. Never throws except
// std::bad_alloc.
QUILL_PLATFORM_EXPORT bool decodeNotificationPayload(const void* bytes, std::size_t size,
                                                     PLHolder<const PLDictionary>& out, std::string* errorDescription);

}  // namespace quill::platform
