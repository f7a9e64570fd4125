// A shared, resizable block of bytes.
//
// Threads: a CBuffer may be read from any number of threads at once; writing
// its bytes or resizing it needs exclusive access.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <ferrocore/CSharedObject.h>
#include <ferrocore/export.h>

namespace ferrocore {

class CBuffer;
using CBufferRef = CSharedObjectRef<CBuffer>;

class FERROCORE_EXPORT CBuffer final : public CSharedObject {
public:
    // `size` zero bytes.
    explicit CBuffer(std::size_t size = 0);
    // A copy of `size` bytes at `bytes` (which may be null when size is 0).
    CBuffer(const void* bytes, std::size_t size);

    static CBufferRef create(std::size_t size = 0) { return makeShared<CBuffer>(size); }
    static CBufferRef create(const void* bytes, std::size_t size) { return makeShared<CBuffer>(bytes, size); }

    // The bytes; valid until the next resize(). Null or not when empty.
    std::uint8_t* data() noexcept { return _bytes.data(); }
    const std::uint8_t* data() const noexcept { return _bytes.data(); }
    std::size_t size() const noexcept { return _bytes.size(); }
    bool empty() const noexcept { return _bytes.empty(); }

    // Changes the size, keeping the first min(old, new) bytes; added bytes are
    // zero.
    void resize(std::size_t size) { _bytes.resize(size); }

private:
    ~CBuffer() override;

    std::vector<std::uint8_t> _bytes;
};

}  // namespace ferrocore
