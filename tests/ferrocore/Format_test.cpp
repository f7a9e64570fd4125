// formatString (printf conversions and "%@") and the exception classes built
// with it.
#include <ferrocore/CException.h>
#include <ferrocore/CString.h>
#include <ferrocore/CURL.h>
#include <ferrocore/Format.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <string>

namespace ferrocore {
namespace {

template <class... V>
std::string libc(const char* format, V... values) {
    char buffer[512];
    std::snprintf(buffer, sizeof(buffer), format, values...);
    return buffer;
}

TEST(FormatTest, MatchesPrintfForCorrectlyTypedArguments) {
    EXPECT_EQ(formatString("%d|%5d|%-5d|%05d|%+d", 42, 42, 42, 42, 42), libc("%d|%5d|%-5d|%05d|%+d", 42, 42, 42, 42, 42));
    EXPECT_EQ(formatString("%ld %lu %lld", LONG_MIN, ULONG_MAX, LLONG_MIN), libc("%ld %lu %lld", LONG_MIN, ULONG_MAX, LLONG_MIN));
    EXPECT_EQ(formatString("%x %X %#x %o %#o", 255u, 255u, 255u, 8u, 8u), libc("%x %X %#x %o %#o", 255u, 255u, 255u, 8u, 8u));
    EXPECT_EQ(formatString("%.3lf %6.2f %e %g %G %a", 3.14159, 2.5, 12345.678, 0.0001, 1e20, 1.0),
              libc("%.3lf %6.2f %e %g %G %a", 3.14159, 2.5, 12345.678, 0.0001, 1e20, 1.0));
    EXPECT_EQ(formatString("[%s] [%10s] [%-10s] [%.2s]", "abc", "abc", "abc", "abc"),
              libc("[%s] [%10s] [%-10s] [%.2s]", "abc", "abc", "abc", "abc"));
    EXPECT_EQ(formatString("%c%c %zu %%", 'o', 'k', std::size_t{7}), "ok 7 %");
    EXPECT_EQ(formatString("%*d|%-*d|%.*f", 6, 1, 4, 2, 2, 1.23456), libc("%*d|%-*d|%.*f", 6, 1, 4, 2, 2, 1.23456));
}

TEST(FormatTest, NegativeValuesInUnsignedConversionsUseTheModifierWidth) {
    EXPECT_EQ(formatString("%x", -1), "ffffffff");
    EXPECT_EQ(formatString("%lx", -1L), "ffffffffffffffff");
    EXPECT_EQ(formatString("0x%lx", 6UL), "0x6");
    EXPECT_EQ(formatString("%hhx", -1), "ff");
    EXPECT_EQ(formatString("%u", -2), "4294967294");
}

TEST(FormatTest, ArgumentsPrintByTheirOwnTypeNotTheModifier) {
    // A long given to %d is not truncated, an unsigned given to %d is not
    // reinterpreted, a double given to %d prints its whole part.
    EXPECT_EQ(formatString("%d", 1LL << 40), "1099511627776");
    EXPECT_EQ(formatString("%d", 4000000000u), "4000000000");
    EXPECT_EQ(formatString("%d", 3.9), "3");
    EXPECT_EQ(formatString("%f", 2), "2.000000");
    EXPECT_EQ(formatString("%s and %@", 12, -3), "12 and -3");
    EXPECT_EQ(formatString("%d", true), "1");
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

TEST(FormatTest, MalformedFormatsDoNotReadMissingArguments) {
    EXPECT_EQ(formatString("a %d b %s"), "a %d b %s");
    EXPECT_EQ(formatString("%d %d", 1), "1 %d");
    EXPECT_EQ(formatString("%d", 1, 2, 3), "1");
    EXPECT_EQ(formatString("100%"), "100%");
    EXPECT_EQ(formatString("%k %d", 5), "%k 5");
    EXPECT_EQ(formatString("x%ny", 5), "xy");
}

TEST(ExceptionTest, KindsMessagesAndErrno) {
    try {
        throw CParamException(formatString("Invalid sessionType: 0x%lx", 6UL));
    } catch (const CException& e) {
        EXPECT_EQ(e.kind(), kExceptionKindParam);
        EXPECT_STREQ(e.what(), "Invalid sessionType: 0x6");
        EXPECT_FALSE(e.hasErrorNumber());
    }

    CException e(kExceptionKindSystemCall, "open failed, error = " + errorText(ENOENT), ENOENT);
    EXPECT_EQ(e.kind(), 4);
    EXPECT_TRUE(e.hasErrorNumber());
    EXPECT_EQ(e.errorNumber(), ENOENT);
    EXPECT_EQ(e.message(), "open failed, error = No such file or directory");
    EXPECT_EQ(CException(kExceptionKindHostRuntime, "m").kind(), 255);
}

}  // namespace
}  // namespace ferrocore
