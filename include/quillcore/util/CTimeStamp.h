// One moment held both as seconds and as fixed-width local time text, the
// form every log record and status notification carries.
#pragma once

#include <cstddef>
#include <iosfwd>

#include <quillcore/export.h>

namespace quill {

// A plain value: copy it freely; it holds no resources. The text is made once,
// at construction, in the system time zone in force then:
// "MM/DD/YYYY hh:mm:ss.sss" (month before day on purpose; 23 characters in
// the usual case, more for years beyond 9999, which are never cut).
//
// Threads: a constructed stamp is immutable and may be read from any thread.
//
// Logger streams get their own output operator from the logging component;
// like the one below it writes the text followed by ": ".
class QUILL_EXPORT CTimeStamp final {
public:
    // Room for the longest text the host calendar can produce (years of up to
    // nine digits and a sign) and the NUL.
    static constexpr std::size_t kTextCapacity = 48;

    // `seconds` since 2001-01-01 00:00:00 UTC; a negative value means now (the
    // host clock). Throws only what a substitute host's clock or calendar
    // throws; the real host's do not.
    explicit CTimeStamp(double seconds);

    double seconds() const noexcept { return _seconds; }
    // NUL-terminated; lives as long as the stamp.
    const char* text() const noexcept { return _text; }

private:
    double _seconds;
    char _text[kTextCapacity];
};

// Writes the text and then ": ".
QUILL_EXPORT std::ostream& operator<<(std::ostream& out, const CTimeStamp& stamp);

}  // namespace quill
