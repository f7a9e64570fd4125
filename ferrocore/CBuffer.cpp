#include <ferrocore/CBuffer.h>

namespace ferrocore {

CBuffer::CBuffer(std::size_t size) : _bytes(size) {}

CBuffer::CBuffer(const void* bytes, std::size_t size) {
    if (size > 0) {
        const auto* first = static_cast<const std::uint8_t*>(bytes);
        _bytes.assign(first, first + size);
    }
}

CBuffer::~CBuffer() = default;

}  // namespace ferrocore
