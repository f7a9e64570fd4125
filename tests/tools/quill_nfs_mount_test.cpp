// The mount adapter: its translation of the storage subscriber's command
// lines, and the program running a stand-in mount(8) and umount(8).
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "MountTranslation.h"
#include "support/RunCommand.h"
#include "support/TestSupport.h"
#include <quillcore/platform/Host.h>
#include <quillcore/platform/NotificationCenter.h>

namespace {

using quill::mountadapter::CUsageError;
using quill::mountadapter::mountedFileSystemType;
using quill::mountadapter::translateMount;
using quill::mountadapter::translateUmount;
using Args = std::vector<std::string>;

const char* const kTail = ",retry=0,timeo=100,retrans=2";

std::string mountOptions(const std::string& given) {
    Args argv = translateMount({"-o", given, "server:/export", "/mnt/p"}, "/bin/mount").argv;
    EXPECT_EQ(argv.size(), 7u);
    return argv.size() == 7 ? argv[4] : "";
}

TEST(MountTranslation, TheSubscribersOptionsBecomeLinuxNFSOptions) {
    EXPECT_EQ(translateMount({"-o", "soft,intr,locallocks", "server:/export", "/mnt/p"}, "/bin/mount").argv,
              (Args{"/bin/mount", "-t", "nfs", "-o", std::string("nfsvers=3,soft,nolock") + kTail, "server:/export",
                    "/mnt/p"}));
    EXPECT_EQ(mountOptions("port=2049,mountport=2049,soft,intr,locallocks"),
              std::string("nfsvers=3,port=2049,mountport=2049,soft,nolock") + kTail);
    // A sub-export URL carries port -1 when the publisher knows no port.
    EXPECT_EQ(mountOptions("port=-1,mountport=-1,soft,intr,locallocks"), std::string("nfsvers=3,soft,nolock") + kTail);
    EXPECT_EQ(mountOptions("port=1,mountport=65535,soft"),
              std::string("nfsvers=3,port=1,mountport=65535,soft") + kTail);
    EXPECT_EQ(mountOptions("port=0,mountport=65536,intr"), std::string("nfsvers=3") + kTail);
}

TEST(MountTranslation, SourcesKeepTheirPathAndBracketIPv6Hosts) {
    auto source = [](const std::string& given) {
        return translateMount({"-o", "soft", given, "/m"}, "/bin/mount").argv[5];
    };
    EXPECT_EQ(source("host.example:/Volumes/Data/A B:c"), "host.example:/Volumes/Data/A B:c");
    EXPECT_EQ(source("10.0.0.1:/x"), "10.0.0.1:/x");
    EXPECT_EQ(source("fe80::1:/x"), "[fe80::1]:/x");
    EXPECT_EQ(source("[fe80::1]:/x"), "[fe80::1]:/x");
}

TEST(MountTranslation, VectorsItDoesNotUnderstandAreRefused) {
    const std::vector<Args> bad = {
        {},
        {"-o", "soft", "server:/export"},
        {"-o", "soft", "server:/export", "/m", "extra"},
        {"-x", "soft", "server:/export", "/m"},
        {"-o", "soft,hard", "server:/export", "/m"},
        {"-o", "soft,soft", "server:/export", "/m"},
        {"-o", "port=1,port=2", "server:/export", "/m"},
        {"-o", "port=abc", "server:/export", "/m"},
        {"-o", "port=", "server:/export", "/m"},
        {"-o", "port=20x", "server:/export", "/m"},
        {"-o", "soft,,intr", "server:/export", "/m"},
        {"-o", "soft", ":/export", "/m"},  // a subscribe that lost its host
        {"-o", "soft", "server", "/m"},
        {"-o", "soft", "server:export", "/m"},
        {"-o", "soft", "-oremount:/x", "/m"},
        {"-o", "soft", "server:/export", "relative"},
        {"-o", "soft", "server:/export", ""},
    };
    for (const Args& args : bad) {
        std::string shown;
        for (const auto& a : args) shown += "[" + a + "]";
        EXPECT_THROW(translateMount(args, "/bin/mount"), CUsageError) << shown;
    }
    try {
        translateMount({"-o", "soft,nosuid", "server:/export", "/m"}, "/bin/mount");
        FAIL();
    } catch (const CUsageError& e) {
        EXPECT_STREQ(e.what(), "unknown option \"nosuid\"");
    }
}

TEST(MountTranslation, Unmount) {
    EXPECT_EQ(translateUmount({"-f", "/mnt/p q"}, "/bin/umount").argv, (Args{"/bin/umount", "-f", "/mnt/p q"}));
    EXPECT_EQ(translateUmount({"/mnt/p"}, "/bin/umount").argv, (Args{"/bin/umount", "/mnt/p"}));
    for (const Args& args : std::vector<Args>{{}, {"-f"}, {"-l", "/m"}, {"-f", "/m", "/n"}, {"-f", "m"}}) {
        EXPECT_THROW(translateUmount(args, "/bin/umount"), CUsageError) << args.size();
    }
}

TEST(MountTranslation, MountTableLookup) {
    const std::string table =
        "22 1 0:21 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
        "40 22 0:33 / /mnt/a\\040b rw,relatime shared:7 master:2 - nfs srv:/x rw,vers=3\n"
        "41 22 0:34 / /mnt/c rw - nfs4 srv:/y rw\n"
        "42 41 0:35 / /mnt/c rw - tmpfs none rw\n"
        "43 22 0:36 / /mnt/back\\134slash rw - nfs srv:/z rw\n";
    EXPECT_EQ(mountedFileSystemType(table, "/mnt/a b"), "nfs");
    EXPECT_EQ(mountedFileSystemType(table, "/mnt/a\\040b"), "");
    EXPECT_EQ(mountedFileSystemType(table, "/mnt/c"), "tmpfs");  // the topmost mount
    EXPECT_EQ(mountedFileSystemType(table, "/mnt/back\\slash"), "nfs");
    EXPECT_EQ(mountedFileSystemType(table, "/mnt"), "");
    EXPECT_EQ(mountedFileSystemType(table, "/"), "ext4");
    EXPECT_EQ(mountedFileSystemType("garbage\n\n1 2 3\n", "/"), "");
}

// The program itself, with stand-ins that record their arguments.
class MountAdapterProgram : public testing::Test {
protected:
    void SetUp() override {
        _record = _dir / "args";
        _standIn = _dir / "stand-in";
        quilltest::writeFile(_standIn, "#!/bin/sh\nprintf '%s\\n' \"$@\" > '" + _record.string() + "'\nexit 7\n");
        ::chmod(_standIn.c_str(), 0755);
        std::filesystem::create_symlink(QUILL_TEST_NFS_MOUNT, _dir / "quill-nfs-umount");
    }

    quilltest::CommandResult run(Args args) {
        args.insert(args.begin(), {"/usr/bin/env", "QUILL_NFS_MOUNT_PROGRAM=" + _standIn.string(),
                                   "QUILL_NFS_UMOUNT_PROGRAM=" + _standIn.string(),
                                   "QUILL_NFS_MOUNTINFO=" + (_dir / "mountinfo").string()});
        return quilltest::runCommand(args);
    }
    std::string recorded() const {
        return std::filesystem::exists(_record) ? quilltest::readFile(_record) : "(not run)";
    }

    quilltest::TempDir _dir{"mount-adapter"};
    std::filesystem::path _record;
    std::filesystem::path _standIn;
};

TEST_F(MountAdapterProgram, RunsMountWithTheTranslatedLineAndItsStatus) {
    auto result = run({QUILL_TEST_NFS_MOUNT, "-o", "port=-1,mountport=-1,soft,intr,locallocks", "h:/e x", "/m p"});
    EXPECT_EQ(result.exitCode, 7) << result.err;
    EXPECT_EQ(recorded(), std::string("-t\nnfs\n-o\nnfsvers=3,soft,nolock") + kTail + "\nh:/e x\n/m p\n");
}

TEST_F(MountAdapterProgram, UnmountsOnlyNFSMounts) {
    quilltest::writeFile(_dir / "mountinfo",
                         "22 1 0:21 / / rw - ext4 /dev/sda1 rw\n"
                         "40 22 0:33 / /m\\040p rw - nfs h:/e rw\n"
                         "41 22 0:34 / /t rw - tmpfs none rw\n");
    // Chosen by its name, as the library calls it.
    auto result = run({(_dir / "quill-nfs-umount").string(), "-f", "/m p"});
    EXPECT_EQ(result.exitCode, 7) << result.err;
    EXPECT_EQ(recorded(), "-f\n/m p\n");
    std::filesystem::remove(_record);

    result = run({QUILL_TEST_NFS_MOUNT, "umount", "-f", "/t"});
    EXPECT_EQ(result.exitCode, 32);
    EXPECT_EQ(result.err, "quill-nfs-mount: /t: not an NFS mount (tmpfs)\n");
    result = run({QUILL_TEST_NFS_MOUNT, "umount", "-f", "/nothing"});
    EXPECT_EQ(result.exitCode, 32);
    EXPECT_EQ(result.err, "quill-nfs-mount: /nothing: not mounted\n");
    EXPECT_EQ(recorded(), "(not run)");
}

TEST_F(MountAdapterProgram, BadVectorsAndMissingProgramsAreClearErrors) {
    auto result = run({QUILL_TEST_NFS_MOUNT, "-o", "soft", ":/export", "/m"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "quill-nfs-mount: \":/export\" names no host\n");
    EXPECT_EQ(recorded(), "(not run)");

    result = quilltest::runCommand({"/usr/bin/env", "QUILL_NFS_MOUNT_PROGRAM=" + (_dir / "missing").string(),
                                    QUILL_TEST_NFS_MOUNT, "-o", "soft", "h:/e", "/m"});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_NE(result.err.find("can't run"), std::string::npos) << result.err;
}

// What `cmake --install` puts in place is what the library's defaults and the
// system bus expect: the adapter under both names where kMountPath and
// kUmountPath point (relative to the prefix), the bus policy, the units and
// the watcher.
TEST(MountAdapterInstall, TheDefaultsNameTheInstalledAdapter) {
    const char* build = std::getenv("QUILL_TEST_BUILD_DIR");
    const char* cmake = std::getenv("QUILL_TEST_CMAKE");
    if (!build || !cmake) GTEST_SKIP() << "QUILL_TEST_BUILD_DIR or QUILL_TEST_CMAKE is not set";
    quilltest::TempDir prefix("prefix");
    const auto install = quilltest::runCommand({cmake, "--install", build, "--prefix", prefix.str()});
    ASSERT_EQ(install.exitCode, 0) << install.out << install.err;

    const std::string helpers = QUILL_TEST_HELPERDIR;
    const std::filesystem::path mount = prefix / helpers / "quill-nfs-mount";
    const std::filesystem::path umount = prefix / helpers / "quill-nfs-umount";
    EXPECT_EQ(::access(mount.c_str(), X_OK), 0) << mount;
    EXPECT_EQ(std::filesystem::canonical(umount), std::filesystem::canonical(mount));
    const std::string mountSuffix = "/" + helpers + "/quill-nfs-mount";
    const std::string umountSuffix = "/" + helpers + "/quill-nfs-umount";
    EXPECT_TRUE(std::string(quill::platform::kMountPath).ends_with(mountSuffix)) << quill::platform::kMountPath;
    EXPECT_TRUE(std::string(quill::platform::kUmountPath).ends_with(umountSuffix)) << quill::platform::kUmountPath;

    // Called by its unmount name from the install tree, it unmounts.
    auto result = quilltest::runCommand({umount.string(), "-f", "relative"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "quill-nfs-mount: mount point \"relative\" is not an absolute path\n");

    EXPECT_TRUE(std::filesystem::exists(prefix / "share/dbus-1/system.d" / quill::platform::kSystemBusPolicyFileName));
    for (const char* unit : {"quillcore-exports.path", "quillcore-exports.service", "quillcore-storage.service"}) {
        EXPECT_TRUE(std::filesystem::exists(prefix / "lib/systemd/system" / unit)) << unit;
    }
    EXPECT_EQ(::access((prefix / "sbin/quill-exports-watch").c_str(), X_OK), 0);
}

}  // namespace
