// quillctl's reading verbs: plist lint / print / get, digest, version.
#include "support/ConfigHome.h"
#include "support/TestSupport.h"
#include "tools/QuillctlTest.h"

#include <quillcore/platform/PLPropertyList.h>

#include <gtest/gtest.h>

namespace {

using quilltest::runCommand;

class QuillctlRead : public quilltest::QuillctlTest {
protected:
    void SetUp() override {
        QuillctlTest::SetUp();
        if (IsSkipped()) return;
        quilltest::writeFile(_dir / "doc.plist", R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
	<key>corvaneservices</key>
	<dict>
		<key>servicecontroller:com.tessaly.corvane.executor</key>
		<dict>
			<key>Instances</key>
			<integer>4</integer>
		</dict>
	</dict>
	<key>list</key>
	<array>
		<string>a &amp; b</string>
		<real>0.1</real>
		<date>2026-11-22T09:30:00Z</date>
		<data>AAEC/w==</data>
		<false/>
	</array>
	<key>we.ird</key>
	<string>dotted key</string>
</dict>
</plist>
)");
    }
    std::string doc() const { return (_dir / "doc.plist").string(); }

    quilltest::TempDir _dir;
};

TEST_F(QuillctlRead, LintReportsEachFileAndFailsOnAnyBadOne) {
    quilltest::writeFile(_dir / "bad.plist", "<plist version=\"1.0\"><dict><key>a</key></dict></plist>");
    auto r = run({"plist", "lint", doc(), (_dir / "bad.plist").string(), (_dir / "missing").string()});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.out, doc() + ": OK\n");
    EXPECT_NE(r.err.find("bad.plist: "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("missing: cannot open"), std::string::npos) << r.err;
}

TEST_F(QuillctlRead, PrintConvertsBinaryToTheSameXML) {
    const std::string xml = quilltest::readFile(doc());
    auto binary = PLPropertyListCreateBinaryData(quilltest::readPlistFile(doc()).get());
    ASSERT_TRUE(binary);
    quilltest::writeFile(_dir / "doc.bplist", std::string(binary->view()));

    EXPECT_EQ(run({"plist", "print", doc()}).out, xml);
    EXPECT_EQ(run({"plist", "print", (_dir / "doc.bplist").string()}).out, xml);
}

TEST_F(QuillctlRead, GetFollowsKeyPathsThroughDictsArraysAndDottedKeys) {
    for (const auto& [path, value] : std::vector<std::pair<std::string, std::string>>{
             {"corvaneservices.servicecontroller:com.tessaly.corvane.executor.Instances", "4\n"},
             {"list.0", "a & b\n"}, {"list.2", "2026-11-22T09:30:00Z\n"}, {"list.3", "AAEC/w==\n"},
             {"list.4", "false\n"}, {"we\\.ird", "dotted key\n"}})
        EXPECT_EQ(run({"plist", "get", doc(), path}).out, value) << path;
    auto container = run({"plist", "get", doc(), "corvaneservices"});
    EXPECT_EQ(container.exitCode, 0);
    EXPECT_EQ(container.out.rfind("<?xml", 0), 0u);

    for (const char* bad : {"nokey", "list.9", "list.x", "list.0.deeper"}) {
        auto r = run({"plist", "get", doc(), bad});
        EXPECT_EQ(r.exitCode, 1) << bad;
        EXPECT_TRUE(r.out.empty()) << bad;
        EXPECT_EQ(r.err.rfind("quillctl: ", 0), 0u) << bad << ": " << r.err;
    }
}

TEST_F(QuillctlRead, DigestMatchesMd5sumIncludingEscapedNames) {
    const std::string odd = (_dir / "new\nline \\ name").string();
    quilltest::writeFile(odd, "The quick brown fox jumps over the lazy dog");
    auto r = run({"digest", doc(), odd});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    auto expected = runCommand({"md5sum", doc(), odd});
    EXPECT_EQ(r.out, expected.out);

    r = run({"digest", (_dir / "absent").string()});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.err.find("absent"), std::string::npos);
}

TEST_F(QuillctlRead, VersionAndUsage) {
    EXPECT_EQ(run({"version"}).out, "@(#)PROGRAM:QuillCore  PROJECT:QuillCore-303\n303\n");
    EXPECT_NE(run({}).exitCode, 0);
    EXPECT_NE(run({"plist", "get", doc()}).exitCode, 0);
    EXPECT_EQ(run({"plist", "get", "--help"}).exitCode, 0);
}

}  // namespace
