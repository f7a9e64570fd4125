#include <quillcore/process/CArgsBuilder.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using quill::CArgsBuilder;

std::vector<std::string> entries(const CArgsBuilder& builder) {
    std::vector<std::string> out;
    const char* const* v = builder.getArgs();
    for (std::uint32_t i = 0; i < builder.size(); ++i) out.emplace_back(v[i]);
    EXPECT_EQ(v[builder.size()], nullptr) << "the vector must stay NULL-terminated";
    return out;
}

TEST(CArgsBuilder, GrowsByDoublingAndReusesTheArrayAfterClear) {
    CArgsBuilder builder(0);
    ASSERT_NE(builder.getArgs(), nullptr);
    EXPECT_EQ(builder.getArgs()[0], nullptr);

    const std::vector<std::uint32_t> expected = {1, 2, 4, 4, 8};
    char text[] = "a";  // entries are private copies
    for (std::size_t i = 0; i < expected.size(); ++i, ++text[0]) {
        builder.addArg(text);
        EXPECT_EQ(builder.capacity(), expected[i]) << "after " << i + 1 << " additions";
    }
    EXPECT_EQ(entries(builder), (std::vector<std::string>{"a", "b", "c", "d", "e"}));

    const char* const* array = builder.getArgs();
    builder.clear();
    EXPECT_EQ(builder.size(), 0u);
    EXPECT_EQ(builder.getArgs()[0], nullptr);
    for (int i = 0; i < 8; ++i) builder.addArg("again");
    EXPECT_EQ(builder.capacity(), 8u);
    EXPECT_EQ(builder.getArgs(), array);
}

TEST(CArgsBuilder, AddArgsVariantsStopAtNullAndSkipNullStrings) {
    const char* list[] = {"x", "y", nullptr, "z"};
    CArgsBuilder builder(10);
    builder.addArgs(static_cast<const char* const*>(nullptr));
    builder.addArgs(3, nullptr);
    builder.addArgs(list);
    builder.addArgs(1, list);
    builder.addArgs(4, list);  // stops at the NULL entry
    builder.addArgs(std::vector<ferrocore::CStringRef>{ferrocore::CString::create("s"), nullptr,
                                                         ferrocore::CString::create("t")});
    builder.addArg(nullptr);
    EXPECT_EQ(entries(builder), (std::vector<std::string>{"x", "y", "x", "x", "y", "s", "t"}));
}

TEST(CArgsBuilder, FindAndReplaceEnvironmentEntries) {
    CArgsBuilder builder(10);
    EXPECT_EQ(builder.findArg("HOME"), -1);
    for (const char* entry : {"HOME", "HOMEDIR=/b", "HOME=/a", "HOME=/second"}) builder.addArg(entry);
    EXPECT_EQ(builder.findArg("HOME"), 2) << "the bare name does not match, the first NAME= does";
    EXPECT_EQ(builder.findArg("HOMED"), -1);
    EXPECT_EQ(builder.findArg("HOMEDIR"), 1);
    EXPECT_EQ(builder.findArg(nullptr), -1);

    builder.replaceArg(2, "HOME=/new");
    builder.replaceArg(4, "past the end");
    builder.replaceArg(-1, "negative");
    EXPECT_EQ(entries(builder), (std::vector<std::string>{"HOME", "HOMEDIR=/b", "HOME=/new", "HOME=/second"}));
}

TEST(CArgsBuilder, Conversions) {
    CArgsBuilder builder(0);
    EXPECT_FALSE(static_cast<ferrocore::CStringRef>(builder));
    EXPECT_EQ(static_cast<PLHolder<const PLArray>>(builder)->count(), 0u);

    builder.addArg("ls");
    builder.addArg("-l");
    builder.addArg("/tmp dir");
    const ferrocore::CStringRef line(builder);
    ASSERT_TRUE(line);
    EXPECT_EQ(line->utf8(), "ls -l /tmp dir");

    const std::vector<ferrocore::CStringRef> strings(builder);
    ASSERT_EQ(strings.size(), 3u);
    EXPECT_EQ(strings[2]->utf8(), "/tmp dir");
    const PLHolder<const PLArray> array(builder);
    ASSERT_EQ(array->count(), 3u);
    EXPECT_TRUE(PLEqual(array->at(2), PLString::create("/tmp dir").get()));
}

}  // namespace
