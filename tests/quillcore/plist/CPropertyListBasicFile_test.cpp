// The locked property-list file: reading, in-place writing, locks between
// processes, and the exact failure messages (failures injected through the
// host seam).
#include "support/FileFaultHost.h"
#include "support/NotificationBus.h"
#include "support/TestSupport.h"

#include <quillcore/platform/PLPropertyList.h>
#include <quillcore/plist/CPropertyListBasicFile.h>

#include <ferrocore/CException.h>
#include <ferrocore/Format.h>

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using quill::CPropertyListBasicFile;
using quilltest::readFile;
using quilltest::writeFile;

constexpr char kDocument[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
	<key>Name</key>
	<string>first</string>
	<key>Version</key>
	<string>2.5</string>
</dict>
</plist>
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
    switch (value->typeID()) {
        case PLTypeID::Number: {
            const auto* n = static_cast<const PLNumber*>(value);
            return "n" + std::to_string(static_cast<int>(n->numberType())) + ":" +
                   (n->isFloat() ? std::to_string(n->doubleValue()) : std::to_string(n->int64Value()));
        }
        case PLTypeID::Array: {
            std::string out = "[";
            for (const auto& e : static_cast<const PLArray*>(value)->values()) out += shape(e.get()) + ",";
            return out + "]";
        }
        case PLTypeID::Dictionary: {
            std::string out = "{";
            for (const auto& [k, v] : static_cast<const PLDictionary*>(value)->entries())
                out += shape(k.get()) + "=" + shape(v.get()) + ",";
            return out + "}";
        }
        default:
            return std::string(value->isMutable() ? "mutable " : "") + PLTypeName(value->typeID()) + ":" +
                   xmlOf(PLArray::create(&value, 1).get());
    }
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
    struct stat info {};
    ASSERT_EQ(stat(file().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_EQ(info.st_size, 0);
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

    plist.setFileVersion(PLString::create("4.0").get());
    plist.flush();
    EXPECT_EQ(CPropertyListBasicFile(path()).fileVersion()->utf8(), "4.0");
    plist.setFileVersion(PLString::create("").get());
    EXPECT_FALSE(plist.toPropertyList()->get("Version"));
}

TEST_F(BasicFileTest, RewritesInPlaceAndCutsTheOldTail) {
    writeFile(file(), kDocument);
    struct stat before {};
    ASSERT_EQ(stat(file().c_str(), &before), 0);

    CPropertyListBasicFile plist(path());
    PLHolder<PLMutableDictionary> contents = plist.toPropertyList();
    for (int i = 0; i < 50; ++i) contents->set(PLString::create("key" + std::to_string(i)), PLNumber::create(i));
    EXPECT_FALSE(plist.flush());
    contents->removeAll();
    contents->set(PLString::create("short"), PLString::create("x"));
    plist.flush();

    // Byte for byte the new document: nothing of the longer one survives.
    EXPECT_EQ(readFile(file()), xmlOf(contents.get()));
    struct stat after {};
    ASSERT_EQ(stat(file().c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino) << "written through a new file";
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
    EXPECT_NE(thrownBy([&] { plist.refresh(); }).message().find("the top level is of type array"),
              std::string::npos);

    writeFile(file(), kDocument);
    EXPECT_TRUE(plist.refresh());
    EXPECT_FALSE(plist.lastRefreshFailed());
    plist.toPropertyList()->set(PLString::create("Name"), PLString::create("second"));
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
    other.toPropertyList()->set(str("b"), PLDictionary::createFromEntries({{str("y"), str("3")}, {str("x"), str("2")}}));
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
              ferrocore::formatString("CPropertyListBasicFile::COpenFile::open[%d](%s): wrong open mode = 7",
                                      getpid(), file()));

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
    EXPECT_EQ(e.message(),
              ferrocore::formatString("CPropertyListBasicFile::fromPropertyList[%d](): propertyList is NULL", getpid()));
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

}  // namespace
