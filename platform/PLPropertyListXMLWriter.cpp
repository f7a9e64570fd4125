// XML property-list writer.
//
// The document is written straight into the caller's buffer through a raw
// cursor: each step reserves the room it may need once, then stores bytes
// without further checks. Text is escaped and checked (UTF-8, characters
// XML can carry) in one table-driven pass; dictionary keys are sorted as
// string views on a scratch stack shared by all levels, and the sort is
// skipped when the keys already come in order (as they do in anything this
// writer produced and a reader read back).
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "platform/PLPropertyListPrivate.h"
#include <ferrocore/Utf8.h>
#include <quillcore/platform/PLPropertyList.h>
#include <quillcore/platform/PLPropertyListText.h>

namespace {

using plimpl::joinPath;

// Byte classes of the text scanner.
enum : std::uint8_t {
    kPlain = 0,
    kAmp,
    kLess,
    kGreater,
    kReturn,
    kControl,  // not allowed in XML 1.0
    kLead,     // first byte of a multi-byte UTF-8 sequence
    kBadByte,  // never valid in UTF-8
};

constexpr std::array<std::uint8_t, 256> makeByteClasses() {
    std::array<std::uint8_t, 256> t{};
    for (unsigned c = 0; c < 0x20; ++c) t[c] = kControl;
    t['\t'] = kPlain;
    t['\n'] = kPlain;
    t['\r'] = kReturn;
    t['&'] = kAmp;
    t['<'] = kLess;
    t['>'] = kGreater;
    for (unsigned c = 0x80; c < 0x100; ++c) t[c] = kBadByte;
    for (unsigned c = 0xC2; c <= 0xF4; ++c) t[c] = kLead;
    return t;
}
constexpr std::array<std::uint8_t, 256> kByteClass = makeByteClasses();

constexpr char kHeader[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
constexpr char kFooter[] = "</plist>\n";

constexpr std::size_t kTabRun = 64;
constexpr char kTabs[kTabRun + 1] =
    "\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t"
    "\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t";

template <class Buffer>
class XMLWriter {
public:
    XMLWriter(Buffer& buffer, std::size_t sizeHint) : _buffer(buffer), _start(buffer.size()) {
        _buffer.resize(_start + std::max<std::size_t>(sizeHint, 4096));
        _base = reinterpret_cast<char*>(_buffer.data());
        _p = _base + _start;
        _end = _base + _buffer.size();
    }

    bool write(const PLObject* root, std::string* error) {
        if (!root) {
            _buffer.resize(_start);
            if (error) *error = "no property list to write";
            return false;
        }
        put(kHeader, sizeof(kHeader) - 1);
        if (!writeValue(root, 0)) {
            _buffer.resize(_start);
            if (error) *error = _subject + " at " + joinPath(_path.data(), _path.size()) + ": " + _problem;
            return false;
        }
        put(kFooter, sizeof(kFooter) - 1);
        _buffer.resize(static_cast<std::size_t>(_p - _base));
        return true;
    }

private:
    void ensure(std::size_t n) {
        if (static_cast<std::size_t>(_end - _p) < n) grow(n);
    }
    void grow(std::size_t n) {
        const auto used = static_cast<std::size_t>(_p - _base);
        _buffer.resize(std::max(_buffer.size() * 2, used + n + 4096));
        _base = reinterpret_cast<char*>(_buffer.data());
        _p = _base + used;
        _end = _base + _buffer.size();
    }
    void put(const char* s, std::size_t n) {
        ensure(n);
        std::memcpy(_p, s, n);
        _p += n;
    }
    template <std::size_t N>
    void raw(const char (&s)[N]) {  // room already ensured
        std::memcpy(_p, s, N - 1);
        _p += N - 1;
    }
    void indent(unsigned depth) {
        ensure(depth);
        while (depth > kTabRun) {
            std::memcpy(_p, kTabs, kTabRun);
            _p += kTabRun;
            depth -= kTabRun;
        }
        std::memcpy(_p, kTabs, depth);
        _p += depth;
    }

    bool fail(std::string subject, std::string problem) {
        _subject = std::move(subject);
        _problem = std::move(problem);
        return false;
    }

    // Escapes `text` into the output; false (with the problem set) when it
    // cannot be carried by XML.
    bool text(std::string_view text) {
        ensure(text.size() * 5);
        const auto* s = reinterpret_cast<const unsigned char*>(text.data());
        const auto* const e = s + text.size();
        char* d = _p;
        while (s < e) {
            const unsigned char c = *s;
            switch (kByteClass[c]) {
                case kPlain:
                    *d++ = static_cast<char>(c);
                    ++s;
                    break;
                case kAmp:
                    std::memcpy(d, "&amp;", 5);
                    d += 5;
                    ++s;
                    break;
                case kLess:
                    std::memcpy(d, "&lt;", 4);
                    d += 4;
                    ++s;
                    break;
                case kGreater:
                    std::memcpy(d, "&gt;", 4);
                    d += 4;
                    ++s;
                    break;
                case kReturn:
                    std::memcpy(d, "&#13;", 5);
                    d += 5;
                    ++s;
                    break;
                case kLead: {
                    char32_t cp;
                    const std::size_t n = ferrocore::utf8::sequenceLength(
                        std::string_view(reinterpret_cast<const char*>(s), static_cast<std::size_t>(e - s)), 0, cp);
                    if (n == 0) return badUTF8(text, s);
                    if (cp == 0xFFFE || cp == 0xFFFF) return badChar(cp);
                    std::memcpy(d, s, n);
                    d += n;
                    s += n;
                    break;
                }
                case kControl: return badChar(c);
                default: return badUTF8(text, s);
            }
        }
        _p = d;
        return true;
    }
    bool badUTF8(std::string_view text, const unsigned char* at) {
        char hex[3];
        constexpr char kHex[] = "0123456789abcdef";
        hex[0] = kHex[*at >> 4];
        hex[1] = kHex[*at & 15];
        hex[2] = '\0';
        _problem = "not valid UTF-8 (byte 0x" + std::string(hex) + " at index " +
                   std::to_string(at - reinterpret_cast<const unsigned char*>(text.data())) + ")";
        return false;
    }
    bool badChar(std::uint32_t cp) {
        char buf[16];
        std::snprintf(buf, sizeof buf, "U+%04X", static_cast<unsigned>(cp));
        _problem = std::string("character ") + buf + " cannot be written in XML";
        return false;
    }

    bool writeValue(const PLObject* value, unsigned depth) {
        switch (value->typeID()) {
            case PLTypeID::String: {
                indent(depth);
                ensure(8);
                raw("<string>");
                if (!text(static_cast<const PLString*>(value)->utf8())) {
                    _subject = "string";
                    return false;
                }
                ensure(10);
                raw("</string>\n");
                return true;
            }
            case PLTypeID::Number: writeNumber(*static_cast<const PLNumber*>(value), depth); return true;
            case PLTypeID::Boolean:
                indent(depth);
                ensure(9);
                if (static_cast<const PLBoolean*>(value)->value())
                    raw("<true/>\n");
                else
                    raw("<false/>\n");
                return true;
            case PLTypeID::Date: return writeDate(static_cast<const PLDate*>(value)->absoluteTime(), depth);
            case PLTypeID::Data: writeData(static_cast<const PLData*>(value)->view(), depth); return true;
            case PLTypeID::Array: return writeArray(*static_cast<const PLArray*>(value), depth);
            case PLTypeID::Dictionary: return writeDictionary(*static_cast<const PLDictionary*>(value), depth);
            case PLTypeID::URL: return fail("value", "a URL is not a property-list type");
        }
        return fail("value", "unknown type");
    }

    void writeNumber(const PLNumber& n, unsigned depth) {
        indent(depth);
        ensure(64);
        if (!n.isFloat()) {
            raw("<integer>");
            _p = std::to_chars(_p, _end, n.int64Value()).ptr;
            raw("</integer>\n");
            return;
        }
        raw("<real>");
        const double d = n.doubleValue();
        if (std::isnan(d)) {
            raw("nan");
        } else if (std::isinf(d)) {
            if (d < 0)
                raw("-inf");
            else
                raw("inf");
        } else {
            _p = std::to_chars(_p, _end, d).ptr;
        }
        raw("</real>\n");
    }

    // Dates are written as whole seconds plus a decimal fraction chosen so
    // that the reader, which rounds whole + fraction once, gets `at` back
    // exactly: the fraction is that of the shortest decimal form of `at`
    // (complemented for negative values, whose whole part is rounded down).
    bool writeDate(double at, unsigned depth) {
        constexpr double kBound = 1e12;  // far beyond the years 1 to 9999
        if (!(at > -kBound && at < kBound)) return fail("date", "outside the years 1 to 9999");
        std::int64_t whole = static_cast<std::int64_t>(at);
        char digits[400];
        std::string_view fraction;
        if (static_cast<double>(whole) != at) {
            char* end = std::to_chars(digits, digits + sizeof digits, at, std::chars_format::fixed).ptr;
            char* dot = std::find(static_cast<char*>(digits), end, '.');
            fraction = std::string_view(dot + 1, static_cast<std::size_t>(end - dot - 1));
            if (at < 0) {
                --whole;  // rounded toward zero above; the seconds field counts from below
                char* f = dot + 1;
                plimpl::complementDecimalFraction(f, static_cast<std::size_t>(end - f));
            }
        }
        const std::int64_t secs = whole + static_cast<std::int64_t>(kPLAbsoluteTimeIntervalSince1970);
        if (secs < plimpl::kFirstWritableUnixSecond || secs >= plimpl::kEndWritableUnixSecond)
            return fail("date", "outside the years 1 to 9999");
        std::int64_t days = secs / 86400;
        std::int64_t rem = secs % 86400;
        if (rem < 0) {
            rem += 86400;
            --days;
        }
        const plimpl::CivilDate civil = plimpl::civilFromDays(days);
        indent(depth);
        ensure(40 + fraction.size());
        raw("<date>");
        auto two = [this](unsigned v) {
            _p[0] = static_cast<char>('0' + v / 10);
            _p[1] = static_cast<char>('0' + v % 10);
            _p += 2;
        };
        const auto year = static_cast<unsigned>(civil.year);
        two(year / 100);
        two(year % 100);
        *_p++ = '-';
        two(civil.month);
        *_p++ = '-';
        two(civil.day);
        *_p++ = 'T';
        two(static_cast<unsigned>(rem / 3600));
        *_p++ = ':';
        two(static_cast<unsigned>(rem / 60 % 60));
        *_p++ = ':';
        two(static_cast<unsigned>(rem % 60));
        if (!fraction.empty()) {
            *_p++ = '.';
            std::memcpy(_p, fraction.data(), fraction.size());
            _p += fraction.size();
        }
        raw("Z</date>\n");
        return true;
    }

    void writeData(std::string_view bytes, unsigned depth) {
        indent(depth);
        ensure(PLBase64EncodedLength(bytes.size()) + 16);
        raw("<data>");
        _p = PLBase64Encode(bytes.data(), bytes.size(), _p);
        raw("</data>\n");
    }

    bool writeArray(const PLArray& array, unsigned depth) {
        indent(depth);
        ensure(9);
        if (array.count() == 0) {
            raw("<array/>\n");
            return true;
        }
        raw("<array>\n");
        const auto& values = array.values();
        for (std::size_t i = 0; i < values.size(); ++i) {
            if (!writeValue(values[i].get(), depth + 1)) {
                _path.push_back(std::to_string(i));
                return false;
            }
        }
        indent(depth);
        ensure(9);
        raw("</array>\n");
        return true;
    }

    bool writeDictionary(const PLDictionary& dict, unsigned depth) {
        indent(depth);
        ensure(8);
        if (dict.count() == 0) {
            raw("<dict/>\n");
            return true;
        }
        raw("<dict>\n");
        const std::size_t base = _sorted.size();
        for (const auto& [key, value] : dict.entries()) {
            const auto* s = PLDynamicCast<PLString>(key.get());
            if (!s) {
                _sorted.resize(base);
                return fail("dictionary",
                            std::string("a key of type ") + PLTypeName(key->typeID()) + " is not a string");
            }
            _sorted.emplace_back(s->utf8(), value.get());
        }
        const auto first = _sorted.begin() + static_cast<std::ptrdiff_t>(base);
        auto byKey = [](const auto& a, const auto& b) { return a.first < b.first; };
        if (!std::is_sorted(first, _sorted.end(), byKey)) std::sort(first, _sorted.end(), byKey);

        const std::size_t end = _sorted.size();
        for (std::size_t i = base; i < end; ++i) {
            const auto [key, value] = _sorted[i];
            indent(depth + 1);
            ensure(5);
            raw("<key>");
            if (!text(key)) {
                _sorted.resize(base);
                _subject = "key in dictionary";
                return false;
            }
            ensure(7);
            raw("</key>\n");
            if (!writeValue(value, depth + 1)) {
                _sorted.resize(base);
                _path.emplace_back(key);
                return false;
            }
        }
        _sorted.resize(base);
        indent(depth);
        ensure(8);
        raw("</dict>\n");
        return true;
    }

    Buffer& _buffer;
    const std::size_t _start;
    char* _base;
    char* _p;
    char* _end;
    // Keys (with their values) of the dictionaries being written, outermost
    // first.
    std::vector<std::pair<std::string_view, const PLObject*>> _sorted;
    // On failure: the offending value's place, innermost component first.
    std::vector<std::string> _path;
    std::string _subject;
    std::string _problem;
};

// A first guess at the document's size, to spare the buffer most of its
// growth: a few dozen bytes per element of the root container.
std::size_t sizeHint(const PLObject* plist) noexcept {
    constexpr std::size_t kPerElement = 64;
    constexpr std::size_t kMostGuessed = std::size_t{64} << 20;
    std::size_t count = 0;
    if (const auto* a = PLDynamicCast<PLArray>(plist))
        count = a->count();
    else if (const auto* d = PLDynamicCast<PLDictionary>(plist))
        count = d->count();
    return std::min(count * kPerElement, kMostGuessed);
}

}  // namespace

bool PLPropertyListWriteXML(const PLObject* plist, std::string& out, std::string* errorDescription) {
    return XMLWriter<std::string>(out, sizeHint(plist)).write(plist, errorDescription);
}

PLHolder<const PLData> PLPropertyListCreateXMLData(const PLObject* plist, PLHolder<const PLString>* errorDescription) {
    std::vector<std::uint8_t> bytes;
    std::string error;
    if (!XMLWriter<std::vector<std::uint8_t>>(bytes, sizeHint(plist)).write(plist, &error)) {
        if (errorDescription) *errorDescription = PLString::create(error);
        return nullptr;
    }
    if (errorDescription) errorDescription->reset();
    return PLData::create(std::move(bytes));
}

bool PLPropertyListIsValid(const PLObject* plist, PLPropertyListFormat format) {
    if (!plist) return false;
    if (format == PLPropertyListFormat::Binary) return static_cast<bool>(PLPropertyListCreateBinaryData(plist));
    std::string scratch;
    return PLPropertyListWriteXML(plist, scratch);
}
