// MD5 digests of a file, a text or a byte buffer.
//
// A CMessageDigest is made over one source and computes its digest on
// digest(). Files are consumed in chunks of 16 MiB (kChunkSize): before each
// chunk the cancelled flag is checked, and after each chunk the optional
// progress callback learns how many bytes are done. The result is the raw
// digest (16 bytes for MD5), not text.
//
// Threads: one thread runs digest(); cancel() may be called from any other
// thread meanwhile. The object is otherwise not shared between threads.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include <ferrocore/CBuffer.h>
#include <ferrocore/CString.h>
#include <ferrocore/CURL.h>
#include <quillcore/export.h>

namespace quill {

class QUILL_EXPORT CMessageDigest {
public:
    // The only digest kind: MD5.
    static constexpr unsigned long kMD5 = 1;
    // Bytes of a file between two cancellation checks and progress calls.
    static constexpr std::int64_t kChunkSize = 16 * 1024 * 1024;

    // Progress: (bytes done, total bytes); return false to stop the digest.
    using ProgressCallback = std::function<bool(std::int64_t done, std::int64_t total)>;

    // Over the file named by a file URL. Throws CNullPointerException
    // "Error: fileURL is null!" for a null URL. With computeNow the digest is
    // computed at once (without progress) and may throw as digest() does.
    CMessageDigest(ferrocore::CURLRef fileURL, unsigned long kind = kMD5, bool computeNow = false);
    // Over the UTF-8 bytes of a text. Throws CNullPointerException
    // "Error: message is null!" for a null text.
    CMessageDigest(ferrocore::CStringRef message, unsigned long kind = kMD5);
    // Over the bytes of a buffer. Throws CNullPointerException
    // "Error: buffer is null!" for a null buffer.
    CMessageDigest(ferrocore::CBufferRef buffer, unsigned long kind = kMD5);

    CMessageDigest(const CMessageDigest&) = delete;
    CMessageDigest& operator=(const CMessageDigest&) = delete;
    virtual ~CMessageDigest();

    // Computes the digest and stores it as the result, which is returned.
    // When the work is stopped (cancel(), or the callback returned false) the
    // result stays as it was (null if no digest ever completed).
    // Throws CParamException "Invalid message digest kind: %ld" for a kind
    // other than kMD5; CParamException "EVP_DigestInit_ex() failed",
    // "EVP_DigestUpdate() failed", "EVP_DigestFinal_ex() failed" or
    // "EVP_MD_CTX_cleanup() failed" when the digest engine fails; the file
    // stream's CException (kind 4) when the file cannot be opened or read.
    const ferrocore::CBufferRef& digest(const ProgressCallback& progress);
    const ferrocore::CBufferRef& digest();

    // Stops a running digest before its next chunk; every later digest() on
    // this object stops at once too.
    void cancel() noexcept { _cancelled.store(1, std::memory_order_relaxed); }
    bool isCancelled() const noexcept { return _cancelled.load(std::memory_order_relaxed) != 0; }

    // The last completed digest, or null.
    const ferrocore::CBufferRef& result() const noexcept { return _result; }

private:
    unsigned long _kind;
    ferrocore::CURLRef _fileURL;
    ferrocore::CStringRef _message;
    ferrocore::CBufferRef _buffer;
    ferrocore::CBufferRef _result;
    std::atomic<std::uint8_t> _cancelled{0};
};

}  // namespace quill
