#include <chrono>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "support/ConfigHome.h"
#include "support/FixedClockHost.h"
#include "support/TestSupport.h"
#include <ferrocore/CException.h>
#include <quillcore/schedule/CServiceSchedule.h>

namespace {

using quill::CServiceSchedule;
using namespace std::chrono_literals;

enum Day : unsigned { kSun, kMon, kTue, kWed, kThu, kFri, kSat };
constexpr unsigned kOn = quill::kScheduleTypeOn, kOff = quill::kScheduleTypeOff,
                   kOnBetween = quill::kScheduleTypeOnBetween, kOffBetween = quill::kScheduleTypeOffBetween;

// Seconds from 2001-01-01 00:00:00 UTC to `day` at h:m:s UTC.
double utc(std::chrono::year_month_day day, int h = 0, int m = 0, int s = 0) {
    using namespace std::chrono;
    const auto since = sys_days(day) - sys_days(year(2001) / January / 1);
    return static_cast<double>(duration_cast<seconds>(since).count() + (h * 60 + m) * 60 + s);
}

// Wednesday; "now" is its noon (UTC) unless a test says otherwise.
constexpr std::chrono::year_month_day kToday = 2025y / 1 / 15;

// Day and time as one comparable number: DHHMMSS.
unsigned packed(unsigned day, unsigned h, unsigned m, unsigned s) { return ((day * 100 + h) * 100 + m) * 100 + s; }

PLHolder<const PLDictionary> parse(const std::string& body) {
    return quilltest::parsePlist("<dict>" + body + "</dict>");
}

void expectParamError(const std::function<void()>& call, const std::string& message) {
    try {
        call();
        ADD_FAILURE() << "no exception, expected \"" << message << "\"";
    } catch (const ferrocore::CParamException& e) {
        EXPECT_EQ(e.kind(), ferrocore::kExceptionKindParam);
        EXPECT_EQ(e.message(), message);
    }
}

class CServiceScheduleTest : public testing::Test {
protected:
    void setDay(unsigned day, unsigned type, unsigned fromHour, unsigned toHour) {
        _s->setScheduleType(day, type);
        _s->setTimeFrom(day, fromHour, 0, 0);
        _s->setTimeTo(day, toHour, 0, 0);
    }
    void expectDay(unsigned day, unsigned type, unsigned from, unsigned to) {
        unsigned f = 0, t = 0;
        _s->timeFrom(day, f);
        _s->timeTo(day, t);
        EXPECT_EQ(_s->scheduleType(day), type) << day;
        EXPECT_EQ(f, from) << day;
        EXPECT_EQ(t, to) << day;
    }

    quilltest::ScopedEnv _tz{"TZ", "UTC"};
    quilltest::CFixedClockHost _clock{utc(kToday, 12)};
    quill::platform::CScopedHost _scope{_clock};
    quill::CServiceScheduleRef _s = ferrocore::makeShared<CServiceSchedule>();
};

TEST_F(CServiceScheduleTest, DictionaryFormTakesExactTypesAndTimesBelowADayAndWritesOnlyChanges) {
    _s->setScheduleType(kSun, kOff);  // forgotten: fromDict starts from the defaults
    _s->fromDict(parse(R"(
        <key>Monday</key><dict><key>type</key><string>OnBetween</string>
            <key>timeFrom</key><integer>32400</integer><key>timeTo</key><integer>61200</integer></dict>
        <key>Tuesday</key><dict><key>type</key><string>on</string><key>timeTo</key><integer>90000</integer></dict>
        <key>Wednesday</key><dict><key>type</key><string>Off</string><key>timeTo</key><integer>0</integer></dict>
        <key>Thursday</key><dict><key>type</key><string>OffBetween</string>
            <key>timeFrom</key><string>3600</string><key>timeTo</key><integer>-5</integer></dict>
        <key>Friday</key><string>OffBetween</string>
        <key>Saturday</key><dict><key>timeFrom</key><integer>86400</integer><key>timeTo</key><real>7200.9</real></dict>
    )")
                     .get());
    expectDay(kSun, kOn, 0, 86400);
    expectDay(kMon, kOnBetween, 32400, 61200);
    expectDay(kTue, kOn, 0, 86400);
    expectDay(kWed, kOff, 0, 0);
    expectDay(kThu, kOffBetween, 0, 86400);
    expectDay(kFri, kOn, 0, 86400);
    expectDay(kSat, kOn, 0, 7200);

    auto written = _s->toDict();
    ASSERT_TRUE(written);
    EXPECT_TRUE(written->equals(*parse(R"(
        <key>Monday</key><dict><key>type</key><string>OnBetween</string>
            <key>timeFrom</key><integer>32400</integer><key>timeTo</key><integer>61200</integer></dict>
        <key>Wednesday</key><dict><key>type</key><string>Off</string></dict>
        <key>Thursday</key><dict><key>type</key><string>OffBetween</string></dict>
        <key>Saturday</key><dict><key>type</key><string>On</string><key>timeTo</key><integer>7200</integer></dict>
    )")));

    expectParamError([&] { _s->fromDict(nullptr); }, "CServiceSchedule::fromDict: null dict");
    expectParamError([&] { _s->fromDict(PLString::create("Monday").get()); },
                     "CServiceSchedule::fromDict: dict - invalid type");
    expectDay(kMon, kOnBetween, 32400, 61200);  // a rejected argument changes nothing
    EXPECT_FALSE(ferrocore::makeShared<CServiceSchedule>(nullptr)->toDict());
}

TEST_F(CServiceScheduleTest, SettersValidateInOrderAndMidnightEndsTheDayOnlyForTheTimeTo) {
    unsigned v = 0;
    expectParamError([&] { _s->scheduleType(7); }, "CServiceSchedule::scheduleType: invalid day");
    expectParamError([&] { _s->setScheduleType(7, 0); }, "CServiceSchedule::setScheduleType: invalid day");
    expectParamError([&] { _s->setScheduleType(kMon, 4); }, "CServiceSchedule::setScheduleType: invalid schedule type");
    expectParamError([&] { _s->timeFrom(7, v); }, "CServiceSchedule::timeFrom: invalid day");
    expectParamError([&] { _s->timeTo(7, v, v, v); }, "CServiceSchedule::timeTo: invalid day");
    expectParamError([&] { _s->setTimeFrom(7, 0); }, "CServiceSchedule::setTimeFrom: invalid day");
    expectParamError([&] { _s->setTimeTo(7, 25, 0, 0); }, "CServiceSchedule::setTimeTo: invalid day");
    expectParamError([&] { _s->setTimeFrom(kMon, 86401); }, "CServiceSchedule::setTimeFrom: invalid seconds");
    expectParamError([&] { _s->setTimeTo(kMon, 86401); }, "CServiceSchedule::setTimeTo: invalid seconds");
    struct {
        unsigned h, m, s;
        const char* problem;
    } const bad[] = {{24, 0, 1, "invalid hours"},
                     {25, 60, 60, "invalid hours"},
                     {23, 60, 60, "invalid minutes"},
                     {23, 59, 60, "invalid seconds"}};
    for (const auto& t : bad) {
        expectParamError([&] { _s->setTimeFrom(kMon, t.h, t.m, t.s); },
                         std::string("CServiceSchedule::setTimeFrom: ") + t.problem);
        expectParamError([&] { _s->setTimeTo(kMon, t.h, t.m, t.s); },
                         std::string("CServiceSchedule::setTimeTo: ") + t.problem);
    }

    setDay(kMon, kOnBetween, 0, 0);
    expectDay(kMon, kOnBetween, 0, 86400);
    setDay(kTue, kOn, 24, 0);
    _s->setTimeTo(kTue, 0);  // the seconds form stores what it is given
    expectDay(kTue, kOn, 86400, 0);
    unsigned h = 0, m = 0, s = 0;
    _s->timeFrom(kTue, h, m, s);
    EXPECT_EQ(packed(0, h, m, s), 240000u);
    _s->setTimeTo(kTue, 3723);
    _s->timeTo(kTue, h, m, s);
    EXPECT_EQ(packed(0, h, m, s), 10203u);
}

TEST_F(CServiceScheduleTest, IntervalsHoldTheirStartButNotTheirEndAndNeverCrossMidnight) {
    setDay(kMon, kOnBetween, 9, 17);
    setDay(kTue, kOffBetween, 9, 17);
    setDay(kWed, kOnBetween, 22, 2);
    setDay(kThu, kOffBetween, 22, 2);
    setDay(kFri, kOffBetween, 0, 24);
    setDay(kSat, kOnBetween, 12, 24);
    _s->setScheduleType(kSun, kOff);
    struct {
        unsigned day, h, m, s;
        bool on;
    } const cases[] = {
        {kMon, 8, 59, 59, false},
        {kMon, 9, 0, 0, true},
        {kMon, 16, 59, 59, true},
        {kMon, 17, 0, 0, false},
        {kTue, 8, 59, 59, true},
        {kTue, 9, 0, 0, false},
        {kTue, 16, 59, 59, false},
        {kTue, 17, 0, 0, true},
        {kWed, 1, 0, 0, false},
        {kWed, 23, 0, 0, false},
        {kThu, 1, 0, 0, true},
        {kThu, 23, 0, 0, true},
        {kFri, 0, 0, 0, false},
        {kSat, 23, 59, 59, true},
        // 24:00:00 asks the next day at 00:00:00: Tuesday (on), Sunday (off).
        {kMon, 24, 0, 0, true},
        {kSat, 24, 0, 0, false},
    };
    for (const auto& c : cases) EXPECT_EQ(_s->isOnLine(c.day, c.h, c.m, c.s), c.on) << packed(c.day, c.h, c.m, c.s);

    EXPECT_TRUE(_s->isOnLine(utc(2025y / 1 / 13, 9)));  // a Monday
    EXPECT_FALSE(_s->isOnLine(utc(2025y / 1 / 13, 17)));
    EXPECT_FALSE(_s->isOnLine());  // Wednesday noon
    expectParamError([&] { _s->isOnLine(7, 0, 0, 0); }, "CServiceSchedule::scheduleType: invalid day");
}

TEST_F(CServiceScheduleTest, ConstantWeekNeedsConstantDaysThatAgreeWithSundayAndForgetsOnChange) {
    // The default week: always on, never a transition, nothing to write.
    for (unsigned day = kSun; day <= kSat; ++day) expectDay(day, kOn, 0, 86400);
    EXPECT_TRUE(_s->isConstantSchedule() && _s->isOnLine());
    EXPECT_FALSE(_s->toDict());
    // "Never": the local date 978307200 seconds after the reference date
    // (2032-01-02 in UTC), a thousand years on.
    EXPECT_EQ(_s->nextTransition(), utc(3032y / 1 / 2));

    for (unsigned day = kSun; day <= kSat; ++day) _s->setScheduleType(day, kOff);
    EXPECT_TRUE(_s->isConstantSchedule());
    EXPECT_FALSE(_s->isOnLine());
    _s->setScheduleType(kMon, kOn);
    EXPECT_TRUE(_s->isConstantSchedule(kMon));
    EXPECT_FALSE(_s->isConstantSchedule());
    _s->setScheduleType(kMon, kOffBetween);  // whole day: off, like Sunday
    EXPECT_TRUE(_s->isConstantSchedule());
    _s->setTimeTo(kMon, 23, 0, 0);
    EXPECT_FALSE(_s->isConstantSchedule());

    _s->init();
    _s->setScheduleType(kSun, kOnBetween);
    EXPECT_TRUE(_s->isConstantSchedule());
    EXPECT_TRUE(_s->isOnLine());
    _s->fromDict(parse("<key>Sunday</key><dict><key>type</key><string>Off</string></dict>").get());
    EXPECT_FALSE(_s->isConstantSchedule());
}

TEST_F(CServiceScheduleTest, TransitionsLieFiveSecondsPastTheBoundaryCountedInWholeDaysFromToday) {
    unsigned day = 0, h = 0, m = 0, s = 0;
    _s->fromAbsoluteTime(utc(kToday, 10, 20, 30) + 0.9, day, h, m, s);
    EXPECT_EQ(packed(day, h, m, s), packed(kWed, 10, 20, 30));
    // Today counts even when that time has passed; other days lie 1 to 6 ahead.
    EXPECT_EQ(_s->toAbsoluteTime(kWed, 8, 0, 0), utc(kToday, 8));
    EXPECT_EQ(_s->toAbsoluteTime(kTue, 0, 0, 0), utc(2025y / 1 / 21));
    EXPECT_EQ(_s->toAbsoluteTime(kSat, 24, 0, 0), utc(2025y / 1 / 19));

    setDay(kWed, kOnBetween, 9, 17);
    day = kWed, h = 8, m = 0, s = 0;
    ASSERT_TRUE(_s->nextTransition(day, h, m, s));
    EXPECT_EQ(packed(day, h, m, s), packed(kWed, 9, 0, 5));
    day = kWed, h = 18, m = 0, s = 0;
    EXPECT_FALSE(_s->nextTransition(day, h, m, s));
    EXPECT_EQ(packed(day, h, m, s), packed(kWed, 18, 0, 0));
    // The type is not consulted: an "On" day reports its end, on the next day.
    day = kSat, h = 12, m = 0, s = 0;
    ASSERT_TRUE(_s->nextTransition(day, h, m, s));
    EXPECT_EQ(packed(day, h, m, s), packed(kSun, 0, 0, 5));
    _s->setTimeFrom(kFri, 3600);
    _s->setTimeTo(kFri, 3600);
    day = kFri, h = 0, m = 0, s = 0;
    EXPECT_FALSE(_s->nextTransition(day, h, m, s));

    EXPECT_EQ(_s->nextTransition(utc(kToday, 8)), utc(kToday, 9, 0, 5));
    EXPECT_EQ(_s->nextTransition(), utc(kToday, 17, 0, 5));
    EXPECT_EQ(_s->nextTransition(utc(kToday, 18)), utc(2025y / 1 / 16, 0, 0, 5));
    EXPECT_FALSE(_s->isOnLine(_s->nextTransition()));

    // Whole days of 86400 s, across daylight saving changes too: Berlin moves
    // its clocks from 02:00 to 03:00 on Sunday 2025-03-30.
    quilltest::ScopedEnv berlin("TZ", "Europe/Berlin");
    _clock.setNow(utc(2025y / 3 / 28, 11));  // Friday 12:00 local
    setDay(kMon, kOnBetween, 9, 17);
    // Friday 09:00 local plus 3 × 86400 s is Monday 10:00 summer time.
    EXPECT_EQ(_s->toAbsoluteTime(kMon, 9, 0, 0), utc(2025y / 3 / 31, 8));
    day = kMon, h = 8, m = 0, s = 0;
    ASSERT_TRUE(_s->nextTransition(day, h, m, s));
    EXPECT_EQ(packed(day, h, m, s), packed(kMon, 10, 0, 5));
}

}  // namespace
