#include <algorithm>
#include <bit>
#include <cfloat>
#include <charconv>
#include <cmath>
#include <cstring>
#include <initializer_list>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/PLPropertyListReaders.h"
#include "support/TestSupport.h"
#include <quillcore/platform/PLPropertyList.h>
#include <quillcore/platform/PLPropertyListText.h>

namespace {

PLHolder<const PLObject> str(std::string_view s) { return PLString::create(s); }
PLHolder<const PLObject> num(std::int64_t v) { return PLNumber::create(v); }
PLHolder<const PLObject> real(double v) { return PLNumber::create(v); }

PLHolder<const PLObject> parse(std::string_view text, std::string* error = nullptr,
                               PLMutability mutability = PLMutability::Immutable) {
    std::string ignored;
    return PLPropertyListCreateFromBytes(text.data(), text.size(), mutability, error ? error : &ignored);
}

std::string writeXML(const PLObject* plist) {
    std::string out, error;
    EXPECT_TRUE(PLPropertyListWriteXML(plist, out, &error)) << error;
    return out;
}

std::string writeBinary(const PLObject* plist) {
    auto data = PLPropertyListCreateBinaryData(plist);
    EXPECT_TRUE(data);
    return data ? std::string(data->view()) : std::string();
}

const PLDictionary* dict(const PLHolder<const PLObject>& h) { return PLDynamicCast<PLDictionary>(h.get()); }

std::string bytes(std::initializer_list<unsigned> list) {
    std::string s;
    for (unsigned b : list) s += static_cast<char>(b);
    return s;
}

// A binary property list of the given object encodings (object 0 first),
// with one-byte offsets and references. `offsets` overrides the table.
std::string bplist(const std::vector<std::string>& objects, std::uint64_t top = 0, std::vector<unsigned> offsets = {}) {
    std::string out = "bplist00";
    const bool given = !offsets.empty();
    for (const auto& o : objects) {
        if (!given) offsets.push_back(static_cast<unsigned>(out.size()));
        out += o;
    }
    const std::uint64_t table = out.size();
    for (unsigned off : offsets) out += static_cast<char>(off);
    out += std::string(6, '\0');
    out += '\x01';
    out += '\x01';
    for (std::uint64_t v : {static_cast<std::uint64_t>(offsets.size()), top, table}) {
        for (int i = 7; i >= 0; --i) out += static_cast<char>(v >> (8 * i));
    }
    return out;
}

void expectRefused(std::string_view doc, std::string_view reason) {
    std::string error;
    EXPECT_FALSE(parse(doc, &error)) << doc;
    EXPECT_NE(error.find(reason), std::string::npos) << "error \"" << error << "\" lacks \"" << reason << "\"";
}

TEST(PLPropertyListWriter, WritesTheExactForm) {
    auto inner = PLMutableDictionary::create();
    inner->set(str("z"), real(1.0));
    auto list = PLMutableArray::create();
    list->append(PLHolder<const PLObject>::retain(kPLBooleanTrue));
    list->append(PLHolder<const PLObject>::retain(kPLBooleanFalse));
    list->append(inner);
    auto root = PLMutableDictionary::create();
    root->set(str("b"), str("x & <y> \"q\""));
    root->set(str("a"), num(-5));
    root->set(str("c"), real(0.5));
    root->set(str("d"), PLDate::create(817034400.0));
    root->set(str("B"), PLDate::create(-992490139.5));
    root->set(str("e"), PLData::create("\0\1\2hello", 8));
    root->set(str("f"), PLMutableArray::create());
    root->set(str("g"), PLMutableDictionary::create());
    root->set(str("h"), list);
    root->set(str("k&"), str("cr\r"));
    root->set(str("\xC3\xBC"), real(-INFINITY));

    const std::string expected =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<plist version=\"1.0\">\n"
        "<dict>\n"
        "\t<key>B</key>\n"
        "\t<date>1969-07-20T20:17:40.5Z</date>\n"
        "\t<key>a</key>\n"
        "\t<integer>-5</integer>\n"
        "\t<key>b</key>\n"
        "\t<string>x &amp; &lt;y&gt; \"q\"</string>\n"
        "\t<key>c</key>\n"
        "\t<real>0.5</real>\n"
        "\t<key>d</key>\n"
        "\t<date>2026-11-22T10:00:00Z</date>\n"
        "\t<key>e</key>\n"
        "\t<data>AAECaGVsbG8=</data>\n"
        "\t<key>f</key>\n"
        "\t<array/>\n"
        "\t<key>g</key>\n"
        "\t<dict/>\n"
        "\t<key>h</key>\n"
        "\t<array>\n"
        "\t\t<true/>\n"
        "\t\t<false/>\n"
        "\t\t<dict>\n"
        "\t\t\t<key>z</key>\n"
        "\t\t\t<real>1</real>\n"
        "\t\t</dict>\n"
        "\t</array>\n"
        "\t<key>k&amp;</key>\n"
        "\t<string>cr&#13;</string>\n"
        "\t<key>\xC3\xBC</key>\n"
        "\t<real>-inf</real>\n"
        "</dict>\n"
        "</plist>\n";
    std::string out = "kept";  // appended to
    ASSERT_TRUE(PLPropertyListWriteXML(root.get(), out));
    EXPECT_EQ(out, "kept" + expected);
    PLHolder<const PLString> error = PLString::create("stale");
    auto data = PLPropertyListCreateXMLData(root.get(), &error);
    ASSERT_TRUE(data);
    EXPECT_FALSE(error);
    EXPECT_EQ(data->view(), expected);
    EXPECT_EQ(writeXML(PLString::create("top").get()),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<string>top</string>\n</plist>\n");
}

TEST(PLPropertyListWriter, RefusesWhatItCannotWriteAndSaysWhere) {
    auto list = PLMutableArray::create();
    list->append(num(1));
    list->append(PLURL::create("file:///x"));
    auto withURL = PLMutableDictionary::create();
    withURL->set(str("list"), list);
    auto numberKey = PLMutableDictionary::create();
    numberKey->set(num(5), str("x"));
    auto badText = PLMutableDictionary::create();
    badText->set(str("s"), str("a\xff"));
    auto badKey = PLMutableDictionary::create();
    badKey->set(str("k\x01"), num(1));

    const std::pair<PLHolder<const PLObject>, std::string> cases[] = {
        {withURL, "value at /list/1: a URL is not a property-list type"},
        {numberKey, "dictionary at /: a key of type number is not a string"},
        {badText, "string at /s: not valid UTF-8 (byte 0xff at index 1)"},
        {badKey, "key in dictionary at /: character U+0001 cannot be written in XML"},
        {str("\xEF\xBF\xBF"), "character U+FFFF cannot be written in XML"},
        {PLDate::create(253402300800.0 - kPLAbsoluteTimeIntervalSince1970), "date at /: outside the years 1 to 9999"},
        {PLDate::create(-62135596801.0 - kPLAbsoluteTimeIntervalSince1970), "outside the years 1 to 9999"},
        {PLDate::create(NAN), "outside the years 1 to 9999"},
        {nullptr, "no property list to write"},
    };
    for (const auto& [held, reason] : cases) {
        const PLObject* plist = held.get();
        std::string out = "kept", error;
        EXPECT_FALSE(PLPropertyListWriteXML(plist, out, &error));
        EXPECT_EQ(out, "kept");
        EXPECT_NE(error.find(reason), std::string::npos) << error;
        EXPECT_FALSE(PLPropertyListIsValid(plist, PLPropertyListFormat::XML));
    }
    PLHolder<const PLString> error;
    EXPECT_FALSE(PLPropertyListCreateXMLData(withURL.get(), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->utf8(), "value at /list/1: a URL is not a property-list type");

    // Binary carries any valid UTF-8 but no URLs, non-string keys or broken text.
    EXPECT_TRUE(PLPropertyListIsValid(badKey.get(), PLPropertyListFormat::Binary));
    EXPECT_FALSE(PLPropertyListIsValid(withURL.get(), PLPropertyListFormat::Binary));
    EXPECT_FALSE(PLPropertyListIsValid(numberKey.get(), PLPropertyListFormat::Binary));
    EXPECT_FALSE(PLPropertyListCreateBinaryData(badText.get(), &error));
    EXPECT_EQ(error->utf8(), "string at /s: not valid UTF-8 (at index 1)");
}

TEST(PLPropertyListRoundTrip, RealsAndDatesReadBackBitExact) {
    const double reals[] = {0.1,           1e-300, -0.0,   DBL_MAX, DBL_TRUE_MIN, 1.0 / 3,
                            123456789.125, -1e22,  5e-324, NAN,     INFINITY,     -INFINITY};
    auto list = PLMutableArray::create();
    for (double d : reals) list->append(real(d));
    // Negative dates count their seconds from below, so their fractions
    // must come out exact too.
    const double dates[] = {0,
                            0.1,
                            -0.25,
                            1e-7,
                            123456789.987654321,
                            -992490139.5,
                            5e-324,
                            -0.1,
                            -1e-300,
                            -123456.789,
                            -62135596800.0 - kPLAbsoluteTimeIntervalSince1970 + 0.5};
    for (double d : dates) list->append(PLDate::create(d));

    const std::string xml = writeXML(list.get());
    for (const char* text : {"<real>0.1</real>", "<real>1e-300</real>", "<real>-0</real>",
                             "<real>1.7976931348623157e+308</real>", "<real>nan</real>", "<real>inf</real>",
                             "<date>2000-12-31T23:59:59.9Z</date>", "<date>0001-01-01T00:00:00.5Z</date>"}) {
        EXPECT_NE(xml.find(text), std::string::npos) << text;
    }
    for (const std::string& encoded : {xml, writeBinary(list.get())}) {
        auto back = parse(encoded);
        const auto* array = PLDynamicCast<PLArray>(back.get());
        ASSERT_NE(array, nullptr);
        ASSERT_EQ(array->count(), list->count());
        for (std::size_t i = 0; i < std::size(reals); ++i) {
            const double d = static_cast<const PLNumber*>(array->at(i))->doubleValue();
            if (std::isnan(reals[i])) {
                EXPECT_TRUE(std::isnan(d));
            } else {
                EXPECT_EQ(std::memcmp(&d, &reals[i], sizeof d), 0) << reals[i];
            }
        }
        for (std::size_t i = 0; i < std::size(dates); ++i) {
            const double d = static_cast<const PLDate*>(array->at(std::size(reals) + i))->absoluteTime();
            EXPECT_EQ(d, dates[i]) << dates[i];
        }
    }
}

// Regression: a date written where the output buffer ends lost its last
// bytes. Short elements before it (ten bytes per nested <true/>, plus a
// string of some length) move it across the end of the first buffer (4 KiB
// for a root of one element) byte by byte.
TEST(PLPropertyListRoundTrip, ValuesAtTheEndOfTheOutputBufferAreWhole) {
    for (std::size_t pad = 0; pad < 10; ++pad) {
        for (std::size_t trues = 380; trues < 420; ++trues) {
            auto list = PLMutableArray::create();
            list->append(str(std::string(pad, 'x')));
            for (std::size_t i = 0; i < trues; ++i) list->append(PLHolder<const PLObject>::retain(kPLBooleanTrue));
            list->append(PLDate::create(0.125));
            list->append(real(0.1));
            auto root = PLMutableArray::create();
            root->append(list);
            auto back = parse(writeXML(root.get()));
            ASSERT_TRUE(back && back->equals(*root)) << pad << " " << trues;
        }
    }
}

PLHolder<const PLObject> sampleTree() {
    auto inner = PLMutableArray::create();
    inner->append(str(""));
    inner->append(str("caf\xC3\xA9 \xE6\x97\xA5\xE6\x9C\xAC \xF0\x9F\x8E\xAC"));
    inner->append(str("line\r\nbreak\ttab & <tag> ]]> '\"&amp;\x7f\xEF\xBF\xBD"));
    inner->append(num(std::numeric_limits<std::int64_t>::min()));
    inner->append(num(std::numeric_limits<std::int64_t>::max()));
    inner->append(num(4294967295));
    inner->append(PLData::create("", 0));
    inner->append(PLData::create("\xff\x00\x10", 3));
    auto root = PLMutableDictionary::create();
    root->set(str("list"), inner);
    root->set(str("\xF0\x9F\x98\x80 key"), PLMutableDictionary::create());
    root->set(str("when"), PLDate::create(-1e9));
    root->set(str("yes"), PLHolder<const PLObject>::retain(kPLBooleanTrue));
    for (int i = 0; i < 30; ++i) root->set(str("k" + std::to_string(i)), num(i * 1000003));
    return root;
}

TEST(PLPropertyListRoundTrip, XMLAndBinaryGiveEqualTreesWithTheAskedMutability) {
    const auto tree = sampleTree();
    for (const std::string& encoded : {writeXML(tree.get()), writeBinary(tree.get())}) {
        PLPropertyListFormat format;
        std::string error;
        auto frozen =
            PLPropertyListCreateFromBytes(encoded.data(), encoded.size(), PLMutability::Immutable, &error, &format);
        ASSERT_TRUE(frozen) << error;
        EXPECT_EQ(format, encoded.starts_with("bplist00") ? PLPropertyListFormat::Binary : PLPropertyListFormat::XML);
        EXPECT_TRUE(frozen->equals(*tree));
        EXPECT_FALSE(frozen->isMutable());
        EXPECT_EQ(static_cast<const PLNumber*>(dict(frozen)->get("k1"))->numberType(), PLNumberType::SInt32);

        auto containers = parse(encoded, nullptr, PLMutability::MutableContainers);
        auto* root = PLMutableCast<PLMutableDictionary>(containers.get());
        auto* list = root ? PLMutableCast<PLMutableArray>(root->get("list")) : nullptr;
        ASSERT_NE(list, nullptr);
        EXPECT_FALSE(list->at(1)->isMutable());

        auto leaves = parse(encoded, nullptr, PLMutability::MutableContainersAndLeaves);
        ASSERT_TRUE(leaves->equals(*tree));
        const auto* leafList = static_cast<const PLArray*>(dict(leaves)->get("list"));
        EXPECT_NE(PLMutableCast<PLMutableString>(leafList->at(1)), nullptr);
        EXPECT_NE(PLMutableCast<PLMutableData>(leafList->at(7)), nullptr);
        for (const auto& [key, value] : dict(leaves)->entries()) EXPECT_FALSE(key->isMutable());
    }
}

// Every form of the XML format that the reader must take.
const std::string kEveryForm =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Example//DTD PLIST 1.0//EN\" \"http://example.com/plist.dtd\">\n"
    "<!-- made by hand -->\n"
    "<plist version=\"1.0\"><dict>\n"
    " <key>hex</key><integer> 0x1F </integer><key>min</key><integer>-9223372036854775808</integer>\n"
    " <key>long</key><integer>-999999999999999999</integer>\n"
    " <key>plus</key><!-- between --><?note x?><integer>+42</integer>\n"
    " <key>reals</key><array><real>+infinity</real><real>-INF</real><real>NaN</real><real>1e3</real>"
    "<real> .5 </real></array>\n"
    " <key>when</key><date>2001-01-01T00:00:01.5Z</date><key>leap</key><date>2024-02-29T23:59:59Z</date>\n"
    " <key>blob</key><data>\n   AAEC\n   aGVsbG8\n </data>\n"
    " <key>cdata</key><string><![CDATA[<raw> & stuff]]></string>\n"
    " <key>refs</key><string>&amp;&#x1F600;&#65;</string>\n"
    " <key>dup</key><string>first</string><key>dup</key><string>second</string><key>empty</key><string/>\n"
    "</dict></plist>\n";

TEST(PLPropertyListReader, AcceptsTheFormsOfTheXMLFormat) {
    std::string error;
    auto plist = parse(kEveryForm, &error);
    ASSERT_TRUE(plist) << error;
    const PLDictionary* d = dict(plist);
    auto number = [&](const char* key) { return static_cast<const PLNumber*>(d->get(key)); };
    auto text = [&](const char* key) { return static_cast<const PLString*>(d->get(key))->utf8(); };
    for (const auto& [key, value] : {std::pair<const char*, std::int64_t>{"hex", 31},
                                     {"plus", 42},
                                     {"min", std::numeric_limits<std::int64_t>::min()},
                                     {"long", -999999999999999999}})
        EXPECT_EQ(number(key)->int64Value(), value) << key;
    EXPECT_EQ(number("min")->numberType(), PLNumberType::SInt64);
    const auto* reals = static_cast<const PLArray*>(d->get("reals"));
    const double expectedReals[] = {INFINITY, -INFINITY, NAN, 1000.0, 0.5};
    for (std::size_t i = 0; i < std::size(expectedReals); ++i) {
        const double got = static_cast<const PLNumber*>(reals->at(i))->doubleValue();
        EXPECT_TRUE(got == expectedReals[i] || (std::isnan(got) && std::isnan(expectedReals[i]))) << i;
    }
    EXPECT_EQ(static_cast<const PLDate*>(d->get("when"))->absoluteTime(), 1.5);
    EXPECT_EQ(static_cast<const PLDate*>(d->get("leap"))->absoluteTime(), 730943999.0);
    EXPECT_EQ(static_cast<const PLData*>(d->get("blob"))->view(), std::string_view("\0\1\2hello", 8));
    EXPECT_EQ(text("cdata"), "<raw> & stuff");
    EXPECT_EQ(text("refs"),
              "&\xF0\x9F\x98\x80"
              "A");
    EXPECT_EQ(text("dup"), "second");
    EXPECT_EQ(d->count(), 12u);
}

TEST(PLPropertyListReader, RefusesMalformedXMLSayingWhatAndWhere) {
    std::string deep = "<plist>";
    for (int i = 0; i < 600; ++i) deep += "<array>";
    const std::pair<std::string, const char*> cases[] = {
        {"<plist>\n<dict>\n\t<foo/>", "malformed XML property list at line 3:2: unknown element <foo>"},
        {"<plist><dict><key>a</key>", "no element found"},
        {"<plist><dict></array></plist>", "mismatched tag"},
        {"<plist><string>\xff</string></plist>", "not well-formed"},
        {deep, "elements nested more than 512 deep"},
        {"<!DOCTYPE plist [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b "
         "\"&a;&a;&a;&a;&a;&a;\">]><plist><string>&b;</string></plist>",
         "entity declarations are not allowed (<!ENTITY a>)"},
        {"<plist><string>&nope;</string></plist>", "undefined entity"},
        {"<plist><integer>9223372036854775808</integer></plist>", "integer out of the 64-bit range"},
        {"<plist><integer>0x8000000000000000</integer></plist>", "integer out of the 64-bit range"},
        {"<plist><integer>12abc</integer></plist>", "invalid integer \"12abc\""},
        {"<plist><integer></integer></plist>", "invalid integer"},
        // Regression: eighteen bytes that are not digits once overflowed the short-number path.
        {"<plist><integer>\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9</integer></plist>",
         "invalid integer"},
        {"<plist><real>1e400</real></plist>", "real out of range"},
        {"<plist><real>1.2.3</real></plist>", "invalid real"},
        {"<plist><date>2026-02-29T00:00:00Z</date></plist>", "a field is out of range"},
        {"<plist><date>2026-11-22T10:00:00.Z</date></plist>", "invalid date"},
        {"<plist><array><key>a</key></array></plist>", "<key> outside a dictionary"},
        {"<plist><dict><key>a</key></dict></plist>", "no value for key \"a\""},
        {"<plist><dict><key>a</key><key>b</key></dict></plist>", "no value for key \"a\""},
        {"<plist><dict><string>x</string></dict></plist>", "<string> where a <key> was expected"},
        {"<plist><dict>junk</dict></plist>", "unexpected text \"junk\" in <dict>"},
        {"<dict/>", "the root element is <dict>, not <plist>"},
        {"<plist/>", "no value in <plist>"},
        {"<plist><true/><false/></plist>", "more than one value in <plist>"},
        {"<plist><true>yes</true></plist>", "text inside <true/>"},
        {"<plist><string><b/></string></plist>", "element <b> inside <string>"},
        {"<plist><array><plist/></array></plist>", "<plist> inside a property list"},
        {"", "empty input"},
    };
    for (const auto& [doc, reason] : cases) expectRefused(doc, reason);

    PLHolder<const PLString> error;
    auto data = PLData::create("<plist>", 7);
    EXPECT_FALSE(PLPropertyListCreateFromXMLData(data.get(), PLMutability::Immutable, &error));
    ASSERT_TRUE(error);
    EXPECT_TRUE(error->utf8().starts_with("malformed XML property list at line 1:8: "));
    EXPECT_FALSE(PLPropertyListCreateFromXMLData(nullptr, PLMutability::Immutable, &error));
    auto good = PLData::create("<plist><true/></plist>", 22);
    EXPECT_TRUE(PLPropertyListCreateFromXMLData(good.get(), PLMutability::Immutable, &error));
    EXPECT_FALSE(error);
}

// The reader's base64 decoding against a plain one, symbol by symbol, on
// random text: white space anywhere, padding or none, and corruptions.
TEST(PLPropertyListReader, DecodesBase64AsASimpleDecoderDoes) {
    constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    auto reference = [&](std::string_view text, std::string* out) -> const char* {
        std::uint32_t acc = 0;
        unsigned bits = 0, symbols = 0, pads = 0;
        for (const char c : text) {
            const char* at = c ? std::strchr(kAlphabet, c) : nullptr;
            if (c == ' ' || c == '\t' || c == '\n' || c == '\r') continue;
            if (at && pads == 0) {
                acc = (acc << 6) | static_cast<std::uint32_t>(at - kAlphabet);
                ++symbols;
                if ((bits += 6) >= 8) *out += static_cast<char>(acc >> (bits -= 8));
            } else if (c == '=' && pads < 2) {
                ++pads;
            } else {
                return "invalid base64 data in <data>";
            }
        }
        return symbols % 4 == 1 ? "invalid base64 data in <data> (truncated)" : nullptr;
    };
    const char* noise[] = {" ", "\n", "\t\t", "\r\n ", "=", "@", "A", "\xC3\xA9", "-"};
    std::mt19937 rng(11);
    for (int round = 0; round < 4000; ++round) {
        std::vector<std::string> pieces;  // noise goes between pieces, never inside one
        const std::size_t bytes = rng() % 90;
        for (std::size_t i = 0; i < bytes; i += 3) {
            const std::uint32_t v = rng() & 0xFFFFFF;
            for (int k = 0; k < 4; ++k) pieces.emplace_back(1, kAlphabet[(v >> (18 - 6 * k)) & 63]);
        }
        if (round % 3 == 0 && !pieces.empty())
            pieces.resize(pieces.size() - 1 - rng() % std::min<std::size_t>(2, pieces.size()));
        if (round % 3 == 1 && pieces.size() >= 2) pieces.back() = pieces[pieces.size() - 2] = "=";
        for (unsigned n = rng() % 6; n > 0; --n) {
            // Mostly white space; now and then something that spoils the text.
            const std::size_t which = round % 4 == 3 ? rng() % std::size(noise) : rng() % 4;
            pieces.insert(pieces.begin() + static_cast<std::ptrdiff_t>(rng() % (pieces.size() + 1)), noise[which]);
        }
        std::string text, expected, error;
        for (const auto& piece : pieces) text += piece;
        const char* problem = reference(text, &expected);
        auto plist = parse("<plist><data>" + text + "</data></plist>", &error);
        if (problem) {
            EXPECT_FALSE(plist) << text;
            EXPECT_NE(error.find(problem), std::string::npos) << text << ": " << error;
            EXPECT_EQ(error.find("truncated") != std::string::npos, std::string_view(problem).ends_with("(truncated)"));
        } else {
            ASSERT_TRUE(plist) << text << ": " << error;
            EXPECT_EQ(static_cast<const PLData*>(plist.get())->view(), expected) << text;
        }
    }
}

// The shared base64 functions, which quillctl calls with buffers of exactly
// the sizes they promise (so that a write beyond them shows under
// AddressSanitizer): the RFC 4648 examples, and random bytes of every length
// of a few groups back from their text, into a separate buffer and in place.
TEST(PLPropertyListText, Base64ReadsBackWhatItWritesWithinTheSizesItStates) {
    const std::pair<std::string_view, std::string_view> examples[] = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"foobar", "Zm9vYmFy"}};
    for (const auto& [bytes, text] : examples) {
        ASSERT_EQ(PLBase64EncodedLength(bytes.size()), text.size());
        std::vector<char> out(text.size());
        EXPECT_EQ(PLBase64Encode(bytes.data(), bytes.size(), out.data()), out.data() + out.size());
        EXPECT_EQ(std::string_view(out.data(), out.size()), text);
    }
    std::mt19937 rng(5);
    for (std::size_t size = 0; size < 40; ++size) {
        std::vector<std::uint8_t> bytes(size);
        for (auto& b : bytes) b = static_cast<std::uint8_t>(rng());
        std::vector<char> text(PLBase64EncodedLength(size));
        PLBase64Encode(bytes.data(), size, text.data());
        std::size_t symbols = text.size();
        while (symbols > 0 && text[symbols - 1] == '=') --symbols;
        std::vector<std::uint8_t> decoded(symbols * 3 / 4);
        ASSERT_EQ(decoded.size(), size);
        EXPECT_EQ(PLBase64Decode(text.data(), symbols, decoded.data()), PLBase64Status::OK);
        EXPECT_EQ(decoded, bytes) << size;
        auto* inPlace = reinterpret_cast<std::uint8_t*>(text.data());
        EXPECT_EQ(PLBase64Decode(text.data(), symbols, inPlace), PLBase64Status::OK);
        EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), inPlace)) << size;
    }
    std::uint8_t sink[3];
    EXPECT_EQ(PLBase64Decode("Zm9vY", 5, sink), PLBase64Status::Truncated);
    EXPECT_EQ(PLBase64Decode("Zm9=", 4, sink), PLBase64Status::InvalidSymbol);
    EXPECT_EQ(PLBase64Decode("Z", 1, sink), PLBase64Status::Truncated);
    EXPECT_EQ(PLBase64Decode("*", 1, sink), PLBase64Status::InvalidSymbol);  // reported before truncation
}

// Plain decimals are converted without from_chars; they must come out the
// same to the bit, also next to the limits of that path (2^53, 22 digits
// after the point, 19 digits in all).
TEST(PLPropertyListReader, ReadsRealsAsFromCharsDoes) {
    std::vector<std::string> texts = {"9007199254740992",
                                      "9007199254740993",
                                      "900719925474099.3",
                                      "0.0000000000000000000001",
                                      "0.00000000000000000000001",
                                      "1234567890123456789",
                                      "12345678901234567890",
                                      "18446744073709551621",
                                      "1844674407370955162.1",
                                      "-0",
                                      "-.5",
                                      "5.",
                                      "0.1",
                                      "000123.4500",
                                      "-4503599627370497.5"};
    std::mt19937_64 rng(3);
    for (int i = 0; i < 3000; ++i) {
        std::string t = rng() % 2 ? "-" : "";
        t += std::to_string(rng() % 10000000000ULL).substr(0, 1 + rng() % 10);
        if (rng() % 4) t += "." + std::to_string(rng()).substr(0, rng() % 13);
        texts.push_back(t);
    }
    std::string doc = "<plist><array>";
    for (const auto& t : texts) doc += "<real>" + t + "</real>";
    std::string error;
    auto plist = parse(doc + "</array></plist>", &error);
    ASSERT_TRUE(plist) << error;
    const auto* array = static_cast<const PLArray*>(plist.get());
    ASSERT_EQ(array->count(), texts.size());
    for (std::size_t i = 0; i < texts.size(); ++i) {
        double expected = 0;
        std::from_chars(texts[i].data(), texts[i].data() + texts[i].size(), expected);
        const double got = static_cast<const PLNumber*>(array->at(i))->doubleValue();
        EXPECT_EQ(std::memcmp(&got, &expected, sizeof got), 0) << texts[i] << ": " << got << " vs " << expected;
    }
}

// Decimal integers are checked eight digits at a time where they can be; a
// byte that is not a digit must be found wherever it stands.
TEST(PLPropertyListReader, ReadsIntegersAsFromCharsDoes) {
    std::mt19937_64 rng(5);
    const char spoilers[] = {'/', ':', 'a', 'F', '.', '~', '-', '+'};
    for (int i = 0; i < 2000; ++i) {
        std::string digits = std::to_string(rng() % 1000000000000000000ULL).substr(0, 1 + rng() % 18);
        const bool spoil = i % 2;
        if (spoil) digits[rng() % digits.size()] = spoilers[rng() % std::size(spoilers)];
        std::string error;
        auto plist = parse("<plist><integer>-" + digits + "</integer></plist>", &error);
        if (spoil) {
            EXPECT_NE(error.find("invalid integer"), std::string::npos) << digits << ": " << error;
            continue;
        }
        std::int64_t expected = 0;
        std::from_chars(digits.data(), digits.data() + digits.size(), expected);
        ASSERT_TRUE(plist) << digits << ": " << error;
        EXPECT_EQ(static_cast<const PLNumber*>(plist.get())->int64Value(), -expected) << digits;
    }
}

// The reader hands dictionaries the hashes of their keys; lookups and
// equality go through hash(), so the two must agree, and equal keys must
// still fold however far apart they are.
TEST(PLPropertyListReader, IndexesDictionariesByTheKeysHashes) {
    std::string doc = "<plist><dict>";
    auto expected = PLMutableDictionary::create();
    for (int i = 0; i < 350; ++i) {
        // Keys of every length up to 20 bytes; some come twice, the later
        // value winning, and fold both before and after others have moved up.
        const int j = i < 150 ? i : i < 200 ? i - 150 : i < 300 ? i - 50 : 150 + 2 * (i - 300);
        const std::string key = std::string(static_cast<std::size_t>(j % 20), 'k') + std::to_string(j);
        doc += "<key>" + key + "</key><integer>" + std::to_string(i) + "</integer>";
        expected->set(str(key), num(i));
    }
    std::string error;
    auto plist =
        parse(doc + "<key>small</key><dict><key>a</key><true/><key>a</key><false/></dict></dict></plist>", &error);
    ASSERT_TRUE(plist) << error;
    auto small = PLMutableDictionary::create();
    small->set(str("a"), PLHolder<const PLObject>::retain(kPLBooleanFalse));
    expected->set(str("small"), small);
    EXPECT_EQ(dict(plist)->count(), 251u);
    EXPECT_TRUE(plist->equals(*expected));
    for (const auto& [key, value] : expected->entries()) EXPECT_TRUE(PLEqual(dict(plist)->get(key.get()), value.get()));
}

// Large texts grow the reader's buffer, which a later document reuses or
// replaces; data right at its end decodes whole.
TEST(PLPropertyListReader, ReadsLeavesOfAnySizeOneAfterAnother) {
    for (const std::size_t size : {0u, 1u, 2u, 700u, 768u, 200000u, 5u}) {
        std::string bytes;
        for (std::size_t i = 0; i < size; ++i) bytes += static_cast<char>(i * 7);
        auto original = PLData::create(bytes.data(), bytes.size());
        auto back = parse(writeXML(original.get()));
        ASSERT_TRUE(back) << size;
        EXPECT_TRUE(back->equals(*original)) << size;
        auto text = parse("<plist><string>" + std::string(size, 'x') + "</string></plist>");
        ASSERT_TRUE(text);
        EXPECT_EQ(static_cast<const PLString*>(text.get())->size(), size);
    }
}

// Leaf text is read where it lies in the parser's input when it comes in
// one piece, so every place a document can be cut between two calls into
// the parser must give the same tree, or the same refusal.
TEST(PLPropertyListReader, GivesTheSameResultWhereverTheInputIsCut) {
    std::string text;
    for (int i = 0; i < 3000; ++i) text += static_cast<char>('a' + i * 7 % 26);
    auto array = PLMutableArray::create();
    array->append(PLString::create(text + "&<>\xC3\xA9"));
    array->append(PLData::create(std::string(500, '\x7F').data(), 500));
    array->append(PLNumber::create(-1234.5678));
    array->append(PLDate::create(12345.25));
    for (int i = 0; i < 400; ++i) array->append(PLString::create(std::to_string(i * 7919)));
    const std::string written = writeXML(array.get());
    const std::string refused = "<plist><dict><key>k</key><string>ab&amp;c</string><key>j</key></dict></plist>";
    for (const std::string* doc : {&kEveryForm, &written, &refused}) {
        for (const auto mutability : {PLMutability::Immutable, PLMutability::MutableContainersAndLeaves}) {
            std::string wholeError;
            const auto whole = plimpl::readXML(doc->data(), doc->size(), mutability, &wholeError);
            ASSERT_EQ(doc != &refused, static_cast<bool>(whole)) << wholeError;
            for (const std::size_t piece : {1u, 2u, 3u, 7u, 64u, 1000u, 1500u, 4099u}) {
                std::string error;
                const auto cut = plimpl::readXML(doc->data(), doc->size(), mutability, &error, piece);
                EXPECT_EQ(error, wholeError) << piece;
                if (whole) {
                    EXPECT_TRUE(cut && cut->equals(*whole)) << piece;
                }
            }
        }
    }
}

TEST(PLPropertyListReader, ReadsEveryBinaryObjectKind) {
    const double when = 817034400.0;
    std::string be8;
    for (int i = 7; i >= 0; --i) be8 += static_cast<char>(std::bit_cast<std::uint64_t>(when) >> (8 * i));
    const std::string file = bplist({
        bytes({0xAB, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}),               // 0: array of 11
        bytes({0x10, 0xFF}),                                            // 1: 255
        bytes({0x11, 0x01, 0x00}),                                      // 2: 256
        bytes({0x12, 0xFF, 0xFF, 0xFF, 0xFF}),                          // 3: 4294967295
        bytes({0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}),  // 4: -1
        bytes({0x14, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,    // 5: -2 in 16 bytes
               0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}),
        bytes({0x22, 0x3F, 0xC0, 0x00, 0x00}),                          // 6: 1.5f
        bytes({0x33}) + be8,                                            // 7: date
        bytes({0x64, 0x00, 0xE9, 0xD8, 0x3D, 0xDE, 0x00, 0x00, 0x41}),  // 8: "é😀A"
        bytes({0xD1, 10, 1}),                                           // 9: {"k": 255}
        bytes({0x51, 'k'}),                                             // 10: "k"
        bytes({0x4F, 0x10, 0x02, 0xAB, 0xCD}),                          // 11: data, long count
    });
    std::string error;
    auto plist = parse(file, &error);
    ASSERT_TRUE(plist) << error;
    const auto* a = PLDynamicCast<PLArray>(plist.get());
    ASSERT_EQ(a->count(), 11u);
    auto n = [&](std::size_t i) { return static_cast<const PLNumber*>(a->at(i)); };
    const std::int64_t ints[] = {255, 256, 4294967295, -1, -2};
    for (std::size_t i = 0; i < std::size(ints); ++i) EXPECT_EQ(n(i)->int64Value(), ints[i]) << i;
    EXPECT_EQ(n(2)->numberType(), PLNumberType::SInt64);
    EXPECT_EQ(n(5)->doubleValue(), 1.5);
    EXPECT_EQ(static_cast<const PLDate*>(a->at(6))->absoluteTime(), when);
    EXPECT_EQ(static_cast<const PLString*>(a->at(7))->utf8(),
              "\xC3\xA9\xF0\x9F\x98\x80"
              "A");
    EXPECT_EQ(static_cast<const PLNumber*>(static_cast<const PLDictionary*>(a->at(8))->get("k"))->int32Value(), 255);
    EXPECT_EQ(static_cast<const PLData*>(a->at(10))->view(), "\xAB\xCD");
}

TEST(PLPropertyListReader, RefusesMalformedBinarySayingWhere) {
    const std::pair<std::string, std::string> cases[] = {
        {bplist({bytes({0xA1, 0})}), "object 0 contains itself (a reference cycle)"},
        {bplist({bytes({0xA1, 1}), bytes({0xD1, 2, 0}), bytes({0x51, 'k'})}), "a reference cycle"},
        {bplist({bytes({0xA1, 5})}), "at offset 9: object reference 5 out of range (1 objects)"},
        {bplist({bytes({0xA1, 1}), bytes({0x09})}, 0, {8, 200}), "object 1 has offset 200 outside the object area"},
        {bplist({bytes({0xAF, 0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF})}), "runs past the object area"},
        {bplist({bytes({0x4F, 0x12, 0x7F, 0xFF, 0xFF, 0xFF})}), "runs past the object area"},
        {bplist({bytes({0x14, 0, 0, 0, 0, 0, 0, 0, 0, 0x80, 0, 0, 0, 0, 0, 0, 0})}), "integer out of the 64-bit range"},
        {bplist({bytes({0x15, 0})}), "invalid integer size"},
        {bplist({bytes({0x13, 0, 0})}), "integer truncated"},
        {bplist({bytes({0x61, 0xD8, 0x3D})}), "unpaired surrogate"},
        {bplist({bytes({0x51, 0xE9})}), "non-ASCII byte in an ASCII string"},
        {bplist({bytes({0xD1, 1, 2}), bytes({0x10, 1}), bytes({0x10, 2})}), "dictionary key is a number, not a string"},
        {bplist({bytes({0xC0})}), "sets are not supported"},
        {bplist({bytes({0x80, 1})}), "UID objects are not supported"},
        {bplist({bytes({0x00})}), "null objects are not supported"},
        {bplist({bytes({0x09})}, 3), "top object 3 out of range"},
        {"bplist01" + bplist({bytes({0x09})}).substr(8), "unknown version"},
        {"bplist00", "file too short"},
    };
    for (const auto& [file, reason] : cases) {
        std::string error;
        EXPECT_FALSE(parse(file, &error)) << reason;
        EXPECT_TRUE(error.starts_with("malformed binary property list at offset ")) << error;
        EXPECT_NE(error.find(reason), std::string::npos) << "error \"" << error << "\" lacks \"" << reason << "\"";
    }

    // Shared objects are fine in moderation, not when they multiply: 40
    // arrays each holding the next twice stand for 2^40 values.
    std::vector<std::string> chain;
    for (unsigned i = 0; i < 39; ++i) chain.push_back(bytes({0xA2, i + 1, i + 1}));
    chain.push_back(bytes({0x09}));
    expectRefused(bplist(chain), "shared objects expand to more than 1048576 values");
    chain.erase(chain.begin(), chain.begin() + 30);
    for (unsigned i = 0; i < 9; ++i) chain[i] = bytes({0xA2, i + 1, i + 1});
    auto shared = parse(bplist(chain), nullptr, PLMutability::MutableContainers);
    ASSERT_TRUE(shared);
    EXPECT_EQ(static_cast<const PLArray*>(shared.get())->count(), 2u);
}

// No prefix and no single-byte corruption of a valid file may crash the
// reader; a prefix is never a valid file.
TEST(PLPropertyListReader, SurvivesTruncatedAndCorruptedBinary) {
    const std::string file = writeBinary(sampleTree().get());
    for (std::size_t n = 0; n < file.size(); ++n) {
        std::string error;
        EXPECT_FALSE(parse(file.substr(0, n), &error)) << n;
        EXPECT_FALSE(error.empty());
    }
    for (std::size_t i = 0; i < file.size(); ++i) {
        std::string corrupt = file;
        corrupt[i] = static_cast<char>(corrupt[i] ^ 0x5A);
        auto plist = parse(corrupt);
        if (plist) {
            EXPECT_TRUE(plist->equals(*PLPropertyListCreateDeepCopy(plist.get(), PLMutability::MutableContainers)));
        }
    }
}

// Readers on several threads at once, and trees built on one thread released
// on others (large documents pack their values together); run under TSan.
TEST(PLPropertyListReader, ThreadsReadAndReleaseConcurrently) {
    auto big = PLMutableDictionary::create();
    for (int i = 0; i < 3000; ++i) {
        auto entry = PLMutableArray::create();
        entry->append(str("value " + std::to_string(i)));
        entry->append(real(i / 7.0));
        big->set(str("key" + std::to_string(i)), entry);
    }
    const std::string xml = writeXML(big.get());
    const std::string binary = writeBinary(big.get());
    ASSERT_GT(xml.size(), 64u * 1024);
    std::vector<PLHolder<const PLObject>> parts(4);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 3; ++round) {
                auto plist = parse(t % 2 ? binary : xml);
                if (!plist || !plist->equals(*big)) std::abort();
                parts[t] = PLHolder<const PLObject>::retain(dict(plist)->get("key" + std::to_string(t)));
            }
        });
    }
    for (auto& t : threads) t.join();
    threads.clear();
    for (int t = 0; t < 4; ++t) threads.emplace_back([&parts, t] { parts[(t + 1) % 4].reset(); });
    for (auto& t : threads) t.join();
}

}  // namespace
