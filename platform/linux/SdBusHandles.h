// Owning handles for libsystemd objects. A handle holds one reference and
// gives it back with the object's own release call when it goes out of scope,
// so no path through the code (an early return, an exception) leaks an object
// or releases it twice. Handles are move-only std::unique_ptr types: get()
// lends the object to a library call, release() gives the reference away.
//
// A kind of object gets its handle by naming its release call:
//   using SdEventHandle = SdHandle<sd_event, sd_event_unref>;
//
// Threads: a handle is no more thread-safe than the object it holds; sd-bus
// objects are used by one thread at a time.
#pragma once

#include <memory>

#include <systemd/sd-bus.h>

namespace quill::platform {

// The deleter of a handle: calls `Release` once on a non-null object.
template <class T, T* (*Release)(T*)>
struct SdReleaser {
    void operator()(T* object) const noexcept { static_cast<void>(Release(object)); }
};

template <class T, T* (*Release)(T*)>
using SdHandle = std::unique_ptr<T, SdReleaser<T, Release>>;

// A connection this process made: closed and released together. Call
// sd_bus_flush() first where what is queued must still go out.
using SdBusHandle = SdHandle<sd_bus, sd_bus_close_unref>;
using SdBusMessageHandle = SdHandle<sd_bus_message, sd_bus_message_unref>;
// Releasing a match's slot also takes the match off the bus.
using SdBusSlotHandle = SdHandle<sd_bus_slot, sd_bus_slot_unref>;

// Lets a call that makes an object store it straight into a handle:
//   SdBusHandle bus;
//   int r = sd_bus_new(SdOut(bus));
// The handle takes what the call stored (letting go of what it held before;
// empty when the call stored nothing) only at the end of the full
// expression: use it from the next statement on, never later in the same
// expression.
template <class Handle>
class SdOut {
public:
    explicit SdOut(Handle& handle) noexcept : _handle(handle) {}
    ~SdOut() { _handle.reset(_object); }
    SdOut(const SdOut&) = delete;
    SdOut& operator=(const SdOut&) = delete;

    operator typename Handle::pointer *() noexcept { return &_object; }

private:
    Handle& _handle;
    typename Handle::pointer _object = nullptr;
};

}  // namespace quill::platform
