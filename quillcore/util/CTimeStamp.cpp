#include <quillcore/util/CTimeStamp.h>

#include <quillcore/platform/Host.h>

#include <cstdio>
#include <ostream>

namespace quill {

CTimeStamp::CTimeStamp(double seconds) : _seconds(seconds), _text{} {
    platform::IHost& host = platform::host();
    if (_seconds < 0.0) _seconds = host.currentTime();
    platform::CCalendarDate date = host.calendarDate(_seconds);
    std::snprintf(_text, sizeof _text, "%02d/%02d/%04d %02d:%02d:%06.3lf", date.month, date.day, date.year, date.hour,
                  date.minute, date.second);
}

std::ostream& operator<<(std::ostream& out, const CTimeStamp& stamp) { return out << stamp.text() << ": "; }

}  // namespace quill
