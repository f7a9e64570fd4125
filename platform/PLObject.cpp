// The host object runtime: value creation, destruction, equality, hashing,
// dictionary indexing and copies.
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>

#include <unistd.h>

#include "platform/PLObjectFactory.h"
#include <ferrocore/CMutex.h>
#include <quillcore/platform/PLObject.h>

namespace {

// Dictionaries with more entries than this keep a hash index; below it a
// linear scan is faster than hashing.
constexpr std::size_t kIndexThreshold = 8;

std::size_t mix(std::uint64_t x) noexcept {
    x ^= x >> 30;
    x *= 0xbf58476d1ce4e5b9ULL;
    x ^= x >> 27;
    x *= 0x94d049bb133111ebULL;
    x ^= x >> 31;
    return static_cast<std::size_t>(x);
}

// Short texts (dictionary keys) dominate, so the tail is read with a few
// overlapping loads rather than byte by byte.
std::size_t hashBytes(std::string_view bytes) noexcept {
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    std::size_t n = bytes.size();
    auto load64 = [](const unsigned char* at) {
        std::uint64_t v;
        std::memcpy(&v, at, 8);
        return v;
    };
    auto load32 = [](const unsigned char* at) {
        std::uint32_t v;
        std::memcpy(&v, at, 4);
        return std::uint64_t{v};
    };
    std::uint64_t h = 0x9e3779b97f4a7c15ULL ^ (n * 0xff51afd7ed558ccdULL);
    for (; n >= 8; n -= 8, p += 8) {
        h = (h ^ load64(p)) * 0xbf58476d1ce4e5b9ULL;
        h ^= h >> 29;
    }
    std::uint64_t tail = 0;
    if (n >= 4)
        tail = load32(p) | (load32(p + n - 4) << 32);
    else if (n > 0)
        tail = std::uint64_t{p[0]} | (std::uint64_t{p[n / 2]} << 8) | (std::uint64_t{p[n - 1]} << 16);
    return mix(h ^ tail);
}

constexpr double kTwoTo63 = 9223372036854775808.0;

// Whether `d` is a whole number that an int64 holds exactly.
bool doubleIsInt64(double d, std::int64_t* out) noexcept {
    if (!(d >= -kTwoTo63 && d < kTwoTo63)) return false;  // also refuses NaN
    const auto i = static_cast<std::int64_t>(d);
    if (static_cast<double>(i) != d) return false;
    *out = i;
    return true;
}

// Reals equal when == says so, and any two not-a-numbers are equal too: a
// value must equal its own copies.
bool sameDouble(double a, double b) noexcept { return a == b || (std::isnan(a) && std::isnan(b)); }

std::size_t hashDouble(double d) noexcept {
    std::int64_t i;
    if (doubleIsInt64(d, &i)) return mix(static_cast<std::uint64_t>(i));  // also folds -0.0 into 0
    if (std::isnan(d)) return 0x7ff8;
    return mix(std::bit_cast<std::uint64_t>(d));
}

std::size_t capacityFor(std::size_t count) noexcept { return std::max<std::size_t>(16, std::bit_ceil(count * 2 + 1)); }

// equals() for dictionary keys, with strings (the usual keys) compared inline.
bool sameKey(const PLObject& a, const PLObject& b) noexcept {
    if (a.typeID() == PLTypeID::String && b.typeID() == PLTypeID::String)
        return static_cast<const PLString&>(a).utf8() == static_cast<const PLString&>(b).utf8();
    return a.equals(b);
}

bool keyMatchesString(const PLObject* key, std::string_view text) noexcept {
    const auto* s = PLDynamicCast<PLString>(key);
    return s && s->utf8() == text;
}

}  // namespace

const char* PLTypeName(PLTypeID type) noexcept {
    switch (type) {
        case PLTypeID::String: return "string";
        case PLTypeID::Number: return "number";
        case PLTypeID::Boolean: return "boolean";
        case PLTypeID::Date: return "date";
        case PLTypeID::Data: return "data";
        case PLTypeID::URL: return "URL";
        case PLTypeID::Array: return "array";
        case PLTypeID::Dictionary: return "dictionary";
    }
    return "unknown";
}

// ---------------------------------------------------------------- PLObject

void PLObject::destroy() const noexcept {
    auto* self = const_cast<PLObject*>(this);
    auto dispose = [](auto* value) {
        if (value->_pooled) {
            using T = std::remove_pointer_t<decltype(value)>;
            value->~T();
            PLObjectFactory::releasePooled(value);
        } else {
            delete value;
        }
    };
    switch (_type) {
        case PLTypeID::String:
            if (_mutable) {
                delete static_cast<PLMutableString*>(self);
            } else {
                // Immutable strings are one block: the object, then the bytes.
                auto* s = static_cast<PLString*>(self);
                s->~PLString();
                if (_pooled)
                    PLObjectFactory::releasePooled(s);
                else
                    ::operator delete(s);
            }
            break;
        case PLTypeID::Number: dispose(static_cast<PLNumber*>(self)); break;
        case PLTypeID::Boolean: break;  // immortal
        case PLTypeID::Date: dispose(static_cast<PLDate*>(self)); break;
        case PLTypeID::Data:
            if (_mutable)
                delete static_cast<PLMutableData*>(self);
            else
                dispose(static_cast<PLData*>(self));
            break;
        case PLTypeID::URL: delete static_cast<PLURL*>(self); break;
        case PLTypeID::Array:
            if (_mutable)
                delete static_cast<PLMutableArray*>(self);
            else
                dispose(static_cast<PLArray*>(self));
            break;
        case PLTypeID::Dictionary:
            if (_mutable)
                delete static_cast<PLMutableDictionary*>(self);
            else
                dispose(static_cast<PLDictionary*>(self));
            break;
    }
}

std::int32_t PLObject::retainCount() const noexcept {
    const std::int32_t refs = _refs.load(std::memory_order_relaxed);
    return refs == kImmortal ? std::numeric_limits<std::int32_t>::max() : refs;
}

namespace {

bool numbersEqual(const PLNumber& a, const PLNumber& b) noexcept {
    if (!a.isFloat() && !b.isFloat()) return a.int64Value() == b.int64Value();
    if (a.isFloat() && b.isFloat()) return sameDouble(a.doubleValue(), b.doubleValue());
    const PLNumber& real = a.isFloat() ? a : b;
    const PLNumber& integer = a.isFloat() ? b : a;
    std::int64_t i;
    return doubleIsInt64(real.doubleValue(), &i) && i == integer.int64Value();
}

bool dictionariesEqual(const PLDictionary& a, const PLDictionary& b) noexcept {
    if (a.count() != b.count()) return false;
    for (const auto& [key, value] : a.entries()) {
        const PLObject* other = b.get(key.get());
        if (!other || !value->equals(*other)) return false;
    }
    return true;
}

}  // namespace

bool PLObject::equals(const PLObject& other) const noexcept {
    if (this == &other) return true;
    if (_type != other._type) return false;
    switch (_type) {
        case PLTypeID::String:
            return static_cast<const PLString&>(*this).utf8() == static_cast<const PLString&>(other).utf8();
        case PLTypeID::Number:
            return numbersEqual(static_cast<const PLNumber&>(*this), static_cast<const PLNumber&>(other));
        case PLTypeID::Boolean:
            return static_cast<const PLBoolean&>(*this).value() == static_cast<const PLBoolean&>(other).value();
        case PLTypeID::Date:
            return sameDouble(static_cast<const PLDate&>(*this).absoluteTime(),
                              static_cast<const PLDate&>(other).absoluteTime());
        case PLTypeID::Data:
            return static_cast<const PLData&>(*this).view() == static_cast<const PLData&>(other).view();
        case PLTypeID::URL: return static_cast<const PLURL&>(*this).text() == static_cast<const PLURL&>(other).text();
        case PLTypeID::Array: {
            const auto& a = static_cast<const PLArray&>(*this);
            const auto& b = static_cast<const PLArray&>(other);
            if (a.count() != b.count()) return false;
            for (std::size_t i = 0; i < a.count(); ++i) {
                if (!a.at(i)->equals(*b.at(i))) return false;
            }
            return true;
        }
        case PLTypeID::Dictionary:
            return dictionariesEqual(static_cast<const PLDictionary&>(*this), static_cast<const PLDictionary&>(other));
    }
    return false;
}

std::size_t PLObject::hash() const noexcept {
    switch (_type) {
        case PLTypeID::String: return hashBytes(static_cast<const PLString&>(*this).utf8());
        case PLTypeID::Number: {
            const auto& n = static_cast<const PLNumber&>(*this);
            return n.isFloat() ? hashDouble(n.doubleValue()) : mix(static_cast<std::uint64_t>(n.int64Value()));
        }
        case PLTypeID::Boolean: return static_cast<const PLBoolean&>(*this).value() ? 0x1231 : 0x1237;
        case PLTypeID::Date: return hashDouble(static_cast<const PLDate&>(*this).absoluteTime()) ^ 0xda7e;
        case PLTypeID::Data: return hashBytes(static_cast<const PLData&>(*this).view()) ^ 0xda7a;
        case PLTypeID::URL: return hashBytes(static_cast<const PLURL&>(*this).text()) ^ 0x0e1;
        case PLTypeID::Array: {
            // Count and a bounded prefix: enough to spread, cheap for big trees.
            const auto& a = static_cast<const PLArray&>(*this);
            std::size_t h = mix(a.count() + 0xa77a);
            const std::size_t n = std::min<std::size_t>(a.count(), 8);
            for (std::size_t i = 0; i < n; ++i) h = mix(h ^ a.at(i)->hash());
            return h;
        }
        case PLTypeID::Dictionary: {
            // Order-independent: equal dictionaries have equal key sets.
            const auto& d = static_cast<const PLDictionary&>(*this);
            std::size_t sum = 0;
            for (const auto& entry : d.entries()) sum += entry.first->hash();
            return mix(sum ^ (d.count() * 0x9e3779b97f4a7c15ULL));
        }
    }
    return 0;
}

bool PLEqual(const PLObject* a, const PLObject* b) noexcept {
    if (a == b) return true;
    if (!a || !b) return false;
    return a->equals(*b);
}

// ---------------------------------------------------------------- string

PLHolder<const PLString> PLString::create(std::string_view utf8) {
    void* block = ::operator new(sizeof(PLString) + utf8.size() + 1);
    char* bytes = static_cast<char*>(block) + sizeof(PLString);
    if (!utf8.empty()) std::memcpy(bytes, utf8.data(), utf8.size());
    bytes[utf8.size()] = '\0';
    return PLHolder<const PLString>::adopt(new (block) PLString(bytes, utf8.size(), false, 1));
}

PLMutableString::PLMutableString(std::string_view utf8) : PLString(nullptr, 0, true, 1), _buffer(utf8) { sync(); }

PLHolder<PLMutableString> PLMutableString::create(std::string_view utf8) {
    return PLHolder<PLMutableString>::adopt(new PLMutableString(utf8));
}

void PLMutableString::append(std::string_view utf8) {
    _buffer.append(utf8);
    sync();
}

void PLMutableString::assign(std::string_view utf8) {
    _buffer.assign(utf8);
    sync();
}

// ---------------------------------------------------------------- number

PLHolder<const PLNumber> PLNumber::create(std::int32_t value) {
    auto* n = new PLNumber(PLNumberType::SInt32);
    n->_int = value;
    return PLHolder<const PLNumber>::adopt(n);
}

PLHolder<const PLNumber> PLNumber::create(std::int64_t value) {
    auto* n = new PLNumber(PLNumberType::SInt64);
    n->_int = value;
    return PLHolder<const PLNumber>::adopt(n);
}

PLHolder<const PLNumber> PLNumber::create(double value) {
    auto* n = new PLNumber(PLNumberType::Float64);
    n->_double = value;
    return PLHolder<const PLNumber>::adopt(n);
}

std::int64_t PLNumber::int64Value() const noexcept {
    if (_kind != PLNumberType::Float64) return _int;
    if (std::isnan(_double)) return 0;
    if (_double >= kTwoTo63) return std::numeric_limits<std::int64_t>::max();
    if (_double < -kTwoTo63) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(_double);
}

std::int32_t PLNumber::int32Value() const noexcept {
    const std::int64_t v = int64Value();
    if (v > std::numeric_limits<std::int32_t>::max()) return std::numeric_limits<std::int32_t>::max();
    if (v < std::numeric_limits<std::int32_t>::min()) return std::numeric_limits<std::int32_t>::min();
    return static_cast<std::int32_t>(v);
}

double PLNumber::doubleValue() const noexcept {
    return _kind == PLNumberType::Float64 ? _double : static_cast<double>(_int);
}

// ---------------------------------------------------------------- boolean

constinit const PLBoolean PLBoolean::_true{true};
constinit const PLBoolean PLBoolean::_false{false};

constinit const PLBoolean* const kPLBooleanTrue = PLBoolean::get(true);
constinit const PLBoolean* const kPLBooleanFalse = PLBoolean::get(false);

// ---------------------------------------------------------------- date

PLHolder<const PLDate> PLDate::create(PLAbsoluteTime at) { return PLHolder<const PLDate>::adopt(new PLDate(at)); }

PLAbsoluteTime PLAbsoluteTimeGetCurrent() noexcept {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<double>(ts.tv_sec) - kPLAbsoluteTimeIntervalSince1970 + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// ---------------------------------------------------------------- data

PLHolder<const PLData> PLData::create(const void* bytes, std::size_t size) {
    const auto* p = static_cast<const std::uint8_t*>(bytes);
    return create(std::vector<std::uint8_t>(p, p + size));
}

PLHolder<const PLData> PLData::create(std::vector<std::uint8_t>&& bytes) {
    return PLHolder<const PLData>::adopt(new PLData(false, std::move(bytes)));
}

PLHolder<PLMutableData> PLMutableData::create(std::size_t reserve) {
    std::vector<std::uint8_t> bytes;
    bytes.reserve(reserve);
    return PLHolder<PLMutableData>::adopt(new PLMutableData(std::move(bytes)));
}

PLHolder<PLMutableData> PLMutableData::create(const void* bytes, std::size_t size) {
    const auto* p = static_cast<const std::uint8_t*>(bytes);
    return PLHolder<PLMutableData>::adopt(new PLMutableData(std::vector<std::uint8_t>(p, p + size)));
}

void PLMutableData::append(const void* bytes, std::size_t size) {
    const auto* p = static_cast<const std::uint8_t*>(bytes);
    _storage.insert(_storage.end(), p, p + size);
    sync();
}

void PLMutableData::resize(std::size_t size) {
    _storage.resize(size, 0);
    sync();
}

// ---------------------------------------------------------------- URL

namespace {

bool isAlpha(char c) noexcept { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

// Length of the scheme of an absolute URL (without the ":"), 0 when none.
std::size_t schemeLength(std::string_view text) noexcept {
    if (text.empty() || !isAlpha(text[0])) return 0;
    for (std::size_t i = 1; i < text.size(); ++i) {
        const char c = text[i];
        if (c == ':') return i;
        if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') return 0;
    }
    return 0;
}

int hexValue(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Characters a file URL's path carries as they are.
bool pathCharIsPlain(unsigned char c) noexcept {
    if (isAlpha(static_cast<char>(c)) || isDigit(static_cast<char>(c))) return true;
    return std::strchr("-._~/!$&'()*+,;=:@", c) != nullptr && c != '\0';
}

}  // namespace

PLHolder<const PLURL> PLURL::create(std::string_view text) {
    if (schemeLength(text) == 0) return nullptr;
    for (const char c : text) {
        const auto u = static_cast<unsigned char>(c);
        if (u <= 0x20 || u == 0x7f) return nullptr;
    }
    return PLHolder<const PLURL>::adopt(new PLURL(std::string(text)));
}

PLHolder<const PLURL> PLURL::createWithPath(std::string_view path, bool isDirectory) {
    if (path.empty()) return nullptr;
    std::string absolute;
    if (path.front() != '/') {
        std::unique_ptr<char, decltype(&std::free)> cwd(getcwd(nullptr, 0), &std::free);
        if (!cwd) return nullptr;
        absolute = cwd.get();
        if (absolute.empty() || absolute.back() != '/') absolute += '/';
    }
    absolute.append(path);
    while (absolute.size() > 1 && absolute.back() == '/') absolute.pop_back();
    if (isDirectory && absolute != "/") absolute += '/';

    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string text = "file://";
    text.reserve(text.size() + absolute.size());
    for (const char c : absolute) {
        const auto u = static_cast<unsigned char>(c);
        if (pathCharIsPlain(u)) {
            text += c;
        } else {
            text += '%';
            text += kHex[u >> 4];
            text += kHex[u & 15];
        }
    }
    return PLHolder<const PLURL>::adopt(new PLURL(std::move(text)));
}

std::string PLURL::scheme() const {
    std::string s(_text.substr(0, schemeLength(_text)));
    for (char& c : s) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return s;
}

std::string PLURL::fileSystemPath() const {
    std::string_view rest = std::string_view(_text).substr(schemeLength(_text) + 1);
    if (rest.starts_with("//")) {
        const std::size_t end = rest.find_first_of("/?#", 2);
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end);
    }
    rest = rest.substr(0, rest.find_first_of("?#"));
    std::string path;
    path.reserve(rest.size());
    for (std::size_t i = 0; i < rest.size(); ++i) {
        int hi, lo;
        if (rest[i] == '%' && i + 2 < rest.size() && (hi = hexValue(rest[i + 1])) >= 0 &&
            (lo = hexValue(rest[i + 2])) >= 0) {
            path += static_cast<char>(hi * 16 + lo);
            i += 2;
        } else {
            path += rest[i];
        }
    }
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

// ---------------------------------------------------------------- array

PLArray::PLArray(bool isMutable, std::vector<PLHolder<const PLObject>>&& values) noexcept
    : PLObject(PLTypeID::Array, isMutable), _values(std::move(values)) {
    std::erase_if(_values, [](const PLHolder<const PLObject>& v) { return !v; });
}

PLHolder<const PLArray> PLArray::create(const PLObject* const* values, std::size_t count) {
    std::vector<PLHolder<const PLObject>> held;
    held.reserve(count);
    for (std::size_t i = 0; i < count; ++i) held.push_back(PLHolder<const PLObject>::retain(values[i]));
    return createFromValues(std::move(held));
}

PLHolder<const PLArray> PLArray::createFromValues(std::vector<PLHolder<const PLObject>>&& values) {
    return PLHolder<const PLArray>::adopt(new PLArray(false, std::move(values)));
}

std::ptrdiff_t PLArray::indexOf(const PLObject* value) const noexcept {
    if (!value) return -1;
    for (std::size_t i = 0; i < _values.size(); ++i) {
        if (_values[i]->equals(*value)) return static_cast<std::ptrdiff_t>(i);
    }
    return -1;
}

std::size_t PLArray::countOf(const PLObject* value) const noexcept {
    if (!value) return 0;
    std::size_t n = 0;
    for (const auto& v : _values) n += v->equals(*value) ? 1 : 0;
    return n;
}

PLMutableArray::PLMutableArray(std::vector<PLHolder<const PLObject>>&& values) noexcept
    : PLArray(true, std::move(values)) {}

PLHolder<PLMutableArray> PLMutableArray::create(std::size_t reserve) {
    std::vector<PLHolder<const PLObject>> values;
    values.reserve(reserve);
    return createFromValues(std::move(values));
}

PLHolder<PLMutableArray> PLMutableArray::createFromValues(std::vector<PLHolder<const PLObject>>&& values) {
    return PLHolder<PLMutableArray>::adopt(new PLMutableArray(std::move(values)));
}

void PLMutableArray::append(PLHolder<const PLObject> value) {
    if (value) _values.push_back(std::move(value));
}

void PLMutableArray::insert(std::size_t index, PLHolder<const PLObject> value) {
    if (index > _values.size()) throw std::out_of_range("PLMutableArray::insert: index out of range");
    if (value) _values.insert(_values.begin() + static_cast<std::ptrdiff_t>(index), std::move(value));
}

void PLMutableArray::set(std::size_t index, PLHolder<const PLObject> value) {
    if (index >= _values.size()) throw std::out_of_range("PLMutableArray::set: index out of range");
    if (value) _values[index] = std::move(value);
}

void PLMutableArray::removeAt(std::size_t index) {
    if (index >= _values.size()) throw std::out_of_range("PLMutableArray::removeAt: index out of range");
    _values.erase(_values.begin() + static_cast<std::ptrdiff_t>(index));
}

void PLMutableArray::removeAll() noexcept { _values.clear(); }

// ---------------------------------------------------------------- dictionary

namespace {

// Compacts `entries` in place: drops the pairs with a null key or value and
// folds equal keys (the last value wins, at the first key's place), filling
// `index` as it goes when the count calls for one. With `hashes`, hashes[i]
// is entries[i].first->hash(); it is compacted along with the entries, and
// keys are compared only when their hashes are equal, so that keys made long
// before (by a reader) need not be fetched again.
void compactEntries(std::vector<PLDictionaryEntry>& entries, std::vector<std::uint32_t>& index, std::size_t* hashes) {
    const std::size_t n = entries.size();
    if (n > kIndexThreshold) index.assign(capacityFor(n), 0);
    const std::size_t mask = index.size() - 1;
    auto sameAs = [&](std::size_t j, std::size_t hash, const PLObject& key) {
        return (!hashes || hashes[j] == hash) && sameKey(*entries[j].first, key);
    };
    std::size_t out = 0;
    for (std::size_t i = 0; i < n; ++i) {
        PLDictionaryEntry& e = entries[i];
        if (!e.first || !e.second) continue;
        const std::size_t hash = hashes ? hashes[i] : index.empty() ? 0 : e.first->hash();
        std::ptrdiff_t same = -1;
        std::size_t pos = 0;
        if (!index.empty()) {
            pos = hash & mask;
            while (const std::uint32_t slot = index[pos]) {
                if (sameAs(slot - 1, hash, *e.first)) {
                    same = slot - 1;
                    break;
                }
                pos = (pos + 1) & mask;
            }
        } else {
            for (std::size_t j = 0; j < out; ++j) {
                if (sameAs(j, hash, *e.first)) {
                    same = static_cast<std::ptrdiff_t>(j);
                    break;
                }
            }
        }
        if (same >= 0) {
            entries[static_cast<std::size_t>(same)].second = std::move(e.second);
            continue;
        }
        if (out != i) {
            entries[out] = std::move(e);
            if (hashes) hashes[out] = hash;
        }
        ++out;
        if (!index.empty()) index[pos] = static_cast<std::uint32_t>(out);
    }
    entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(out), entries.end());
    if (entries.size() <= kIndexThreshold && !index.empty()) std::vector<std::uint32_t>().swap(index);
}

}  // namespace

PLDictionary::PLDictionary(bool isMutable, std::vector<PLDictionaryEntry>&& entries)
    : PLObject(PLTypeID::Dictionary, isMutable) {
    compactEntries(entries, _index, nullptr);
    _entries = std::move(entries);
}

PLHolder<const PLDictionary> PLDictionary::createFromEntries(std::vector<PLDictionaryEntry>&& entries) {
    return PLHolder<const PLDictionary>::adopt(new PLDictionary(false, std::move(entries)));
}

std::ptrdiff_t PLDictionary::find(const PLObject* key, std::size_t hash) const noexcept {
    if (_index.empty()) {
        for (std::size_t i = 0; i < _entries.size(); ++i) {
            if (_entries[i].first->equals(*key)) return static_cast<std::ptrdiff_t>(i);
        }
        return -1;
    }
    const std::size_t mask = _index.size() - 1;
    for (std::size_t pos = hash & mask;; pos = (pos + 1) & mask) {
        const std::uint32_t slot = _index[pos];
        if (slot == 0) return -1;
        if (_entries[slot - 1].first->equals(*key)) return slot - 1;
    }
}

std::ptrdiff_t PLDictionary::findString(std::string_view key) const noexcept {
    if (_index.empty()) {
        for (std::size_t i = 0; i < _entries.size(); ++i) {
            if (keyMatchesString(_entries[i].first.get(), key)) return static_cast<std::ptrdiff_t>(i);
        }
        return -1;
    }
    const std::size_t mask = _index.size() - 1;
    for (std::size_t pos = hashBytes(key) & mask;; pos = (pos + 1) & mask) {
        const std::uint32_t slot = _index[pos];
        if (slot == 0) return -1;
        if (keyMatchesString(_entries[slot - 1].first.get(), key)) return slot - 1;
    }
}

const PLObject* PLDictionary::get(const PLObject* key) const noexcept {
    if (!key) return nullptr;
    const std::ptrdiff_t i = find(key, _index.empty() ? 0 : key->hash());
    return i < 0 ? nullptr : _entries[static_cast<std::size_t>(i)].second.get();
}

const PLObject* PLDictionary::get(std::string_view key) const noexcept {
    const std::ptrdiff_t i = findString(key);
    return i < 0 ? nullptr : _entries[static_cast<std::size_t>(i)].second.get();
}

void PLDictionary::rebuildIndex() {
    _index.assign(capacityFor(_entries.size()), 0);
    for (std::size_t i = 0; i < _entries.size(); ++i)
        indexInsert(static_cast<std::uint32_t>(i), _entries[i].first->hash());
}

void PLDictionary::indexInsert(std::uint32_t entry, std::size_t hash) noexcept {
    const std::size_t mask = _index.size() - 1;
    std::size_t pos = hash & mask;
    while (_index[pos] != 0) pos = (pos + 1) & mask;
    _index[pos] = entry + 1;
}

PLHolder<PLMutableDictionary> PLMutableDictionary::create(std::size_t reserve) {
    std::vector<PLDictionaryEntry> entries;
    entries.reserve(reserve);
    return createFromEntries(std::move(entries));
}

PLHolder<PLMutableDictionary> PLMutableDictionary::createFromEntries(std::vector<PLDictionaryEntry>&& entries) {
    return PLHolder<PLMutableDictionary>::adopt(new PLMutableDictionary(std::move(entries)));
}

void PLMutableDictionary::set(PLHolder<const PLObject> key, PLHolder<const PLObject> value) {
    if (!key || !value) return;
    const std::size_t h = key->hash();
    const std::ptrdiff_t i = find(key.get(), h);
    if (i >= 0) {
        _entries[static_cast<std::size_t>(i)].second = std::move(value);
        return;
    }
    _entries.emplace_back(std::move(key), std::move(value));
    if (_entries.size() <= kIndexThreshold) return;
    if (_index.empty() || _entries.size() * 2 >= _index.size()) {
        try {
            rebuildIndex();
        } catch (...) {
            _entries.pop_back();
            throw;
        }
    } else {
        indexInsert(static_cast<std::uint32_t>(_entries.size() - 1), h);
    }
}

bool PLMutableDictionary::add(PLHolder<const PLObject> key, PLHolder<const PLObject> value) {
    if (!key || !value || find(key.get(), _index.empty() ? 0 : key->hash()) >= 0) return false;
    set(std::move(key), std::move(value));
    return true;
}

bool PLMutableDictionary::remove(const PLObject* key) noexcept {
    if (!key) return false;
    const std::ptrdiff_t i = find(key, _index.empty() ? 0 : key->hash());
    if (i < 0) return false;
    removeEntry(static_cast<std::size_t>(i));
    return true;
}

void PLMutableDictionary::removeEntry(std::size_t entry) noexcept {
    const std::size_t last = _entries.size() - 1;
    if (!_index.empty()) {
        const std::size_t mask = _index.size() - 1;
        auto slotOf = [&](std::size_t e) {
            std::size_t pos = _entries[e].first->hash() & mask;
            while (_index[pos] != e + 1) pos = (pos + 1) & mask;
            return pos;
        };
        // Backward-shift deletion keeps every probe chain unbroken.
        std::size_t hole = slotOf(entry);
        for (std::size_t j = (hole + 1) & mask; _index[j] != 0; j = (j + 1) & mask) {
            const std::size_t home = _entries[_index[j] - 1].first->hash() & mask;
            const bool stays = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
            if (!stays) {
                _index[hole] = _index[j];
                hole = j;
            }
        }
        _index[hole] = 0;
        if (entry != last) _index[slotOf(last)] = static_cast<std::uint32_t>(entry + 1);
    }
    if (entry != last) std::swap(_entries[entry], _entries[last]);
    _entries.pop_back();
    if (_entries.size() <= kIndexThreshold && !_index.empty()) std::vector<std::uint32_t>().swap(_index);
}

void PLMutableDictionary::removeAll() noexcept {
    _entries.clear();
    std::vector<std::uint32_t>().swap(_index);
}

// ---------------------------------------------------------------- copies

PLHolder<const PLArray> PLArrayCreateCopy(const PLArray* array) {
    if (!array) return nullptr;
    return PLArray::createFromValues(std::vector<PLHolder<const PLObject>>(array->values()));
}

PLHolder<PLMutableArray> PLArrayCreateMutableCopy(const PLArray* array) {
    if (!array) return nullptr;
    return PLMutableArray::createFromValues(std::vector<PLHolder<const PLObject>>(array->values()));
}

PLHolder<const PLDictionary> PLDictionaryCreateCopy(const PLDictionary* dict) {
    if (!dict) return nullptr;
    return PLDictionary::createFromEntries(std::vector<PLDictionaryEntry>(dict->entries()));
}

PLHolder<PLMutableDictionary> PLDictionaryCreateMutableCopy(const PLDictionary* dict) {
    if (!dict) return nullptr;
    return PLMutableDictionary::createFromEntries(std::vector<PLDictionaryEntry>(dict->entries()));
}

PLHolder<PLMutableDictionary> PLDictionaryCreateMutable(std::size_t reserve) {
    return PLMutableDictionary::create(reserve);
}

namespace {

PLHolder<const PLObject> deepCopy(const PLObject* value, PLMutability mutability, bool isKey) {
    const bool mutableLeaves = mutability == PLMutability::MutableContainersAndLeaves && !isKey;
    switch (value->typeID()) {
        case PLTypeID::String: {
            const auto* s = static_cast<const PLString*>(value);
            if (mutableLeaves) return PLMutableString::create(s->utf8());
            if (s->isMutable()) return PLString::create(s->utf8());
            break;
        }
        case PLTypeID::Data: {
            const auto* d = static_cast<const PLData*>(value);
            if (mutableLeaves) return PLMutableData::create(d->bytes(), d->size());
            if (d->isMutable()) return PLData::create(d->bytes(), d->size());
            break;
        }
        case PLTypeID::Array: {
            const auto* a = static_cast<const PLArray*>(value);
            std::vector<PLHolder<const PLObject>> values;
            values.reserve(a->count());
            for (const auto& v : a->values()) values.push_back(deepCopy(v.get(), mutability, false));
            if (mutability == PLMutability::Immutable) return PLArray::createFromValues(std::move(values));
            return PLMutableArray::createFromValues(std::move(values));
        }
        case PLTypeID::Dictionary: {
            const auto* d = static_cast<const PLDictionary*>(value);
            std::vector<PLDictionaryEntry> entries;
            entries.reserve(d->count());
            for (const auto& [k, v] : d->entries())
                entries.emplace_back(deepCopy(k.get(), mutability, true), deepCopy(v.get(), mutability, false));
            if (mutability == PLMutability::Immutable) return PLDictionary::createFromEntries(std::move(entries));
            return PLMutableDictionary::createFromEntries(std::move(entries));
        }
        default: break;
    }
    return PLHolder<const PLObject>::retain(value);
}

}  // namespace

PLHolder<const PLObject> PLPropertyListCreateDeepCopy(const PLObject* plist, PLMutability mutability) {
    if (!plist) return nullptr;
    return deepCopy(plist, mutability, false);
}

// ---------------------------------------------------------------- factory

struct alignas(64) PLSlab {
    // Values living in the block, plus kSlabBias while a factory still fills
    // it (so that values dying early cannot free it under the factory).
    std::atomic<std::uint32_t> live;
};

namespace {

constexpr std::uint32_t kSlabBias = std::uint32_t{1} << 30;

static_assert(kPLSlabSize / 8 < kSlabBias);

}  // namespace

namespace {

// Empty blocks are kept for the next reader rather than handed back at once:
// a whole tree dies at a time, and the heap would return its blocks to the
// system only to fault them in again for the next document. At most
// kKeptBlocks blocks (2 MiB) wait here; the lock is taken once per block.
class BlockPool {
public:
    void* take() {
        {
            ferrocore::CAutoStaticMutex lock(_mutex);
            if (_count > 0) return _blocks[--_count];
        }
        void* block = std::aligned_alloc(kPLSlabSize, kPLSlabSize);
        if (!block) throw std::bad_alloc();
        return block;
    }
    void give(void* block) noexcept {
        {
            ferrocore::CAutoStaticMutex lock(_mutex);
            if (_count < kKeptBlocks) {
                _blocks[_count++] = block;
                return;
            }
        }
        std::free(block);
    }

private:
    static constexpr std::size_t kKeptBlocks = 128;
    ferrocore::CStaticMutex _mutex;
    void* _blocks[kKeptBlocks] FERRO_GUARDED_BY(_mutex) = {};
    std::size_t _count FERRO_GUARDED_BY(_mutex) = 0;
};

// Constant-initialised and trivially destructible: usable at any time,
// including while other objects are destroyed at exit.
constinit BlockPool gBlockPool;
static_assert(std::is_trivially_destructible_v<BlockPool>);

void dropSlab(PLSlab* slab) noexcept {
    slab->~PLSlab();
    gBlockPool.give(slab);
}

}  // namespace

PLObjectFactory::~PLObjectFactory() { retire(); }

void PLObjectFactory::retire() noexcept {
    if (!_slab) return;
    const std::uint32_t unused = kSlabBias - _made;
    if (_slab->live.fetch_sub(unused, std::memory_order_acq_rel) == unused) dropSlab(_slab);
    _slab = nullptr;
    _next = _end = nullptr;
}

void PLObjectFactory::releasePooled(const void* value) noexcept {
    auto* slab = reinterpret_cast<PLSlab*>(reinterpret_cast<std::uintptr_t>(value) & ~(kPLSlabSize - 1));
    if (slab->live.fetch_sub(1, std::memory_order_acq_rel) == 1) dropSlab(slab);
}

void PLObjectFactory::startBlock() {
    retire();
    void* block = gBlockPool.take();
    _slab = new (block) PLSlab{};
    _slab->live.store(kSlabBias, std::memory_order_relaxed);
    _next = static_cast<char*>(block) + sizeof(PLSlab);
    _end = static_cast<char*>(block) + kPLSlabSize;
    _made = 0;
}

PLHolder<const PLNumber> PLObjectFactory::integer(std::int64_t value) {
    const bool small =
        value >= std::numeric_limits<std::int32_t>::min() && value <= std::numeric_limits<std::int32_t>::max();
    void* at = allocate(sizeof(PLNumber));
    if (!at) return small ? PLNumber::create(static_cast<std::int32_t>(value)) : PLNumber::create(value);
    auto* n = mark(new (at) PLNumber(small ? PLNumberType::SInt32 : PLNumberType::SInt64));
    n->_int = value;
    return PLHolder<const PLNumber>::adopt(n);
}

PLHolder<const PLNumber> PLObjectFactory::real(double value) {
    void* at = allocate(sizeof(PLNumber));
    if (!at) return PLNumber::create(value);
    auto* n = mark(new (at) PLNumber(PLNumberType::Float64));
    n->_double = value;
    return PLHolder<const PLNumber>::adopt(n);
}

PLHolder<const PLDate> PLObjectFactory::date(double at) {
    void* mem = allocate(sizeof(PLDate));
    if (!mem) return PLDate::create(at);
    return PLHolder<const PLDate>::adopt(mark(new (mem) PLDate(at)));
}

PLHolder<const PLData> PLObjectFactory::data(const std::uint8_t* bytes, std::size_t size) {
    void* at = allocate(sizeof(PLData) + size);
    if (!at) return PLData::create(bytes, size);
    auto* behind = static_cast<std::uint8_t*>(at) + sizeof(PLData);
    if (size != 0) std::memcpy(behind, bytes, size);
    return PLHolder<const PLData>::adopt(mark(new (at) PLData(behind, size)));
}

PLHolder<const PLArray> PLObjectFactory::array(std::vector<PLHolder<const PLObject>>&& values) {
    void* at = allocate(sizeof(PLArray));
    if (!at) return PLArray::createFromValues(std::move(values));
    return PLHolder<const PLArray>::adopt(mark(new (at) PLArray(false, std::move(values))));
}

PLHolder<const PLDictionary> PLObjectFactory::dictionary(std::vector<PLDictionaryEntry>&& entries,
                                                         std::size_t* keyHashes) {
    // Compacted and indexed first, so that nothing is left to fail once the
    // room for the dictionary is taken.
    std::vector<std::uint32_t> index;
    compactEntries(entries, index, keyHashes);
    void* at = allocate(sizeof(PLDictionary));
    PLDictionary* dict = at ? mark(new (at) PLDictionary(false, {})) : new PLDictionary(false, {});
    dict->_entries = std::move(entries);
    dict->_index = std::move(index);
    return PLHolder<const PLDictionary>::adopt(dict);
}

std::size_t PLObjectFactory::stringHash(std::string_view utf8) noexcept { return hashBytes(utf8); }
