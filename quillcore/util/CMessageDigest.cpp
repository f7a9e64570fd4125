#include <memory>
#include <vector>

#include <openssl/evp.h>

#include <ferrocore/CException.h>
#include <ferrocore/CFileInputStream.h>
#include <ferrocore/Format.h>
#include <quillcore/util/CMessageDigest.h>

namespace quill {

using ferrocore::CNullPointerException;
using ferrocore::CParamException;

namespace {

// A file chunk is read in slices of this size and each slice is hashed while
// it is still in the processor cache; reading a whole 16 MiB chunk first and
// hashing it afterwards would stream every byte through memory twice.
constexpr std::size_t kSliceSize = 256 * 1024;

// The digest context; cleaned up however the digest ends.
class DigestContext {
public:
    DigestContext() : _ctx(EVP_MD_CTX_new()) {
        if (!_ctx) throw CParamException("EVP_DigestInit_ex() failed");
    }
    ~DigestContext() {
        if (_ctx) EVP_MD_CTX_free(_ctx);
    }
    DigestContext(const DigestContext&) = delete;
    DigestContext& operator=(const DigestContext&) = delete;

    EVP_MD_CTX* get() const noexcept { return _ctx; }

    // Ends the context's use; reports whether the engine could reset it.
    void cleanup() {
        const int ok = EVP_MD_CTX_reset(_ctx);
        EVP_MD_CTX_free(_ctx);
        _ctx = nullptr;
        if (ok != 1) throw CParamException("EVP_MD_CTX_cleanup() failed");
    }

private:
    EVP_MD_CTX* _ctx;
};

void update(EVP_MD_CTX* ctx, const void* bytes, std::size_t size) {
    if (EVP_DigestUpdate(ctx, bytes, size) != 1) throw CParamException("EVP_DigestUpdate() failed");
}

}  // namespace

CMessageDigest::CMessageDigest(ferrocore::CURLRef fileURL, unsigned long kind, bool computeNow)
    : _kind(kind), _fileURL(std::move(fileURL)) {
    if (!_fileURL) throw CNullPointerException("Error: fileURL is null!");
    if (computeNow) digest();
}

CMessageDigest::CMessageDigest(ferrocore::CStringRef message, unsigned long kind)
    : _kind(kind), _message(std::move(message)) {
    if (!_message) throw CNullPointerException("Error: message is null!");
}

CMessageDigest::CMessageDigest(ferrocore::CBufferRef buffer, unsigned long kind)
    : _kind(kind), _buffer(std::move(buffer)) {
    if (!_buffer) throw CNullPointerException("Error: buffer is null!");
}

CMessageDigest::~CMessageDigest() = default;

const ferrocore::CBufferRef& CMessageDigest::digest() { return digest(ProgressCallback()); }

const ferrocore::CBufferRef& CMessageDigest::digest(const ProgressCallback& progress) {
    if (_kind != kMD5)
        throw CParamException(ferrocore::formatString("Invalid message digest kind: %ld", static_cast<long>(_kind)));

    DigestContext context;
    const EVP_MD* md = EVP_md5();
    if (!md) throw CNullPointerException("Error: md is null!");
    if (EVP_DigestInit_ex(context.get(), md, nullptr) != 1) throw CParamException("EVP_DigestInit_ex() failed");

    if (_fileURL) {
        ferrocore::CFileInputStream stream(_fileURL->fileSystemPath()->utf8());
        const auto size = static_cast<std::int64_t>(stream.size());
        std::int64_t remaining = size;
        std::vector<std::uint8_t> slice(static_cast<std::size_t>(std::min<std::int64_t>(size, kSliceSize)));
        while (remaining > 0 && !isCancelled()) {
            // One chunk of at most kChunkSize bytes, read and hashed slice by slice.
            std::int64_t chunk = std::min(remaining, kChunkSize);
            while (chunk > 0) {
                const auto want = static_cast<std::size_t>(std::min<std::int64_t>(chunk, kSliceSize));
                const std::size_t got = stream.read(slice.data(), want);
                if (got == 0) {
                    throw ferrocore::CException(
                        ferrocore::kExceptionKindSystemCall,
                        ferrocore::formatString("CMessageDigest::digest(%s): file ended after %lld of %lld bytes",
                                                stream.path(), static_cast<long long>(size - remaining),
                                                static_cast<long long>(size)));
                }
                update(context.get(), slice.data(), got);
                chunk -= static_cast<std::int64_t>(got);
                remaining -= static_cast<std::int64_t>(got);
            }
            if (progress && !isCancelled() && !progress(size - remaining, size)) cancel();
        }
    } else if (_message) {
        update(context.get(), _message->utf8().data(), _message->utf8().size());
    } else if (_buffer) {
        update(context.get(), _buffer->data(), _buffer->size());
    }

    if (!isCancelled()) {
        unsigned char bytes[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        if (EVP_DigestFinal_ex(context.get(), bytes, &length) != 1)
            throw CParamException("EVP_DigestFinal_ex() failed");
        _result = ferrocore::CBuffer::create(bytes, length);
    }
    context.cleanup();
    return _result;
}

}  // namespace quill
