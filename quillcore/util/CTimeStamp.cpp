#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <string>

#include "quillcore/util/DecimalText.h"
#include <quillcore/platform/Host.h>
#include <quillcore/util/CTimeStamp.h>

namespace quill {

namespace {

// The calendar fields of the current second, per thread, for the real host:
// the date text up to the minute ("MM/DD/YYYY hh:mm:") and the seconds of
// the minute. Substitute hosts are asked every time (tests change their
// clocks and calendars at will); so is the real host when TZ has been set
// anew since, so that a change of time zone shows at once.
struct CalendarCache {
    double second = std::nan("");
    const char* timeZone = nullptr;
    double secondOfMinute = 0;
    char prefix[48] = {};
    std::size_t prefixLength = 0;
};
thread_local CalendarCache tCalendar __attribute__((tls_model("initial-exec")));

bool fillCalendar(platform::IHost& host, double second, CalendarCache& cache) {
    const platform::CCalendarDate date = host.calendarDate(second);
    // Four-digit years only: others take the general path.
    if (date.year < 0 || date.year > 9999) return false;
    const int length = std::snprintf(cache.prefix, sizeof cache.prefix, "%02d/%02d/%04d %02d:%02d:", date.month,
                                     date.day, date.year, date.hour, date.minute);
    if (length <= 0 || static_cast<std::size_t>(length) >= sizeof cache.prefix) return false;
    cache.prefixLength = static_cast<std::size_t>(length);
    cache.secondOfMinute = date.second;
    cache.second = second;
    return true;
}

// Writes the text from the cached fields of the current second: the real
// calendar gives a second's seconds as the whole seconds plus the fraction,
// and so does this. False when the general path must be taken.
bool cachedText(platform::IHost& host, double seconds, char* text, std::size_t capacity) {
    if (!std::isfinite(seconds) || seconds < 0 || &host != &platform::defaultHost()) return false;
    const double whole = std::floor(seconds);
    const char* timeZone = host.timeZoneSetting();
    CalendarCache& cache = tCalendar;
    if (!(cache.second == whole && cache.timeZone == timeZone) && !fillCalendar(host, whole, cache)) return false;
    cache.timeZone = timeZone;
    std::string secondsText;
    decimal::appendFixed3(secondsText, cache.secondOfMinute + (seconds - whole), 6);
    if (cache.prefixLength + secondsText.size() >= capacity) return false;
    std::memcpy(text, cache.prefix, cache.prefixLength);
    std::memcpy(text + cache.prefixLength, secondsText.data(), secondsText.size());
    text[cache.prefixLength + secondsText.size()] = '\0';
    return true;
}

}  // namespace

CTimeStamp::CTimeStamp(double seconds) : _seconds(seconds), _text{} {
    platform::IHost& host = platform::host();
    if (_seconds < 0.0) _seconds = host.currentTime();
    if (cachedText(host, _seconds, _text, sizeof _text)) return;
    platform::CCalendarDate date = host.calendarDate(_seconds);
    std::snprintf(_text, sizeof _text, "%02d/%02d/%04d %02d:%02d:%06.3lf", date.month, date.day, date.year, date.hour,
                  date.minute, date.second);
}

std::ostream& operator<<(std::ostream& out, const CTimeStamp& stamp) { return out << stamp.text() << ": "; }

}  // namespace quill
