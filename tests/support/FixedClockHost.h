// A host whose clock stands still at a chosen moment, for tests of code that
// reads "now" or "today"; everything else goes to the real host.
#pragma once

#include <quillcore/platform/Host.h>

namespace quilltest {

// Not thread-safe: set the moment while no other thread reads the clock.
class CFixedClockHost final : public quill::platform::CHostWrapper {
public:
    explicit CFixedClockHost(PLAbsoluteTime now) noexcept : _now(now) {}

    PLAbsoluteTime currentTime() override { return _now; }
    void setNow(PLAbsoluteTime now) noexcept { _now = now; }

private:
    PLAbsoluteTime _now;
};

}  // namespace quilltest
