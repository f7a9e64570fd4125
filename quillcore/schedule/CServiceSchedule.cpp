#include <algorithm>
#include <cmath>
#include <string>

#include <ferrocore/CException.h>
#include <quillcore/platform/Host.h>
#include <quillcore/schedule/CServiceSchedule.h>
#include <quillcore/util/PLUtil.h>

namespace quill {

namespace {

PL_CONSTANT_STRING(kSundayKey, "Sunday");
PL_CONSTANT_STRING(kMondayKey, "Monday");
PL_CONSTANT_STRING(kTuesdayKey, "Tuesday");
PL_CONSTANT_STRING(kWednesdayKey, "Wednesday");
PL_CONSTANT_STRING(kThursdayKey, "Thursday");
PL_CONSTANT_STRING(kFridayKey, "Friday");
PL_CONSTANT_STRING(kSaturdayKey, "Saturday");
constexpr std::array<const PLString*, kScheduleDaysPerWeek> kDayKeys{
    kSundayKey, kMondayKey, kTuesdayKey, kWednesdayKey, kThursdayKey, kFridayKey, kSaturdayKey};

PL_CONSTANT_STRING(kTypeKey, "type");
PL_CONSTANT_STRING(kTimeFromKey, "timeFrom");
PL_CONSTANT_STRING(kTimeToKey, "timeTo");

PL_CONSTANT_STRING(kOnName, "On");
PL_CONSTANT_STRING(kOffName, "Off");
PL_CONSTANT_STRING(kOnBetweenName, "OnBetween");
PL_CONSTANT_STRING(kOffBetweenName, "OffBetween");
constexpr std::array<const PLString*, kScheduleTypeCount> kTypeNameStrings{kOnName, kOffName, kOnBetweenName,
                                                                           kOffBetweenName};

// Past a boundary by this much, isOnLine() already gives the new answer.
constexpr unsigned kTransitionMargin = 5;

std::uint64_t secondsOfDay(unsigned hours, unsigned minutes, unsigned seconds) noexcept {
    return (std::uint64_t{hours} * 60 + minutes) * 60 + seconds;
}

void checkDay(unsigned day, const char* operation) {
    if (day >= kScheduleDaysPerWeek)
        throw ferrocore::CParamException(std::string("CServiceSchedule::") + operation + ": invalid day");
}

// The seconds after midnight of a time given to setTimeFrom / setTimeTo.
unsigned checkedTimeOfDay(unsigned hours, unsigned minutes, unsigned seconds, const char* operation) {
    const char* problem = nullptr;
    if (hours > 24 || (hours == 24 && (minutes != 0 || seconds != 0)))
        problem = ": invalid hours";
    else if (minutes >= 60)
        problem = ": invalid minutes";
    else if (seconds >= 60)
        problem = ": invalid seconds";
    if (problem) throw ferrocore::CParamException(std::string("CServiceSchedule::") + operation + problem);
    return static_cast<unsigned>(secondsOfDay(hours, minutes, seconds));
}

void splitTimeOfDay(unsigned value, unsigned& hours, unsigned& minutes, unsigned& seconds) noexcept {
    hours = value / 3600;
    minutes = (value % 3600) / 60;
    seconds = value % 60;
}

// A time of day read from the dictionary form; only 0 ... 86399 is taken.
bool readTimeOfDay(PLDictionaryRef day, PLStringRef key, std::uint32_t& out) noexcept {
    std::int32_t value = 0;
    if (!PLUtil::PLDictGetInt(day, key, &value) || value < 0 || value >= static_cast<std::int32_t>(kScheduleEndOfDay))
        return false;
    out = static_cast<std::uint32_t>(value);
    return true;
}

PLAbsoluteTime computeDistantFuture() {
    platform::IHost& host = platform::host();
    platform::CCalendarDate date = host.calendarDate(kPLAbsoluteTimeIntervalSince1970);
    date.year += 1000;
    return host.absoluteTime(date);
}

}  // namespace

CServiceSchedule::CServiceSchedule() noexcept { init(); }

CServiceSchedule::CServiceSchedule(PLTypeRef dict) {
    init();
    if (dict) fromDict(dict);
}

CServiceSchedule::~CServiceSchedule() = default;

void CServiceSchedule::init() noexcept {
    _scheduleType.fill(kScheduleTypeOn);
    _timeFrom.fill(0);
    _timeTo.fill(kScheduleEndOfDay);
    invalidateConstantCache();
}

void CServiceSchedule::fromDict(PLTypeRef dict) {
    if (!dict) throw ferrocore::CParamException("CServiceSchedule::fromDict: null dict");
    PLDictionaryRef week = PLDynamicCast<PLDictionary>(dict);
    if (!week) throw ferrocore::CParamException("CServiceSchedule::fromDict: dict - invalid type");

    init();
    for (unsigned day = 0; day < kScheduleDaysPerWeek; ++day) {
        PLTypeRef value = nullptr;
        PLUtil::PLDictGet(week, kDayKeys[day], &value);
        PLDictionaryRef entry = PLDynamicCast<PLDictionary>(value);
        if (!entry) continue;

        PLStringRef type = nullptr;
        if (PLUtil::PLDictGetString(entry, kTypeKey, &type)) {
            const auto match = std::find(kScheduleTypeNames.begin(), kScheduleTypeNames.end(), type->utf8());
            if (match != kScheduleTypeNames.end())
                _scheduleType[day] = static_cast<std::uint32_t>(match - kScheduleTypeNames.begin());
        }
        readTimeOfDay(entry, kTimeFromKey, _timeFrom[day]);
        readTimeOfDay(entry, kTimeToKey, _timeTo[day]);
    }
}

PLHolder<PLMutableDictionary> CServiceSchedule::toDict() const {
    PLHolder<PLMutableDictionary> week;
    for (unsigned day = 0; day < kScheduleDaysPerWeek; ++day) {
        const bool writeFrom = _timeFrom[day] != 0;
        const bool writeTo = _timeTo[day] != 0 && _timeTo[day] != kScheduleEndOfDay;
        if (_scheduleType[day] == kScheduleTypeOn && !writeFrom && !writeTo) continue;

        PLHolder<PLMutableDictionary> entry = PLUtil::PLDictMakeMutable();
        PLUtil::PLDictSetString(entry.get(), kTypeKey, kTypeNameStrings[_scheduleType[day]]);
        // Both times are at most 86400, well inside the 32-bit signed range.
        if (writeFrom) PLUtil::PLDictSetInt(entry.get(), kTimeFromKey, static_cast<std::int32_t>(_timeFrom[day]));
        if (writeTo) PLUtil::PLDictSetInt(entry.get(), kTimeToKey, static_cast<std::int32_t>(_timeTo[day]));

        if (!week) week = PLUtil::PLDictMakeMutable();
        PLUtil::PLDictSet(week.get(), kDayKeys[day], entry.get());
    }
    return week;
}

unsigned CServiceSchedule::scheduleType(unsigned day) const {
    checkDay(day, "scheduleType");
    return _scheduleType[day];
}

void CServiceSchedule::setScheduleType(unsigned day, unsigned type) {
    checkDay(day, "setScheduleType");
    if (type >= kScheduleTypeCount)
        throw ferrocore::CParamException("CServiceSchedule::setScheduleType: invalid schedule type");
    _scheduleType[day] = type;
    invalidateConstantCache();
}

void CServiceSchedule::timeFrom(unsigned day, unsigned& seconds) const {
    checkDay(day, "timeFrom");
    seconds = _timeFrom[day];
}

void CServiceSchedule::timeFrom(unsigned day, unsigned& hours, unsigned& minutes, unsigned& seconds) const {
    checkDay(day, "timeFrom");
    splitTimeOfDay(_timeFrom[day], hours, minutes, seconds);
}

void CServiceSchedule::setTimeFrom(unsigned day, unsigned seconds) {
    checkDay(day, "setTimeFrom");
    if (seconds > kScheduleEndOfDay) throw ferrocore::CParamException("CServiceSchedule::setTimeFrom: invalid seconds");
    _timeFrom[day] = seconds;
    invalidateConstantCache();
}

void CServiceSchedule::setTimeFrom(unsigned day, unsigned hours, unsigned minutes, unsigned seconds) {
    checkDay(day, "setTimeFrom");
    _timeFrom[day] = checkedTimeOfDay(hours, minutes, seconds, "setTimeFrom");
    invalidateConstantCache();
}

void CServiceSchedule::timeTo(unsigned day, unsigned& seconds) const {
    checkDay(day, "timeTo");
    seconds = _timeTo[day];
}

void CServiceSchedule::timeTo(unsigned day, unsigned& hours, unsigned& minutes, unsigned& seconds) const {
    checkDay(day, "timeTo");
    splitTimeOfDay(_timeTo[day], hours, minutes, seconds);
}

void CServiceSchedule::setTimeTo(unsigned day, unsigned seconds) {
    checkDay(day, "setTimeTo");
    if (seconds > kScheduleEndOfDay) throw ferrocore::CParamException("CServiceSchedule::setTimeTo: invalid seconds");
    _timeTo[day] = seconds;
    invalidateConstantCache();
}

void CServiceSchedule::setTimeTo(unsigned day, unsigned hours, unsigned minutes, unsigned seconds) {
    checkDay(day, "setTimeTo");
    const unsigned value = checkedTimeOfDay(hours, minutes, seconds, "setTimeTo");
    // An interval that ends at midnight ends at the end of its day.
    _timeTo[day] = value == 0 ? kScheduleEndOfDay : value;
    invalidateConstantCache();
}

bool CServiceSchedule::isConstantSchedule(unsigned day) const {
    const unsigned type = scheduleType(day);
    if (type == kScheduleTypeOn || type == kScheduleTypeOff) return true;
    return _timeFrom[day] == 0 && _timeTo[day] == kScheduleEndOfDay;
}

bool CServiceSchedule::isConstantSchedule() const {
    if (!_constantValid) {
        const bool sunday = isOnLine(0, 0, 0, 0);
        bool constant = true;
        for (unsigned day = 0; day < kScheduleDaysPerWeek && constant; ++day)
            constant = isConstantSchedule(day) && isOnLine(day, 0, 0, 0) == sunday;
        _constantValue = constant;
        _constantValid = true;
    }
    return _constantValue;
}

bool CServiceSchedule::isOnLine(unsigned day, unsigned hours, unsigned minutes, unsigned seconds) const {
    std::uint64_t t = secondsOfDay(hours, minutes, seconds);
    for (;;) {
        const unsigned type = scheduleType(day);
        if (type == kScheduleTypeOn) return true;
        if (type == kScheduleTypeOff) return false;
        const bool onInside = type == kScheduleTypeOnBetween;
        if (_timeFrom[day] == 0 && _timeTo[day] == kScheduleEndOfDay) return onInside;
        if (t < _timeFrom[day]) return !onInside;
        if (t < _timeTo[day]) return onInside;
        if (t != kScheduleEndOfDay) return !onInside;
        // 24:00:00 is the first moment of the next day.
        day = (day + 1) % kScheduleDaysPerWeek;
        t = 0;
    }
}

bool CServiceSchedule::isOnLine(PLAbsoluteTime time) const {
    unsigned day = 0, hours = 0, minutes = 0, seconds = 0;
    fromAbsoluteTime(time, day, hours, minutes, seconds);
    return isOnLine(day, hours, minutes, seconds);
}

bool CServiceSchedule::isOnLine() const {
    if (isConstantSchedule()) return _scheduleType[0] == kScheduleTypeOn || _scheduleType[0] == kScheduleTypeOnBetween;
    return isOnLine(platform::host().currentTime());
}

bool CServiceSchedule::nextTransition(unsigned& day, unsigned& hours, unsigned& minutes, unsigned& seconds) const {
    unsigned from = 0, to = 0;
    timeFrom(day, from);
    timeTo(day, to);
    if (from == to) return false;

    const std::uint64_t t = secondsOfDay(hours, minutes, seconds);
    unsigned boundary = 0;
    if (t < from)
        boundary = from;
    else if (t < to)
        boundary = to;
    else
        return false;

    unsigned h = 0, m = 0, s = 0;
    splitTimeOfDay(boundary + kTransitionMargin, h, m, s);
    fromAbsoluteTime(toAbsoluteTime(day, h, m, s), day, hours, minutes, seconds);
    return true;
}

PLAbsoluteTime CServiceSchedule::nextTransition(PLAbsoluteTime time) const {
    if (isConstantSchedule()) return distantFuture();
    unsigned day = 0, hours = 0, minutes = 0, seconds = 0;
    fromAbsoluteTime(time, day, hours, minutes, seconds);
    const unsigned today = day;
    if (nextTransition(day, hours, minutes, seconds)) return toAbsoluteTime(day, hours, minutes, seconds);
    // Nothing left today: look again just after the start of tomorrow.
    return toAbsoluteTime((today + 1) % kScheduleDaysPerWeek, 0, 0, 0) + kTransitionMargin;
}

PLAbsoluteTime CServiceSchedule::nextTransition() const { return nextTransition(platform::host().currentTime()); }

void CServiceSchedule::fromAbsoluteTime(PLAbsoluteTime time, unsigned& day, unsigned& hours, unsigned& minutes,
                                        unsigned& seconds) const {
    const platform::CCalendarDate date = platform::host().calendarDate(time);
    // The calendar counts 1 = Monday ... 7 = Sunday; modulo 7 makes Sunday 0.
    day = static_cast<unsigned>(date.weekday) % kScheduleDaysPerWeek;
    hours = static_cast<unsigned>(date.hour);
    minutes = static_cast<unsigned>(date.minute);
    seconds = static_cast<unsigned>(std::max(0.0, std::trunc(date.second)));
}

PLAbsoluteTime CServiceSchedule::toAbsoluteTime(unsigned day, unsigned hours, unsigned minutes,
                                                unsigned seconds) const {
    platform::IHost& host = platform::host();
    const platform::CCalendarDate today = host.calendarDate(host.currentTime());

    platform::CCalendarDate target = today;
    unsigned extraDays = 0;
    if (secondsOfDay(hours, minutes, seconds) == kScheduleEndOfDay) {
        target.hour = 0;
        target.minute = 0;
        target.second = 0.0;
        extraDays = 1;
    } else {
        target.hour = static_cast<std::int32_t>(hours);
        target.minute = static_cast<std::int32_t>(minutes);
        target.second = seconds;
    }
    const unsigned todayIndex = static_cast<unsigned>(today.weekday) % kScheduleDaysPerWeek;
    const unsigned daysAhead =
        (day % kScheduleDaysPerWeek + kScheduleDaysPerWeek - todayIndex) % kScheduleDaysPerWeek + extraDays;
    // Whole days of 86400 seconds on purpose, across daylight-saving changes
    // too.
    return host.absoluteTime(target) + static_cast<double>(daysAhead) * kScheduleEndOfDay;
}

PLAbsoluteTime CServiceSchedule::distantFuture() const {
    // A function-local static: computed once, and safe when several threads
    // ask first at the same moment.
    static const PLAbsoluteTime value = computeDistantFuture();
    return value;
}

}  // namespace quill
