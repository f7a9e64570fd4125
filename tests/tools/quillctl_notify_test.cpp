// quillctl notify post / watch, on the test program's private bus.
#include <csignal>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>

#include "support/NotificationBus.h"
#include "support/TestSupport.h"
#include "tools/QuillctlTest.h"

namespace {

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

class QuillctlNotify : public quilltest::QuillctlTest {
protected:
    void SetUp() override {
        QuillctlTest::SetUp();
        if (!IsSkipped()) quilltest::privateBusAddress();
    }

    // Posts with `args` until `watcher` has printed `count` lines, or a line
    // with `text` (or has ended).
    void postUntil(quilltest::PeerProcess& watcher, std::size_t count, const std::vector<std::string>& args,
                   const std::string& text = {}) {
        std::vector<std::string> argv{"notify", "post"};
        argv.insert(argv.end(), args.begin(), args.end());
        auto seen = [&] {
            const std::string out = watcher.output();
            return text.empty() ? lines(out).size() >= count : out.find(text) != std::string::npos;
        };
        for (int i = 0; i < 200 && !watcher.finished() && !seen(); ++i) {
            quilltest::CommandResult posted = run(argv);
            ASSERT_EQ(posted.exitCode, 0) << posted.err;
        }
    }

    std::string _name = "test.quillctl." + std::to_string(getpid());
    quilltest::TempDir _dir;
};

TEST_F(QuillctlNotify, WatchPrintsOneCompactLinePerNotificationAndEndsOnCtrlC) {
    quilltest::PeerProcess watcher({"notify", "watch", "--name", _name}, _tool);
    postUntil(watcher, 1, {_name, "--sender", "com.example", "k=v", "eq=a=b"});

    quilltest::writeFile(_dir / "info.plist", R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
<key>s</key><string>say "hi"</string>
<key>a</key><array><integer>-3</integer><real>2.5</real><true/></array>
<key>d</key><data>AP8=</data>
<key>t</key><date>2001-01-01T00:00:00Z</date>
</dict></plist>)");
    quilltest::CommandResult posted = run({"notify", "post", _name, "--info", _dir / "info.plist"});
    ASSERT_EQ(posted.exitCode, 0) << posted.err;
    postUntil(watcher, 0, {"other-name"}, "say");  // not shown; gives the watcher time

    kill(watcher.pid(), SIGINT);
    EXPECT_EQ(watcher.wait(), 0);
    auto got = lines(watcher.output());
    ASSERT_GE(got.size(), 2u) << watcher.output();
    const std::string stamp = R"(\d\d/\d\d/\d{4} \d\d:\d\d:\d\d\.\d{3} )";
    EXPECT_TRUE(std::regex_match(got[0], std::regex(stamp + _name + R"( "com.example" \{"eq": "a=b", "k": "v"\})")))
        << got[0];
    const std::string info = got.back().substr(got.back().find(_name) + _name.size());
    EXPECT_EQ(info, R"( - {"a": [-3, 2.5, true], "d": <00ff>, "s": "say \"hi\"", "t": @2001-01-01T00:00:00Z})");
}

TEST_F(QuillctlNotify, WatchFiltersBySenderAndStopsAfterCount) {
    quilltest::PeerProcess watcher({"notify", "watch", "--sender", "", "--count", "2"}, _tool);
    ASSERT_EQ(run({"notify", "post", _name}).exitCode, 0);
    postUntil(watcher, 2, {_name, "--sender", ""});
    EXPECT_EQ(watcher.wait(), 0);
    auto got = lines(watcher.output());
    ASSERT_EQ(got.size(), 2u) << watcher.output();
    for (const std::string& line : got) EXPECT_NE(line.find(_name + R"( "" -)"), std::string::npos) << line;
}

TEST_F(QuillctlNotify, PostRefusesBadUserInformation) {
    quilltest::writeFile(_dir / "array.plist", R"(<?xml version="1.0"?><plist version="1.0"><array/></plist>)");
    quilltest::CommandResult result = run({"notify", "post", _name, "--info", _dir / "array.plist"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.err.find("must be a dictionary (found: array)"), std::string::npos) << result.err;
    result = run({"notify", "post", _name, "novalue"});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_NE(result.err.find("expected KEY=VALUE"), std::string::npos) << result.err;
}

}  // namespace
