// The host object runtime: reference-counted, mostly immutable values that
// make up property lists (string, number, boolean, date, data, URL, array,
// dictionary), plus the owning holder through which every reference is kept.
//
// Ownership. A raw pointer (PLStringRef, PLDictionaryRef, ...) is a borrowed
// reference: it stays valid only while somebody holds the value. An owned
// reference is a PLHolder<T>; creation and copy functions return holders, so a
// value is released exactly when its last holder goes away. Nobody retains or
// releases by hand, and no value can be deleted directly (destructors are not
// public).
//
// Threads. Reference counts are atomic, so holders of one value may live on
// different threads. Immutable values may be read from any number of threads at
// once (no value caches anything lazily). A mutable value must not be changed
// while another thread reads or changes it.
//
// Constants. String constants made with PL_CONSTANT_STRING_STORAGE (or
// PL_CONSTANT_STRING) are built at compile time and are immortal: retaining and
// releasing them changes nothing and writes no memory. The two booleans are
// immortal too.
//
// Errors. Creation functions throw std::bad_alloc when memory runs out and
// nothing else unless stated. Values never contain themselves: putting a
// container into itself (directly or through others) is not supported.
#pragma once

#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include <quillcore/platform/export.h>

enum class PLTypeID : std::uint8_t {
    String = 1,
    Number,
    Boolean,
    Date,
    Data,
    URL,
    Array,
    Dictionary,
};

// Name of a type, for messages ("string", "number", "dictionary", ...).
QUILL_PLATFORM_EXPORT const char* PLTypeName(PLTypeID type) noexcept;

template <class T>
class PLHolder;
class PLObjectFactory;  // the readers' allocation path

// Base of every runtime value. Never created or destroyed directly.
class QUILL_PLATFORM_EXPORT PLObject {
public:
    PLObject(const PLObject&) = delete;
    PLObject& operator=(const PLObject&) = delete;

    PLTypeID typeID() const noexcept { return _type; }
    bool isMutable() const noexcept { return _mutable; }

    // Value equality: same type (numbers compare by value across their kinds),
    // same contents, containers compared element by element. Not-a-number
    // reals (and dates) equal each other, so every value equals its copies.
    bool equals(const PLObject& other) const noexcept;
    // Hash consistent with equals().
    std::size_t hash() const noexcept;

    // Current reference count; for tests and diagnostics only. Immortal
    // values report std::numeric_limits<std::int32_t>::max().
    std::int32_t retainCount() const noexcept;

protected:
    static constexpr std::int32_t kImmortal = -1;

    constexpr PLObject(PLTypeID type, bool isMutable, std::int32_t refs = 1) noexcept
        : _refs(refs), _type(type), _mutable(isMutable), _pooled(false) {}
    ~PLObject() = default;

private:
    template <class T>
    friend class PLHolder;
    friend class PLObjectFactory;

    void retain() const noexcept {
        if (_refs.load(std::memory_order_relaxed) != kImmortal) _refs.fetch_add(1, std::memory_order_relaxed);
    }
    // Destroys the value when the count drops to zero.
    void release() const noexcept {
        if (_refs.load(std::memory_order_relaxed) == kImmortal) return;
        if (_refs.fetch_sub(1, std::memory_order_acq_rel) == 1) destroy();
    }
    void destroy() const noexcept;

    mutable std::atomic<std::int32_t> _refs;
    const PLTypeID _type;
    const bool _mutable;
    // Lives in a block shared with other values made by one reader, rather
    // than in its own heap allocation.
    bool _pooled;
};

// Owning reference to a runtime value. Copying retains, destruction releases;
// moves transfer ownership without touching the count. T may be
// const-qualified (the usual case for immutable values). A holder object itself
// is not thread-safe; distinct holders of one value are.
template <class T>
class PLHolder {
public:
    constexpr PLHolder() noexcept = default;
    constexpr PLHolder(std::nullptr_t) noexcept {}
    PLHolder(const PLHolder& other) noexcept : _ptr(other._ptr) { retainPtr(); }
    PLHolder(PLHolder&& other) noexcept : _ptr(std::exchange(other._ptr, nullptr)) {}
    template <class U>
    PLHolder(const PLHolder<U>& other) noexcept : _ptr(other.get()) {
        retainPtr();
    }
    template <class U>
    PLHolder(PLHolder<U>&& other) noexcept : _ptr(other.detach()) {}
    ~PLHolder() { releasePtr(); }

    PLHolder& operator=(PLHolder other) noexcept {
        std::swap(_ptr, other._ptr);
        return *this;
    }

    // Takes over a reference the caller already owns (a freshly made value).
    static PLHolder adopt(T* ptr) noexcept {
        PLHolder h;
        h._ptr = ptr;
        return h;
    }
    // Adds a reference to a borrowed value.
    static PLHolder retain(T* ptr) noexcept {
        PLHolder h;
        h._ptr = ptr;
        h.retainPtr();
        return h;
    }

    T* get() const noexcept { return _ptr; }
    T* operator->() const noexcept { return _ptr; }
    T& operator*() const noexcept { return *_ptr; }
    explicit operator bool() const noexcept { return _ptr != nullptr; }
    void reset() noexcept {
        releasePtr();
        _ptr = nullptr;
    }
    // Gives up ownership without releasing; the caller must adopt the result
    // into another holder.
    [[nodiscard]] T* detach() noexcept { return std::exchange(_ptr, nullptr); }

    friend bool operator==(const PLHolder& a, std::nullptr_t) noexcept { return a._ptr == nullptr; }

private:
    void retainPtr() const noexcept {
        if (_ptr) static_cast<const PLObject*>(_ptr)->retain();
    }
    void releasePtr() const noexcept {
        if (_ptr) static_cast<const PLObject*>(_ptr)->release();
    }

    T* _ptr = nullptr;
};

// Identity (not value) comparison of two holders.
template <class T, class U>
bool operator==(const PLHolder<T>& a, const PLHolder<U>& b) noexcept {
    return a.get() == b.get();
}

// Returns `object` as a T when it is of T's type (and, for the mutable
// classes, mutable), else null.
template <class T>
const T* PLDynamicCast(const PLObject* object) noexcept {
    return object && T::matches(*object) ? static_cast<const T*>(object) : nullptr;
}
template <class T>
T* PLDynamicCast(PLObject* object) noexcept {
    return object && T::matches(*object) ? static_cast<T*>(object) : nullptr;
}

// Returns `object` as a changeable T (one of the PLMutable... classes) when it
// was made mutable, else null. Containers hand out their elements as const
// pointers; this is how a caller changes a mutable container nested in
// another (a mutable value is never made const, so changing it is sound).
template <class T>
T* PLMutableCast(const PLObject* object) noexcept {
    static_assert(!std::is_const_v<T>, "PLMutableCast yields a changeable value");
    return object && object->isMutable() && T::matches(*object) ? static_cast<T*>(const_cast<PLObject*>(object))
                                                                : nullptr;
}

// Null-tolerant value equality.
QUILL_PLATFORM_EXPORT bool PLEqual(const PLObject* a, const PLObject* b) noexcept;

// ---------------------------------------------------------------- string

// A UTF-8 text. Contents are bytes as given; equality is bytewise. The bytes
// are always followed by a NUL, so c_str() is a valid C string (cut short
// when the text itself holds a NUL).
class QUILL_PLATFORM_EXPORT PLString : public PLObject {
public:
    static PLHolder<const PLString> create(std::string_view utf8);

    constexpr std::string_view utf8() const noexcept { return {_data, _size}; }
    std::string str() const { return std::string(_data, _size); }
    constexpr const char* c_str() const noexcept { return _data; }
    constexpr std::size_t size() const noexcept { return _size; }
    constexpr bool empty() const noexcept { return _size == 0; }

    static bool matches(const PLObject& o) noexcept { return o.typeID() == PLTypeID::String; }

protected:
    constexpr PLString(const char* data, std::size_t size, bool isMutable, std::int32_t refs) noexcept
        : PLObject(PLTypeID::String, isMutable, refs), _data(data), _size(size) {}
    ~PLString() = default;
    friend class PLObject;
    friend class PLObjectFactory;

    // Immutable strings keep their bytes right behind the object (one
    // allocation); mutable ones point into their own buffer; constants point
    // at the literal.
    const char* _data;
    std::size_t _size;
};

class QUILL_PLATFORM_EXPORT PLMutableString final : public PLString {
public:
    static PLHolder<PLMutableString> create(std::string_view utf8 = {});
    void append(std::string_view utf8);
    void assign(std::string_view utf8);

    static bool matches(const PLObject& o) noexcept { return PLString::matches(o) && o.isMutable(); }

private:
    explicit PLMutableString(std::string_view utf8);
    ~PLMutableString() = default;
    friend class PLObject;
    void sync() noexcept {
        _data = _buffer.c_str();
        _size = _buffer.size();
    }

    std::string _buffer;
};

// The object behind a string constant; see PL_CONSTANT_STRING_STORAGE.
class PLConstantString final : public PLString {
public:
    template <std::size_t N>
    consteval explicit PLConstantString(const char (&text)[N]) noexcept : PLString(text, N - 1, false, kImmortal) {}
};

// Defines `storage`, an immortal string object built at compile time from the
// literal `text` (constant initialisation; nothing runs at load or exit). Use
// it at namespace scope in a .cpp file. Its address is a constant, so it can
// initialise an exported `const PLString* const` constant, also one that
// another shared library exports:
//
//   // header:  QUILL_EXPORT extern const PLString* const kDictKeyName;
//   // source:
//   PL_CONSTANT_STRING_STORAGE(kDictKeyNameStorage, "Name");
//   const PLString* const kDictKeyName = &kDictKeyNameStorage;
#define PL_CONSTANT_STRING_STORAGE(storage, text) \
    constinit const PLConstantString storage { text }

// Defines a file-local constant `name` of type `const PLString*` (and its
// storage, `name##Storage`). Namespace scope only.
#define PL_CONSTANT_STRING(name, text)               \
    PL_CONSTANT_STRING_STORAGE(name##Storage, text); \
    constexpr const PLString* name = &name##Storage

// ---------------------------------------------------------------- number

enum class PLNumberType : std::uint8_t { SInt32, SInt64, Float64 };

// A number holding a 32-bit integer, a 64-bit integer or a double. Numbers of
// different kinds are equal when their values are equal (5 == 5.0).
class QUILL_PLATFORM_EXPORT PLNumber : public PLObject {
public:
    static PLHolder<const PLNumber> create(std::int32_t value);
    static PLHolder<const PLNumber> create(std::int64_t value);
    static PLHolder<const PLNumber> create(double value);
    // Any other integer type: the smallest integer kind that holds the value;
    // unsigned values above the 64-bit signed range become doubles.
    template <std::integral I>
    requires(!std::same_as<I, bool> && !std::same_as<I, std::int32_t> &&
             !std::same_as<I, std::int64_t>) static PLHolder<const PLNumber> create(I value) {
        if constexpr (std::is_unsigned_v<I>) {
            if (value > static_cast<std::make_unsigned_t<std::int64_t>>(std::numeric_limits<std::int64_t>::max()))
                return create(static_cast<double>(value));
        }
        const auto wide = static_cast<std::int64_t>(value);
        if (wide >= std::numeric_limits<std::int32_t>::min() && wide <= std::numeric_limits<std::int32_t>::max())
            return create(static_cast<std::int32_t>(wide));
        return create(wide);
    }

    PLNumberType numberType() const noexcept { return _kind; }
    bool isFloat() const noexcept { return _kind == PLNumberType::Float64; }
    // Conversions truncate toward zero and saturate at the target's range;
    // not-a-number converts to 0.
    std::int32_t int32Value() const noexcept;
    std::int64_t int64Value() const noexcept;
    double doubleValue() const noexcept;

    static bool matches(const PLObject& o) noexcept { return o.typeID() == PLTypeID::Number; }

private:
    explicit PLNumber(PLNumberType kind) noexcept : PLObject(PLTypeID::Number, false), _kind(kind), _int(0) {}
    ~PLNumber() = default;
    friend class PLObject;
    friend class PLObjectFactory;

    PLNumberType _kind;
    union {
        std::int64_t _int;
        double _double;
    };
};

// ---------------------------------------------------------------- boolean

// There are exactly two boolean values, kPLBooleanTrue and kPLBooleanFalse;
// both are immortal.
class QUILL_PLATFORM_EXPORT PLBoolean : public PLObject {
public:
    static constexpr const PLBoolean* get(bool value) noexcept { return value ? &_true : &_false; }
    bool value() const noexcept { return _value; }

    static bool matches(const PLObject& o) noexcept { return o.typeID() == PLTypeID::Boolean; }

private:
    constexpr explicit PLBoolean(bool value) noexcept : PLObject(PLTypeID::Boolean, false, kImmortal), _value(value) {}
    ~PLBoolean() = default;
    friend class PLObject;

    static const PLBoolean _true;
    static const PLBoolean _false;
    bool _value;
};

QUILL_PLATFORM_EXPORT extern const PLBoolean* const kPLBooleanTrue;
QUILL_PLATFORM_EXPORT extern const PLBoolean* const kPLBooleanFalse;

// ---------------------------------------------------------------- date

// Seconds since 2001-01-01 00:00:00 UTC.
using PLAbsoluteTime = double;
// Seconds between 1970-01-01 and 2001-01-01.
inline constexpr double kPLAbsoluteTimeIntervalSince1970 = 978307200.0;

class QUILL_PLATFORM_EXPORT PLDate : public PLObject {
public:
    static PLHolder<const PLDate> create(PLAbsoluteTime at);
    PLAbsoluteTime absoluteTime() const noexcept { return _at; }

    static bool matches(const PLObject& o) noexcept { return o.typeID() == PLTypeID::Date; }

private:
    explicit PLDate(PLAbsoluteTime at) noexcept : PLObject(PLTypeID::Date, false), _at(at) {}
    ~PLDate() = default;
    friend class PLObject;
    friend class PLObjectFactory;
    PLAbsoluteTime _at;
};

// The current absolute time from the system clock.
QUILL_PLATFORM_EXPORT PLAbsoluteTime PLAbsoluteTimeGetCurrent() noexcept;

// ---------------------------------------------------------------- data

class QUILL_PLATFORM_EXPORT PLData : public PLObject {
public:
    static PLHolder<const PLData> create(const void* bytes, std::size_t size);
    // Takes over `bytes` without copying.
    static PLHolder<const PLData> create(std::vector<std::uint8_t>&& bytes);

    const std::uint8_t* bytes() const noexcept { return _data; }
    std::size_t size() const noexcept { return _size; }
    std::string_view view() const noexcept { return {reinterpret_cast<const char*>(_data), _size}; }

    static bool matches(const PLObject& o) noexcept { return o.typeID() == PLTypeID::Data; }

protected:
    PLData(bool isMutable, std::vector<std::uint8_t>&& bytes) noexcept
        : PLObject(PLTypeID::Data, isMutable), _storage(std::move(bytes)) {
        sync();
    }
    // For bytes kept right behind the object (see PLObjectFactory).
    PLData(const std::uint8_t* bytes, std::size_t size) noexcept
        : PLObject(PLTypeID::Data, false), _data(bytes), _size(size) {}
    ~PLData() = default;
    friend class PLObject;
    friend class PLObjectFactory;
    void sync() noexcept {
        _data = _storage.data();
        _size = _storage.size();
    }

    const std::uint8_t* _data = nullptr;
    std::size_t _size = 0;
    // The bytes, unless they are behind the object.
    std::vector<std::uint8_t> _storage;
};

class QUILL_PLATFORM_EXPORT PLMutableData final : public PLData {
public:
    static PLHolder<PLMutableData> create(std::size_t reserve = 0);
    static PLHolder<PLMutableData> create(const void* bytes, std::size_t size);
    void append(const void* bytes, std::size_t size);
    // New bytes are zero.
    void resize(std::size_t size);
    std::uint8_t* mutableBytes() noexcept { return _storage.data(); }

    static bool matches(const PLObject& o) noexcept { return PLData::matches(o) && o.isMutable(); }

private:
    explicit PLMutableData(std::vector<std::uint8_t>&& bytes) noexcept : PLData(true, std::move(bytes)) {}
    ~PLMutableData() = default;
    friend class PLObject;
};

// ---------------------------------------------------------------- URL

// An absolute URL kept in its text form ("file:///tmp/a%20b", "nfs://host/x").
// Not a property-list type.
class QUILL_PLATFORM_EXPORT PLURL : public PLObject {
public:
    // From a text form; null when the text is not an absolute URL (a scheme of
    // a letter followed by letters, digits, "+", "-" or ".", then ":"), or
    // holds spaces or control characters.
    static PLHolder<const PLURL> create(std::string_view text);
    // A file URL for a file-system path, percent-encoded; a relative path is
    // taken against the current directory; directories get a trailing "/".
    static PLHolder<const PLURL> createWithPath(std::string_view path, bool isDirectory);

    std::string_view text() const noexcept { return _text; }
    // The scheme in lower case ("file").
    std::string scheme() const;
    // The decoded path (for file URLs, the file-system path), without a
    // trailing "/" except for the root; empty when the URL has no path.
    std::string fileSystemPath() const;

    static bool matches(const PLObject& o) noexcept { return o.typeID() == PLTypeID::URL; }

private:
    explicit PLURL(std::string text) noexcept : PLObject(PLTypeID::URL, false), _text(std::move(text)) {}
    ~PLURL() = default;
    friend class PLObject;
    std::string _text;
};

// ---------------------------------------------------------------- array

class QUILL_PLATFORM_EXPORT PLArray : public PLObject {
public:
    // Null entries are skipped.
    static PLHolder<const PLArray> create(const PLObject* const* values, std::size_t count);
    // Takes over the elements; null entries are dropped.
    static PLHolder<const PLArray> createFromValues(std::vector<PLHolder<const PLObject>>&& values);

    std::size_t count() const noexcept { return _values.size(); }
    // Borrowed; index must be below count().
    const PLObject* at(std::size_t index) const noexcept { return _values[index].get(); }
    const std::vector<PLHolder<const PLObject>>& values() const noexcept { return _values; }
    // First index in [0, count) whose value equals `value`; -1 when none.
    std::ptrdiff_t indexOf(const PLObject* value) const noexcept;
    std::size_t countOf(const PLObject* value) const noexcept;

    static bool matches(const PLObject& o) noexcept { return o.typeID() == PLTypeID::Array; }

protected:
    PLArray(bool isMutable, std::vector<PLHolder<const PLObject>>&& values) noexcept;
    ~PLArray() = default;
    friend class PLObject;
    friend class PLObjectFactory;
    std::vector<PLHolder<const PLObject>> _values;
};

// Index arguments out of range throw std::out_of_range and change nothing.
class QUILL_PLATFORM_EXPORT PLMutableArray final : public PLArray {
public:
    static PLHolder<PLMutableArray> create(std::size_t reserve = 0);
    static PLHolder<PLMutableArray> createFromValues(std::vector<PLHolder<const PLObject>>&& values);
    void append(PLHolder<const PLObject> value);  // null is ignored
    // index <= count(); null is ignored.
    void insert(std::size_t index, PLHolder<const PLObject> value);
    // index < count(); null is ignored.
    void set(std::size_t index, PLHolder<const PLObject> value);
    // index < count().
    void removeAt(std::size_t index);
    void removeAll() noexcept;

    static bool matches(const PLObject& o) noexcept { return PLArray::matches(o) && o.isMutable(); }

private:
    explicit PLMutableArray(std::vector<PLHolder<const PLObject>>&& values) noexcept;
    ~PLMutableArray() = default;
    friend class PLObject;
};

// ---------------------------------------------------------------- dictionary

using PLDictionaryEntry = std::pair<PLHolder<const PLObject>, PLHolder<const PLObject>>;

// A map from keys (strings in every property list) to values. Iteration order
// is unspecified; the XML writer sorts keys. Lookups are constant-time on
// average (dictionaries beyond a few entries keep a hash index, built when
// they are made and kept up to date by changes, never lazily).
class QUILL_PLATFORM_EXPORT PLDictionary : public PLObject {
public:
    // Takes over the pairs; pairs with a null key or value are dropped, and
    // of pairs with equal keys the last one's value wins (at the first one's
    // place).
    static PLHolder<const PLDictionary> createFromEntries(std::vector<PLDictionaryEntry>&& entries);

    std::size_t count() const noexcept { return _entries.size(); }
    // Borrowed value, or null when absent.
    const PLObject* get(const PLObject* key) const noexcept;
    // Looks up the string key with these bytes.
    const PLObject* get(std::string_view key) const noexcept;
    bool contains(const PLObject* key) const noexcept { return get(key) != nullptr; }
    // Visits every (key, value) pair; stop early by returning false.
    template <class F>
    void forEach(F&& visit) const {
        for (const auto& entry : entries()) {
            if (!visit(entry.first.get(), entry.second.get())) return;
        }
    }
    // The pairs; order unspecified.
    const std::vector<PLDictionaryEntry>& entries() const noexcept { return _entries; }

    static bool matches(const PLObject& o) noexcept { return o.typeID() == PLTypeID::Dictionary; }

protected:
    PLDictionary(bool isMutable, std::vector<PLDictionaryEntry>&& entries);
    ~PLDictionary() = default;
    friend class PLObject;
    friend class PLObjectFactory;

    // Index of the entry whose key equals `key` (with key->hash() == hash);
    // -1 when absent.
    std::ptrdiff_t find(const PLObject* key, std::size_t hash) const noexcept;
    std::ptrdiff_t findString(std::string_view key) const noexcept;
    void rebuildIndex();
    void indexInsert(std::uint32_t entry, std::size_t hash) noexcept;

    std::vector<PLDictionaryEntry> _entries;
    // Open-addressing index over _entries (slot = entry index + 1, 0 empty),
    // present once the dictionary has more than a few entries; at most half
    // full.
    std::vector<std::uint32_t> _index;
};

class QUILL_PLATFORM_EXPORT PLMutableDictionary final : public PLDictionary {
public:
    static PLHolder<PLMutableDictionary> create(std::size_t reserve = 0);
    // As PLDictionary::createFromEntries.
    static PLHolder<PLMutableDictionary> createFromEntries(std::vector<PLDictionaryEntry>&& entries);
    // Adds or replaces. A null key or value is ignored.
    void set(PLHolder<const PLObject> key, PLHolder<const PLObject> value);
    // Adds only when the key is absent; true when added.
    bool add(PLHolder<const PLObject> key, PLHolder<const PLObject> value);
    // True when the key was present.
    bool remove(const PLObject* key) noexcept;
    void removeAll() noexcept;

    static bool matches(const PLObject& o) noexcept { return PLDictionary::matches(o) && o.isMutable(); }

private:
    explicit PLMutableDictionary(std::vector<PLDictionaryEntry>&& entries) : PLDictionary(true, std::move(entries)) {}
    ~PLMutableDictionary() = default;
    friend class PLObject;
    void removeEntry(std::size_t entry) noexcept;
};

// ---------------------------------------------------------------- references

using PLTypeRef = const PLObject*;
using PLStringRef = const PLString*;
using PLMutableStringRef = PLMutableString*;
using PLNumberRef = const PLNumber*;
using PLBooleanRef = const PLBoolean*;
using PLDateRef = const PLDate*;
using PLDataRef = const PLData*;
using PLMutableDataRef = PLMutableData*;
using PLURLRef = const PLURL*;
using PLArrayRef = const PLArray*;
using PLMutableArrayRef = PLMutableArray*;
using PLDictionaryRef = const PLDictionary*;
using PLMutableDictionaryRef = PLMutableDictionary*;

// ---------------------------------------------------------------- copies

enum class PLMutability : std::uint8_t {
    Immutable,                   // nothing mutable
    MutableContainers,           // arrays and dictionaries mutable
    MutableContainersAndLeaves,  // strings and data mutable too (dictionary keys stay immutable)
};

// Shallow copies: a new container holding the same (retained) elements. Null
// in, null out.
QUILL_PLATFORM_EXPORT PLHolder<const PLArray> PLArrayCreateCopy(const PLArray* array);
QUILL_PLATFORM_EXPORT PLHolder<PLMutableArray> PLArrayCreateMutableCopy(const PLArray* array);
QUILL_PLATFORM_EXPORT PLHolder<const PLDictionary> PLDictionaryCreateCopy(const PLDictionary* dict);
QUILL_PLATFORM_EXPORT PLHolder<PLMutableDictionary> PLDictionaryCreateMutableCopy(const PLDictionary* dict);
QUILL_PLATFORM_EXPORT PLHolder<PLMutableDictionary> PLDictionaryCreateMutable(std::size_t reserve = 0);
// Deep copy of a whole tree with the given mutability; null in, null out.
// Every container is new. Leaves are new when they must be mutable or were
// mutable in the original; immutable leaves (and URLs, numbers, dates,
// booleans) are shared, since they cannot change.
QUILL_PLATFORM_EXPORT PLHolder<const PLObject> PLPropertyListCreateDeepCopy(const PLObject* plist,
                                                                            PLMutability mutability);
