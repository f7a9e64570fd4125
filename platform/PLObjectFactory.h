// How the property-list readers make values.
//
// A reader makes thousands of small values in a burst and they usually die
// together with their tree. Taking each from the general heap costs more than
// parsing it, so a factory in pooled mode packs immutable values into blocks
// of kPLSlabSize bytes, aligned to their size: a value finds its block by
// masking its own address, and each block counts the values still living in
// it (atomically, since values may be released on any thread); when the last
// one goes the block returns to a small process-wide pool of empty blocks
// (see PLObject.cpp) or to the heap. The price is that one surviving value
// keeps its whole block, which is why readers pool only documents of some
// size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <string_view>
#include <vector>

#include <quillcore/platform/PLObject.h>

inline constexpr std::size_t kPLSlabSize = 16 * 1024;

struct PLSlab;

// Not thread-safe: one factory serves one reader. Values it made may outlive
// it and be used and released anywhere.
class PLObjectFactory {
public:
    explicit PLObjectFactory(bool pooled) noexcept : _pooled(pooled) {}
    ~PLObjectFactory();
    PLObjectFactory(const PLObjectFactory&) = delete;
    PLObjectFactory& operator=(const PLObjectFactory&) = delete;

    PLHolder<const PLString> string(std::string_view utf8) {
        void* at = allocate(sizeof(PLString) + utf8.size() + 1);
        if (!at) return PLString::create(utf8);
        char* bytes = static_cast<char*>(at) + sizeof(PLString);
        if (!utf8.empty()) std::memcpy(bytes, utf8.data(), utf8.size());
        bytes[utf8.size()] = '\0';
        return PLHolder<const PLString>::adopt(mark(new (at) PLString(bytes, utf8.size(), false, 1)));
    }
    // A 32-bit number when the value fits, else a 64-bit one.
    PLHolder<const PLNumber> integer(std::int64_t value);
    PLHolder<const PLNumber> real(double value);
    PLHolder<const PLDate> date(double at);
    PLHolder<const PLData> data(const std::uint8_t* bytes, std::size_t size);
    PLHolder<const PLArray> array(std::vector<PLHolder<const PLObject>>&& values);
    // As PLDictionary::createFromEntries. When given, keyHashes[i] must be
    // entries[i].first->hash(); the array is overwritten.
    PLHolder<const PLDictionary> dictionary(std::vector<PLDictionaryEntry>&& entries, std::size_t* keyHashes = nullptr);
    // What hash() returns for a string of these bytes.
    static std::size_t stringHash(std::string_view utf8) noexcept;

    // Called by PLObject::destroy() for a pooled value, after its destructor.
    static void releasePooled(const void* value) noexcept;

private:
    // Larger values take their own allocation.
    static constexpr std::size_t kMaxPooledSize = 1024;

    // Room for `size` bytes in the current block, or null when the value
    // should come from the heap.
    void* allocate(std::size_t size) {
        if (!_pooled || size > kMaxPooledSize) return nullptr;
        size = (size + 7) & ~std::size_t{7};
        if (size > static_cast<std::size_t>(_end - _next)) startBlock();
        void* at = _next;
        _next += size;
        ++_made;
        return at;
    }
    void startBlock();
    void retire() noexcept;
    template <class T>
    static T* mark(T* value) noexcept {
        value->_pooled = true;
        return value;
    }

    const bool _pooled;
    PLSlab* _slab = nullptr;
    char* _next = nullptr;
    char* _end = nullptr;
    std::uint32_t _made = 0;  // values placed in the current block
};
