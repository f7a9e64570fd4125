// The weekly on/off schedule of a cluster service.
//
// Each weekday has a schedule type and a daily interval [time from, time to)
// in seconds after local midnight (86400 is the end of the day):
//
//   kScheduleTypeOn          on line all day
//   kScheduleTypeOff         off line all day
//   kScheduleTypeOnBetween   on line inside the interval, off outside it
//   kScheduleTypeOffBetween  off line inside the interval, on outside it
//
// Intervals never cross midnight: one whose time from is later than its time
// to contains no moment at all. Days and times are those of the host's system
// time zone, read through quill::platform::host() (clock and calendar), so a
// substitute host moves "now" and "today" for every member that uses them.
//
// Dictionary form (every key optional; what is absent takes the default "On",
// 0, 86400):
//
//   Sunday ... Saturday -> { type = "On" | "Off" | "OnBetween" | "OffBetween",
//                            timeFrom = <unsigned>, timeTo = <unsigned> }
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include <ferrocore/CSharedObject.h>
#include <quillcore/export.h>
#include <quillcore/platform/PLObject.h>

namespace quill {

static_assert(sizeof(unsigned) == sizeof(std::uint32_t), "schedule values are 32-bit unsigned");

inline constexpr unsigned kScheduleTypeOn = 0;
inline constexpr unsigned kScheduleTypeOff = 1;
inline constexpr unsigned kScheduleTypeOnBetween = 2;
inline constexpr unsigned kScheduleTypeOffBetween = 3;
inline constexpr unsigned kScheduleTypeCount = 4;

// The dictionary-form name of each schedule type, indexed by the type.
inline constexpr std::array<std::string_view, kScheduleTypeCount> kScheduleTypeNames{"On", "Off", "OnBetween",
                                                                                     "OffBetween"};

// Days are numbered 0 = Sunday ... 6 = Saturday; these are their keys in the
// dictionary form, indexed by the day.
inline constexpr unsigned kScheduleDaysPerWeek = 7;
inline constexpr std::array<std::string_view, kScheduleDaysPerWeek> kScheduleDayNames{
    "Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"};

// Seconds in a day; as a time of day it means the end of the day (24:00:00).
inline constexpr unsigned kScheduleEndOfDay = 86400;

class CServiceSchedule;
using CServiceScheduleRef = ferrocore::CSharedObjectRef<CServiceSchedule>;

// A weekly schedule, held through CServiceScheduleRef (makeShared).
//
// Threads: not thread-safe, not even for const members, because the const
// queries fill the constant-schedule cache. Use one schedule from one thread
// at a time. distantFuture() alone may be called from any thread.
//
// Exceptions: members that take a day throw ferrocore::CParamException (kind
// 1) for a day of 7 or more, with the message of the getter or setter named
// below that checks it; setters also reject bad types and times. Members that
// read the clock or the calendar let through whatever a substitute host
// throws (the real host throws nothing). Nothing else is thrown except
// std::bad_alloc.
class QUILL_EXPORT CServiceSchedule : public ferrocore::CSharedObject {
public:
    // Every day "On" from 0 to 86400.
    CServiceSchedule() noexcept;
    // fromDict(dict) when `dict` is not null, else the defaults. Throws as
    // fromDict() does for a value that is not a dictionary.
    explicit CServiceSchedule(PLTypeRef dict);

    // Every day back to "On", 0, 86400; the constant-schedule cache dropped.
    void init() noexcept;

    // Replaces the whole schedule with `dict` (borrowed): every day first
    // back to the defaults, then each day key that holds a dictionary read
    // into that day. A "type" takes effect only when it is exactly one of the
    // four names; "timeFrom" and "timeTo" only when they are numbers from 0
    // to 86399, so a stored 86400 or more leaves the time to at 86400 and a
    // stored 0 stays 0. Anything else is ignored.
    // Throws CParamException "CServiceSchedule::fromDict: null dict" for null
    // and "CServiceSchedule::fromDict: dict - invalid type" for a value that
    // is not a dictionary; the schedule is unchanged then.
    void fromDict(PLTypeRef dict);

    // The dictionary form, holding only what differs from the defaults: a day
    // is written (with its "type") when its type is not "On", its time from
    // is not 0 or its time to is neither 0 nor 86400; "timeFrom" is written
    // when not 0 and "timeTo" when neither 0 nor 86400. When no day is
    // written the result is an empty holder, not an empty dictionary. A new
    // dictionary owned by the caller.
    PLHolder<PLMutableDictionary> toDict() const;

    // The type of `day`; throws "CServiceSchedule::scheduleType: invalid day".
    unsigned scheduleType(unsigned day) const;
    // Throws "CServiceSchedule::setScheduleType: invalid day" or, for a type
    // of 4 or more, "CServiceSchedule::setScheduleType: invalid schedule
    // type".
    void setScheduleType(unsigned day, unsigned type);

    // The time from of `day` as seconds after midnight, or split into hours,
    // minutes and seconds (86400 gives 24:00:00). Throw
    // "CServiceSchedule::timeFrom: invalid day".
    void timeFrom(unsigned day, unsigned& seconds) const;
    void timeFrom(unsigned day, unsigned& hours, unsigned& minutes, unsigned& seconds) const;
    // Stores `seconds` as given (0 ... 86400); otherwise throws
    // "CServiceSchedule::setTimeFrom: invalid seconds".
    void setTimeFrom(unsigned day, unsigned seconds);
    // Stores (hours × 60 + minutes) × 60 + seconds; 24:00:00 is the latest
    // time. Checked in this order, throwing "CServiceSchedule::setTimeFrom: "
    // followed by "invalid day", "invalid hours" (above 24, or 24 with
    // anything after it), "invalid minutes" (60 or more) or "invalid seconds"
    // (60 or more).
    void setTimeFrom(unsigned day, unsigned hours, unsigned minutes, unsigned seconds);

    // The same four for the time to, with "timeTo" / "setTimeTo" in the
    // messages. One difference: setTimeTo(day, 0, 0, 0) stores 86400, because
    // an interval that ends at midnight ends at the end of its day.
    // setTimeTo(day, 0) stores 0, as the dictionary form does.
    void timeTo(unsigned day, unsigned& seconds) const;
    void timeTo(unsigned day, unsigned& hours, unsigned& minutes, unsigned& seconds) const;
    void setTimeTo(unsigned day, unsigned seconds);
    void setTimeTo(unsigned day, unsigned hours, unsigned minutes, unsigned seconds);

    // Whether `day` gives the same answer all day: its type is "On" or "Off",
    // or its interval is the whole day (0 to 86400).
    bool isConstantSchedule(unsigned day) const;
    // Whether the whole week gives one answer: every day is constant and
    // answers at 00:00:00 as Sunday does. Cached until the schedule changes.
    bool isConstantSchedule() const;

    // Whether the service is on line on `day` at hours:minutes:seconds. The
    // interval contains its start and excludes its end; 24:00:00 is answered
    // as 00:00:00 of the next day (Saturday's next day is Sunday).
    bool isOnLine(unsigned day, unsigned hours, unsigned minutes, unsigned seconds) const;
    // At the local time of `time`.
    bool isOnLine(PLAbsoluteTime time) const;
    // Now. A constant schedule answers from Sunday's type without reading
    // the clock.
    bool isOnLine() const;

    // The next boundary of `day`'s interval after the given time, moved 5
    // seconds past it (so that isOnLine() there already gives the new
    // answer) and written back into the four arguments, normalised through
    // toAbsoluteTime() and fromAbsoluteTime() (the end of the day becomes
    // 00:00:05 of the next day). False, with the arguments unchanged, when the
    // time from equals the time to or the time is past both. The day's type
    // is not consulted: "On" and "Off" days report their end of day.
    bool nextTransition(unsigned& day, unsigned& hours, unsigned& minutes, unsigned& seconds) const;
    // The absolute time after `time` at which the answer may next change:
    // distantFuture() for a constant schedule; else the next boundary of
    // that day, or 00:00:05 of the next day when the day has none left. As
    // with toAbsoluteTime(), the result is placed relative to today's date,
    // so it is meaningful for times of the current day.
    PLAbsoluteTime nextTransition(PLAbsoluteTime time) const;
    // nextTransition(now).
    PLAbsoluteTime nextTransition() const;

    // The local weekday (0 = Sunday) and time of day of `time`, seconds
    // truncated to a whole number.
    void fromAbsoluteTime(PLAbsoluteTime time, unsigned& day, unsigned& hours, unsigned& minutes,
                          unsigned& seconds) const;
    // The absolute time of hours:minutes:seconds on the first `day` from
    // today on: 0 to 6 days ahead, today included even when that time of
    // today has passed. 24:00:00 is midnight at the end of that day. Days
    // are added as 86400 seconds each, without regard to daylight-saving
    // changes between today and that day.
    PLAbsoluteTime toAbsoluteTime(unsigned day, unsigned hours, unsigned minutes, unsigned seconds) const;

    // A moment about a thousand years ahead that stands for "never": the
    // local date 978307200 seconds after the reference date (2032-01-02
    // 00:00:00 UTC) with 1000 added to its year. Computed once per process,
    // in the time zone in force at the first call, and kept.
    PLAbsoluteTime distantFuture() const;

protected:
    ~CServiceSchedule() override;

private:
    void invalidateConstantCache() noexcept { _constantValid = false; }

    std::array<std::uint32_t, kScheduleDaysPerWeek> _scheduleType;
    std::array<std::uint32_t, kScheduleDaysPerWeek> _timeFrom;
    std::array<std::uint32_t, kScheduleDaysPerWeek> _timeTo;
    mutable bool _constantValue = false;
    mutable bool _constantValid = false;
};

}  // namespace quill
