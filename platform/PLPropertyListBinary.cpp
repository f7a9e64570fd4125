// Binary property lists ("bplist00"): reader and writer.
//
// Layout: the 8-byte magic, the objects, a table of object offsets and a
// 32-byte trailer (6 unused bytes, the byte width of an offset, the byte width
// of an object reference, then the object count, the top object's number and
// the offset table's position, each a big-endian 64-bit integer). An object
// starts with a marker byte: the high nibble is its kind, the low nibble a
// size or count (15: the count follows as an integer object).
//
// The reader trusts nothing: every offset, reference and count is checked
// against the file before use, references are followed with a record of the
// objects being read (a reference back to one of them is a cycle), and
// objects referenced more than once are built once when the result lets
// them be shared.
#include <bit>
#include <cstring>
#include <limits>
#include <unordered_map>
#include <vector>

#include "platform/PLPropertyListPrivate.h"
#include "platform/PLPropertyListReaders.h"
#include <ferrocore/Utf8.h>
#include <quillcore/platform/PLPropertyList.h>

namespace {

constexpr char kMagic[] = "bplist00";
constexpr std::size_t kMagicSize = 8;
constexpr std::size_t kTrailerSize = 32;

enum : std::uint8_t {
    kMarkerSimple = 0x0,
    kMarkerInt = 0x1,
    kMarkerReal = 0x2,
    kMarkerDate = 0x3,
    kMarkerData = 0x4,
    kMarkerASCII = 0x5,
    kMarkerUTF16 = 0x6,
    kMarkerUID = 0x8,
    kMarkerArray = 0xA,
    kMarkerSet = 0xC,
    kMarkerDict = 0xD,
};
constexpr std::uint8_t kFalse = 0x08;
constexpr std::uint8_t kTrue = 0x09;

std::uint64_t readBE(const std::uint8_t* p, unsigned n) noexcept {
    std::uint64_t v = 0;
    for (unsigned i = 0; i < n; ++i) v = (v << 8) | p[i];
    return v;
}

std::string hexByte(std::uint8_t b) {
    constexpr char kHex[] = "0123456789abcdef";
    return std::string("0x") + kHex[b >> 4] + kHex[b & 15];
}

// ---------------------------------------------------------------- reader

class BinaryReader {
public:
    BinaryReader(const std::uint8_t* data, std::size_t size, PLMutability mutability)
        : _data(data),
          _size(size),
          _mutableContainers(mutability != PLMutability::Immutable),
          _mutableLeaves(mutability == PLMutability::MutableContainersAndLeaves),
          _limit(std::max<std::uint64_t>(std::uint64_t{1} << 20, std::uint64_t{16} * size)) {}

    PLHolder<const PLObject> read(std::string* error) {
        PLHolder<const PLObject> result;
        if (readTrailer()) {
            _memo.resize(_count);
            _sizes.resize(_count);
            _reading.resize(_count);
            std::uint64_t logical = 0;
            if (!readObject(_top, _size - 16, 0, false, result, logical)) result.reset();
        }
        if (!result && error)
            *error = "malformed binary property list at offset " + std::to_string(_errorOffset) + ": " + _error;
        return result;
    }

private:
    bool fail(std::size_t offset, std::string problem) {
        _errorOffset = offset;
        _error = std::move(problem);
        return false;
    }

    bool readTrailer() {
        if (_size < kMagicSize + 1 + 1 + kTrailerSize)
            return fail(0, "file too short (" + std::to_string(_size) + " bytes)");
        if (std::memcmp(_data, kMagic, kMagicSize) != 0) return fail(0, "unknown version (expected \"bplist00\")");
        const std::uint8_t* t = _data + _size - kTrailerSize;
        const std::size_t at = _size - kTrailerSize;
        _offsetWidth = t[6];
        _refWidth = t[7];
        _count = readBE(t + 8, 8);
        _top = readBE(t + 16, 8);
        _tableOffset = readBE(t + 24, 8);
        if (_offsetWidth < 1 || _offsetWidth > 8)
            return fail(at + 6, "invalid offset size " + std::to_string(_offsetWidth));
        if (_refWidth < 1 || _refWidth > 8)
            return fail(at + 7, "invalid object reference size " + std::to_string(_refWidth));
        if (_tableOffset < kMagicSize + 1 || _tableOffset >= at)
            return fail(at + 24, "offset table position " + std::to_string(_tableOffset) + " outside the file");
        if (_count == 0 || _count > (at - _tableOffset) / _offsetWidth)
            return fail(at + 8, "object count " + std::to_string(_count) + " does not fit the offset table");
        if (_top >= _count)
            return fail(at + 16, "top object " + std::to_string(_top) + " out of range (" + std::to_string(_count) +
                                     " objects)");
        return true;
    }

    // Reads the unsigned reference of `width` bytes at `at`.
    std::uint64_t ref(std::size_t at) const noexcept { return readBE(_data + at, _refWidth); }

    // The count in a marker's low nibble, or the integer object after it.
    bool readCount(std::size_t at, std::uint8_t info, std::uint64_t& count, std::size_t& next) {
        if (info != 0xF) {
            count = info;
            next = at + 1;
            return true;
        }
        const std::size_t p = at + 1;
        if (p >= _tableOffset) return fail(at, "object truncated (count missing)");
        const std::uint8_t m = _data[p];
        if ((m >> 4) != kMarkerInt || (m & 0xF) > 3) return fail(p, "invalid count marker " + hexByte(m));
        const unsigned n = 1u << (m & 0xF);
        if (n > _tableOffset - p - 1) return fail(p, "object truncated (count)");
        count = readBE(_data + p + 1, n);
        next = p + 1 + n;
        return true;
    }

    bool readObject(std::uint64_t number, std::size_t refAt, unsigned depth, bool isKey, PLHolder<const PLObject>& out,
                    std::uint64_t& logical) {
        if (number >= _count)
            return fail(refAt, "object reference " + std::to_string(number) + " out of range (" +
                                   std::to_string(_count) + " objects)");
        const std::size_t entryAt = _tableOffset + number * _offsetWidth;
        const std::uint64_t offset = readBE(_data + entryAt, _offsetWidth);
        if (offset < kMagicSize || offset >= _tableOffset)
            return fail(entryAt, "object " + std::to_string(number) + " has offset " + std::to_string(offset) +
                                     " outside the object area");
        const auto at = static_cast<std::size_t>(offset);
        const std::uint8_t marker = _data[at];
        const std::uint8_t kind = marker >> 4;
        const bool container = kind == kMarkerArray || kind == kMarkerDict;
        const bool leafWithText = kind == kMarkerASCII || kind == kMarkerUTF16 || kind == kMarkerData;
        const bool makesMutable = container ? _mutableContainers : (leafWithText && _mutableLeaves && !isKey);
        if (!makesMutable && _memo[number]) {
            out = _memo[number];
            logical = _sizes[number];
            return true;
        }
        if (_reading[number])
            return fail(at, "object " + std::to_string(number) + " contains itself (a reference cycle)");
        if (depth >= plimpl::kMaxDepth)
            return fail(at, "objects nested more than " + std::to_string(plimpl::kMaxDepth) + " deep");

        logical = 1;
        if (container) {
            _reading[number] = 1;
            const bool ok = kind == kMarkerArray ? readArray(at, marker, depth, out, logical)
                                                 : readDict(at, marker, depth, out, logical);
            _reading[number] = 0;
            if (!ok) return false;
        } else if (!readLeaf(at, marker, isKey, out)) {
            return false;
        }
        if (!makesMutable) {
            _memo[number] = out;
            _sizes[number] = logical;
        }
        return true;
    }

    // Adds a child's size to its container's; false when the tree grows
    // beyond the limit.
    bool grow(std::uint64_t& logical, std::uint64_t child, std::size_t at) {
        logical += child;
        if (logical > _limit)
            return fail(at, "shared objects expand to more than " + std::to_string(_limit) + " values");
        return true;
    }

    bool readArray(std::size_t at, std::uint8_t marker, unsigned depth, PLHolder<const PLObject>& out,
                   std::uint64_t& logical) {
        std::uint64_t count;
        std::size_t p;
        if (!readCount(at, marker & 0xF, count, p)) return false;
        if (count > (_tableOffset - p) / _refWidth)
            return fail(at, "array of " + std::to_string(count) + " elements runs past the object area");
        std::vector<PLHolder<const PLObject>> values(static_cast<std::size_t>(count));
        for (std::size_t i = 0; i < count; ++i, p += _refWidth) {
            std::uint64_t size = 0;
            if (!readObject(ref(p), p, depth + 1, false, values[i], size) || !grow(logical, size, at)) return false;
        }
        if (_mutableContainers)
            out = PLMutableArray::createFromValues(std::move(values));
        else
            out = PLArray::createFromValues(std::move(values));
        return true;
    }

    bool readDict(std::size_t at, std::uint8_t marker, unsigned depth, PLHolder<const PLObject>& out,
                  std::uint64_t& logical) {
        std::uint64_t count;
        std::size_t p;
        if (!readCount(at, marker & 0xF, count, p)) return false;
        if (count > (_tableOffset - p) / _refWidth / 2)
            return fail(at, "dictionary of " + std::to_string(count) + " entries runs past the object area");
        std::vector<PLDictionaryEntry> entries(static_cast<std::size_t>(count));
        const std::size_t valuesAt = p + static_cast<std::size_t>(count) * _refWidth;
        for (std::size_t i = 0; i < count; ++i) {
            const std::size_t keyAt = p + i * _refWidth;
            const std::size_t valueAt = valuesAt + i * _refWidth;
            std::uint64_t size = 0;
            if (!readObject(ref(keyAt), keyAt, depth + 1, true, entries[i].first, size)) return false;
            if (!PLDynamicCast<PLString>(entries[i].first.get()))
                return fail(keyAt, std::string("dictionary key is a ") + PLTypeName(entries[i].first->typeID()) +
                                       ", not a string");
            if (!grow(logical, size, at)) return false;
            if (!readObject(ref(valueAt), valueAt, depth + 1, false, entries[i].second, size) ||
                !grow(logical, size, at))
                return false;
        }
        if (_mutableContainers)
            out = PLMutableDictionary::createFromEntries(std::move(entries));
        else
            out = PLDictionary::createFromEntries(std::move(entries));
        return true;
    }

    bool readLeaf(std::size_t at, std::uint8_t marker, bool isKey, PLHolder<const PLObject>& out) {
        const std::uint8_t kind = marker >> 4;
        const std::uint8_t info = marker & 0xF;
        const std::size_t room = _tableOffset - at - 1;  // bytes after the marker
        switch (kind) {
            case kMarkerSimple:
                if (marker == kTrue || marker == kFalse) {
                    out = PLHolder<const PLObject>::retain(PLBoolean::get(marker == kTrue));
                    return true;
                }
                if (marker == 0x00) return fail(at, "null objects are not supported");
                return fail(at, "unknown object marker " + hexByte(marker));
            case kMarkerInt: {
                if (info > 4) return fail(at, "invalid integer size (marker " + hexByte(marker) + ")");
                const unsigned n = 1u << info;
                if (n > room) return fail(at, "integer truncated");
                std::int64_t value;
                if (n < 8) {
                    value = static_cast<std::int64_t>(readBE(_data + at + 1, n));
                } else if (n == 8) {
                    value = static_cast<std::int64_t>(readBE(_data + at + 1, 8));
                } else {
                    const auto high = static_cast<std::int64_t>(readBE(_data + at + 1, 8));
                    value = static_cast<std::int64_t>(readBE(_data + at + 9, 8));
                    if (high != (value < 0 ? -1 : 0)) return fail(at, "integer out of the 64-bit range");
                }
                if (value >= std::numeric_limits<std::int32_t>::min() &&
                    value <= std::numeric_limits<std::int32_t>::max())
                    out = PLNumber::create(static_cast<std::int32_t>(value));
                else
                    out = PLNumber::create(value);
                return true;
            }
            case kMarkerReal:
                if (info == 2 && room >= 4) {
                    out = PLNumber::create(static_cast<double>(
                        std::bit_cast<float>(static_cast<std::uint32_t>(readBE(_data + at + 1, 4)))));
                    return true;
                }
                if (info == 3 && room >= 8) {
                    out = PLNumber::create(std::bit_cast<double>(readBE(_data + at + 1, 8)));
                    return true;
                }
                if (info == 2 || info == 3) return fail(at, "real truncated");
                return fail(at, "invalid real size (marker " + hexByte(marker) + ")");
            case kMarkerDate:
                if (info != 3) return fail(at, "invalid date marker " + hexByte(marker));
                if (room < 8) return fail(at, "date truncated");
                out = PLDate::create(std::bit_cast<double>(readBE(_data + at + 1, 8)));
                return true;
            case kMarkerData:
            case kMarkerASCII:
            case kMarkerUTF16: return readBytes(at, marker, isKey, out);
            case kMarkerUID: return fail(at, "UID objects are not supported");
            case kMarkerSet: return fail(at, "sets are not supported");
            default: return fail(at, "unknown object marker " + hexByte(marker));
        }
    }

    bool readBytes(std::size_t at, std::uint8_t marker, bool isKey, PLHolder<const PLObject>& out) {
        const std::uint8_t kind = marker >> 4;
        std::uint64_t count;
        std::size_t p;
        if (!readCount(at, marker & 0xF, count, p)) return false;
        const std::size_t room = _tableOffset - p;
        const bool makeMutable = _mutableLeaves && !isKey;
        if (kind == kMarkerData) {
            if (count > room) return fail(at, "data of " + std::to_string(count) + " bytes runs past the object area");
            if (makeMutable)
                out = PLMutableData::create(_data + p, static_cast<std::size_t>(count));
            else
                out = PLData::create(_data + p, static_cast<std::size_t>(count));
            return true;
        }
        std::string_view text;
        std::string converted;
        if (kind == kMarkerASCII) {
            if (count > room)
                return fail(at, "string of " + std::to_string(count) + " bytes runs past the object area");
            text = std::string_view(reinterpret_cast<const char*>(_data + p), static_cast<std::size_t>(count));
            for (std::size_t i = 0; i < text.size(); ++i) {
                if (static_cast<unsigned char>(text[i]) >= 0x80)
                    return fail(p + i, "non-ASCII byte in an ASCII string");
            }
        } else {
            if (count > room / 2)
                return fail(at, "string of " + std::to_string(count) + " UTF-16 units runs past the object area");
            converted.reserve(static_cast<std::size_t>(count) * 3);
            for (std::size_t i = 0; i < count; ++i) {
                const std::size_t unitAt = p + 2 * i;
                std::uint32_t cp = static_cast<std::uint32_t>(readBE(_data + unitAt, 2));
                if (cp >= 0xD800 && cp <= 0xDBFF) {
                    const std::uint32_t low =
                        i + 1 < count ? static_cast<std::uint32_t>(readBE(_data + unitAt + 2, 2)) : 0;
                    if (low < 0xDC00 || low > 0xDFFF) return fail(unitAt, "unpaired surrogate in a UTF-16 string");
                    cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                    ++i;
                } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
                    return fail(unitAt, "unpaired surrogate in a UTF-16 string");
                }
                ferrocore::utf8::append(converted, cp);
            }
            text = converted;
        }
        if (makeMutable)
            out = PLMutableString::create(text);
        else
            out = PLString::create(text);
        return true;
    }

    const std::uint8_t* const _data;
    const std::size_t _size;
    const bool _mutableContainers;
    const bool _mutableLeaves;
    // Most values the result may stand for, counting shared objects once per
    // use: bounds the work of reading and of anything walking the result.
    const std::uint64_t _limit;
    unsigned _offsetWidth = 0;
    unsigned _refWidth = 0;
    std::uint64_t _count = 0;
    std::uint64_t _top = 0;
    std::uint64_t _tableOffset = 0;
    std::vector<PLHolder<const PLObject>> _memo;  // objects already built, by number (shareable ones only)
    std::vector<std::uint64_t> _sizes;            // their sizes in values
    std::vector<std::uint8_t> _reading;           // 1 while an object's elements are being read
    std::size_t _errorOffset = 0;
    std::string _error;
};

// ---------------------------------------------------------------- writer

class BinaryWriter {
public:
    bool write(const PLObject* root, std::vector<std::uint8_t>& out, std::string* error) {
        if (!root) {
            if (error) *error = "no property list to write";
            return false;
        }
        std::uint32_t top;
        if (!collect(root, top)) {
            if (error) *error = _subject + " at " + plimpl::joinPath(_path.data(), _path.size()) + ": " + _problem;
            return false;
        }
        emit(out);
        return true;
    }

private:
    struct Object {
        const PLObject* value;
        std::uint32_t firstRef;  // containers: their references in _refs
        std::uint32_t refCount;
        std::string text;  // strings: UTF-16BE or ASCII bytes as stored
        bool utf16;
    };

    bool fail(std::string subject, std::string problem) {
        _subject = std::move(subject);
        _problem = std::move(problem);
        return false;
    }

    // Equal leaves are stored once; `key` tells kinds apart so that 5 and
    // 5.0 (equal values) keep their own kinds.
    bool unique(std::string key, const PLObject* value, std::uint32_t& id, bool& isNew) {
        auto [it, inserted] = _unique.try_emplace(std::move(key), static_cast<std::uint32_t>(_objects.size()));
        id = it->second;
        isNew = inserted;
        if (inserted) _objects.push_back({value, 0, 0, {}, false});
        return true;
    }

    static std::string bitsKey(char tag, std::uint64_t bits) {
        std::string key(9, tag);
        std::memcpy(key.data() + 1, &bits, 8);
        return key;
    }

    bool collect(const PLObject* value, std::uint32_t& id) {
        bool isNew = false;
        switch (value->typeID()) {
            case PLTypeID::String: {
                const std::string_view s = static_cast<const PLString*>(value)->utf8();
                if (!unique("s" + std::string(s), value, id, isNew)) return false;
                if (isNew && !encodeString(s, _objects[id])) {
                    _subject = "string";
                    return false;
                }
                return true;
            }
            case PLTypeID::Number: {
                const auto* n = static_cast<const PLNumber*>(value);
                return n->isFloat()
                           ? unique(bitsKey('r', std::bit_cast<std::uint64_t>(n->doubleValue())), value, id, isNew)
                           : unique(bitsKey('i', static_cast<std::uint64_t>(n->int64Value())), value, id, isNew);
            }
            case PLTypeID::Boolean:
                return unique(static_cast<const PLBoolean*>(value)->value() ? "T" : "F", value, id, isNew);
            case PLTypeID::Date:
                return unique(
                    bitsKey('t', std::bit_cast<std::uint64_t>(static_cast<const PLDate*>(value)->absoluteTime())),
                    value, id, isNew);
            case PLTypeID::Data:
                return unique("d" + std::string(static_cast<const PLData*>(value)->view()), value, id, isNew);
            case PLTypeID::URL: return fail("value", "a URL is not a property-list type");
            case PLTypeID::Array: {
                const auto* a = static_cast<const PLArray*>(value);
                id = static_cast<std::uint32_t>(_objects.size());
                _objects.push_back({value, 0, 0, {}, false});
                std::vector<std::uint32_t> refs(a->count());
                for (std::size_t i = 0; i < a->count(); ++i) {
                    if (!collect(a->at(i), refs[i])) {
                        _path.push_back(std::to_string(i));
                        return false;
                    }
                }
                addRefs(id, refs);
                return true;
            }
            case PLTypeID::Dictionary: {
                const auto* d = static_cast<const PLDictionary*>(value);
                id = static_cast<std::uint32_t>(_objects.size());
                _objects.push_back({value, 0, 0, {}, false});
                const std::size_t n = d->count();
                std::vector<std::uint32_t> refs(2 * n);
                for (std::size_t i = 0; i < n; ++i) {
                    const auto& [key, item] = d->entries()[i];
                    const auto* keyString = PLDynamicCast<PLString>(key.get());
                    if (!keyString)
                        return fail("dictionary",
                                    std::string("a key of type ") + PLTypeName(key->typeID()) + " is not a string");
                    if (!collect(key.get(), refs[i])) {
                        _subject = "key in dictionary";
                        return false;
                    }
                    if (!collect(item.get(), refs[n + i])) {
                        _path.emplace_back(keyString->utf8());
                        return false;
                    }
                }
                addRefs(id, refs);
                return true;
            }
        }
        return fail("value", "unknown type");
    }

    void addRefs(std::uint32_t id, const std::vector<std::uint32_t>& refs) {
        _objects[id].firstRef = static_cast<std::uint32_t>(_refs.size());
        _objects[id].refCount = static_cast<std::uint32_t>(refs.size());
        _refs.insert(_refs.end(), refs.begin(), refs.end());
    }

    bool encodeString(std::string_view s, Object& object) {
        bool ascii = true;
        for (const char c : s) ascii = ascii && static_cast<unsigned char>(c) < 0x80;
        if (ascii) {
            object.text = s;
            return true;
        }
        object.utf16 = true;
        const auto* p = reinterpret_cast<const unsigned char*>(s.data());
        const auto* const end = p + s.size();
        while (p < end) {
            char32_t cp;
            const std::size_t n = ferrocore::utf8::sequenceLength(
                std::string_view(reinterpret_cast<const char*>(p), static_cast<std::size_t>(end - p)), 0, cp);
            if (n == 0) {
                _problem = "not valid UTF-8 (at index " +
                           std::to_string(p - reinterpret_cast<const unsigned char*>(s.data())) + ")";
                return false;
            }
            p += n;
            auto unit = [&](std::uint32_t u) {
                object.text += static_cast<char>(u >> 8);
                object.text += static_cast<char>(u & 0xFF);
            };
            if (cp >= 0x10000) {
                unit(0xD800 + ((cp - 0x10000) >> 10));
                unit(0xDC00 + ((cp - 0x10000) & 0x3FF));
            } else {
                unit(cp);
            }
        }
        return true;
    }

    static unsigned widthFor(std::uint64_t maxValue) noexcept {
        unsigned n = 1;
        while (n < 8 && (maxValue >> (8 * n)) != 0) ++n;
        return n;
    }

    static void putBE(std::vector<std::uint8_t>& out, std::uint64_t v, unsigned n) {
        for (unsigned i = n; i-- > 0;) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    }

    static void putMarker(std::vector<std::uint8_t>& out, std::uint8_t kind, std::uint64_t count) {
        if (count < 15) {
            out.push_back(static_cast<std::uint8_t>(kind << 4 | count));
            return;
        }
        out.push_back(static_cast<std::uint8_t>(kind << 4 | 0xF));
        putInt(out, count);
    }

    static void putInt(std::vector<std::uint8_t>& out, std::int64_t v) {
        if (v < 0 || v > 0xFFFFFFFF) {
            out.push_back(0x13);
            putBE(out, static_cast<std::uint64_t>(v), 8);
        } else if (v > 0xFFFF) {
            out.push_back(0x12);
            putBE(out, static_cast<std::uint64_t>(v), 4);
        } else if (v > 0xFF) {
            out.push_back(0x11);
            putBE(out, static_cast<std::uint64_t>(v), 2);
        } else {
            out.push_back(0x10);
            out.push_back(static_cast<std::uint8_t>(v));
        }
    }
    static void putInt(std::vector<std::uint8_t>& out, std::uint64_t count) {
        putInt(out, static_cast<std::int64_t>(count));
    }

    void emit(std::vector<std::uint8_t>& out) const {
        const unsigned refWidth = widthFor(_objects.size() - 1);
        out.assign(kMagic, kMagic + kMagicSize);
        std::vector<std::uint64_t> offsets(_objects.size());
        for (std::size_t i = 0; i < _objects.size(); ++i) {
            offsets[i] = out.size();
            const Object& o = _objects[i];
            switch (o.value->typeID()) {
                case PLTypeID::String:
                    putMarker(out, o.utf16 ? kMarkerUTF16 : kMarkerASCII, o.utf16 ? o.text.size() / 2 : o.text.size());
                    out.insert(out.end(), o.text.begin(), o.text.end());
                    break;
                case PLTypeID::Number: {
                    const auto* n = static_cast<const PLNumber*>(o.value);
                    if (n->isFloat()) {
                        out.push_back(0x23);
                        putBE(out, std::bit_cast<std::uint64_t>(n->doubleValue()), 8);
                    } else {
                        putInt(out, n->int64Value());
                    }
                    break;
                }
                case PLTypeID::Boolean:
                    out.push_back(static_cast<const PLBoolean*>(o.value)->value() ? kTrue : kFalse);
                    break;
                case PLTypeID::Date:
                    out.push_back(0x33);
                    putBE(out, std::bit_cast<std::uint64_t>(static_cast<const PLDate*>(o.value)->absoluteTime()), 8);
                    break;
                case PLTypeID::Data: {
                    const auto* d = static_cast<const PLData*>(o.value);
                    putMarker(out, kMarkerData, d->size());
                    out.insert(out.end(), d->bytes(), d->bytes() + d->size());
                    break;
                }
                case PLTypeID::Array:
                case PLTypeID::Dictionary: {
                    const bool dict = o.value->typeID() == PLTypeID::Dictionary;
                    putMarker(out, dict ? kMarkerDict : kMarkerArray, dict ? o.refCount / 2 : o.refCount);
                    for (std::uint32_t r = 0; r < o.refCount; ++r) putBE(out, _refs[o.firstRef + r], refWidth);
                    break;
                }
                case PLTypeID::URL: break;  // refused by collect()
            }
        }
        const std::uint64_t tableOffset = out.size();
        const unsigned offsetWidth = widthFor(offsets.empty() ? 0 : offsets.back());
        for (const std::uint64_t offset : offsets) putBE(out, offset, offsetWidth);
        out.insert(out.end(), 6, 0);
        out.push_back(static_cast<std::uint8_t>(offsetWidth));
        out.push_back(static_cast<std::uint8_t>(refWidth));
        putBE(out, _objects.size(), 8);
        putBE(out, 0, 8);  // the root is always object 0
        putBE(out, tableOffset, 8);
    }

    std::vector<Object> _objects;
    std::vector<std::uint32_t> _refs;
    std::unordered_map<std::string, std::uint32_t> _unique;
    std::vector<std::string> _path;  // on failure: innermost component first
    std::string _subject;
    std::string _problem;
};

}  // namespace

namespace plimpl {

PLHolder<const PLObject> readBinary(const void* bytes, std::size_t size, PLMutability mutability, std::string* error) {
    return BinaryReader(static_cast<const std::uint8_t*>(bytes), size, mutability).read(error);
}

}  // namespace plimpl

PLHolder<const PLData> PLPropertyListCreateBinaryData(const PLObject* plist,
                                                      PLHolder<const PLString>* errorDescription) {
    std::vector<std::uint8_t> bytes;
    std::string error;
    if (!BinaryWriter().write(plist, bytes, &error)) {
        if (errorDescription) *errorDescription = PLString::create(error);
        return nullptr;
    }
    if (errorDescription) errorDescription->reset();
    return PLData::create(std::move(bytes));
}
