// The locked property-list file: reading, in-place writing, locks between
// processes, and the exact failure messages (failures injected through the
// host seam); and the list file built on it: list operations, the order list,
// and the record protocol of refresh and flush (own section only, and the trap
// under a caller's lock).
#include <csignal>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/ConfigHome.h"
#include "support/FileFaultHost.h"
#include "support/NotificationBus.h"
#include <ferrocore/CException.h>
#include <ferrocore/Format.h>
#include <quillcore/platform/PLPropertyList.h>
#include <quillcore/plist/CPropertyListFile.h>

namespace {

using quill::CPropertyListBasicFile;
using quilltest::readFile;
using quilltest::writeFile;

constexpr char kDocument[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict><key>Name</key><string>first</string><key>Version</key><string>2.5</string></dict></plist>
)";

PLHolder<const PLString> str(std::string_view text) { return PLString::create(text); }

template <class F>
ferrocore::CException thrownBy(F&& step) {
    try {
        step();
    } catch (const ferrocore::CException& e) {
        return e;
    }
    ADD_FAILURE() << "no exception thrown";
    return ferrocore::CException(-1, "");
}

std::string xmlOf(const PLObject* plist) {
    std::string xml;
    EXPECT_TRUE(PLPropertyListWriteXML(plist, xml));
    return xml;
}

// Type, number kind, key order and value of a tree, for comparing two trees
// more strictly than equals() does.
std::string shape(const PLObject* value) {
    std::string out;
    if (const auto* n = PLDynamicCast<PLNumber>(value))
        return "n" + std::to_string(static_cast<int>(n->numberType())) + ":" +
               (n->isFloat() ? std::to_string(n->doubleValue()) : std::to_string(n->int64Value()));
    if (const auto* array = PLDynamicCast<PLArray>(value)) {
        for (const auto& e : array->values()) out += shape(e.get()) + ",";
        return "[" + out + "]";
    }
    if (const auto* dict = PLDynamicCast<PLDictionary>(value)) {
        for (const auto& [k, v] : dict->entries()) out += shape(k.get()) + "=" + shape(v.get()) + ",";
        return "{" + out + "}";
    }
    return std::string(value->isMutable() ? "mutable " : "") + PLTypeName(value->typeID()) + ":" +
           xmlOf(PLArray::create(&value, 1).get());
}

// Whether another descriptor can take a shared lock right now (it cannot while
// someone holds the exclusive lock).
bool sharedLockFree(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) return true;
    const bool free = flock(fd, LOCK_SH | LOCK_NB) == 0;
    close(fd);
    return free;
}

class BasicFileTest : public testing::Test {
protected:
    std::string file() const { return (_dir / "f.plist").string(); }
    PLStringRef path() const { return _path.get(); }
    std::string prefix(const char* operation) const {
        return ferrocore::formatString("CPropertyListBasicFile::%s[%d](%s): ", operation, getpid(), file());
    }

    quilltest::TempDir _dir;
    PLHolder<const PLString> _path = PLString::create(file());
};

TEST_F(BasicFileTest, MissingFileReadsEmptyAndOnlyTheWriteLockCreatesIt) {
    CPropertyListBasicFile plist(path());
    EXPECT_EQ(plist.toPropertyList()->count(), 0u);
    EXPECT_EQ(plist.fileVersion()->utf8(), "1.0");
    EXPECT_FALSE(plist.lockForRead());
    EXPECT_FALSE(CPropertyListBasicFile(path(), CPropertyListBasicFile::kOpenModeRead).fileLock());
    EXPECT_FALSE(std::filesystem::exists(file()));

    ASSERT_TRUE(plist.lockForRW());
    EXPECT_EQ(static_cast<unsigned>(std::filesystem::status(file()).permissions()), 0600u);
    EXPECT_EQ(std::filesystem::file_size(file()), 0u);
    EXPECT_TRUE(plist.unlock());
    EXPECT_FALSE(plist.unlock());

    // A zero-length file is an empty dictionary, not a parse error.
    EXPECT_TRUE(plist.refresh());
    EXPECT_EQ(plist.toPropertyList()->count(), 0u);
}

TEST_F(BasicFileTest, VersionComesFromAVersionStringOnly) {
    writeFile(file(), kDocument);
    CPropertyListBasicFile plist(path());
    EXPECT_EQ(plist.fileVersion()->utf8(), "2.5");

    writeFile(file(), "<plist version=\"1.0\"><dict><key>Version</key><integer>3</integer></dict></plist>");
    plist.refresh();
    EXPECT_EQ(plist.fileVersion()->utf8(), "1.0");

    plist.setFileVersion(str("4.0").get());
    plist.flush();
    EXPECT_EQ(CPropertyListBasicFile(path()).fileVersion()->utf8(), "4.0");
    plist.setFileVersion(str("").get());
    EXPECT_FALSE(plist.toPropertyList()->get("Version"));
}

TEST_F(BasicFileTest, RewritesInPlaceAndCutsTheOldTail) {
    writeFile(file(), kDocument);
    auto inode = [&] {
        struct stat info {};
        EXPECT_EQ(stat(file().c_str(), &info), 0);
        return info.st_ino;
    };
    const auto before = inode();

    CPropertyListBasicFile plist(path());
    PLHolder<PLMutableDictionary> contents = plist.toPropertyList();
    for (int i = 0; i < 50; ++i) contents->set(str("key" + std::to_string(i)), PLNumber::create(i));
    EXPECT_FALSE(plist.flush());
    contents->removeAll();
    contents->set(str("short"), str("x"));
    plist.flush();

    // Byte for byte the new document: nothing of the longer one survives.
    EXPECT_EQ(readFile(file()), xmlOf(contents.get()));
    EXPECT_EQ(inode(), before) << "written through a new file";
}

TEST_F(BasicFileTest, AnUnreadableFileIsNeverOverwrittenUntilARefreshSucceeds) {
    writeFile(file(), kDocument);
    CPropertyListBasicFile plist(path());

    for (const std::string& bad : {std::string("<plist version=\"1.0\"><dict><key>a</key>"),
                                   std::string("<plist version=\"1.0\"><array/></plist>")}) {
        writeFile(file(), bad);
        auto e = thrownBy([&] { plist.refresh(); });
        EXPECT_EQ(e.kind(), ferrocore::kExceptionKindHostRuntime);
        EXPECT_EQ(e.message().rfind(prefix("refresh") + "PLPropertyListCreateFromXMLData() failed, error = ", 0), 0u)
            << e.message();
        EXPECT_FALSE(quilltest::consoleLinesWith(e.message()).empty());
        EXPECT_TRUE(plist.lastRefreshFailed());
        EXPECT_EQ(plist.toPropertyList()->count(), 2u) << "contents kept after a failed read";

        e = thrownBy([&] { plist.flush(); });
        EXPECT_EQ(e.kind(), ferrocore::kExceptionKindHostRuntime);
        EXPECT_EQ(e.message(), prefix("writePropertyList") + "not proceeding since the last refresh failed");
        EXPECT_EQ(readFile(file()), bad);
    }
    EXPECT_NE(thrownBy([&] { plist.refresh(); }).message().find("the top level is of type array"), std::string::npos);

    writeFile(file(), kDocument);
    EXPECT_TRUE(plist.refresh());
    EXPECT_FALSE(plist.lastRefreshFailed());
    plist.toPropertyList()->set(str("Name"), str("second"));
    plist.flush();
    EXPECT_NE(readFile(file()).find("second"), std::string::npos);
}

TEST_F(BasicFileTest, ReadingBackOwnBytesGivesExactlyWhatParsingGives) {
    CPropertyListBasicFile plist(path());
    PLHolder<PLMutableDictionary> top = plist.toPropertyList();
    top->set(str("every"), quilltest::everyPropertyListType());
    top->set(str("m"), PLMutableString::create("text\r\n"));
    top->set(str("b"), PLDictionary::createFromEntries({{str("y"), str("1")}, {str("x"), str("2")}}));
    plist.flush();

    const std::string kept = shape(plist.readPropertyList().get());
    EXPECT_EQ(kept, shape(CPropertyListBasicFile(path()).readPropertyList().get()));
    EXPECT_EQ(kept.find("mutable"), std::string::npos);

    // Another writer's change of the same length is seen.
    CPropertyListBasicFile other(path());
    other.toPropertyList()->set(str("b"),
                                PLDictionary::createFromEntries({{str("y"), str("3")}, {str("x"), str("2")}}));
    other.flush();
    ASSERT_EQ(readFile(file()).size(), xmlOf(top.get()).size());
    plist.refresh();
    EXPECT_NE(xmlOf(plist.toPropertyList().get()).find("<string>3</string>"), std::string::npos);
}

TEST_F(BasicFileTest, LocksDoNotUpgradeAndLiveAsLongAsTheirDescriptor) {
    writeFile(file(), kDocument);
    CPropertyListBasicFile plist(path());
    ASSERT_TRUE(plist.lockForRead());
    EXPECT_FALSE(plist.lockForRW());
    // Writing goes through the held read-only descriptor.
    auto e = thrownBy([&] { plist.flush(); });
    EXPECT_EQ(e.kind(), ferrocore::kExceptionKindSystemCall);
    EXPECT_EQ(e.message(), prefix("writePropertyList") + "can't write file, error = Bad file descriptor");
    ASSERT_TRUE(plist.unlock());

    ASSERT_TRUE(plist.lockForRW());
    EXPECT_FALSE(sharedLockFree(file()));
    CPropertyListBasicFile::COpenFileRef kept = plist.fileLock();
    plist.unlock();
    EXPECT_FALSE(sharedLockFree(file())) << "a fileLock() reference keeps the descriptor and its lock";
    kept.reset();
    EXPECT_TRUE(sharedLockFree(file()));

    CPropertyListBasicFile locked(path(), CPropertyListBasicFile::kOpenModeReadWrite);
    EXPECT_EQ(locked.toPropertyList()->count(), 2u);
    EXPECT_FALSE(sharedLockFree(file()));
}

TEST_F(BasicFileTest, OpenFileModes) {
    using COpenFile = CPropertyListBasicFile::COpenFile;
    auto e = thrownBy([&] { ferrocore::makeShared<COpenFile>(path(), 7); });
    EXPECT_EQ(e.kind(), ferrocore::kExceptionKindSystemCall);
    EXPECT_EQ(e.message(),
              ferrocore::formatString("CPropertyListBasicFile::COpenFile::open[%d](%s): wrong open mode = 7", getpid(),
                                      file()));

    auto missing = ferrocore::makeShared<COpenFile>(path(), CPropertyListBasicFile::kOpenModeRead);
    EXPECT_FALSE(missing->isOpen());
    EXPECT_EQ(missing->lastError(), ENOENT);

    auto adopted = ferrocore::makeShared<COpenFile>(open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(adopted->close());
    EXPECT_NE(thrownBy([&] { adopted->open(); }).message().find("((null)): wrong open mode = 99"), std::string::npos);
}

TEST_F(BasicFileTest, HostFailuresGiveTheExactMessages) {
    writeFile(file(), kDocument);
    CPropertyListBasicFile plist(path());
    quilltest::FileFaultHost faults;
    quill::platform::CScopedHost scoped(faults);
    const std::string open = ferrocore::formatString("CPropertyListBasicFile::COpenFile::open[%d]", getpid());

    faults.openError = EACCES;
    auto e = thrownBy([&] { plist.refresh(); });
    EXPECT_EQ(e.message(), open + "(Read, " + file() + "): can't get read file lock, error = Permission denied");
    EXPECT_EQ(e.errorNumber(), EACCES);
    e = thrownBy([&] { plist.lockForRW(); });
    EXPECT_EQ(e.message(), open + "(RW, " + file() + "): can't get write file lock, error = Permission denied");
    EXPECT_FALSE(plist.fileLock());
    faults.openError.reset();

    faults.readLimit = 10;
    faults.readError = EIO;
    e = thrownBy([&] { plist.refresh(); });
    EXPECT_EQ(e.kind(), ferrocore::kExceptionKindSystemCall);
    EXPECT_EQ(e.message(), prefix("refresh") + "can't read file, error = Input/output error");
    EXPECT_TRUE(plist.lastRefreshFailed());
    faults.readLimit.reset();
    ASSERT_TRUE(plist.refresh());

    faults.writeLimit = 10;
    faults.writeError = ENOSPC;
    e = thrownBy([&] { plist.flush(); });
    EXPECT_EQ(e.message(), prefix("writePropertyList") + "can't write file, error = No space left on device");
    EXPECT_FALSE(quilltest::consoleLinesWith(e.message()).empty());
    EXPECT_FALSE(plist.lastRefreshFailed()) << "a failed write does not block later writes";
    faults.writeLimit.reset();

    faults.truncateError = EIO;
    e = thrownBy([&] { plist.flush(); });
    EXPECT_EQ(e.message(), prefix("writePropertyList") + "can't truncate file, error = Input/output error");
    faults.truncateError = 0;

    e = thrownBy([&] { plist.fromPropertyList(nullptr); });
    EXPECT_EQ(e.kind(), ferrocore::kExceptionKindSystemCall);
    EXPECT_EQ(e.message(), ferrocore::formatString(
                               "CPropertyListBasicFile::fromPropertyList[%d](): propertyList is NULL", getpid()));
}

TEST_F(BasicFileTest, TheLockOfAKilledWriterIsReleased) {
    writeFile(file(), kDocument);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        CPropertyListBasicFile writer(path());
        writer.lockForRW();
        const char c = 'x';
        if (write(ready[1], &c, 1) != 1) _exit(2);
        for (;;) pause();
    }
    close(ready[1]);
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    close(ready[0]);
    EXPECT_FALSE(sharedLockFree(file()));

    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    // Checked without blocking first, so that a leaked lock fails the test
    // instead of hanging it.
    ASSERT_TRUE(sharedLockFree(file()));
    CPropertyListBasicFile reader(path());
    EXPECT_TRUE(reader.lockForRead());
    EXPECT_EQ(reader.fileVersion()->utf8(), "2.5");
}

// ---------------------------------------------------------------- list file

// An entry whose dictionary holds one number, "v".
struct Entry {
    Entry() = default;
    Entry(PLStringRef name, PLDictionaryRef dict)
        : _name(PLHolder<const PLString>::retain(name)), _dict(PLHolder<const PLDictionary>::retain(dict)) {}
    Entry(std::string_view name, int value)
        : _name(str(name)), _dict(PLDictionary::createFromEntries({{str("v"), PLNumber::create(value)}})) {}
    PLStringRef name() const { return _name.get(); }
    PLHolder<const PLDictionary> toDict() const { return _dict; }
    std::string text() const {
        const auto* v = _dict ? PLDynamicCast<PLNumber>(_dict->get("v")) : nullptr;
        return _name->str() + "=" + (v ? std::to_string(v->int32Value()) : "?");
    }

    PLHolder<const PLString> _name;
    PLHolder<const PLDictionary> _dict;
};

// A record the way the record classes are written: its section is "tests",
// or "byKind" then its kind.
class ListFile : public quill::CPropertyListFile<Entry> {
public:
    ListFile(PLStringRef path, bool ordered, std::string kind = {}) : CPropertyListFile(path), _kind(std::move(kind)) {
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

using ListFileTest = BasicFileTest;

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
