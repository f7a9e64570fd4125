// quillctl run: the task classes from the command line.
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include "support/NotificationBus.h"
#include "tools/QuillctlTest.h"

namespace {

class QuillctlRun : public quilltest::QuillctlTest {
protected:
    quilltest::CommandResult run(std::vector<std::string> args) const {
        args.insert(args.begin(), "run");
        return QuillctlTest::run(args);
    }
};

TEST_F(QuillctlRun, PassesOutputAndExitStatusThroughOrSaysWhyItCannotRun) {
    auto r = run({"--", "/bin/sh", "-c", "echo out; echo err >&2; exit 3"});
    EXPECT_EQ(r.exitCode, 3);
    EXPECT_EQ(r.out, "out\n");
    EXPECT_EQ(r.err, "err\n");

    r = run({"echo", "-n", "searched in PATH"});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(r.out, "searched in PATH");

    // A killed child reports the signal like a shell.
    EXPECT_EQ(run({"--", "/bin/sh", "-c", "kill -TERM $$"}).exitCode, 128 + 15);
    // The same number as an exit code stays an exit code.
    EXPECT_EQ(run({"--", "/bin/sh", "-c", "exit 15"}).exitCode, 15);

    // What cannot run at all: exit codes and messages like a shell's.
    r = run({"--user", "no-such-user-here", "--", "/bin/true"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.err, "quillctl: unknown user no-such-user-here\n");
    r = run({"--", "no-such-program-here"});
    EXPECT_EQ(r.exitCode, 127);
    EXPECT_EQ(r.err, "quillctl: no-such-program-here: command not found\n");
    EXPECT_EQ(run({"--", "/etc/passwd"}).exitCode, 126);
}

TEST_F(QuillctlRun, PtyJoinsErrorsIntoTheCapturedOutput) {
    const auto r = run({"--pty", "--", "/bin/sh", "-c", "test -t 0 && echo tty; echo err >&2; exit 2"});
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_EQ(r.out, "tty\nerr\n");
    EXPECT_EQ(r.err, "");
}

TEST_F(QuillctlRun, RunsAsAnotherUser) {
    if (geteuid() != 0) GTEST_SKIP() << "changing user needs root; run the tests as root to cover it";
    const passwd* nobody = getpwnam("nobody");
    ASSERT_NE(nobody, nullptr) << "the test needs the account 'nobody'";
    quilltest::privateBusAddress();  // where the user task announces its end
    const auto r = run({"--user", "nobody", "--", "/usr/bin/id", "-u"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, std::to_string(nobody->pw_uid) + "\n");
}

}  // namespace
