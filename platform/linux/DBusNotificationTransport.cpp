// The notification transport over D-Bus: one connection to the session bus,
// shared by every thread of the process. Posting threads send directly under
// the connection mutex (sd-bus objects are not thread-safe); a bus thread
// reads incoming signals, hands them to the centre and flushes what the
// socket could not take at once.
//
// Threads whose run loops serve observers also read the connection, from
// their loops, so that a notification for them needs no second thread switch;
// the bus thread gives them a moment's head start and reads what they leave.
//
// Lock order: _guard->mutex, then _mutex, then _deliverMutex, then whatever
// the centre takes. Nothing that logs, decodes or calls the centre runs while
// _mutex is held: readers collect under it, take _deliverMutex before letting
// go of it (so that batches reach the centre in the order they were read),
// and deliver after.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <map>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <poll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include "platform/LoopHandle.h"
#include "platform/linux/PosixError.h"
#include "platform/linux/SdBusHandles.h"
#include "platform/linux/SessionBus.h"
#include <ferrocore/CMutex.h>
#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/Host.h>
#include <quillcore/platform/NotificationCenter.h>

namespace quill::platform {

namespace {

// Messages the connection may hold unsent: the bound on what a stalled bus
// can cost a process. A poster that finds the queue full waits (once per
// episode, briefly) for room, which paces a flood to the bus's speed; when
// none comes, posts are refused until the queue has drained to half.
constexpr std::uint64_t kMaxQueuedWrites = 8192;
constexpr std::chrono::milliseconds kQueueFullWait{100};
// How long a bus may take to accept a new connection (authentication and the
// bus's greeting) before it counts as not answering.
constexpr std::chrono::seconds kHandshakeTimeout{2};
// After a failed attempt to connect, posts fail at once for this long instead
// of trying again; longer when the attempt itself took long (a bus that
// accepts connections but does not answer), so that such a bus holds up a
// poster at most now and then.
constexpr std::chrono::milliseconds kReconnectPause{250};
constexpr std::chrono::seconds kSlowReconnectPause{10};
// While disconnected with observers to serve, the bus thread tries again at
// this interval.
constexpr int kReconnectIntervalMs = 1000;
// Messages handled per turn of the bus thread before it lets posters in.
constexpr int kMessagesPerTurn = 64;
// How long the bus thread leaves arriving messages to the observing threads'
// loops before it reads them itself.
constexpr int kReaderHeadStartMs = 1;
// While a loop has read within this time, the bus thread does not wait for
// arriving messages at all (it would only be woken for nothing); it looks
// again when the time is up.
constexpr std::chrono::milliseconds kLoopsActiveWindow{50};

using Clock = std::chrono::steady_clock;

void logLine(const std::string& text) { host().logToConsole("QuillNotification: " + text); }

std::string errorText(int negativeErrno) { return posixError(-negativeErrno).message(); }

class CDBusNotificationTransport final : public INotificationTransport {
public:
    explicit CDBusNotificationTransport(NotificationBus bus);
    ~CDBusNotificationTransport() override;

    void attach(INotificationSink& sink) override { _sink = &sink; }
    std::error_code send(const PLString& name, PLStringRef sender, PLDictionaryRef userInfo) override;
    bool flush(double timeoutSeconds) override;
    void watchFromCurrentThread() override;
    void addFilter(PLStringRef name, PLStringRef sender) override;
    void removeFilter(PLStringRef name, PLStringRef sender) override;

private:
    // Lets run-loop callbacks find out that the transport has gone.
    struct Guard {
        ferrocore::CMutex mutex;
        CDBusNotificationTransport* transport FERRO_GUARDED_BY(mutex) = nullptr;
    };

    // A thread whose loop reads the connection.
    struct Reader {
        std::shared_ptr<LoopHandle> loop;
        CFileDescriptorSource source;
    };

    struct Filter {
        std::size_t count = 0;
        SdBusSlotHandle slot;  // the bus's match, while connected
    };

    // A signal taken off the connection, waiting to be handled outside the
    // lock.
    struct Incoming {
        std::string name;
        std::string sender;
        bool hasSender = false;
        std::vector<std::uint8_t> payload;
        std::string origin;   // the sending connection's bus name
        std::string problem;  // set: a malformed signal
    };

    std::error_code connectLocked() FERRO_REQUIRES(_mutex);
    SdBusHandle openBus(const std::string& address, int& error) FERRO_REQUIRES(_mutex);
    void installFilterLocked(const std::string& rule, Filter& filter) FERRO_REQUIRES(_mutex);
    // Gives up the connection: the bus thread frees it at its next turn.
    void dropConnectionLocked(const std::string& why) FERRO_REQUIRES(_mutex);
    bool hasFiltersLocked() const FERRO_REQUIRES(_mutex);
    // Queues a console line, written once the lock is released (by the
    // thread that queued it, or else the bus thread).
    void noteLocked(std::string text) FERRO_REQUIRES(_mutex) { _notes.push_back(std::move(text)); }
    std::error_code sendLocked(const PLString& name, PLStringRef sender, const PLData* payload) FERRO_REQUIRES(_mutex);
    // Waits, at most kQueueFullWait, for the send queue to drop below its
    // bound; returns the queue's length then.
    std::uint64_t waitForRoomLocked() FERRO_REQUIRES(_mutex);
    void changeFilter(PLStringRef name, PLStringRef sender, bool add) FERRO_EXCLUDES(_mutex);
    void addFilterLocked(const std::string& rule) FERRO_REQUIRES(_mutex);
    void removeFilterLocked(const std::string& rule) FERRO_REQUIRES(_mutex);
    void startThreadLocked() FERRO_REQUIRES(_mutex);
    void wake() noexcept;
    void run() noexcept;
    // Reads from a reader's loop.
    void serveFromLoop() FERRO_EXCLUDES(_mutex);
    void attachReaderLocked(Reader& reader) FERRO_REQUIRES(_mutex);
    void detachReadersLocked() FERRO_REQUIRES(_mutex);
    // Reads what the connection has, up to `limit` messages; returns whether
    // more may be waiting.
    bool readLocked(int limit) FERRO_REQUIRES(_mutex);
    // Hands the collected notifications and notes on, in order; releases
    // _mutex.
    void deliverAndUnlock() FERRO_RELEASE(_mutex);
    void handle(std::vector<Incoming>& batch);

    // sd-bus calls these inside sd_bus_process(), with _mutex held by the
    // caller of that function (which the analysis cannot follow).
    static int onMessage(sd_bus_message* message, void* self, sd_bus_error* error) FERRO_NO_THREAD_SAFETY_ANALYSIS;
    static int onMatch(sd_bus_message* message, void* self, sd_bus_error* error);
    void takeSignal(sd_bus_message* message) FERRO_REQUIRES(_mutex);
    static int onMatchInstalled(sd_bus_message* message, void* self,
                                sd_bus_error* error) FERRO_NO_THREAD_SAFETY_ANALYSIS;

    const NotificationBus _which;
    const pid_t _pid;
    const CFileDescriptor _wakeFd;
    const std::shared_ptr<Guard> _guard = std::make_shared<Guard>();
    // When a reader's loop last read the connection.
    std::atomic<Clock::rep> _lastLoopRead{0};
    ferrocore::CMutex _deliverMutex;
    INotificationSink* _sink = nullptr;
    std::thread _thread;

    ferrocore::CMutex _mutex;
    SdBusHandle _bus FERRO_GUARDED_BY(_mutex);
    std::string _address FERRO_GUARDED_BY(_mutex);
    // Connections given up, closed by the bus thread at its next turn.
    std::vector<SdBusHandle> _retired FERRO_GUARDED_BY(_mutex);
    std::map<std::string, Filter> _filters FERRO_GUARDED_BY(_mutex);
    std::vector<Incoming> _incoming FERRO_GUARDED_BY(_mutex);
    std::vector<std::string> _notes FERRO_GUARDED_BY(_mutex);
    std::vector<Reader> _readers FERRO_GUARDED_BY(_mutex);
    bool _threadStarted FERRO_GUARDED_BY(_mutex) = false;
    bool _stopping FERRO_GUARDED_BY(_mutex) = false;
    // A connection failure has been reported and no connection made since.
    bool _outageReported FERRO_GUARDED_BY(_mutex) = false;
    bool _queueFullReported FERRO_GUARDED_BY(_mutex) = false;
    std::error_code _lastConnectError FERRO_GUARDED_BY(_mutex);
    Clock::time_point _retryAfter FERRO_GUARDED_BY(_mutex);
};

CDBusNotificationTransport::CDBusNotificationTransport(NotificationBus bus)
    : _which(bus), _pid(::getpid()), _wakeFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    ferrocore::CAutoMutex lock(_guard->mutex);
    _guard->transport = this;
}

CDBusNotificationTransport::~CDBusNotificationTransport() {
    {
        // Waits for a loop that is reading right now.
        ferrocore::CAutoMutex guard(_guard->mutex);
        _guard->transport = nullptr;
    }
    {
        ferrocore::CAutoMutex lock(_mutex);
        _stopping = true;
        detachReadersLocked();
        _readers.clear();
    }
    wake();
    if (_thread.joinable()) _thread.join();
    ferrocore::CAutoMutex lock(_mutex);
    for (auto& entry : _filters) entry.second.slot.reset();
    if (_bus) _retired.push_back(std::move(_bus));
    for (SdBusHandle& bus : _retired) {
        sd_bus_flush(bus.get());
        bus.reset();
    }
    _retired.clear();
}

void CDBusNotificationTransport::wake() noexcept {
    std::uint64_t one = 1;
    ssize_t written = ::write(_wakeFd.get(), &one, sizeof one);
    static_cast<void>(written);  // a full counter already means "wake up"
}

SdBusHandle CDBusNotificationTransport::openBus(const std::string& address, int& error) {
    SdBusHandle bus;
    error = sd_bus_new(SdOut(bus));
    if (error < 0) return nullptr;
    if ((error = sd_bus_set_address(bus.get(), address.c_str())) < 0 ||
        (error = sd_bus_set_bus_client(bus.get(), 1)) < 0 ||
        (error = sd_bus_add_filter(bus.get(), nullptr, &onMessage, this)) < 0 || (error = sd_bus_start(bus.get())) < 0)
        return nullptr;
    // Completing the handshake here tells a bus that answers from a socket
    // that merely accepts, and makes sure that what is posted next is on its
    // way before the poster returns (not stuck behind the handshake in a
    // process that is about to end).
    const auto deadline = Clock::now() + kHandshakeTimeout;
    while ((error = sd_bus_is_ready(bus.get())) == 0) {
        error = sd_bus_process(bus.get(), nullptr);
        if (error < 0) break;
        if (error > 0) continue;
        auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            error = -ETIMEDOUT;
            break;
        }
        error = sd_bus_wait(bus.get(), static_cast<std::uint64_t>(left));
        if (error < 0 && error != -EINTR) break;
    }
    if (error < 0) return nullptr;
    return bus;
}

std::error_code CDBusNotificationTransport::connectLocked() {
    if (_bus) return {};
    if (_stopping) return std::make_error_code(std::errc::not_connected);
    if (Clock::now() < _retryAfter) return _lastConnectError;

    const auto attemptStart = Clock::now();
    std::string problems;
    int error = 0;
    // The host-wide bus is the system's; nobody may start one in its place.
    const std::vector<sessionbus::Candidate> candidates = _which == NotificationBus::HostWide
                                                              ? std::vector{sessionbus::systemBusCandidate()}
                                                              : sessionbus::standardCandidates();
    for (const sessionbus::Candidate& candidate : candidates) {
        if ((_bus = openBus(candidate.address, error))) {
            _address = candidate.address;
            break;
        }
        problems += candidate.origin + " (" + candidate.address + "): " + errorText(error) + "; ";
    }
    std::error_code failure;
    if (!_bus && _which == NotificationBus::HostWide && error < 0) failure = posixError(-error);
    if (!_bus && _which == NotificationBus::User) {
        std::string address, problem;
        bool started = false;
        failure = sessionbus::ensurePrivateBus(address, started, problem);
        if (failure) {
            problems += "private bus: " + problem;
        } else if ((_bus = openBus(address, error))) {
            _address = address;
        } else {
            failure = posixError(-error);
            problems += "private bus (" + address + "): " + errorText(error);
        }
    }
    if (!_bus) {
        _lastConnectError = failure ? failure : std::make_error_code(std::errc::not_connected);
        const auto now = Clock::now();
        _retryAfter = now + (now - attemptStart > std::chrono::milliseconds(100) ? Clock::duration(kSlowReconnectPause)
                                                                                 : Clock::duration(kReconnectPause));
        if (!_outageReported) {
            _outageReported = true;
            noteLocked("can't reach a notification bus: " + problems);
        }
        return _lastConnectError;
    }

    if (_outageReported) {
        _outageReported = false;
        noteLocked("connected to the notification bus at " + _address);
    }
    for (auto& entry : _filters) installFilterLocked(entry.first, entry.second);
    for (Reader& reader : _readers) attachReaderLocked(reader);
    startThreadLocked();
    wake();
    return {};
}

void CDBusNotificationTransport::attachReaderLocked(Reader& reader) {
    if (!_bus) return;
    const int fd = sd_bus_get_fd(_bus.get());
    ferrocore::CAutoMutex lock(reader.loop->mutex);
    if (!reader.loop->loop || fd < 0) return;
    std::weak_ptr<Guard> guard = _guard;
    reader.source = reader.loop->loop->addFileDescriptorSource(fd, CRunLoop::kReadable, [guard](int, unsigned) {
        std::shared_ptr<Guard> alive = guard.lock();
        if (!alive) return;
        ferrocore::CAutoMutex lock(alive->mutex);
        if (alive->transport) alive->transport->serveFromLoop();
    });
}

void CDBusNotificationTransport::detachReadersLocked() {
    // Before the connection's descriptor can be closed.
    for (Reader& reader : _readers) reader.source.remove();
}

void CDBusNotificationTransport::watchFromCurrentThread() {
    if (::getpid() != _pid) return;
    std::shared_ptr<LoopHandle> loop = currentLoopHandle();
    ferrocore::CAutoMutex lock(_mutex);
    std::erase_if(_readers, [](Reader& reader) {
        ferrocore::CAutoMutex loopLock(reader.loop->mutex);
        return reader.loop->loop == nullptr;
    });
    for (const Reader& reader : _readers) {
        if (reader.loop == loop) return;
    }
    _readers.push_back({loop, {}});
    attachReaderLocked(_readers.back());
}

bool CDBusNotificationTransport::readLocked(int limit) {
    if (!_bus) return false;
    int r = 0;
    for (int i = 0; i < limit; ++i) {
        r = sd_bus_process(_bus.get(), nullptr);
        if (r <= 0) break;
    }
    if (r < 0 || sd_bus_is_open(_bus.get()) <= 0) {
        dropConnectionLocked(r < 0 ? errorText(r) : "the bus closed it");
        return false;
    }
    return r > 0;
}

void CDBusNotificationTransport::deliverAndUnlock() {
    std::vector<Incoming> batch;
    std::vector<std::string> notes;
    batch.swap(_incoming);
    notes.swap(_notes);
    _deliverMutex.lock();
    _mutex.unlock();
    try {
        for (const std::string& note : notes) logLine(note);
        handle(batch);
    } catch (const std::bad_alloc&) {
        logLine("out of memory; incoming notifications were dropped");
    }
    _deliverMutex.unlock();
}

void CDBusNotificationTransport::serveFromLoop() {
    _lastLoopRead.store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed);
    _mutex.lock();
    // The loop comes back while the socket stays readable; the bus thread
    // reads what sd-bus has already taken off the socket.
    if (readLocked(kMessagesPerTurn * 4)) wake();
    deliverAndUnlock();
}

void CDBusNotificationTransport::startThreadLocked() {
    if (_threadStarted) return;
    _thread = std::thread([this] { run(); });
    _threadStarted = true;
}

void CDBusNotificationTransport::installFilterLocked(const std::string& rule, Filter& filter) {
    if (filter.slot || !_bus) return;
    int r = sd_bus_add_match_async(_bus.get(), SdOut(filter.slot), rule.c_str(), &onMatch, &onMatchInstalled, this);
    if (r < 0) {
        noteLocked("can't ask the bus for " + rule + ": " + errorText(r));
    }
}

void CDBusNotificationTransport::dropConnectionLocked(const std::string& why) {
    if (!_bus) return;
    detachReadersLocked();
    for (auto& entry : _filters) entry.second.slot.reset();
    _retired.push_back(std::move(_bus));
    _outageReported = true;
    noteLocked("lost the connection to the notification bus at " + _address + " (" + why +
               "); it is made again at the next post or observation");
    wake();
}

bool CDBusNotificationTransport::hasFiltersLocked() const { return !_filters.empty(); }

std::error_code CDBusNotificationTransport::send(const PLString& name, PLStringRef sender, PLDictionaryRef userInfo) {
    if (::getpid() != _pid) return std::make_error_code(std::errc::operation_not_permitted);
    if (name.utf8().find('\0') != std::string_view::npos ||
        (sender && sender->utf8().find('\0') != std::string_view::npos)) {
        logLine("can't post a notification whose name or sender holds a NUL character");
        return std::make_error_code(std::errc::invalid_argument);
    }
    PLHolder<const PLData> payload;
    std::string reason;
    if (!encodeNotificationPayload(userInfo, payload, &reason)) {
        logLine("can't post " + name.str() + ": " + reason);
        return std::make_error_code(std::errc::invalid_argument);
    }

    std::error_code result;
    std::vector<std::string> notes;
    {
        ferrocore::CAutoMutex lock(_mutex);
        result = sendLocked(name, sender, payload.get());
        notes.swap(_notes);
    }
    for (const std::string& note : notes) logLine(note);
    return result;
}

std::error_code CDBusNotificationTransport::sendLocked(const PLString& name, PLStringRef sender,
                                                       const PLData* payload) {
    if (std::error_code ec = connectLocked()) return ec;
    std::uint64_t queued = 0;
    if (sd_bus_get_n_queued_write(_bus.get(), &queued) >= 0) {
        if (queued >= kMaxQueuedWrites && !_queueFullReported) queued = waitForRoomLocked();
        if (queued >= kMaxQueuedWrites) {
            if (!_queueFullReported) {
                _queueFullReported = true;
                noteLocked("the bus takes no more; notifications are dropped until it does");
            }
            return std::make_error_code(std::errc::no_buffer_space);
        }
        if (queued < kMaxQueuedWrites / 2) _queueFullReported = false;
    }

    SdBusMessageHandle message;
    int r = sd_bus_message_new_signal(_bus.get(), SdOut(message), kNotificationBusPath, kNotificationBusInterface,
                                      kNotificationBusMember);
    if (r >= 0) {
        r = sd_bus_message_append(message.get(), "ssb", name.c_str(), sender ? sender->c_str() : "", sender ? 1 : 0);
        if (r == -EINVAL) {
            noteLocked("can't post a notification whose name or sender is not UTF-8 text");
            return std::make_error_code(std::errc::invalid_argument);
        }
    }
    if (r >= 0)
        r = sd_bus_message_append_array(message.get(), 'y', payload ? payload->bytes() : nullptr,
                                        payload ? payload->size() : 0);
    if (r >= 0) r = sd_bus_send(_bus.get(), message.get(), nullptr);
    if (r < 0) {
        dropConnectionLocked(errorText(r));
        return posixError(-r);
    }
    if (sd_bus_get_n_queued_write(_bus.get(), &queued) >= 0 && queued > 0) wake();
    return {};
}

std::uint64_t CDBusNotificationTransport::waitForRoomLocked() {
    const auto deadline = Clock::now() + kQueueFullWait;
    std::uint64_t queued = 0;
    while (_bus && sd_bus_get_n_queued_write(_bus.get(), &queued) >= 0 && queued >= kMaxQueuedWrites) {
        int r = sd_bus_process(_bus.get(), nullptr);  // writes what the socket takes
        if (r < 0) {
            dropConnectionLocked(errorText(r));
            return kMaxQueuedWrites;
        }
        if (r > 0) continue;
        auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
        if (left <= 0) break;
        sd_bus_wait(_bus.get(), static_cast<std::uint64_t>(left));
    }
    // Whatever arrived meanwhile is for the bus thread to hand on.
    if (!_incoming.empty()) wake();
    return _bus ? queued : kMaxQueuedWrites;
}

bool CDBusNotificationTransport::flush(double timeoutSeconds) {
    if (::getpid() != _pid) return false;
    const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                             std::chrono::duration<double>(std::max(timeoutSeconds, 0.0)));
    std::vector<std::string> notes;
    bool flushed = false;
    {
        ferrocore::CAutoMutex lock(_mutex);
        for (;;) {
            std::uint64_t queued = 0;
            if (!_bus || sd_bus_get_n_queued_write(_bus.get(), &queued) < 0) break;
            if (queued == 0) {
                flushed = true;
                break;
            }
            int r = sd_bus_process(_bus.get(), nullptr);  // writes what the socket takes
            if (r < 0) {
                dropConnectionLocked(errorText(r));
                break;
            }
            if (r > 0) continue;
            auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
            if (left <= 0) break;
            sd_bus_wait(_bus.get(), static_cast<std::uint64_t>(left));
        }
        notes.swap(_notes);
    }
    for (const std::string& note : notes) logLine(note);
    return flushed;
}

void CDBusNotificationTransport::addFilter(PLStringRef name, PLStringRef sender) { changeFilter(name, sender, true); }

void CDBusNotificationTransport::removeFilter(PLStringRef name, PLStringRef sender) {
    changeFilter(name, sender, false);
}

void CDBusNotificationTransport::changeFilter(PLStringRef name, PLStringRef sender, bool add) {
    if (::getpid() != _pid) return;
    std::string nameText = name ? name->str() : std::string();
    std::string senderText = sender ? sender->str() : std::string();
    std::string rule = sessionbus::matchRule(name ? &nameText : nullptr, sender ? &senderText : nullptr);
    std::vector<std::string> notes;
    {
        ferrocore::CAutoMutex lock(_mutex);
        if (add) {
            addFilterLocked(rule);
        } else {
            removeFilterLocked(rule);
        }
        notes.swap(_notes);
    }
    for (const std::string& note : notes) logLine(note);
}

void CDBusNotificationTransport::addFilterLocked(const std::string& rule) {
    Filter& filter = _filters[rule];
    if (filter.count++ > 0) return;
    if (_bus) {
        installFilterLocked(rule, filter);
    } else {
        // Connecting installs every filter, this one included; when it fails,
        // the bus thread tries again for the observer.
        static_cast<void>(connectLocked());
        startThreadLocked();
        wake();
    }
}

void CDBusNotificationTransport::removeFilterLocked(const std::string& rule) {
    auto it = _filters.find(rule);
    if (it == _filters.end() || --it->second.count > 0) return;
    _filters.erase(it);  // releasing the slot takes the match off the bus
}

// Runs inside sd_bus_process(), that is on the bus thread with _mutex held.
int CDBusNotificationTransport::onMessage(sd_bus_message* message, void* self, sd_bus_error*) {
    if (!sd_bus_message_is_signal(message, kNotificationBusInterface, kNotificationBusMember)) return 0;
    auto* transport = static_cast<CDBusNotificationTransport*>(self);
    try {
        transport->takeSignal(message);
    } catch (const std::bad_alloc&) {
        // Dropped; nothing may unwind through sd-bus.
    }
    return 1;
}

void CDBusNotificationTransport::takeSignal(sd_bus_message* message) {
    Incoming in;
    const char* origin = sd_bus_message_get_sender(message);
    in.origin = origin ? origin : "an unknown sender";
    if (!sd_bus_message_has_signature(message, kNotificationBusSignature)) {
        const char* signature = sd_bus_message_get_signature(message, 1);
        in.problem = std::string("its arguments are (") + (signature ? signature : "") + "), not (" +
                     kNotificationBusSignature + ")";
    } else {
        const char* name = nullptr;
        const char* sender = nullptr;
        int hasSender = 0;
        const void* bytes = nullptr;
        std::size_t size = 0;
        int r = sd_bus_message_read(message, "ssb", &name, &sender, &hasSender);
        if (r >= 0) r = sd_bus_message_read_array(message, 'y', &bytes, &size);
        if (r < 0) {
            in.problem = "can't read its arguments: " + errorText(r);
        } else {
            in.name = name;
            in.hasSender = hasSender != 0;
            if (in.hasSender) in.sender = sender;
            const auto* first = static_cast<const std::uint8_t*>(bytes);
            in.payload.assign(first, first + size);
        }
    }
    _incoming.push_back(std::move(in));
}

int CDBusNotificationTransport::onMatch(sd_bus_message*, void*, sd_bus_error*) {
    return 0;  // onMessage has taken the signal already
}

int CDBusNotificationTransport::onMatchInstalled(sd_bus_message* message, void* self, sd_bus_error*) {
    const sd_bus_error* error = sd_bus_message_get_error(message);
    if (!error) return 0;
    auto* transport = static_cast<CDBusNotificationTransport*>(self);
    try {
        transport->noteLocked(std::string("the bus refused a notification filter: ") +
                              (error->message ? error->message : error->name));
    } catch (const std::bad_alloc&) {
        // Not reported; nothing may unwind through sd-bus.
    }
    return 0;
}

void CDBusNotificationTransport::handle(std::vector<Incoming>& batch) {
    std::vector<CNotification> notifications;
    notifications.reserve(batch.size());
    for (Incoming& in : batch) {
        CNotification notification;
        std::string reason;
        if (in.problem.empty() &&
            !decodeNotificationPayload(in.payload.data(), in.payload.size(), notification.userInfo, &reason)) {
            in.problem = reason;
        }
        if (!in.problem.empty()) {
            logLine("dropped a malformed notification signal from " + in.origin + ": " + in.problem);
            continue;
        }
        notification.name = PLString::create(in.name);
        if (in.hasSender) notification.sender = PLString::create(in.sender);
        notifications.push_back(std::move(notification));
    }
    batch.clear();
    if (_sink && !notifications.empty()) _sink->deliver(std::move(notifications));
}

void CDBusNotificationTransport::run() noexcept {
    bool headStart = false;  // readers' loops get the first go at arriving messages
    for (;;) {
        pollfd fds[2] = {{_wakeFd.get(), POLLIN, 0}, {-1, 0, 0}};
        int timeoutMs = -1;
        bool more = false;
        _mutex.lock();
        if (_stopping) {
            _mutex.unlock();
            break;
        }
        try {
            _retired.clear();
            if (!_bus && hasFiltersLocked() && Clock::now() >= _retryAfter) static_cast<void>(connectLocked());
            more = readLocked(kMessagesPerTurn);
        } catch (const std::bad_alloc&) {
            _incoming.clear();  // what was read is lost; the connection carries on
        }
        if (_bus && !more) {
            fds[1].fd = sd_bus_get_fd(_bus.get());
            int events = sd_bus_get_events(_bus.get());
            fds[1].events = static_cast<short>(events > 0 ? events : 0);
            std::uint64_t until = 0;
            if (sd_bus_get_timeout(_bus.get(), &until) > 0 && until != UINT64_MAX) {
                timespec now;
                clock_gettime(CLOCK_MONOTONIC, &now);
                std::uint64_t nowUs =
                    static_cast<std::uint64_t>(now.tv_sec) * 1000000u + static_cast<std::uint64_t>(now.tv_nsec) / 1000u;
                timeoutMs = until <= nowUs ? 0 : static_cast<int>((until - nowUs + 999) / 1000);
            }
        } else if (!_bus && hasFiltersLocked()) {
            timeoutMs = kReconnectIntervalMs;
        }
        headStart = !_readers.empty();
        if (headStart && fds[1].fd >= 0) {
            const auto sinceLoopRead =
                Clock::now() - Clock::time_point(Clock::duration(_lastLoopRead.load(std::memory_order_relaxed)));
            if (sinceLoopRead < kLoopsActiveWindow) {
                fds[1].events = static_cast<short>(fds[1].events & ~POLLIN);
                int windowMs = static_cast<int>(
                    std::chrono::duration_cast<std::chrono::milliseconds>(kLoopsActiveWindow - sinceLoopRead).count() +
                    1);
                timeoutMs = timeoutMs < 0 ? windowMs : std::min(timeoutMs, windowMs);
            }
        }
        deliverAndUnlock();
        if (more) continue;
        int rc = ::poll(fds, fds[1].fd >= 0 ? 2 : 1, timeoutMs);
        if (rc > 0 && (fds[0].revents & POLLIN)) {
            std::uint64_t count;
            ssize_t got = ::read(_wakeFd.get(), &count, sizeof count);
            static_cast<void>(got);
        } else if (rc > 0 && headStart && (fds[1].revents & POLLIN)) {
            pollfd wakeOnly{_wakeFd.get(), POLLIN, 0};
            ::poll(&wakeOnly, 1, kReaderHeadStartMs);
        }
    }
}

}  // namespace

std::unique_ptr<INotificationTransport> makeDBusNotificationTransport(NotificationBus bus) {
    return std::make_unique<CDBusNotificationTransport>(bus);
}

}  // namespace quill::platform
