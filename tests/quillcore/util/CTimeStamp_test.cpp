#include <chrono>
#include <sstream>

#include <gtest/gtest.h>

#include "support/FixedClockHost.h"
#include "support/TestSupport.h"
#include <quillcore/util/CTimeStamp.h>

namespace {

using quill::CTimeStamp;

// The expected texts below are for UTC unless a test picks another zone.
class CTimeStampTest : public ::testing::Test {
    quilltest::ScopedEnv _utc{"TZ", "UTC"};
};

// Seconds from 2001-01-01 to the start of `day`, in UTC.
double secondsUntil(std::chrono::year_month_day day) {
    using namespace std::chrono;
    return static_cast<double>(duration_cast<seconds>(sys_days(day) - sys_days(year(2001) / January / 1)).count());
}

TEST_F(CTimeStampTest, FormatsAndStreamsMonthBeforeDayWithMilliseconds) {
    CTimeStamp later(secondsUntil(std::chrono::year(2026) / 7 / 4) + 9 * 3600 + 5 * 60 + 5.25);
    EXPECT_STREQ(later.text(), "07/04/2026 09:05:05.250");
    // Years past four digits are not cut.
    CTimeStamp far(secondsUntil(std::chrono::year(12345) / 6 / 7) + 3600);
    EXPECT_STREQ(far.text(), "06/07/12345 01:00:00.000");

    std::ostringstream out;
    out << later << "message";
    EXPECT_EQ(out.str(), "07/04/2026 09:05:05.250: message");
}

TEST_F(CTimeStampTest, NegativeMeansNowFromTheHostClockAndTheZoneIsThatAtConstruction) {
    quilltest::CFixedClockHost clock(secondsUntil(std::chrono::year(2030) / 2 / 28) + 59.5);
    quill::platform::CScopedHost scope(clock);
    CTimeStamp now(-1.0);
    EXPECT_EQ(now.seconds(), clock.currentTime());
    EXPECT_STREQ(now.text(), "02/28/2030 00:00:59.500");
    EXPECT_STREQ(CTimeStamp(-0.001).text(), now.text());

    CTimeStamp utc(0.0);
    quilltest::ScopedEnv tz("TZ", "America/New_York");
    CTimeStamp newYork(0.0);
    EXPECT_STREQ(newYork.text(), "12/31/2000 19:00:00.000");
    EXPECT_STREQ(utc.text(), "01/01/2001 00:00:00.000");  // made earlier, unchanged
}

}  // namespace
