// Helpers shared by the property-list readers and writers: calendar
// arithmetic for dates, UTF-8 decoding, limits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace plimpl {

// Deepest nesting of containers the readers accept.
inline constexpr unsigned kMaxDepth = 512;

// Seconds from 1970-01-01 to 0001-01-01 and to 10000-01-01: the range of
// dates the XML form can carry.
inline constexpr std::int64_t kFirstWritableUnixSecond = -62135596800;
inline constexpr std::int64_t kEndWritableUnixSecond = 253402300800;

// Days since 1970-01-01 of a proleptic Gregorian date (month 1-12).
constexpr std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) noexcept {
    y -= m <= 2;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const auto yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

struct CivilDate {
    std::int64_t year;
    unsigned month;
    unsigned day;
};

constexpr CivilDate civilFromDays(std::int64_t z) noexcept {
    z += 719468;
    const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const auto doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    const unsigned d = doy - (153 * mp + 2) / 5 + 1;
    const unsigned m = mp < 10 ? mp + 3 : mp - 9;
    return {static_cast<std::int64_t>(yoe) + era * 400 + (m <= 2), m, d};
}

constexpr unsigned daysInMonth(std::int64_t y, unsigned m) noexcept {
    constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (m == 2 && y % 4 == 0 && (y % 100 != 0 || y % 400 == 0)) return 29;
    return kDays[m - 1];
}

// Replaces the digits d of a decimal fraction 0.d (at least one digit, the
// last not 0) with those of 1 - 0.d, in place.
inline void complementDecimalFraction(char* digits, std::size_t n) noexcept {
    for (std::size_t i = 0; i + 1 < n; ++i) digits[i] = static_cast<char>('9' - (digits[i] - '0'));
    digits[n - 1] = static_cast<char>('0' + 10 - (digits[n - 1] - '0'));
}

// Joins the components of a value's place, collected innermost first while
// unwinding, into "/a/3/b" ("/" for the root).
inline std::string joinPath(const std::string* innermostFirst, std::size_t count) {
    if (count == 0) return "/";
    std::string path;
    for (std::size_t i = count; i-- > 0;) {
        path += '/';
        path += innermostFirst[i];
    }
    return path;
}

}  // namespace plimpl
