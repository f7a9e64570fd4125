// quillctl's property-list verbs (plist lint / print / get / set / delete),
// digest and version.
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/ConfigHome.h"
#include "support/TestSupport.h"
#include "tools/QuillctlTest.h"
#include <quillcore/platform/PLPropertyList.h>

namespace {

using quilltest::readFile;
using quilltest::writeFile;

class QuillctlPlist : public quilltest::QuillctlTest {
protected:
    void SetUp() override {
        QuillctlTest::SetUp();
        if (IsSkipped()) return;
        writeFile(doc(), R"(<?xml version="1.0" encoding="UTF-8"?>
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
    // A document to read, and a file to change that does not exist at first.
    std::string doc() const { return (_dir / "doc.plist").string(); }
    std::string file() const { return (_dir / "config.plist").string(); }
    quilltest::CommandResult set(const std::string& keyPath, const std::string& type, const std::string& value) const {
        return run({"plist", "set", file(), keyPath, type, value});
    }
    std::string get(const std::string& keyPath) const { return run({"plist", "get", file(), keyPath}).out; }

    quilltest::TempDir _dir;
};

TEST_F(QuillctlPlist, LintReportsEachFileAndFailsOnAnyBadOne) {
    writeFile(_dir / "bad.plist", "<plist version=\"1.0\"><dict><key>a</key></dict></plist>");
    auto r = run({"plist", "lint", doc(), (_dir / "bad.plist").string(), (_dir / "missing").string()});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.out, doc() + ": OK\n");
    EXPECT_NE(r.err.find("bad.plist: "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("missing: cannot open"), std::string::npos) << r.err;
}

TEST_F(QuillctlPlist, PrintConvertsBinaryToTheSameXML) {
    const std::string xml = readFile(doc());
    auto binary = PLPropertyListCreateBinaryData(quilltest::readPlistFile(doc()).get());
    ASSERT_TRUE(binary);
    writeFile(_dir / "doc.bplist", std::string(binary->view()));

    EXPECT_EQ(run({"plist", "print", doc()}).out, xml);
    EXPECT_EQ(run({"plist", "print", (_dir / "doc.bplist").string()}).out, xml);
}

TEST_F(QuillctlPlist, GetFollowsKeyPathsThroughDictsArraysAndDottedKeys) {
    for (const auto& [path, value] : std::vector<std::pair<std::string, std::string>>{
             {"corvaneservices.servicecontroller:com.tessaly.corvane.executor.Instances", "4\n"},
             {"list.0", "a & b\n"},
             {"list.2", "2026-11-22T09:30:00Z\n"},
             {"list.3", "AAEC/w==\n"},
             {"list.4", "false\n"},
             {"we\\.ird", "dotted key\n"}})
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

TEST_F(QuillctlPlist, SetCreatesTheFileAndMissingDictionariesForEveryType) {
    const std::vector<std::vector<std::string>> rows = {
        {"corvaneconfig.DaemonPort", "integer", "-9223372036854775808", "-9223372036854775808\n"},
        {"a.b.c", "string", "x & <y>", "x & <y>\n"},
        {"r", "real", "0.1", "0.1\n"},
        {"flag", "bool", "No", "false\n"},
        {"bytes", "data", "AAEC/w", "AAEC/w==\n"},
        {"when", "date", "2024-02-29 23:59:59", "2024-02-29T23:59:59Z\n"}};
    for (const auto& r : rows) EXPECT_EQ(set(r[0], r[1], r[2]).exitCode, 0) << r[0];
    for (const auto& r : rows) EXPECT_EQ(get(r[0]), r[3]);

    // Existing dotted keys match as a whole; arrays take an index, their
    // length appends.
    writeFile(file(), R"(<plist version="1.0"><dict><key>svc</key><dict><key>role:com.x.y</key><dict/></dict>
        <key>list</key><array><integer>1</integer></array></dict></plist>)");
    EXPECT_EQ(set("svc.role:com.x.y.Instances", "integer", "4").exitCode, 0);
    EXPECT_EQ(get("svc.role:com\\.x\\.y.Instances"), "4\n");
    EXPECT_EQ(set("list.1", "date", "2026-11-22T10:00:00Z").exitCode, 0);
    EXPECT_EQ(set("list.0", "bool", "yes").exitCode, 0);
    EXPECT_EQ(get("list.0"), "true\n");
    EXPECT_EQ(get("list.1"), "2026-11-22T10:00:00Z\n");
    EXPECT_EQ(set("list.3", "integer", "1").exitCode, 1);
}

TEST_F(QuillctlPlist, BadValuesAreRefusedBeforeTheFileIsTouched) {
    const std::vector<std::pair<std::string, std::string>> bad = {
        {"integer", "9223372036854775808"},
        {"integer", "12x"},
        {"integer", ""},
        {"real", "1e999"},
        {"real", "one"},
        {"bool", "maybe"},
        {"date", "2026-02-29 10:00:00"},
        {"date", "2026-11-22T10:00:00"},
        {"date", "2026-11-22 24:00:00"},
        // What the property-list reader takes but quillctl does not: year 0,
        // fractions of a second, padding short of a whole group, white space.
        {"date", "0000-01-01 00:00:00"},
        {"date", "2026-11-22T10:00:00.5Z"},
        {"data", "AA*="},
        {"data", "A"},
        {"data", "QQ="},
        {"data", "QQ =="},
    };
    for (const auto& [type, value] : bad) {
        auto r = set("k", type, value);
        EXPECT_EQ(r.exitCode, 1) << type << " " << value;
        EXPECT_EQ(r.err.rfind("quillctl: bad " + type + " value \"" + value + "\": ", 0), 0u) << r.err;
    }
    EXPECT_FALSE(std::filesystem::exists(file()));
    EXPECT_NE(set("k", "float", "1").exitCode, 0);
}

TEST_F(QuillctlPlist, DeleteAndRefusalsLeaveTheFileAsItWas) {
    ASSERT_EQ(set("keep", "string", "x").exitCode, 0);
    ASSERT_EQ(set("a.gone", "integer", "1").exitCode, 0);
    EXPECT_EQ(run({"plist", "delete", file(), "a.gone"}).exitCode, 0);
    EXPECT_NE(get("a").find("<dict/>"), std::string::npos) << "only the key goes, not its dictionary";
    EXPECT_EQ(run({"plist", "get", file(), "a.gone"}).exitCode, 1);
    EXPECT_EQ(get("keep"), "x\n");

    auto r = run({"plist", "delete", file(), "a.gone"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.err, "quillctl: " + file() + ": no key \"gone\" in a\n");
    EXPECT_EQ(run({"plist", "delete", (_dir / "absent").string(), "x"}).exitCode, 1);
    EXPECT_FALSE(std::filesystem::exists(_dir / "absent"));

    const std::string broken = "<plist version=\"1.0\"><dict><key>x</key>";
    writeFile(file(), broken);
    for (auto args : {std::vector<std::string>{"plist", "set", file(), "x", "integer", "1"},
                      std::vector<std::string>{"plist", "delete", file(), "x"}}) {
        r = run(args);
        EXPECT_EQ(r.exitCode, 1);
        EXPECT_NE(r.err.find("PLPropertyListCreateFromXMLData() failed"), std::string::npos) << r.err;
        EXPECT_EQ(readFile(file()), broken);
    }
}

TEST_F(QuillctlPlist, ConcurrentSettersNeverLoseAChange) {
    constexpr int kWriters = 8;
    constexpr int kChanges = 25;
    std::vector<std::thread> writers;
    std::vector<int> failures(kWriters, 0);
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back([&, w] {
            for (int i = 0; i < kChanges; ++i) {
                const std::string key = "w" + std::to_string(w) + ".k" + std::to_string(i);
                if (set(key, "integer", std::to_string(w * 100 + i)).exitCode != 0) ++failures[w];
            }
        });
    }
    for (auto& t : writers) t.join();

    const auto top = quilltest::readPlistFile(file());
    ASSERT_TRUE(top);
    for (int w = 0; w < kWriters; ++w) {
        EXPECT_EQ(failures[w], 0);
        const auto* mine = PLDynamicCast<PLDictionary>(top->get("w" + std::to_string(w)));
        ASSERT_TRUE(mine) << "writer " << w << " lost everything";
        EXPECT_EQ(mine->count(), static_cast<size_t>(kChanges)) << "writer " << w;
        for (int i = 0; i < kChanges; ++i) {
            const auto* n = PLDynamicCast<PLNumber>(mine->get("k" + std::to_string(i)));
            EXPECT_TRUE(n && n->int32Value() == w * 100 + i) << "w" << w << ".k" << i;
        }
    }
}

TEST_F(QuillctlPlist, DigestMatchesMd5sumIncludingEscapedNames) {
    const std::string odd = (_dir / "new\nline \\ name").string();
    writeFile(odd, "The quick brown fox jumps over the lazy dog");
    auto r = run({"digest", doc(), odd});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, quilltest::runCommand({"md5sum", doc(), odd}).out);

    r = run({"digest", (_dir / "absent").string()});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.err.find("absent"), std::string::npos);
}

TEST_F(QuillctlPlist, VersionAndUsage) {
    EXPECT_EQ(run({"version"}).out, "@(#)PROGRAM:QuillCore  PROJECT:QuillCore-303\n303\n");
    EXPECT_NE(run({}).exitCode, 0);
    EXPECT_NE(run({"plist", "get", doc()}).exitCode, 0);
    EXPECT_EQ(run({"plist", "get", "--help"}).exitCode, 0);
}

}  // namespace
