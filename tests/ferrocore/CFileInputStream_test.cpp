// CFileInputStream and copyFileContents.
#include <cerrno>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/TestSupport.h"
#include <ferrocore/CException.h>
#include <ferrocore/CFileInputStream.h>

namespace ferrocore {
namespace {

TEST(FileInputStreamTest, ReadsInFullBuffersAndCopiesOverOldContents) {
    quilltest::TempDir dir("fis");
    const auto path = [&](const char* name) { return (dir / name).string(); };
    // Bytes of every value, longer than the copy buffer and not a multiple of it.
    std::string contents(200 * 1024 + 17, '\0');
    for (std::size_t i = 0; i < contents.size(); ++i) contents[i] = static_cast<char>((i * 131 + i / 7) & 0xFF);
    quilltest::writeFile(path("from"), contents);

    CFileInputStream stream(path("from"));
    std::string read;
    char buffer[5000];
    for (std::size_t n; (n = stream.read(buffer, sizeof(buffer))) > 0;) {
        read.append(buffer, n);
        if (read.size() < contents.size()) {
            EXPECT_EQ(n, sizeof(buffer));
        }
    }
    EXPECT_EQ(read, contents);
    EXPECT_EQ(stream.read(buffer, sizeof(buffer)), 0u);
    EXPECT_EQ(CFileInputStream(std::move(stream)).size(), contents.size());

    // The target keeps its mode and loses all of its longer old contents.
    quilltest::writeFile(path("to"), std::string(300 * 1024, 'x'));
    chmod(path("to").c_str(), 0600);
    EXPECT_EQ(copyFileContents(path("from"), path("to")), contents.size());
    EXPECT_EQ(quilltest::readFile(path("to")), contents);
    struct stat status;
    ASSERT_EQ(stat(path("to").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    quilltest::writeFile(path("empty"), "");
    EXPECT_EQ(copyFileContents(path("empty"), path("new")), 0u);
    EXPECT_EQ(quilltest::readFile(path("new")), "");
}

TEST(FileInputStreamTest, FailuresSayWhyAndLeaveTheSourceAlone) {
    quilltest::TempDir dir("fis");
    const auto path = [&](const char* name) { return (dir / name).string(); };
    try {
        CFileInputStream stream(path("missing"));
        ADD_FAILURE() << "no exception";
    } catch (const CException& e) {
        EXPECT_EQ(e.kind(), kExceptionKindSystemCall);
        EXPECT_EQ(e.errorNumber(), ENOENT);
        EXPECT_EQ(e.message(), "CFileInputStream::open(" + path("missing") +
                                   "): can't open file, error = No such file or directory");
    }
    // A directory opens but cannot be read.
    char c;
    EXPECT_THROW(CFileInputStream(dir.str()).read(&c, 1), CException);

    quilltest::writeFile(path("from"), "keep me");
    try {
        copyFileContents(path("missing"), path("to"));
        ADD_FAILURE() << "no exception";
    } catch (const CFileException& e) {
        EXPECT_EQ(e.errorNumber(), ENOENT);
        EXPECT_EQ(e.kind(), kExceptionKindIO);
    }
    EXPECT_THROW(copyFileContents(path("from"), path("no-dir/to")), CFileException);
    // Copying a file onto itself must not truncate it first.
    EXPECT_THROW(copyFileContents(path("from"), path("./from")), CFileException);
    EXPECT_EQ(quilltest::readFile(path("from")), "keep me");
}

}  // namespace
}  // namespace ferrocore
