// The list file: list operations, the order list, and the record protocol of
// refresh and flush (own section only, and the trap under a caller's lock).
#include "support/ConfigHome.h"
#include "support/TestSupport.h"

#include <quillcore/plist/CPropertyListFile.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using quill::CPropertyListBasicFile;
using quilltest::writeFile;

PLHolder<const PLString> str(std::string_view text) { return PLString::create(text); }

class Entry {
public:
    Entry() = default;
    Entry(PLStringRef name, PLDictionaryRef dict)
        : _name(PLHolder<const PLString>::retain(name)), _dict(PLHolder<const PLDictionary>::retain(dict)) {}
    Entry(std::string_view name, int value) : _name(str(name)) {
        auto dict = PLMutableDictionary::create();
        dict->set(str("v"), PLNumber::create(value));
        _dict = dict;
    }
    PLStringRef name() const { return _name.get(); }
    PLHolder<const PLDictionary> toDict() const { return _dict; }
    std::string text() const {
        const auto* v = _dict ? PLDynamicCast<PLNumber>(_dict->get("v")) : nullptr;
        return _name->str() + "=" + (v ? std::to_string(v->int32Value()) : "?");
    }

private:
    PLHolder<const PLString> _name;
    PLHolder<const PLDictionary> _dict;
};

// A record the way the record classes are written: its section is "tests",
// or "byKind" then its kind.
class ListFile : public quill::CPropertyListFile<Entry> {
public:
    ListFile(PLStringRef path, bool ordered, std::string kind = {})
        : CPropertyListFile(path), _kind(std::move(kind)) {
        setOrdered(ordered);
        refresh();
    }
    bool refresh() { return _kind.empty() ? refreshList({"tests"}) : refreshList({"byKind", _kind}); }
    bool flush() const { return _kind.empty() ? flushList({"tests"}) : flushList({"byKind", _kind}); }

    std::string texts() const {
        std::vector<Entry> all;
        get(all);
        std::string out;
        for (const Entry& e : all) out += (out.empty() ? "" : " ") + e.text();
        return out;
    }

private:
    std::string _kind;
};

class ListFileTest : public testing::Test {
protected:
    std::string file() const { return (_dir / "list.plist").string(); }
    PLStringRef path() const { return _path.get(); }

    quilltest::TempDir _dir;
    PLHolder<const PLString> _path = PLString::create(file());
};

TEST_F(ListFileTest, PutOverwritesInPlaceWhilePutAtIndexAllowsDuplicates) {
    ListFile list(path(), false);
    EXPECT_FALSE(list.remove(str("a").get()));
    list.put(Entry("a", 1));
    list.put(Entry("b", 2));
    list.put(Entry("c", 3));
    list.put(Entry("b", 20));
    EXPECT_EQ(list.texts(), "a=1 b=20 c=3");

    EXPECT_FALSE(list.putAtIndex(-1, Entry("x", 0)));
    EXPECT_FALSE(list.putAtIndex(4, Entry("x", 0)));
    EXPECT_TRUE(list.putAtIndex(3, Entry("d", 4)));
    EXPECT_TRUE(list.putAtIndex(0, Entry("c", 30)));
    EXPECT_EQ(list.texts(), "c=30 b=20 c=3 d=4");

    Entry out;
    ASSERT_TRUE(list.get(str("c").get(), out));
    EXPECT_EQ(out.text(), "c=30");
    EXPECT_FALSE(list.get(str("C").get(), out));
    EXPECT_TRUE(list.remove(str("c").get()));
    EXPECT_EQ(list.texts(), "b=20 c=3 d=4");
    EXPECT_FALSE(list.getAtIndex(3, out));
    EXPECT_FALSE(list.getAtIndex(-1, out));
    ASSERT_TRUE(list.getAtIndex(2, out));
    EXPECT_EQ(out.text(), "d=4");
}

TEST_F(ListFileTest, TheOrderListDecidesWhatIsLoadedAndNeedsTwoEntries) {
    writeFile(file(), R"(<plist version="1.0"><dict><key>tests</key><dict>
        <key>a</key><dict><key>v</key><integer>1</integer></dict>
        <key>b</key><dict><key>v</key><integer>2</integer></dict>
        <key>c</key><dict><key>v</key><integer>3</integer></dict>
        <key>Version</key><string>7</string>
        <key>_orderList</key><array><string>c</string><string>ghost</string><string>a</string></array>
        </dict></dict></plist>)");
    ListFile ordered(path(), true);
    EXPECT_EQ(ordered.texts(), "c=3 a=1");
    EXPECT_EQ(ordered.fileVersion()->utf8(), "7") << "the version comes from the section";
    EXPECT_EQ(ListFile(path(), false).count(), 3u);

    ordered.remove(str("c").get());
    ordered.flush();
    EXPECT_FALSE(PLDynamicCast<PLDictionary>(quilltest::readPlistFile(file())->get("tests"))->get("_orderList"));

    ordered.put(Entry("z", 26));
    ordered.put(Entry("b", 2));
    ordered.flush();
    EXPECT_EQ(ListFile(path(), true).texts(), "a=1 z=26 b=2");

    const size_t before = ordered.count();
    ordered.fromPropertyList(str("not a dictionary").get());
    EXPECT_EQ(ordered.count(), before);
}

TEST_F(ListFileTest, FlushWithoutALockReplacesOnlyItsOwnSection) {
    writeFile(file(), R"(<plist version="1.0"><dict><key>other</key><string>kept</string></dict></plist>)");
    ListFile list(path(), false);
    ListFile kindA(path(), true, "a");
    ListFile kindB(path(), true, "b");
    kindB.put(Entry("only", 1));
    kindB.flush();

    // Written by someone else after `list` and `kindA` read the file.
    CPropertyListBasicFile late(path());
    late.toPropertyList()->set(str("late"), str("also kept"));
    late.flush();

    list.put(Entry("e", 5));
    list.flush();
    kindA.put(Entry("x", 1));
    kindA.flush();

    auto top = quilltest::readPlistFile(file());
    EXPECT_TRUE(top->get("other"));
    EXPECT_TRUE(top->get("late"));
    EXPECT_EQ(ListFile(path(), false).texts(), "e=5");
    EXPECT_EQ(ListFile(path(), true, "a").texts(), "x=1");
    EXPECT_EQ(ListFile(path(), true, "b").texts(), "only=1");
}

TEST_F(ListFileTest, RefreshAndFlushUnderTheCallersLockWriteTheSectionAsTheWholeFile) {
    // Established behaviour, kept on purpose: after a refresh the contents
    // are the record's section, and with the caller's lock held the flush
    // starts from them instead of from the file.
    writeFile(file(), R"(<plist version="1.0"><dict><key>other</key><string>lost</string>
        <key>tests</key><dict><key>a</key><dict><key>v</key><integer>1</integer></dict></dict></dict></plist>)");
    ListFile list(path(), false);
    ASSERT_TRUE(list.lockForRW());
    list.refresh();
    list.flush();
    EXPECT_TRUE(list.fileLock()) << "the caller's lock stays held";
    list.unlock();

    auto top = quilltest::readPlistFile(file());
    EXPECT_FALSE(top->get("other"));
    EXPECT_TRUE(PLDynamicCast<PLDictionary>(top->get("a")));
    EXPECT_TRUE(PLDynamicCast<PLDictionary>(top->get("tests")));
}

}  // namespace
