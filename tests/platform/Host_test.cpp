#include <cerrno>
#include <cmath>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/FixedClockHost.h"
#include "support/TestSupport.h"
#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/Host.h>

namespace {

using quill::platform::CCalendarDate;
using quill::platform::CHostWrapper;
using quill::platform::CScopedHost;
using quill::platform::defaultHost;
using quill::platform::FileLock;
using quill::platform::host;
using quill::platform::IHost;
using quill::platform::SystemPath;
using quilltest::CFixedClockHost;
using quilltest::ScopedEnv;

TEST(HostSeam, SubstitutesNestAndWrappersForward) {
    CFixedClockHost outer(10.0), inner(20.0);
    {
        CScopedHost outerScope(outer);
        {
            CScopedHost innerScope(inner);
            EXPECT_EQ(host().currentTime(), 20.0);
        }
        EXPECT_EQ(&host(), &outer);
        EXPECT_EQ(host().processID(), static_cast<std::int32_t>(getpid()));  // forwarded
    }
    EXPECT_EQ(&host(), &defaultHost());
    EXPECT_EQ(quill::platform::setHost(&outer), nullptr);
    EXPECT_EQ(quill::platform::setHost(nullptr), &outer);
    EXPECT_EQ(&host(), &defaultHost());

    CHostWrapper wrapperOfWrapper(&inner);
    EXPECT_EQ(wrapperOfWrapper.currentTime(), 20.0);
}

void expectDate(const CCalendarDate& d, int year, int month, int day, int hour, int minute, double second,
                int weekday) {
    EXPECT_EQ(std::make_tuple(d.year, d.month, d.day, d.hour, d.minute, d.second, d.weekday),
              std::make_tuple(year, month, day, hour, minute, second, weekday));
}

TEST(LinuxHostCalendar, DatesInTheZoneOfTheMomentAndBack) {
    ScopedEnv utcFirst("TZ", "UTC");
    expectDate(defaultHost().calendarDate(0.0), 2001, 1, 1, 0, 0, 0.0, 1);  // a Monday
    expectDate(defaultHost().calendarDate(-0.75), 2000, 12, 31, 23, 59, 59.25, 7);
    // 10000 Gregorian years are exactly 25 cycles of 146097 days.
    expectDate(defaultHost().calendarDate(10000 * 365.2425 * 86400), 12001, 1, 1, 0, 0, 0.0, 1);
    EXPECT_GT(defaultHost().calendarDate(1e300).year, 300000000);  // clamped, not wrapped
    EXPECT_EQ(defaultHost().calendarDate(NAN).year, 2001);

    ScopedEnv tz("TZ", "America/New_York");
    expectDate(defaultHost().calendarDate(0.0), 2000, 12, 31, 19, 0, 0.0, 7);
    double summer = defaultHost().absoluteTime({2026, 7, 4, 9, 5, 3.25, 0});  // daylight saving time
    expectDate(defaultHost().calendarDate(summer), 2026, 7, 4, 9, 5, 3.25, 6);
    ScopedEnv utc("TZ", "UTC");
    EXPECT_EQ(defaultHost().calendarDate(summer).hour, 13);

    // Back to absolute time: round trips, and out-of-range fields normalise.
    auto& h = defaultHost();
    for (double at : {5.25, -86400.5, 1e12}) EXPECT_DOUBLE_EQ(h.absoluteTime(h.calendarDate(at)), at) << at;
    EXPECT_EQ(h.absoluteTime({2001, 1, 1, 24, 0, 0.0, 0}), 86400.0);  // hour 24 is the next midnight
    EXPECT_TRUE(std::isnan(h.absoluteTime({2001, 1, 1, 0, 0, NAN, 0})));
}

TEST(LinuxHostFacts, DirectoriesProcessAndSystemPaths) {
    EXPECT_EQ(defaultHost().processName(), "platform_tests");
    {
        ScopedEnv home("HOME", "/some/where");
        EXPECT_EQ(defaultHost().homeDirectory(), "/some/where");
        ScopedEnv noHome("HOME", std::nullopt);
        EXPECT_FALSE(defaultHost().homeDirectory().empty());  // from the user database
    }
    {
        ScopedEnv tmp("TMPDIR", "/var/scratch//");
        EXPECT_EQ(defaultHost().temporaryDirectory(), "/var/scratch");
        ScopedEnv emptyTmp("TMPDIR", "");
        EXPECT_EQ(defaultHost().temporaryDirectory(), "/tmp");
    }
    struct Case {
        SystemPath which;
        const char* fixed;
        const char* variable;
    };
    for (const Case& c : {Case{SystemPath::RunwardCtl, "/bin/runwardctl", "QUILL_RUNWARDCTL"},
                          Case{SystemPath::ExportsFile, "/etc/exports", "QUILL_EXPORTS_FILE"}}) {
        ScopedEnv unset(c.variable, std::nullopt);
        EXPECT_EQ(defaultHost().systemPath(c.which), c.fixed);
        ScopedEnv set(c.variable, "/fake/tool");
        EXPECT_EQ(defaultHost().systemPath(c.which), "/fake/tool");
    }
}

TEST(LinuxHostConsole, OneLinePerEntryInTheConsoleFile) {
    quilltest::TempDir dir;
    ScopedEnv file("QUILL_CONSOLE_LOG", (dir / "console.log").string());
    defaultHost().logToConsole("first entry\n\n");
    defaultHost().logToConsole("two\nlines");
    std::string log = quilltest::readFile(dir / "console.log");
    std::string tag = " platform_tests[" + std::to_string(getpid()) + "]: ";
    std::size_t first = log.find(tag + "first entry\n20");
    EXPECT_NE(first, std::string::npos) << log;
    EXPECT_NE(log.find(tag + "two\n\tlines\n", first), std::string::npos) << log;
}

TEST(LinuxHostFiles, LockedOpenHoldsTheLockAndHidesTheDescriptorFromChildren) {
    quill::platform::IHost& host = defaultHost();
    quilltest::TempDir dir;
    const std::string path = (dir / "locked").string();

    quill::platform::CFileDescriptor owned;
    EXPECT_EQ(host.openLockedFile(path, FileLock::Shared, owned).value(), ENOENT);
    EXPECT_FALSE(owned);

    ASSERT_FALSE(host.openLockedFile(path, FileLock::Exclusive, owned));
    const int fd = owned.get();
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    const int other = open(path.c_str(), O_RDONLY);
    EXPECT_NE(flock(other, LOCK_SH | LOCK_NB), 0) << "the exclusive lock is held on return";

    std::size_t done = 0;
    ASSERT_FALSE(host.writeFileAt(fd, 0, "hello", 5, done));
    char buffer[16] = {};
    ASSERT_FALSE(host.readFile(fd, buffer, sizeof buffer, done)) << "the end of the file is no error";
    EXPECT_EQ(std::string(buffer, done), "hello");

    EXPECT_FALSE(host.closeFile(owned));
    EXPECT_FALSE(owned);
    EXPECT_EQ(host.closeFile(owned).value(), EBADF) << "an empty descriptor is not closed twice";
    EXPECT_EQ(flock(other, LOCK_SH | LOCK_NB), 0) << "closing gives the lock back";

    // Dropping the owner closes the descriptor, and moving hands it on
    // without closing it.
    flock(other, LOCK_UN);
    ASSERT_FALSE(host.openLockedFile(path, FileLock::Exclusive, owned));
    quill::platform::CFileDescriptor moved(std::move(owned));
    EXPECT_FALSE(owned);
    EXPECT_NE(flock(other, LOCK_SH | LOCK_NB), 0) << "the lock moves with the descriptor";
    moved = quill::platform::CFileDescriptor();
    EXPECT_EQ(flock(other, LOCK_SH | LOCK_NB), 0) << "replacing the owner closed the old descriptor";
    close(other);
}

TEST(LinuxHostFiles, RenamesRemovesAndListsDirectoryEntries) {
    quill::platform::IHost& host = defaultHost();
    quilltest::TempDir dir;
    const std::string base = dir.path().string();
    for (const char* name : {"b file", "a\nline", ".hidden"}) {
        quill::platform::CFileDescriptor fd;
        ASSERT_FALSE(host.openFileForAppending(base + "/" + name, false, 0600, fd)) << name;
    }
    ASSERT_FALSE(host.createDirectory(base + "/sub", 0700));

    std::vector<std::string> names{"left alone"};
    EXPECT_EQ(host.listDirectory(base + "/missing", names).value(), ENOENT);
    EXPECT_EQ(names, std::vector<std::string>{"left alone"}) << "a failed listing leaves the result alone";
    ASSERT_FALSE(host.listDirectory(base, names));
    EXPECT_EQ(names, (std::vector<std::string>{".hidden", "a\nline", "b file", "sub"}));

    ASSERT_FALSE(host.renameFile(base + "/b file", base + "/.hidden")) << "rename replaces the target";
    EXPECT_EQ(host.removeFile(base + "/sub").value(), EISDIR);
    ASSERT_FALSE(host.removeDirectory(base + "/sub"));
    ASSERT_FALSE(host.removeFile(base + "/a\nline"));
    EXPECT_EQ(host.removeFile(base + "/a\nline").value(), ENOENT);
    ASSERT_FALSE(host.listDirectory(base, names));
    EXPECT_EQ(names, std::vector<std::string>{".hidden"});

    // A new file is new: neither an existing file nor a link is opened.
    ASSERT_EQ(symlink((base + "/target").c_str(), (base + "/link").c_str()), 0);
    quill::platform::CFileDescriptor fd;
    EXPECT_EQ(host.createFile(base + "/.hidden", 0600, fd), std::errc::file_exists);
    EXPECT_EQ(host.createFile(base + "/link", 0600, fd), std::errc::file_exists);
    EXPECT_FALSE(fd);
    EXPECT_EQ(host.openFileForReading(base + "/target", fd).value(), ENOENT);
}

TEST(LinuxHostFiles, ScopedFileCreationMaskIsRestoredOnEveryExit) {
    const mode_t before = umask(022);
    try {
        const quill::platform::CScopedFileCreationMask scoped(0177);
        EXPECT_EQ(umask(0177), 0177u);
        throw std::runtime_error("leaves the scope");
    } catch (const std::runtime_error&) {}
    EXPECT_EQ(umask(before), 022u);
}

TEST(LinuxHostFiles, StatusFollowsLinksAndDuplicatesReplaceDescriptors) {
    quilltest::TempDir dir;
    quilltest::writeFile(dir / "f", "12345");
    std::filesystem::create_symlink(dir / "f", dir / "link");
    quill::platform::CFileStatus status;
    ASSERT_FALSE(host().fileStatus((dir / "link").string(), status));
    EXPECT_EQ(status.size, 5u);
    EXPECT_TRUE(S_ISREG(status.mode));
    EXPECT_EQ(status.ownerUserID, geteuid());
    EXPECT_EQ(host().fileStatus((dir / "none").string(), status), std::errc::no_such_file_or_directory);
    EXPECT_EQ(status.size, 5u);  // left as it was

    quill::platform::CFileDescriptor source;
    ASSERT_FALSE(host().openFileForReading((dir / "f").string(), source));
    const int target = dup(source.get());
    fcntl(target, F_SETFD, FD_CLOEXEC);
    quill::platform::CFileDescriptor other;
    ASSERT_FALSE(host().openFileForReading("/dev/null", other));
    ASSERT_FALSE(host().duplicateDescriptor(other.get(), target));
    char byte = 'x';
    EXPECT_EQ(read(target, &byte, 1), 0);  // now /dev/null
    EXPECT_EQ(fcntl(target, F_GETFD) & FD_CLOEXEC, 0);
    close(target);
    EXPECT_EQ(host().duplicateDescriptor(-1, 100), std::errc::bad_file_descriptor);
}

TEST(LinuxHostFacts, TheEnvironmentIsHandedOnWhole) {
    ScopedEnv marker("QUILL_TEST_MARKER", "a b=c");
    bool found = false;
    for (const char* const* entry = host().processEnvironment(); *entry; ++entry)
        found = found || std::string(*entry) == "QUILL_TEST_MARKER=a b=c";
    EXPECT_TRUE(found);
}

}  // namespace

namespace {

TEST(LinuxHostStorageCalls, VolumeFactsMountTableAccessRealpathLinksAndUniqueNames) {
    quilltest::TempDir dir("hoststore");
    IHost& real = defaultHost();

    quill::platform::CFileSystemFacts facts;
    ASSERT_FALSE(real.fileSystemFacts(dir.str(), facts));
    EXPECT_FALSE(facts.typeName.empty());
    EXPECT_FALSE(facts.readOnly);
    facts.typeName = "kept";
    EXPECT_EQ(real.fileSystemFacts(dir.str() + "/missing", facts), std::errc::no_such_file_or_directory);
    EXPECT_EQ(facts.typeName, "kept");
    ASSERT_FALSE(real.fileSystemFacts("/proc", facts));
    EXPECT_EQ(facts.typeName, "proc");

    std::vector<quill::platform::CMountedFileSystem> mounts;
    ASSERT_FALSE(real.mountedFileSystems(mounts));
    bool sawRoot = false;
    for (const auto& mount : mounts) sawRoot |= mount.mountPoint == "/";
    EXPECT_TRUE(sawRoot);

    const std::string file = dir.str() + "/a file";
    quilltest::writeFile(file, "x");
    EXPECT_FALSE(real.checkAccess(file, true, true));
    ::chmod(file.c_str(), 0400);
    if (::geteuid() != 0) {
        EXPECT_EQ(real.checkAccess(file, false, true), std::errc::permission_denied);
    }
    EXPECT_EQ(real.checkAccess(file + "x", true, false), std::errc::no_such_file_or_directory);

    std::string resolved;
    ASSERT_FALSE(real.resolvePath(dir.str() + "/./../" + dir.path().filename().string() + "/a file", resolved));
    std::string expected;
    ASSERT_FALSE(real.resolvePath(dir.str(), expected));
    EXPECT_EQ(resolved, expected + "/a file");
    EXPECT_TRUE(real.resolvePath(dir.str() + "/nothing/here", resolved));

    EXPECT_FALSE(real.linkFile(file, dir.str() + "/link"));
    EXPECT_EQ(real.linkFile(file, dir.str() + "/link"), std::errc::file_exists);
    struct stat status {};
    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_nlink, 2u);

    std::string name = dir.str() + "/linkXXXXXX";
    ASSERT_FALSE(real.makeUniqueName(name));
    EXPECT_EQ(name.size(), dir.str().size() + 11);
    EXPECT_NE(name, dir.str() + "/linkXXXXXX");
    EXPECT_FALSE(std::filesystem::exists(name));
    std::string bad = dir.str() + "/linkXXXXX";
    EXPECT_EQ(real.makeUniqueName(bad), std::errc::invalid_argument);
    EXPECT_EQ(bad, dir.str() + "/linkXXXXX");
}

TEST(LinuxHostStorageCalls, CommandTimeLimitIsOnlyShortenedAndExportOptionsHaveADefault) {
    IHost& real = defaultHost();
    {
        ScopedEnv unset(quill::platform::kCommandTimeLimitVariable, std::nullopt);
        EXPECT_EQ(real.commandTimeLimit(55.0), 55.0);
    }
    for (const auto& [text, expected] : std::vector<std::pair<std::string, double>>{
             {"2.5", 2.5}, {"100", 55.0}, {"0", 55.0}, {"-1", 55.0}, {"abc", 55.0}, {"3s", 55.0}}) {
        ScopedEnv set(quill::platform::kCommandTimeLimitVariable, text);
        EXPECT_EQ(real.commandTimeLimit(55.0), expected) << text;
    }
    {
        ScopedEnv unset(quill::platform::kExportOptionsVariable, std::nullopt);
        EXPECT_EQ(real.exportOptions(), quill::platform::kExportOptions);
    }
    ScopedEnv set(quill::platform::kExportOptionsVariable, "10.0.0.0/8(rw)");
    EXPECT_EQ(real.exportOptions(), "10.0.0.0/8(rw)");
}

}  // namespace
