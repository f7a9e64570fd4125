#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>
#include <utility>

#include "platform/LoopHandle.h"
#include <ferrocore/CMutex.h>
#include <quillcore/platform/Host.h>
#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/platform/PLPropertyList.h>
#include <quillcore/platform/RunLoop.h>

namespace quill::platform {

INotificationTransport::~INotificationTransport() = default;

namespace {

class ThreadLoopKeeper {
public:
    explicit ThreadLoopKeeper(CRunLoop& loop) : handle(std::make_shared<LoopHandle>(loop)) {}
    ~ThreadLoopKeeper() {
        ferrocore::CAutoMutex lock(handle->mutex);
        handle->loop = nullptr;
    }
    ThreadLoopKeeper(const ThreadLoopKeeper&) = delete;
    ThreadLoopKeeper& operator=(const ThreadLoopKeeper&) = delete;

    const std::shared_ptr<LoopHandle> handle;
};

}  // namespace

std::shared_ptr<LoopHandle> currentLoopHandle() {
    // The loop is made first, so that the keeper (made after it) is destroyed
    // before it when the thread ends.
    CRunLoop& loop = CRunLoop::current();
    thread_local ThreadLoopKeeper keeper(loop);
    return keeper.handle;
}

namespace {

bool sameText(PLStringRef a, PLStringRef b) noexcept {
    if (!a || !b) return a == b;
    return a->utf8() == b->utf8();
}

PLHolder<const PLString> copyText(PLStringRef text) {
    if (!text) return nullptr;
    if (!text->isMutable()) return PLHolder<const PLString>::retain(text);
    return PLString::create(text->utf8());
}

}  // namespace

struct CNotificationCenter::State {
    struct Registration {
        const void* observer = nullptr;
        PLHolder<const PLString> name;
        PLHolder<const PLString> sender;
        PLNotificationCallback callback = nullptr;
        NotificationHandler handler;
        std::shared_ptr<LoopHandle> loop;
        // Cleared on removal; every queued delivery checks it on the loop's
        // thread just before calling.
        std::atomic<bool> active{true};

        bool matches(const CNotification& n) const noexcept {
            if (name && name->utf8() != n.name->utf8()) return false;
            if (sender && (!n.sender || sender->utf8() != n.sender->utf8())) return false;
            return true;
        }
        bool loopAlive() const {
            ferrocore::CAutoMutex lock(loop->mutex);
            return loop->loop != nullptr;
        }
    };
    using RegistrationRef = std::shared_ptr<Registration>;

    // Serialises registration changes together with the transport's filter
    // calls, so filters are added and removed in the registry's order. Taken
    // before registryMutex and before any transport lock; deliveries never
    // take it.
    ferrocore::CMutex changeMutex;
    mutable ferrocore::CMutex registryMutex;
    std::vector<RegistrationRef> registrations FERRO_GUARDED_BY(registryMutex);

    static RegistrationRef makeRegistration(const void* observer, PLStringRef name, PLStringRef sender) {
        auto registration = std::make_shared<Registration>();
        registration->observer = observer;
        registration->name = copyText(name);
        registration->sender = copyText(sender);
        registration->loop = currentLoopHandle();
        return registration;
    }

    // Adds `added`, replacing a registration of the same observer, name and
    // sender.
    void add(INotificationTransport& transport, RegistrationRef added) FERRO_EXCLUDES(changeMutex, registryMutex) {
        ferrocore::CAutoMutex change(changeMutex);
        std::vector<RegistrationRef> removed;
        {
            ferrocore::CAutoMutex lock(registryMutex);
            removed = takeOut([&](const Registration& r) {
                return r.observer == added->observer && sameText(r.name.get(), added->name.get()) &&
                       sameText(r.sender.get(), added->sender.get());
            });
            registrations.push_back(added);
        }
        transport.addFilter(added->name.get(), added->sender.get());
        transport.watchFromCurrentThread();
        for (const auto& r : removed) transport.removeFilter(r->name.get(), r->sender.get());
    }

    // Takes out the registrations that `remove` selects, and those whose
    // thread has ended.
    template <class Pred>
    std::vector<RegistrationRef> takeOut(Pred remove) FERRO_REQUIRES(registryMutex) {
        std::vector<RegistrationRef> removed;
        auto keep = std::stable_partition(registrations.begin(), registrations.end(),
                                          [&](const RegistrationRef& r) { return !remove(*r) && r->loopAlive(); });
        for (auto it = keep; it != registrations.end(); ++it) {
            (*it)->active.store(false, std::memory_order_release);
            removed.push_back(std::move(*it));
        }
        registrations.erase(keep, registrations.end());
        return removed;
    }
};

CNotificationCenter::CNotificationCenter(std::unique_ptr<INotificationTransport> transport)
    : _state(std::make_unique<State>()), _transport(std::move(transport)) {
    _transport->attach(*this);
}

CNotificationCenter::~CNotificationCenter() {
    _transport.reset();
    ferrocore::CAutoMutex lock(_state->registryMutex);
    for (const auto& r : _state->registrations) r->active.store(false, std::memory_order_release);
    _state->registrations.clear();
}

std::error_code CNotificationCenter::post(PLStringRef name, PLStringRef sender, PLDictionaryRef userInfo) {
    if (!name) return std::make_error_code(std::errc::invalid_argument);
    return _transport->send(*name, sender, userInfo);
}

void CNotificationCenter::addObserver(const void* observer, PLNotificationCallback callback, PLStringRef name,
                                      PLStringRef sender) {
    if (!callback) return;
    auto registration = State::makeRegistration(observer, name, sender);
    registration->callback = callback;
    _state->add(*_transport, std::move(registration));
}

void CNotificationCenter::addObserver(const void* observer, NotificationHandler handler, PLStringRef name,
                                      PLStringRef sender) {
    if (!handler) return;
    auto registration = State::makeRegistration(observer, name, sender);
    registration->handler = std::move(handler);
    _state->add(*_transport, std::move(registration));
}

void CNotificationCenter::removeObserver(const void* observer, PLStringRef name, PLStringRef sender) {
    ferrocore::CAutoMutex change(_state->changeMutex);
    std::vector<State::RegistrationRef> removed;
    {
        ferrocore::CAutoMutex lock(_state->registryMutex);
        removed = _state->takeOut([&](const State::Registration& r) {
            return r.observer == observer && (!name || sameText(r.name.get(), name)) &&
                   (!sender || sameText(r.sender.get(), sender));
        });
    }
    for (const auto& r : removed) _transport->removeFilter(r->name.get(), r->sender.get());
}

std::size_t CNotificationCenter::registrationCount() const {
    ferrocore::CAutoMutex lock(_state->registryMutex);
    return _state->registrations.size();
}

void CNotificationCenter::deliver(std::vector<CNotification>&& notifications) noexcept {
    struct Delivery {
        State::RegistrationRef registration;
        std::shared_ptr<const CNotification> notification;
    };
    // One task per run loop for the whole batch, in arrival order: fewer
    // wake-ups of the observing threads when notifications come in bursts.
    struct LoopDeliveries {
        std::shared_ptr<LoopHandle> loop;
        std::vector<Delivery> deliveries;
    };
    try {
        std::vector<LoopDeliveries> byLoop;
        {
            ferrocore::CAutoMutex lock(_state->registryMutex);
            for (CNotification& notification : notifications) {
                if (!notification.name) continue;
                auto shared = std::make_shared<const CNotification>(std::move(notification));
                for (const auto& registration : _state->registrations) {
                    if (!registration->matches(*shared)) continue;
                    auto it = std::find_if(byLoop.begin(), byLoop.end(),
                                           [&](const LoopDeliveries& l) { return l.loop == registration->loop; });
                    if (it == byLoop.end()) it = byLoop.insert(byLoop.end(), {registration->loop, {}});
                    it->deliveries.push_back({registration, shared});
                }
            }
        }
        for (LoopDeliveries& target : byLoop) {
            ferrocore::CAutoMutex loopLock(target.loop->mutex);
            if (!target.loop->loop) continue;
            target.loop->loop->post([this, deliveries = std::move(target.deliveries)] {
                for (const Delivery& d : deliveries) {
                    const State::Registration& r = *d.registration;
                    if (!r.active.load(std::memory_order_acquire)) continue;
                    if (r.callback) {
                        r.callback(this, const_cast<void*>(r.observer), d.notification->name.get(),
                                   d.notification->sender.get(), d.notification->userInfo.get());
                    } else {
                        r.handler(*d.notification);
                    }
                }
            });
        }
    } catch (const std::bad_alloc&) {
        host().logToConsole("QuillNotification: out of memory; notifications were not delivered");
    }
}

// ------------------------------------------------------------ process centre

namespace {

std::atomic<CNotificationCenter*> gSubstitute{nullptr};
std::atomic<CNotificationCenter*> gDefaultCenter{nullptr};
std::atomic<CNotificationCenter*> gHostSubstitute{nullptr};
std::atomic<CNotificationCenter*> gDefaultHostCenter{nullptr};

// What a normally ending process waits for its last notifications.
constexpr double kExitFlushSeconds = 1.0;

}  // namespace

CNotificationCenter& notificationCenter() {
    if (CNotificationCenter* substitute = gSubstitute.load(std::memory_order_acquire)) return *substitute;
    // Never destroyed: its bus thread may serve until the very end of the
    // process, and static destruction must not pull it away underneath.
    static CNotificationCenter* const center = [] {
        auto* made = new CNotificationCenter(makeDBusNotificationTransport());
        gDefaultCenter.store(made, std::memory_order_release);
        std::atexit([] { gDefaultCenter.load(std::memory_order_acquire)->flush(kExitFlushSeconds); });
        return made;
    }();
    return *center;
}

CNotificationCenter* setNotificationCenter(CNotificationCenter* substitute) noexcept {
    return gSubstitute.exchange(substitute, std::memory_order_acq_rel);
}

CNotificationCenter& hostNotificationCenter() {
    if (CNotificationCenter* substitute = gHostSubstitute.load(std::memory_order_acquire)) return *substitute;
    static CNotificationCenter* const center = [] {
        auto* made = new CNotificationCenter(makeDBusNotificationTransport(NotificationBus::HostWide));
        gDefaultHostCenter.store(made, std::memory_order_release);
        std::atexit([] { gDefaultHostCenter.load(std::memory_order_acquire)->flush(kExitFlushSeconds); });
        return made;
    }();
    return *center;
}

CNotificationCenter* setHostNotificationCenter(CNotificationCenter* substitute) noexcept {
    return gHostSubstitute.exchange(substitute, std::memory_order_acq_rel);
}

// ------------------------------------------------------------ loopback

namespace {

class CLoopbackNotificationTransport final : public INotificationTransport {
public:
    void attach(INotificationSink& sink) override { _sink = &sink; }

    std::error_code send(const PLString& name, PLStringRef sender, PLDictionaryRef userInfo) override {
        // What crosses a process boundary is a copy; so is what comes back here.
        PLHolder<const PLData> payload;
        std::string reason;
        if (!encodeNotificationPayload(userInfo, payload, &reason)) {
            host().logToConsole("QuillNotification: can't post " + name.str() + ": " + reason);
            return std::make_error_code(std::errc::invalid_argument);
        }
        CNotification notification;
        notification.name = PLString::create(name.utf8());
        if (sender) notification.sender = PLString::create(sender->utf8());
        if (payload && !decodeNotificationPayload(payload->bytes(), payload->size(), notification.userInfo, &reason))
            return std::make_error_code(std::errc::invalid_argument);
        std::vector<CNotification> one;
        one.push_back(std::move(notification));
        _sink->deliver(std::move(one));
        return {};
    }

    bool flush(double) override { return true; }
    void watchFromCurrentThread() override {}
    void addFilter(PLStringRef, PLStringRef) override {}
    void removeFilter(PLStringRef, PLStringRef) override {}

private:
    INotificationSink* _sink = nullptr;
};

}  // namespace

std::unique_ptr<INotificationTransport> makeLoopbackNotificationTransport() {
    return std::make_unique<CLoopbackNotificationTransport>();
}

// ------------------------------------------------------------ payload

bool encodeNotificationPayload(PLDictionaryRef userInfo, PLHolder<const PLData>& out, std::string* errorDescription) {
    out.reset();
    if (!userInfo) return true;
    PLHolder<const PLString> reason;
    out = PLPropertyListCreateBinaryData(userInfo, &reason);
    if (out) return true;
    if (errorDescription) *errorDescription = reason ? reason->str() : "the user information is not a property list";
    return false;
}

bool decodeNotificationPayload(const void* bytes, std::size_t size, PLHolder<const PLDictionary>& out,
                               std::string* errorDescription) {
    out.reset();
    if (size == 0) return true;
    std::string reason;
    PLHolder<const PLObject> plist = PLPropertyListCreateFromBytes(bytes, size, PLMutability::Immutable, &reason);
    if (!plist) {
        if (errorDescription) *errorDescription = "unreadable user information (" + reason + ")";
        return false;
    }
    if (!PLDynamicCast<PLDictionary>(plist.get())) {
        if (errorDescription) {
            *errorDescription =
                std::string("the user information is a ") + PLTypeName(plist->typeID()) + ", not a dictionary";
        }
        return false;
    }
    out = PLHolder<const PLDictionary>::adopt(static_cast<const PLDictionary*>(plist.detach()));
    return true;
}

}  // namespace quill::platform
