#include <thread>

#include <gmock/gmock.h>

#include "support/TestSupport.h"
#include <ferrocore/CException.h>
#include <quillcore/util/CMessageDigest.h>

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

TEST(CMessageDigest, KnownDigestsOfEverySourceAndRefusalsOfMissingSourcesAndUnknownKinds) {
    quilltest::TempDir dir;
    quilltest::writeFile(dir / "empty", "");
    quilltest::writeFile(dir / "fox name", "The quick brown fox jumps over the lazy dog");

    CMessageDigest empty(ferrocore::CURL::createWithPath((dir / "empty").string(), false), CMessageDigest::kMD5, true);
    EXPECT_EQ(hex(empty.result()), "d41d8cd98f00b204e9800998ecf8427e");

    CMessageDigest file(ferrocore::CURL::createWithPath((dir / "fox name").string(), false));
    EXPECT_FALSE(file.result());
    EXPECT_EQ(hex(file.digest()), "9e107d9d372bb6826bd81d3542a419d6");

    CMessageDigest text(ferrocore::CString::create("Grüße"));
    CMessageDigest buffer(
        ferrocore::CBuffer::create("Gr\xc3\xbc\xc3\x9f"
                                   "e",
                                   7));
    EXPECT_EQ(hex(text.digest()), hex(buffer.digest()));  // text is digested as UTF-8
    EXPECT_EQ(text.result()->size(), 16u);

    EXPECT_THAT([] { CMessageDigest d{ferrocore::CURLRef()}; },
                testing::Throws<ferrocore::CNullPointerException>(
                    testing::AllOf(testing::Property(&ferrocore::CException::message, "Error: fileURL is null!"),
                                   testing::Property(&ferrocore::CException::kind, 2))));
    EXPECT_THROW(CMessageDigest{ferrocore::CStringRef()}, ferrocore::CNullPointerException);
    EXPECT_THROW(CMessageDigest{ferrocore::CBufferRef()}, ferrocore::CNullPointerException);

    CMessageDigest md(ferrocore::CString::create("x"), 2);
    EXPECT_THAT([&] { md.digest(); }, testing::Throws<ferrocore::CParamException>(testing::Property(
                                          &ferrocore::CException::message, "Invalid message digest kind: 2")));

    CMessageDigest missing(ferrocore::CURL::createWithPath("/nonexistent/quill/file", false));
    EXPECT_THROW(missing.digest(), ferrocore::CException);
    EXPECT_FALSE(missing.result());
}

TEST(CMessageDigest, LargeFilesReportProgressPerChunkStopOnRequestAndMustNotShrink) {
    quilltest::TempDir dir;
    const std::size_t size = 40u << 20;  // chunks of 16, 16 and 8 MiB
    writePattern(dir / "big", size);
    const auto url = ferrocore::CURL::createWithPath((dir / "big").string(), false);

    std::vector<std::int64_t> seen;
    CMessageDigest md(url);
    ASSERT_TRUE(md.digest([&](std::int64_t done, std::int64_t total) {
        EXPECT_EQ(total, static_cast<std::int64_t>(size));
        seen.push_back(done);
        return true;
    }));
    EXPECT_EQ(seen, (std::vector<std::int64_t>{16 << 20, 32 << 20, 40 << 20}));
    const std::string whole = quilltest::readFile(dir / "big"), first = hex(md.result());
    EXPECT_EQ(first, hex(CMessageDigest(ferrocore::CBuffer::create(whole.data(), whole.size())).digest()));
    // A completed result survives a later cancelled run.
    md.cancel();
    EXPECT_EQ(hex(md.digest()), first);

    CMessageDigest stopped(url);
    int calls = 0;
    EXPECT_FALSE(stopped.digest([&](std::int64_t, std::int64_t) { return ++calls < 1; }));
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(stopped.isCancelled());
    EXPECT_FALSE(stopped.digest());  // every later run stops at once

    // Cancellation from another thread while the digest runs.
    CMessageDigest racing(url);
    std::thread canceller([&] { racing.cancel(); });
    racing.digest();
    canceller.join();
    EXPECT_TRUE(racing.isCancelled());

    // A file that shrinks while it is read is an error, not a hang.
    CMessageDigest shrinking(url);
    EXPECT_THROW(shrinking.digest([&](std::int64_t, std::int64_t) {
        std::filesystem::resize_file(dir / "big", 1u << 20);
        return true;
    }),
                 ferrocore::CException);
    EXPECT_FALSE(shrinking.result());
}

}  // namespace
