#include <algorithm>

#include <gtest/gtest.h>

#include "support/TestSupport.h"
#include <quillcore/platform/Host.h>
#include <quillcore/util/PLUtil.h>

namespace {

using namespace quill::PLUtil;

PLHolder<const PLString> str(const char* text) { return PLString::create(text); }

class PLUtilDict : public ::testing::Test {
protected:
    PLHolder<PLMutableDictionary> dict = PLDictMakeMutable();
    PLHolder<const PLString> key = str("key");
};

TEST_F(PLUtilDict, SetAndAddTreatNullAsRemoval) {
    auto one = str("one"), two = str("two");
    PLDictSet(dict.get(), key.get(), nullptr);  // absent: nothing happens
    EXPECT_EQ(dict->count(), 0u);
    PLDictAdd(dict.get(), key.get(), one.get());
    PLDictAdd(dict.get(), key.get(), two.get());  // an existing value stays
    PLTypeRef value = nullptr;
    EXPECT_TRUE(PLDictGet(dict.get(), key.get(), &value));
    EXPECT_EQ(value, one.get());
    PLDictSet(dict.get(), key.get(), two.get());
    EXPECT_TRUE(PLDictGet(dict.get(), key.get(), &value));
    EXPECT_EQ(value, two.get());
    PLDictSet(dict.get(), key.get(), nullptr);
    EXPECT_FALSE(PLDictGet(dict.get(), key.get(), &value));
    EXPECT_EQ(value, nullptr);
    PLDictSet(dict.get(), key.get(), one.get());
    PLDictAdd(dict.get(), key.get(), nullptr);
    EXPECT_EQ(dict->count(), 0u);
}

TEST_F(PLUtilDict, TypedGettersNeverConvertTypesButRealsReadAsIntegersAndOutputsAreAlwaysWritten) {
    auto textKey = str("text");
    PLDictSetInt(dict.get(), key.get(), 1);
    PLDictSetString(dict.get(), textKey.get(), str("1").get());

    std::uint8_t flag = 7;
    EXPECT_FALSE(PLDictGetBoolean(dict.get(), key.get(), &flag));  // the number 1 is not a boolean
    EXPECT_EQ(flag, 0);
    std::int32_t number = 7;
    EXPECT_FALSE(PLDictGetInt(dict.get(), textKey.get(), &number));  // the string "1" is not a number
    EXPECT_EQ(number, 0);
    PLStringRef text = textKey.get();
    EXPECT_FALSE(PLDictGetString(dict.get(), key.get(), &text));
    EXPECT_EQ(text, nullptr);
    auto someURL = PLURL::create("file:///tmp/x");
    PLURLRef url = someURL.get();
    EXPECT_FALSE(PLDictGetURL(dict.get(), str("absent").get(), &url));
    EXPECT_EQ(url, nullptr);

    PLDictSetBoolean(dict.get(), key.get(), 2);
    EXPECT_EQ(dict->get(key.get()), kPLBooleanTrue);
    EXPECT_TRUE(PLDictGetBoolean(dict.get(), key.get(), &flag));
    EXPECT_EQ(flag, 1);
    PLDictSetInt(dict.get(), key.get(), -42);
    EXPECT_EQ(PLDynamicCast<PLNumber>(dict->get(key.get()))->numberType(), PLNumberType::SInt32);
    EXPECT_TRUE(PLDictGetInt(dict.get(), key.get(), &number));
    EXPECT_EQ(number, -42);
    PLDictSetDouble(dict.get(), key.get(), 3.7);
    EXPECT_TRUE(PLDictGetInt(dict.get(), key.get(), &number));  // 3.7 reads as the integer 3
    EXPECT_EQ(number, 3);
    double real = 0;
    EXPECT_TRUE(PLDictGetDouble(dict.get(), key.get(), &real));
    EXPECT_EQ(real, 3.7);
    PLDictSetURL(dict.get(), key.get(), someURL.get());
    EXPECT_TRUE(PLDictGetURL(dict.get(), key.get(), &url));
    EXPECT_EQ(url, someURL.get());
}

PLHolder<PLMutableArray> ints(std::initializer_list<std::int32_t> values) {
    auto array = PLArrayMakeMutable();
    for (std::int32_t v : values) PLArrayAppendInt(array.get(), v);
    return array;
}

TEST(PLUtilArray, SearchesCompareByValueAddKeepsASetAndRemovalTakesTheFirstMatch) {
    auto array = ints({4, 5, 6, 5});
    array->append(PLNumber::create(7.0));
    EXPECT_TRUE(PLArrayContainsInt(array.get(), 7));  // 7.0 equals 7
    EXPECT_FALSE(PLArrayContainsInt(array.get(), 8));
    EXPECT_EQ(PLArrayFindInt(array.get(), 5), 1);
    EXPECT_EQ(PLArrayGetCountOfIntVal(array.get(), 5), 2);
    EXPECT_EQ(PLArrayGetCountOfIntVal(array.get(), 8), 0);
    EXPECT_EQ(PLArrayFindInt(nullptr, 0), -1);

    // Reading at an index leaves the output alone on failure.
    array->append(str("eight"));
    std::int32_t out = 99;
    for (int bad : {-1, 6, 5}) EXPECT_FALSE(PLArrayGetIntAtIndex(array.get(), bad, &out)) << bad;
    EXPECT_EQ(out, 99);
    EXPECT_TRUE(PLArrayGetIntAtIndex(array.get(), 1, &out));
    EXPECT_EQ(out, 5);

    // Adding keeps a set; removal takes the first match.
    auto set = PLArrayMakeMutable();
    EXPECT_TRUE(PLArrayAddInt(set.get(), 1));
    EXPECT_FALSE(PLArrayAddInt(set.get(), 1));
    EXPECT_EQ(set->count(), 1u);
    PLArrayAppendInt(set.get(), 2);
    PLArrayAppendInt(set.get(), 1);
    auto copy = PLArrayMakeMutableCopy(set.get());
    EXPECT_TRUE(PLArrayRemoveInt(set.get(), 1));
    EXPECT_TRUE(PLEqual(set.get(), ints({2, 1}).get()));
    EXPECT_FALSE(PLArrayRemoveInt(set.get(), 5));
    EXPECT_FALSE(PLArrayRemoveValueAtIndex(set.get(), -1));
    EXPECT_FALSE(PLArrayRemoveValueAtIndex(set.get(), 2));
    EXPECT_TRUE(PLArrayRemoveValueAtIndex(set.get(), 1));
    EXPECT_TRUE(PLEqual(set.get(), ints({2}).get()));
    EXPECT_TRUE(PLEqual(copy.get(), ints({1, 2, 1}).get()));
}

TEST(PLUtilHost, NamesAndAddressesAsTheHostReportsThem) {
    struct : quill::platform::CHostWrapper {
        std::vector<std::string> names, addresses;
        std::vector<std::string> hostNames() override { return names; }
        std::vector<std::string> hostAddresses() override { return addresses; }
    } host;
    quill::platform::CScopedHost scope(host);
    EXPECT_EQ(HostNames(), nullptr);  // null, not an empty array
    EXPECT_EQ(HostName(), nullptr);
    EXPECT_EQ(HostAddresses(), nullptr);
    EXPECT_EQ(HostAddress(), nullptr);

    host.names = {"alpha", "alpha.example.org"};
    host.addresses = {"10.0.0.2", "127.0.0.1"};
    ASSERT_EQ(HostNames()->count(), 2u);
    EXPECT_EQ(HostName()->utf8(), "alpha");
    EXPECT_EQ(HostAddresses()->count(), 2u);
    EXPECT_EQ(HostAddress()->utf8(), "10.0.0.2");
}

TEST(PLUtilHost, LogToConsoleWritesTheTextAsIs) {
    quilltest::TempDir dir;
    quilltest::ScopedEnv console("QUILL_CONSOLE_LOG", (dir / "console.log").string());
    LogToConsole("QuillConfig::restartDaemon failed, exception = 100% %s wrong.\n");
    LogToConsole(nullptr);
    std::string log = quilltest::readFile(dir / "console.log");
    EXPECT_NE(log.find("]: QuillConfig::restartDaemon failed, exception = 100% %s wrong.\n"), std::string::npos) << log;
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
}

TEST(PLUtilFiles, DataWriteToURLReplacesTheFileOrFails) {
    quilltest::TempDir dir;
    std::filesystem::path target = dir / "out file.bin";
    quilltest::writeFile(target, "old contents that are longer");
    auto url = PLURL::createWithPath(target.string(), false);
    const char bytes[] = {'a', '\0', 'b'};
    auto data = PLData::create(bytes, sizeof bytes);
    for (bool atomically : {false, true}) {
        ASSERT_TRUE(PLDataWriteToURL(data.get(), url.get(), atomically));
        EXPECT_EQ(quilltest::readFile(target), std::string(bytes, sizeof bytes));
    }
    auto missingDir = PLURL::createWithPath((dir / "no" / "such").string(), false);
    EXPECT_FALSE(PLDataWriteToURL(data.get(), missingDir.get(), true));
    EXPECT_FALSE(PLDataWriteToURL(data.get(), PLURL::create("http://example.org/x").get(), false));
    // Nothing but the target is left behind.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}

}  // namespace
