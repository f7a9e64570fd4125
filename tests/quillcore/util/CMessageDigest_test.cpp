#include <quillcore/util/CMessageDigest.h>

#include "support/TestSupport.h"

#include <ferrocore/CException.h>

#include <gtest/gtest.h>

#include <thread>

namespace {

using quill::CMessageDigest;

std::string hex(const ferrocore::CBufferRef& digest) {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    for (std::size_t i = 0; i < digest->size(); ++i) {
        out += kHex[digest->data()[i] >> 4];
        out += kHex[digest->data()[i] & 15];
    }
    return out;
}

// A file of `size` bytes with a position-dependent pattern.
void writePattern(const std::filesystem::path& path, std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 131 + i / 4096) & 0xff);
    quilltest::writeFile(path, bytes);
}

TEST(CMessageDigest, KnownDigestsOfEverySource) {
    quilltest::TempDir dir;
    quilltest::writeFile(dir / "empty", "");
    quilltest::writeFile(dir / "fox name", "The quick brown fox jumps over the lazy dog");

    CMessageDigest empty(ferrocore::CURL::createWithPath((dir / "empty").string(), false), CMessageDigest::kMD5, true);
    EXPECT_EQ(hex(empty.result()), "d41d8cd98f00b204e9800998ecf8427e");

    CMessageDigest file(ferrocore::CURL::createWithPath((dir / "fox name").string(), false));
    EXPECT_FALSE(file.result());
    EXPECT_EQ(hex(file.digest()), "9e107d9d372bb6826bd81d3542a419d6");

    CMessageDigest text(ferrocore::CString::create("Grüße"));
    CMessageDigest buffer(ferrocore::CBuffer::create("Gr\xc3\xbc\xc3\x9f" "e", 7));
    EXPECT_EQ(hex(text.digest()), hex(buffer.digest()));  // text is digested as UTF-8
    EXPECT_EQ(text.result()->size(), 16u);
}

TEST(CMessageDigest, RefusesMissingSourcesAndUnknownKinds) {
    try {
        CMessageDigest d{ferrocore::CURLRef()};
        FAIL();
    } catch (const ferrocore::CNullPointerException& e) {
        EXPECT_EQ(e.message(), "Error: fileURL is null!");
        EXPECT_EQ(e.kind(), 2);
    }
    EXPECT_THROW(CMessageDigest{ferrocore::CStringRef()}, ferrocore::CNullPointerException);
    EXPECT_THROW(CMessageDigest{ferrocore::CBufferRef()}, ferrocore::CNullPointerException);

    CMessageDigest md(ferrocore::CString::create("x"), 2);
    try {
        md.digest();
        FAIL();
    } catch (const ferrocore::CParamException& e) {
        EXPECT_EQ(e.message(), "Invalid message digest kind: 2");
    }

    CMessageDigest missing(ferrocore::CURL::createWithPath("/nonexistent/quill/file", false));
    EXPECT_THROW(missing.digest(), ferrocore::CException);
    EXPECT_FALSE(missing.result());
}

TEST(CMessageDigest, LargeFilesReportProgressPerChunkAndMatchOneShot) {
    quilltest::TempDir dir;
    const std::size_t size = 40u << 20;  // chunks of 16, 16 and 8 MiB
    writePattern(dir / "big", size);
    const std::string whole = quilltest::readFile(dir / "big");

    std::vector<std::int64_t> seen;
    CMessageDigest md(ferrocore::CURL::createWithPath((dir / "big").string(), false));
    md.digest([&](std::int64_t done, std::int64_t total) {
        EXPECT_EQ(total, static_cast<std::int64_t>(size));
        seen.push_back(done);
        return true;
    });
    EXPECT_EQ(seen, (std::vector<std::int64_t>{16 << 20, 32 << 20, 40 << 20}));

    CMessageDigest oneShot(ferrocore::CBuffer::create(whole.data(), whole.size()));
    EXPECT_EQ(hex(md.result()), hex(oneShot.digest()));
}

TEST(CMessageDigest, StoppingLeavesTheResultAndCancelIsFinal) {
    quilltest::TempDir dir;
    writePattern(dir / "big", 33u << 20);
    auto url = ferrocore::CURL::createWithPath((dir / "big").string(), false);

    CMessageDigest stopped(url);
    int calls = 0;
    EXPECT_FALSE(stopped.digest([&](std::int64_t, std::int64_t) { return ++calls < 1; }));
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(stopped.isCancelled());
    EXPECT_FALSE(stopped.digest());  // every later run stops at once

    // A completed result survives a later cancelled run.
    CMessageDigest md(url);
    ASSERT_TRUE(md.digest());
    const std::string first = hex(md.result());
    md.cancel();
    EXPECT_EQ(hex(md.digest()), first);

    // Cancellation from another thread while the digest runs.
    CMessageDigest racing(url);
    std::thread canceller([&] { racing.cancel(); });
    racing.digest();
    canceller.join();
    EXPECT_TRUE(racing.isCancelled());
}

TEST(CMessageDigest, AFileThatShrinksWhileReadIsAnErrorNotAHang) {
    quilltest::TempDir dir;
    writePattern(dir / "shrinking", 20u << 20);
    CMessageDigest md(ferrocore::CURL::createWithPath((dir / "shrinking").string(), false));
    EXPECT_THROW(md.digest([&](std::int64_t, std::int64_t) {
        std::filesystem::resize_file(dir / "shrinking", 1u << 20);
        return true;
    }),
                 ferrocore::CException);
    EXPECT_FALSE(md.result());
}

}  // namespace
