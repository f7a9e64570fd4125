// quillctl schedule check: evaluating schedule files at a chosen local time.
#include <gtest/gtest.h>

#include "support/TestSupport.h"
#include "tools/QuillctlTest.h"

namespace {

// Wednesday 09:00-17:00 on line, Saturday off, every other day on; nested
// under "Service.Schedule" in the second file.
constexpr const char* kOfficeHours =
    "<key>Wednesday</key><dict><key>type</key><string>OnBetween</string>"
    "<key>timeFrom</key><integer>32400</integer><key>timeTo</key><integer>61200</integer></dict>"
    "<key>Saturday</key><dict><key>type</key><string>Off</string></dict>";

std::string plist(const std::string& body) { return "<plist version=\"1.0\"><dict>" + body + "</dict></plist>"; }

class ScheduleCheck : public quilltest::QuillctlTest {
protected:
    void SetUp() override {
        QuillctlTest::SetUp();
        if (IsSkipped()) return;
        quilltest::writeFile(_dir / "office.plist", plist(kOfficeHours));
        quilltest::writeFile(_dir / "nested.plist", plist("<key>Service</key><dict><key>Schedule</key><dict>" +
                                                          std::string(kOfficeHours) + "</dict></dict>"));
        quilltest::writeFile(_dir / "array.plist", "<plist version=\"1.0\"><array/></plist>");
    }
    quilltest::CommandResult check(std::vector<std::string> args) {
        args[0] = (_dir / args[0]).string();
        args.insert(args.begin(), {"schedule", "check"});
        return run(args);
    }

    quilltest::TempDir _dir;
    quilltest::ScopedEnv _tz{"TZ", "UTC"};
};

TEST_F(ScheduleCheck, PrintsStateAndNextTransitionAtTheGivenLocalTime) {
    struct {
        std::vector<std::string> args;
        const char* expected;
    } const cases[] = {
        // 2025-01-15 is a Wednesday.
        {{"office.plist", "--at", "2025-01-15 08:00:00"}, "off line\nnext transition: 2025-01-15 09:00:05\n"},
        {{"office.plist", "--at", "2025-01-15 09:00:00"}, "on line\nnext transition: 2025-01-15 17:00:05\n"},
        // An "On" day's only boundary is its end; Saturday's is on Sunday.
        {{"nested.plist", "--key", "Service.Schedule", "--at", "2025-01-18 12:30:00"},
         "off line\nnext transition: 2025-01-19 00:00:05\n"},
    };
    for (const auto& c : cases) {
        auto r = check(c.args);
        EXPECT_EQ(r.exitCode, 0) << c.args[2] << ": " << r.err;
        EXPECT_EQ(r.out, c.expected) << c.args[2];
    }

    quilltest::writeFile(_dir / "always.plist", plist(""));  // every day on, at any time
    EXPECT_EQ(check({"always.plist"}).out, "on line\nnext transition: never\n");
}

TEST_F(ScheduleCheck, FailsClearlyOnBadInput) {
    struct {
        std::vector<std::string> args;
        const char* message;
    } const cases[] = {
        {{"office.plist", "--at", "2025-02-30 10:00:00"}, "invalid --at time"},
        {{"office.plist", "--at", "2025-01-15 10:00"}, "invalid --at time"},
        {{"missing.plist"}, "missing.plist: cannot open"},
        {{"array.plist"}, "the root is not a schedule dictionary (found array)"},
        {{"office.plist", "--key", "Wednesday.type"}, "not a schedule dictionary"},
        {{"nested.plist"}, "name the schedule with --key"},
    };
    for (const auto& c : cases) {
        auto r = check(c.args);
        EXPECT_EQ(r.exitCode, 1) << c.message;
        EXPECT_TRUE(r.out.empty()) << c.message << ": " << r.out;
        EXPECT_EQ(r.err.rfind("quillctl: ", 0), 0u) << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    }
    auto help = run({"schedule", "check", "--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find("--at"), std::string::npos) << help.out;
}

}  // namespace
