// quillctl log: writing records from the shell and reading logs back.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/TestSupport.h"
#include "tools/QuillctlTest.h"

namespace {

using testing::HasSubstr;
using testing::Not;

class QuillctlLog : public quilltest::QuillctlTest {
protected:
    quilltest::CommandResult log(std::vector<std::string> args) const {
        args.insert(args.begin(), "log");
        return run(args);
    }
    quilltest::TempDir _dir;
    const std::string _file = (_dir / "a log with spaces.log").string();
};

TEST_F(QuillctlLog, WriteAddsOneFramedRecordPerCall) {
    ASSERT_EQ(log({"write", _file, "first"}).exitCode, 0);
    ASSERT_EQ(log({"write", _file, "--level", "5", "detail </logs> \"/>\nsecond line"}).exitCode, 0);
    const std::string text = quilltest::readFile(_file);
    EXPECT_EQ(text.find("<?xml"), 0u);
    EXPECT_EQ(text.find("<?xml", 1), std::string::npos) << "one header only";
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2 + 3 + 3);
    EXPECT_THAT(text, HasSubstr(" msg=\"first\"/>\n"));
    EXPECT_THAT(text, HasSubstr(" lvl=\"5\" msg=\"detail %3C/logs%3E %22/%3E%0Asecond line\"/>\n"));
    EXPECT_THAT(text, Not(HasSubstr("Setting log level")));

    const auto failed = log({"write", (_dir / "missing" / "x.log").string(), "lost"});
    EXPECT_EQ(failed.exitCode, 1);
    EXPECT_THAT(failed.err, HasSubstr("failed to open log file"));
}

TEST_F(QuillctlLog, ShowPrintsATableAndSplitsRecordsByParsing) {
    ASSERT_EQ(log({"write", _file, "plain"}).exitCode, 0);
    // Not escaped (it parses where it stands), yet it holds "/>" and a line
    // feed, so a reader by lines would cut it in two.
    ASSERT_EQ(log({"write", _file, "--level", "4", "a/> b\nc"}).exitCode, 0);
    quilltest::writeFile(_file, quilltest::readFile(_file) +
                                    "<mrk tms=\"1.000\" tmt=\"01/01/2001 00:00:01.000\" pid=\"77\" kind=\"begin\" "
                                    "what=\"render\" req-id=\"r9\" msg=\"frame 7\"/>\n");

    auto r = log({"show", _file});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_THAT(r.out, HasSubstr("TIME"));
    EXPECT_THAT(r.out, HasSubstr("    3  plain\n"));
    EXPECT_THAT(r.out, HasSubstr("    4  a/> b c\n"));
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1 + 2 * 3);
    EXPECT_THAT(r.out, Not(HasSubstr("render")));
    EXPECT_EQ(r.err, "");

    r = log({"show", _file, "--level", "3", "--marks"});
    EXPECT_THAT(r.out, Not(HasSubstr("a/> b")));
    EXPECT_THAT(r.out, HasSubstr("mark begin render [r9]: frame 7\n"));

    r = log({"show", _file, "--pid", "77", "--marks"});
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 2);

    r = log({"show", _file, "--xml"});
    EXPECT_EQ(r.out, quilltest::readFile(_file) + "</logs>\n");

    // A damaged end is reported, and what came before is still shown.
    quilltest::writeFile(_file, quilltest::readFile(_file) + "<log tms=\"1\" msg=\"cut off");
    r = log({"show", _file});
    EXPECT_THAT(r.out, HasSubstr("plain"));
    EXPECT_THAT(r.err, HasSubstr("are not a whole record"));

    EXPECT_EQ(log({"show", (_dir / "none.log").string()}).exitCode, 1);
}

TEST_F(QuillctlLog, ShowUndoesOnlyTheLoggersOwnEscaping) {
    for (const char* message : {"a < b & \"c\"", "100% sure", "%41 stays", "Grüße & co"})
        ASSERT_EQ(log({"write", _file, message}).exitCode, 0);
    auto r = log({"show", _file});
    for (const char* shown : {"  a < b & \"c\"\n", "  100% sure\n", "  %41 stays\n", "  Grüße & co\n"})
        EXPECT_THAT(r.out, HasSubstr(shown));
    r = log({"show", _file, "--raw"});
    EXPECT_THAT(r.out, HasSubstr("  a %3C b %26 %22c%22\n"));
    EXPECT_THAT(r.out, HasSubstr("  Gr%C3%BC%C3%9Fe %26 co\n"));
}

TEST_F(QuillctlLog, TailFollowsNewRecords) {
    ASSERT_EQ(log({"write", _file, "before"}).exitCode, 0);
    const std::string out = (_dir / "tail.out").string();
    const std::string script =
        "\"$0\" log tail \"$1\" -n 1 --count 2 >\"$2\" & tail=$!\n"
        "while [ ! -s \"$2\" ]; do sleep 0.05; done\n"
        "\"$0\" log write \"$1\" 'after one' && \"$0\" log write \"$1\" 'after two'\n"
        "wait $tail\n";
    const auto r = quilltest::runCommand({"/bin/sh", "-c", script, _tool, _file, out});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const std::string text = quilltest::readFile(out);
    EXPECT_THAT(text, Not(HasSubstr("before")));
    EXPECT_THAT(text, HasSubstr("after one"));
    EXPECT_THAT(text, HasSubstr("after two"));
}

}  // namespace
