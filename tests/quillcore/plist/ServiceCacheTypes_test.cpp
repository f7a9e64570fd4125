// A cache entry whose string, array or dictionary keys hold values of
// another type keeps them and writes them back unchanged.
#include <gtest/gtest.h>

#include "support/ConfigHome.h"
#include <quillcore/plist/CServiceCacheFile.h>

namespace {

TEST(ServiceCacheEntry, ValuesOfAnotherTypeUnderTextKeysSurviveARewrite) {
    quilltest::ConfigHome home;
    quilltest::writeFile(home.configFile(),
                         "<plist version=\"1.0\"><dict><key>corvaneservices</key><dict><key>k:x</key><dict>"
                         "<key>Path</key><integer>42</integer><key>UserIDs</key><string>501</string>"
                         "<key>UserPrefs</key><array><string>p</string></array>"
                         "<key>DisplayName</key><string>Shown</string><key>Version</key><string>7</string>"
                         "</dict></dict></dict></plist>");
    const PLHolder<const PLString> kind = PLString::create("k:x");
    {
        quill::CServiceCacheFile cache;
        quill::CServiceCacheEntry entry;
        ASSERT_TRUE(cache.get(kind.get(), entry));
        EXPECT_EQ(entry.path(), nullptr);  // not a string: the field reads as unset
        EXPECT_EQ(entry.version(), 0);     // numbers fall back to their default
        entry.setEnabled(true);
        cache.put(entry);
        cache.flush();
    }
    const auto file = quilltest::readPlistFile(home.configFile());
    const auto* written = PLDynamicCast<PLDictionary>(quilltest::plistValue(file.get(), {"corvaneservices", "k:x"}));
    ASSERT_NE(written, nullptr);
    EXPECT_EQ(PLDynamicCast<PLNumber>(written->get("Path"))->int32Value(), 42);
    EXPECT_EQ(PLDynamicCast<PLString>(written->get("UserIDs"))->str(), "501");
    EXPECT_NE(PLDynamicCast<PLArray>(written->get("UserPrefs")), nullptr);
    EXPECT_EQ(written->get("Enabled"), kPLBooleanTrue);
    EXPECT_EQ(written->get("Version"), nullptr);

    // A value set since wins over the kept one.
    quill::CServiceCacheEntry entry(kind.get(), written);
    entry.setPath(PLString::create("/opt/s").get());
    EXPECT_EQ(PLDynamicCast<PLString>(entry.toDict()->get("Path"))->str(), "/opt/s");
}

}  // namespace
