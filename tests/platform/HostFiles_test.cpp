// The real host's files and locks.
#include "support/TestSupport.h"

#include <quillcore/platform/Host.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

using quill::platform::FileLock;

TEST(HostFiles, LockedOpenHoldsTheLockAndHidesTheDescriptorFromChildren) {
    quill::platform::IHost& host = quill::platform::defaultHost();
    quilltest::TempDir dir;
    const std::string path = (dir / "locked").string();

    int fd = -7;
    EXPECT_EQ(host.openLockedFile(path, FileLock::Shared, fd).value(), ENOENT);
    EXPECT_EQ(fd, -7);

    ASSERT_FALSE(host.openLockedFile(path, FileLock::Exclusive, fd));
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    const int other = open(path.c_str(), O_RDONLY);
    EXPECT_NE(flock(other, LOCK_SH | LOCK_NB), 0) << "the exclusive lock is held on return";

    std::size_t done = 0;
    ASSERT_FALSE(host.writeFileAt(fd, 0, "hello", 5, done));
    char buffer[16] = {};
    ASSERT_FALSE(host.readFile(fd, buffer, sizeof buffer, done)) << "the end of the file is no error";
    EXPECT_EQ(std::string(buffer, done), "hello");

    EXPECT_FALSE(host.closeFile(fd));
    EXPECT_EQ(flock(other, LOCK_SH | LOCK_NB), 0) << "closing gives the lock back";
    close(other);
}

}  // namespace
