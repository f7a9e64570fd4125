#include "quillcore/storage/ExportsFileSyntax.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using namespace quill::storage::exportsfile;

TEST(ExportsFileSyntax, EscapesWhatWouldBreakTheLineAndNothingElse) {
    const struct {
        std::string path;
        std::string field;
    } cases[] = {
        {"/Volumes/Media", "/Volumes/Media"},
        {"/a b\tc", "/a\\040b\\011c"},
        {"/line\nbreak\r", "/line\\012break\\015"},
        {"/\"quoted\"", "/\\042quoted\\042"},
        {"/#not a comment", "/\\043not\\040a\\040comment"},
        {"/back\\slash", "/back\\134slash"},
        {"/-rw", "/-rw"},
        {"/caf\xc3\xa9/\xff\xfe", "/caf\xc3\xa9/\xff\xfe"},
        {std::string("/del\x7f"), "/del\\177"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(escapePath(c.path), c.field) << c.path;
        EXPECT_EQ(unescapePath(c.field), c.path) << c.field;
        EXPECT_TRUE(isFaithfullyExportable(c.path)) << c.path;
    }
    const std::string hostile = "/x\n/etc 10.0.0.0/8(rw,no_root_squash)\n/y";
    const std::string field = escapePath(hostile);
    EXPECT_EQ(field.find_first_of(" \t\n\"#"), std::string::npos) << field;
    EXPECT_EQ(unescapePath(field), hostile);
}

TEST(ExportsFileSyntax, RefusesWhatTheNfsToolsWouldDecodeTwice) {
    for (const std::string path : {"/a\\101", "/\\000", "/x\\777y", ""})
        EXPECT_FALSE(isFaithfullyExportable(path)) << path;
    EXPECT_FALSE(isFaithfullyExportable(std::string("/nul\0byte", 9)));
    for (const std::string path : {"/a\\10", "/a\\8", "/a\\x101", "/end\\"})
        EXPECT_TRUE(isFaithfullyExportable(path)) << path;
    // Sequences that are not escapes are read as they stand.
    EXPECT_EQ(unescapePath("/a\\8\\000\\1"), "/a\\8\\000\\1");
}

}  // namespace
