// formatString (printf conversions and "%@") and the exception classes built
// with it.
#include <cerrno>
#include <cstdio>
#include <string>

#include <climits>
#include <gtest/gtest.h>

#include <ferrocore/CException.h>
#include <ferrocore/CString.h>
#include <ferrocore/CURL.h>
#include <ferrocore/Format.h>

namespace ferrocore {
namespace {

template <class... V>
std::string libc(const char* format, V... values) {
    char buffer[512];
    std::snprintf(buffer, sizeof(buffer), format, values...);
    return buffer;
}

#define EXPECT_AS_PRINTF(...) EXPECT_EQ(formatString(__VA_ARGS__), libc(__VA_ARGS__))

TEST(FormatTest, MatchesPrintfForCorrectlyTypedArguments) {
    EXPECT_AS_PRINTF("%d|%5d|%-5d|%05d|%+d", 42, 42, 42, 42, 42);
    EXPECT_AS_PRINTF("%ld %lu %lld", LONG_MIN, ULONG_MAX, LLONG_MIN);
    EXPECT_AS_PRINTF("%x %X %#x %o %#o", 255u, 255u, 255u, 8u, 8u);
    EXPECT_AS_PRINTF("%.3lf %6.2f %e %g %G %a", 3.14159, 2.5, 12345.678, 0.0001, 1e20, 1.0);
    EXPECT_AS_PRINTF("[%s] [%10s] [%-10s] [%.2s]", "abc", "abc", "abc", "abc");
    EXPECT_AS_PRINTF("%*d|%-*d|%.*f", 6, 1, 4, 2, 2, 1.23456);
    EXPECT_EQ(formatString("%c%c %zu %%", 'o', 'k', std::size_t{7}), "ok 7 %");
}

// Arguments print by their own type, not the modifier's: a long given to %d
// is not truncated, an unsigned not reinterpreted, a double prints its whole
// part; negative values in unsigned conversions take the modifier's width.
// Conversions without an argument are printed as written, never read.
TEST(FormatTest, ArgumentsThatDoNotMatchTheFormat) {
    const std::pair<std::string, const char*> cases[] = {
        {formatString("%x", -1), "ffffffff"},
        {formatString("%lx", -1L), "ffffffffffffffff"},
        {formatString("%hhx", -1), "ff"},
        {formatString("%u", -2), "4294967294"},
        {formatString("%d", 1LL << 40), "1099511627776"},
        {formatString("%d", 4000000000u), "4000000000"},
        {formatString("%d", 3.9), "3"},
        {formatString("%f", 2), "2.000000"},
        {formatString("%s and %@", 12, -3), "12 and -3"},
        {formatString("%d", true), "1"},
        {formatString("a %d b %s"), "a %d b %s"},
        {formatString("%d %d", 1), "1 %d"},
        {formatString("%d", 1, 2, 3), "1"},
        {formatString("100%"), "100%"},
        {formatString("%k %d", 5), "%k 5"},
        {formatString("x%ny", 5), "xy"},
    };
    for (const auto& [got, expected] : cases) EXPECT_EQ(got, expected);
}

TEST(FormatTest, ObjectsAndTextForAtSign) {
    CStringRef name = CString::create("corvaned");
    CStringRef none;
    EXPECT_EQ(formatString("name = %@", name), "name = corvaned");
    EXPECT_EQ(formatString("name = %@", none), "name = (null)");
    EXPECT_EQ(formatString("%@/%@", *name, std::string("x")), "corvaned/x");
    EXPECT_EQ(formatString("[%12@]", name), "[    corvaned]");
    EXPECT_EQ(formatString("%@", CURL::createWithPath("/tmp/a b", false)), "file:///tmp/a%20b");
    EXPECT_EQ(formatString("%s", static_cast<const char*>(nullptr)), "(null)");
    const char buffer[8] = "ab\0cd";
    EXPECT_EQ(formatString("%s", buffer), "ab");
}

TEST(ExceptionTest, KindsMessagesAndErrno) {
    const CParamException param(formatString("Invalid sessionType: 0x%lx", 6UL));
    const CException& e = param;
    EXPECT_EQ(e.kind(), kExceptionKindParam);
    EXPECT_STREQ(e.what(), "Invalid sessionType: 0x6");
    EXPECT_FALSE(e.hasErrorNumber());
    EXPECT_TRUE(CException(kExceptionKindSystemCall, "open failed", ENOENT).hasErrorNumber());
    EXPECT_EQ(errorText(ENOENT), "No such file or directory");
}

}  // namespace
}  // namespace ferrocore
