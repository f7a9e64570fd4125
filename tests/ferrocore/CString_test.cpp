// CString: null versus empty, character (code point) counting, sprintf, the
// shell quoting checked by a real /bin/sh, and string option 3 checked by the
// XML parser.
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/RunCommand.h"
#include <ferrocore/CException.h>
#include <ferrocore/CString.h>
#include <ferrocore/CXMLService.h>

namespace ferrocore {
namespace {

TEST(StringTest, NullAndEmptyAreDistinct) {
    CStringRef null;
    CStringRef empty = CString::create("");
    CStringRef text = CString::create("x");
    EXPECT_FALSE(CString::create(static_cast<const char*>(nullptr)));
    EXPECT_FALSE(stringsEqual(null, empty));
    EXPECT_TRUE(stringsEqual(null, CStringRef()));
    EXPECT_TRUE(stringsEqual(empty, CString::create(std::string())));

    CStringRef fromNull = nullToEmptyString(null);
    ASSERT_TRUE(fromNull && fromNull->empty());
    EXPECT_EQ(nullToEmptyString(text).get(), text.get());
    EXPECT_FALSE(emptyToNullString(empty));
    EXPECT_FALSE(emptyToNullString(null));
    EXPECT_EQ(emptyToNullString(text).get(), text.get());
}

TEST(StringTest, SprintfAppendAndFromInt) {
    CStringRef label = CString::sprintf("%@-%u", CString::create("com.tessaly.corvane.executor"), 2u);
    EXPECT_EQ(label->utf8(), "com.tessaly.corvane.executor-2");
    EXPECT_EQ(CString::fromInt(-42)->utf8(), "-42");

    // append changes the string for every holder.
    CStringRef alias = label;
    label->append(".plist");
    label->append(*CString::create("!"));
    EXPECT_EQ(alias->utf8(), "com.tessaly.corvane.executor-2.plist!");
    EXPECT_TRUE(alias->endsWith(".plist!") && alias->beginsWith(""));
    EXPECT_FALSE(alias->endsWith("plist"));
}

TEST(StringTest, LengthIndexAndFindCountCodePoints) {
    CStringRef s = CString::create("Grüße, 日本 🎉/x");
    EXPECT_EQ(s->byteLength(), 22u);
    EXPECT_EQ(s->length(), 13u);
    for (auto [i, c] : {std::pair<std::size_t, char32_t>{0, U'G'}, {2, U'ü'}, {7, U'日'}, {10, U'🎉'}, {12, U'x'}})
        EXPECT_EQ(s->characterAtIndex(i), c) << i;
    EXPECT_THROW(s->characterAtIndex(13), CParamException);

    const struct {
        const char* what;
        std::size_t from, at;
    } finds[] = {{"ß", 0, 3}, {"/x", 0, 11},           {"x", 12, 12}, {"G", 1, CString::npos},
                 {"", 4, 4},  {"x", 14, CString::npos}};
    for (const auto& f : finds) EXPECT_EQ(s->find(f.what, f.from), f.at) << f.what << " from " << f.from;

    // Each byte of a malformed sequence is one character, U+FFFD.
    CStringRef bad = CString::create(std::string("a\xE2\x82z\xC0\xAF", 6));
    EXPECT_EQ(bad->length(), 6u);
    EXPECT_EQ(bad->characterAtIndex(1), char32_t{0xFFFD});
    EXPECT_EQ(bad->characterAtIndex(3), U'z');
    // An encoded surrogate is malformed too.
    EXPECT_EQ(CString::create("\xED\xA0\x80")->length(), 3u);
}

// What /bin/sh makes of `printf %s <word>`.
std::string shellPrintf(const std::string& word) {
    return quilltest::runCommand({"/bin/sh", "-c", "printf %s " + word}).out;
}

TEST(StringTest, ShellEscapedFilenameSurvivesTheShell) {
    const std::vector<std::string> names = {"plain",
                                            "with space",
                                            "it's",
                                            "''",
                                            "\"double\" quotes",
                                            "$HOME and ${PATH}",
                                            "`id` $(id)",
                                            "back\\slash\\",
                                            "new\nline\n",
                                            "tab\there",
                                            "*.txt ? [a]",
                                            "a; echo injected && exit 3 | cat",
                                            "~user",
                                            "#comment",
                                            "Grüße 日本",
                                            ""};
    for (const std::string& name : names) {
        CStringRef escaped = CString::create(name)->shellEscapedFilename();
        EXPECT_EQ(shellPrintf(escaped->utf8()), name) << "escaped as " << escaped->utf8();
    }
    // A leading dash is kept from reading as an option; the path is the same.
    EXPECT_EQ(shellPrintf(CString::create("--rm it")->shellEscapedFilename()->utf8()), "./--rm it");
    EXPECT_THROW(CString::create(std::string("a\0b", 3))->shellEscapedFilename(), CParamException);
}

// Whether `value` survives as the msg attribute of a log element.
void expectAttributeRoundTrip(const std::string& value, const std::string& expected) {
    CStringRef safe = CString::create(value)->xmlAttributeSafeCopy();
    const std::string xml = "<log msg=\"" + safe->utf8() + "\"/>";
    CXMLServiceRef doc;
    ASSERT_NO_THROW(doc = CXMLService::create(xml)) << xml;
    CStringRef back = doc->childAtIndex(0)->getAttributeValueAsString("msg");
    ASSERT_TRUE(back);
    EXPECT_EQ(back->utf8(), expected) << xml;
}

TEST(StringTest, XMLAttributeSafeCopyParsesBackToTheText) {
    EXPECT_EQ(CString::create("a&b<c>d\"e'f")->xmlAttributeSafeCopy()->utf8(), "a&amp;b&lt;c&gt;d&quot;e&apos;f");
    EXPECT_EQ(CString::create("&amp;")->xmlAttributeSafeCopy()->utf8(), "&amp;amp;");
    // The copying constructor takes the same escaping as an option.
    const CStringRef source = CString::create("a<b");
    EXPECT_EQ(makeShared<CString>(*source, kStringOptionNone)->utf8(), "a<b");
    EXPECT_EQ(makeShared<CString>(*source, kStringOptionXMLAttributeSafe)->utf8(), "a&lt;b");
    EXPECT_THROW(makeShared<CString>(*source, static_cast<eStringOptions>(2)), CParamException);
    for (const char* text : {"a < b > c & \"d\" 'e'", "line1\nline2\r\n\tend", "日本 🎉", "]]> <![CDATA[ x"})
        expectAttributeRoundTrip(text, text);
    // Characters XML cannot carry become U+FFFD; the result still parses.
    expectAttributeRoundTrip(std::string("a\x01"
                                         "b\0c",
                                         5),
                             "a\uFFFDb\uFFFDc");
    expectAttributeRoundTrip("bad\xFF\xC3utf8", "bad\uFFFD\uFFFDutf8");
    expectAttributeRoundTrip("\xEF\xBF\xBE", "\uFFFD");

    // Random bytes of every value: the copy always parses.
    std::mt19937 random(1234);
    std::uniform_int_distribution<int> byte(0, 255);
    for (int round = 0; round < 500; ++round) {
        std::string text(static_cast<std::size_t>(byte(random) % 40), '\0');
        for (char& c : text) c = static_cast<char>(byte(random));
        const std::string xml = "<log msg=\"" + CString::create(text)->xmlAttributeSafeCopy()->utf8() + "\"/>";
        EXPECT_TRUE(CXMLService::isWellFormed(xml)) << xml;
    }
}

}  // namespace
}  // namespace ferrocore
