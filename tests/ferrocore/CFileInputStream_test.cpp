// CFileInputStream and copyFileContents.
#include <ferrocore/CException.h>
#include <ferrocore/CFileInputStream.h>

#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cerrno>
#include <string>

namespace ferrocore {
namespace {

// Bytes of every value, longer than the copy buffer and not a multiple of it.
std::string sampleContents() {
    std::string contents(200 * 1024 + 17, '\0');
    for (std::size_t i = 0; i < contents.size(); ++i) contents[i] = static_cast<char>((i * 131 + i / 7) & 0xFF);
    return contents;
}

TEST(FileInputStreamTest, ReadsSizeAndContents) {
    quilltest::TempDir dir("fis");
    const std::string contents = sampleContents();
    quilltest::writeFile(dir / "in", contents);

    CFileInputStream stream((dir / "in").string());
    EXPECT_EQ(stream.size(), contents.size());
    std::string read;
    char buffer[5000];
    std::size_t n;
    while ((n = stream.read(buffer, sizeof(buffer))) > 0) {
        read.append(buffer, n);
        if (read.size() < contents.size()) {
            EXPECT_EQ(n, sizeof(buffer));
        }
    }
    EXPECT_EQ(read, contents);
    EXPECT_EQ(stream.read(buffer, sizeof(buffer)), 0u);

    CFileInputStream moved(std::move(stream));
    EXPECT_EQ(moved.size(), contents.size());
}

TEST(FileInputStreamTest, OpenFailureIsASystemCallException) {
    quilltest::TempDir dir("fis");
    const std::string path = (dir / "missing").string();
    try {
        CFileInputStream stream(path);
        ADD_FAILURE() << "no exception";
    } catch (const CException& e) {
        EXPECT_EQ(e.kind(), kExceptionKindSystemCall);
        EXPECT_EQ(e.errorNumber(), ENOENT);
        EXPECT_EQ(e.message(), "CFileInputStream::open(" + path + "): can't open file, error = No such file or directory");
    }
    // A directory opens but cannot be read.
    CFileInputStream directory(dir.str());
    char c;
    EXPECT_THROW(directory.read(&c, 1), CException);
}

TEST(CopyFileContentsTest, CopiesWholeFilesAndReplacesOldContents) {
    quilltest::TempDir dir("copy");
    const std::string contents = sampleContents();
    quilltest::writeFile(dir / "from", contents);
    quilltest::writeFile(dir / "to", std::string(300 * 1024, 'x'));
    chmod((dir / "to").c_str(), 0600);

    EXPECT_EQ(copyFileContents((dir / "from").string(), (dir / "to").string()), contents.size());
    EXPECT_EQ(quilltest::readFile(dir / "to"), contents);
    struct stat status;
    ASSERT_EQ(stat((dir / "to").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);

    quilltest::writeFile(dir / "empty", "");
    EXPECT_EQ(copyFileContents((dir / "empty").string(), (dir / "new").string()), 0u);
    EXPECT_EQ(quilltest::readFile(dir / "new"), "");
}

TEST(CopyFileContentsTest, Failures) {
    quilltest::TempDir dir("copy");
    quilltest::writeFile(dir / "from", "keep me");
    try {
        copyFileContents((dir / "nothing").string(), (dir / "to").string());
        ADD_FAILURE() << "no exception";
    } catch (const CFileException& e) {
        EXPECT_EQ(e.errorNumber(), ENOENT);
        EXPECT_EQ(e.kind(), kExceptionKindIO);
    }
    EXPECT_THROW(copyFileContents((dir / "from").string(), (dir / "no-dir" / "to").string()), CFileException);
    // Copying a file onto itself must not truncate it first.
    EXPECT_THROW(copyFileContents((dir / "from").string(), (dir / "." / "from").string()), CFileException);
    EXPECT_EQ(quilltest::readFile(dir / "from"), "keep me");
}

}  // namespace
}  // namespace ferrocore
