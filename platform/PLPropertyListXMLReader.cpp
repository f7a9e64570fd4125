// XML property-list reader over expat.
//
// Values are built bottom-up on one operand stack shared by all levels: a
// leaf is pushed when its element ends, and a container, when it ends, takes
// its elements (for a dictionary, alternating keys and values) off the top of
// the stack in one move into an exactly sized vector. Character data is
// gathered into one reused buffer, and only inside leaf elements; between
// elements it must be whitespace.
#include <quillcore/platform/PLPropertyList.h>

#include "platform/PLObjectFactory.h"
#include "platform/PLPropertyListReaders.h"
#include "platform/PLPropertyListPrivate.h"

#include <expat.h>

#include <array>
#include <charconv>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <vector>

namespace {

enum class Element : std::uint8_t { Plist, Dict, Array, Key, String, Integer, Real, Date, Data, True, False, Unknown };

const char* elementName(Element e) noexcept {
    switch (e) {
        case Element::Plist: return "plist";
        case Element::Dict: return "dict";
        case Element::Array: return "array";
        case Element::Key: return "key";
        case Element::String: return "string";
        case Element::Integer: return "integer";
        case Element::Real: return "real";
        case Element::Date: return "date";
        case Element::Data: return "data";
        case Element::True: return "true";
        case Element::False: return "false";
        case Element::Unknown: break;
    }
    return "?";
}

// Whether `name` is exactly `word`.
template <std::size_t N>
bool is(const char* name, const char (&word)[N]) noexcept {
    for (std::size_t i = 1; i < N; ++i) {  // the first letter is already known, the NULs must match
        if (name[i] != word[i]) return false;
    }
    return true;
}

Element classify(const char* name) noexcept {
    switch (name[0]) {
        case 'a': return is(name, "array") ? Element::Array : Element::Unknown;
        case 'd':
            if (name[1] == 'i') return is(name, "dict") ? Element::Dict : Element::Unknown;
            if (is(name, "date")) return Element::Date;
            return is(name, "data") ? Element::Data : Element::Unknown;
        case 'f': return is(name, "false") ? Element::False : Element::Unknown;
        case 'i': return is(name, "integer") ? Element::Integer : Element::Unknown;
        case 'k': return is(name, "key") ? Element::Key : Element::Unknown;
        case 'p': return is(name, "plist") ? Element::Plist : Element::Unknown;
        case 'r': return is(name, "real") ? Element::Real : Element::Unknown;
        case 's': return is(name, "string") ? Element::String : Element::Unknown;
        case 't': return is(name, "true") ? Element::True : Element::Unknown;
        default: return Element::Unknown;
    }
}

bool isXMLSpace(char c) noexcept { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

std::string_view trim(std::string_view s) noexcept {
    while (!s.empty() && isXMLSpace(s.front())) s.remove_prefix(1);
    while (!s.empty() && isXMLSpace(s.back())) s.remove_suffix(1);
    return s;
}

// A short, quoted excerpt of text for messages.
std::string quote(std::string_view s) {
    constexpr std::size_t kMax = 40;
    std::string q = "\"";
    if (s.size() > kMax) {
        // Cut at a character boundary.
        std::size_t n = kMax;
        while (n > 0 && (static_cast<unsigned char>(s[n]) & 0xC0) == 0x80) --n;
        q.append(s.substr(0, n)).append("...");
    } else {
        q.append(s);
    }
    q += '"';
    return q;
}

constexpr std::int8_t kB64Invalid = -1;
constexpr std::int8_t kB64Space = -2;
constexpr std::int8_t kB64Pad = -3;

constexpr std::array<std::int8_t, 256> makeBase64Table() {
    std::array<std::int8_t, 256> t{};
    for (auto& v : t) v = kB64Invalid;
    constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (int i = 0; i < 64; ++i) t[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::int8_t>(i);
    t[' '] = t['\t'] = t['\n'] = t['\r'] = kB64Space;
    t['='] = kB64Pad;
    return t;
}
constexpr std::array<std::int8_t, 256> kBase64Value = makeBase64Table();

// One reader per thread is kept and reused (see readXML), so that the expat
// parser, the operand stack and the text buffer are allocated once rather
// than per document.
class XMLReader {
public:
    XMLReader() : _parser(XML_ParserCreate(nullptr)) {
        if (!_parser) throw std::bad_alloc();
    }
    ~XMLReader() { XML_ParserFree(_parser); }
    XMLReader(const XMLReader&) = delete;
    XMLReader& operator=(const XMLReader&) = delete;

    PLHolder<const PLObject> parse(const char* bytes, std::size_t size, PLMutability mutability,
                                   std::string* error) {
        _mutableContainers = mutability != PLMutability::Immutable;
        _mutableLeaves = mutability == PLMutability::MutableContainersAndLeaves;
        PLObjectFactory factory(size >= kPooledDocumentSize);
        _factory = &factory;
        PLHolder<const PLObject> result = run(bytes, size, error);
        recycle();
        return result;
    }

private:
    // Buffers beyond these sizes are given back after a document rather than
    // kept for the next one.
    static constexpr std::size_t kKeptValues = std::size_t{1} << 16;
    static constexpr std::size_t kKeptText = 64 * 1024;
    // Documents from this size on have their values pooled (see
    // PLObjectFactory); smaller ones would not fill a block.
    static constexpr std::size_t kPooledDocumentSize = kPLSlabSize;

    void recycle() noexcept {
        _frames.clear();
        _values.clear();
        if (_values.capacity() > kKeptValues) std::vector<PLHolder<const PLObject>>().swap(_values);
        if (_textCapacity > kKeptText) {
            _textBuffer.reset();
            _textCapacity = 0;
        }
        _textSize = 0;
        _inLeaf = false;
        _failed = false;
        _error.clear();
        _result.reset();
        _factory = nullptr;
    }

    PLHolder<const PLObject> run(const char* bytes, std::size_t size, std::string* error) {
        if (!XML_ParserReset(_parser, nullptr)) throw std::bad_alloc();
        XML_SetUserData(_parser, this);
        XML_SetElementHandler(_parser, &XMLReader::onStart, &XMLReader::onEnd);
        XML_SetCharacterDataHandler(_parser, &XMLReader::onText);
        XML_SetEntityDeclHandler(_parser, &XMLReader::onEntityDecl);
        XML_SetSkippedEntityHandler(_parser, &XMLReader::onSkippedEntity);
        // expat takes int lengths: feed very large inputs in pieces.
        constexpr std::size_t kPiece = std::size_t{1} << 30;
        std::size_t done = 0;
        XML_Status status = XML_STATUS_OK;
        do {
            const std::size_t n = std::min(kPiece, size - done);
            status = XML_Parse(_parser, bytes + done, static_cast<int>(n), done + n == size);
            done += n;
        } while (status == XML_STATUS_OK && done < size);

        if (_failed || status != XML_STATUS_OK) {
            if (!_failed) {
                _error = position() + XML_ErrorString(XML_GetErrorCode(_parser));
            }
            if (error) *error = "malformed XML property list at " + _error;
            return nullptr;
        }
        if (!_result) {
            if (error) *error = "malformed XML property list: no value";
            return nullptr;
        }
        return std::move(_result);
    }

private:
    struct Frame {
        Element kind;
        std::uint32_t base;  // first operand-stack slot of this container's elements
    };

    std::string position() const {
        return "line " + std::to_string(XML_GetCurrentLineNumber(_parser)) + ":" +
               std::to_string(XML_GetCurrentColumnNumber(_parser) + 1) + ": ";
    }

    [[gnu::cold, gnu::noinline]] void fail(std::string_view problem) {
        if (_failed) return;
        _failed = true;
        _error = position();
        _error.append(problem);
        XML_StopParser(_parser, XML_FALSE);
    }

    // The handlers keep their common paths small; everything unusual goes to
    // out-of-line functions that work out what exactly is wrong.
    static void XMLCALL onStart(void* self, const XML_Char* name, const XML_Char**) {
        static_cast<XMLReader*>(self)->start(name);
    }
    static void XMLCALL onEnd(void* self, const XML_Char*) { static_cast<XMLReader*>(self)->end(); }
    static void XMLCALL onText(void* self, const XML_Char* s, int len) {
        auto* reader = static_cast<XMLReader*>(self);
        if (reader->_inLeaf) {
            reader->appendText(s, static_cast<std::size_t>(len));
            return;
        }
        for (int i = 0; i < len; ++i) {
            if (!isXMLSpace(s[i])) return reader->strayText(s, static_cast<std::size_t>(len));
        }
    }
    static void XMLCALL onEntityDecl(void* self, const XML_Char* entityName, int, const XML_Char*, int,
                                     const XML_Char*, const XML_Char*, const XML_Char*, const XML_Char*) {
        static_cast<XMLReader*>(self)->fail("entity declarations are not allowed (<!ENTITY " +
                                            std::string(entityName) + ">)");
    }
    static void XMLCALL onSkippedEntity(void* self, const XML_Char* entityName, int) {
        static_cast<XMLReader*>(self)->fail("undefined entity &" + std::string(entityName) + ";");
    }

    static bool isContainer(Element kind) noexcept { return kind == Element::Dict || kind == Element::Array; }

    void start(const char* name) {
        if (_failed) return;
        const Element kind = classify(name);
        if (_inLeaf || kind == Element::Unknown || kind == Element::Plist || _frames.empty())
            return unusualStart(kind, name);
        const Frame& parent = _frames.back();
        const std::size_t held = _values.size() - parent.base;
        const bool fits = parent.kind == Element::Dict ? ((held % 2 == 0) == (kind == Element::Key))
                                                       : (kind != Element::Key && (parent.kind == Element::Array || held == 0));
        if (!fits) return misplaced(kind);
        if (isContainer(kind)) {
            if (_frames.size() >= plimpl::kMaxDepth)
                return fail("elements nested more than " + std::to_string(plimpl::kMaxDepth) + " deep");
            _frames.push_back({kind, static_cast<std::uint32_t>(_values.size())});
            return;
        }
        _inLeaf = true;
        _leaf = kind;
        _textSize = 0;
    }

    [[gnu::cold, gnu::noinline]] void unusualStart(Element kind, const char* name) {
        if (_inLeaf) return fail("element <" + trimmedName(name) + "> inside <" + elementName(_leaf) + ">");
        if (kind == Element::Unknown) return fail("unknown element <" + trimmedName(name) + ">");
        if (!_frames.empty()) return fail("<plist> inside a property list");
        if (kind != Element::Plist)
            return fail(std::string("the root element is <") + elementName(kind) + ">, not <plist>");
        _frames.push_back({Element::Plist, static_cast<std::uint32_t>(_values.size())});
    }

    [[gnu::cold, gnu::noinline]] void misplaced(Element kind) {
        const Frame& parent = _frames.back();
        const std::size_t held = _values.size() - parent.base;
        if (parent.kind == Element::Dict) {
            if (held % 2 != 0) return fail("no value for key " + quote(keyAt(_values.size() - 1)));
            return fail(std::string("<") + elementName(kind) + "> where a <key> was expected");
        }
        if (kind == Element::Key) return fail("<key> outside a dictionary");
        fail("more than one value in <plist>");
    }

    static std::string trimmedName(const char* name) {
        std::string q = quote(name);
        return q.substr(1, q.size() - 2);
    }

    std::string_view keyAt(std::size_t slot) const {
        return static_cast<const PLString*>(_values[slot].get())->utf8();
    }

    void appendText(const char* s, std::size_t len) {
        if (len > _textCapacity - _textSize) growText(len);
        std::memcpy(_textBuffer.get() + _textSize, s, len);
        _textSize += len;
    }

    [[gnu::noinline]] void growText(std::size_t len) {
        const std::size_t capacity = std::max(_textCapacity * 2, _textSize + len + 256);
        auto bigger = std::make_unique<char[]>(capacity);
        if (_textSize) std::memcpy(bigger.get(), _textBuffer.get(), _textSize);
        _textBuffer = std::move(bigger);
        _textCapacity = capacity;
    }

    std::string_view leafText() const noexcept { return {_textBuffer.get(), _textSize}; }

    [[gnu::cold, gnu::noinline]] void strayText(const char* s, std::size_t len) {
        const char* where = _frames.empty() ? "plist" : elementName(_frames.back().kind);
        fail("unexpected text " + quote(trim(std::string_view(s, len))) + " in <" + where + ">");
    }

    void end() {
        if (_failed) return;
        if (_inLeaf) {
            _inLeaf = false;
            if (PLHolder<const PLObject> leaf = makeLeaf()) _values.push_back(std::move(leaf));
            return;
        }
        endContainer();
    }

    void endContainer() {
        const Frame frame = _frames.back();
        _frames.pop_back();
        const auto first = _values.begin() + frame.base;
        const std::size_t n = _values.size() - frame.base;
        switch (frame.kind) {
            case Element::Plist:
                if (n == 0) return fail("no value in <plist>");
                _result = std::move(_values[frame.base]);
                _values.resize(frame.base);
                return;
            case Element::Array: {
                std::vector<PLHolder<const PLObject>> values(std::make_move_iterator(first),
                                                             std::make_move_iterator(_values.end()));
                _values.resize(frame.base);
                if (_mutableContainers)
                    _values.push_back(PLMutableArray::createFromValues(std::move(values)));
                else
                    _values.push_back(_factory->array(std::move(values)));
                return;
            }
            default: {  // Dict
                if (n % 2 != 0) return fail("no value for key " + quote(keyAt(_values.size() - 1)));
                std::vector<PLDictionaryEntry> entries;
                entries.reserve(n / 2);
                for (auto it = first; it != _values.end(); it += 2)
                    entries.emplace_back(std::move(it[0]), std::move(it[1]));
                _values.resize(frame.base);
                if (_mutableContainers)
                    _values.push_back(PLMutableDictionary::createFromEntries(std::move(entries)));
                else
                    _values.push_back(_factory->dictionary(std::move(entries)));
                return;
            }
        }
    }

    PLHolder<const PLObject> makeLeaf() {
        switch (_leaf) {
            case Element::Key: return _factory->string(leafText());
            case Element::String:
                if (_mutableLeaves) return PLMutableString::create(leafText());
                return _factory->string(leafText());
            case Element::Integer: return makeInteger();
            case Element::Real: return makeReal();
            case Element::Date: return makeDate();
            case Element::Data: return makeData();
            case Element::True:
            case Element::False:
                if (!trim(leafText()).empty()) {
                    fail(std::string("text inside <") + elementName(_leaf) + "/>");
                    return nullptr;
                }
                return PLHolder<const PLObject>::retain(PLBoolean::get(_leaf == Element::True));
            default: return nullptr;
        }
    }

    PLHolder<const PLObject> makeInteger() {
        const std::string_view t = trim(leafText());
        std::string_view digits = t;
        bool negative = false;
        if (!digits.empty() && (digits[0] == '-' || digits[0] == '+')) {
            negative = digits[0] == '-';
            digits.remove_prefix(1);
        }
        int base = 10;
        if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
            base = 16;
            digits.remove_prefix(2);
        }
        // Up to 18 decimal digits cannot overflow: the common case, done inline.
        if (base == 10 && !digits.empty() && digits.size() <= 18) {
            std::int64_t value = 0;
            bool digitsOnly = true;
            for (const char c : digits) {
                if (c < '0' || c > '9') {
                    digitsOnly = false;
                    break;
                }
                value = value * 10 + (c - '0');
            }
            if (digitsOnly) return _factory->integer(negative ? -value : value);
        }
        std::uint64_t magnitude = 0;
        const char* const end = digits.data() + digits.size();
        const auto [ptr, ec] = std::from_chars(digits.data(), end, magnitude, base);
        if (digits.empty() || ptr != end || (ec != std::errc() && ec != std::errc::result_out_of_range)) {
            fail("invalid integer " + quote(t));
            return nullptr;
        }
        constexpr std::uint64_t kMaxPositive = std::numeric_limits<std::int64_t>::max();
        if (ec == std::errc::result_out_of_range || magnitude > kMaxPositive + (negative ? 1 : 0)) {
            fail("integer out of the 64-bit range " + quote(t));
            return nullptr;
        }
        return _factory->integer(negative ? static_cast<std::int64_t>(0 - magnitude)
                                          : static_cast<std::int64_t>(magnitude));
    }

    PLHolder<const PLObject> makeReal() {
        const std::string_view t = trim(leafText());
        std::string_view number = t;
        if (number.size() > 1 && number[0] == '+' && number[1] != '-' && number[1] != '+') number.remove_prefix(1);
        double value = 0;
        const char* const end = number.data() + number.size();
        const auto [ptr, ec] = std::from_chars(number.data(), end, value);
        if (number.empty() || ptr != end || (ec != std::errc() && ec != std::errc::result_out_of_range)) {
            fail("invalid real " + quote(t));
            return nullptr;
        }
        if (ec == std::errc::result_out_of_range) {
            fail("real out of range " + quote(t));
            return nullptr;
        }
        return _factory->real(value);
    }

    PLHolder<const PLObject> makeDate() {
        const std::string_view t = trim(leafText());
        auto digits = [&](std::size_t at, std::size_t n, unsigned* out) {
            unsigned v = 0;
            for (std::size_t i = at; i < at + n; ++i) {
                if (t[i] < '0' || t[i] > '9') return false;
                v = v * 10 + static_cast<unsigned>(t[i] - '0');
            }
            *out = v;
            return true;
        };
        unsigned year, month, day, hour, minute, second;
        const bool shaped = t.size() >= 20 && t.back() == 'Z' && t[4] == '-' && t[7] == '-' && t[10] == 'T' &&
                            t[13] == ':' && t[16] == ':' && digits(0, 4, &year) && digits(5, 2, &month) &&
                            digits(8, 2, &day) && digits(11, 2, &hour) && digits(14, 2, &minute) &&
                            digits(17, 2, &second);
        std::string_view fraction;
        bool fractionOK = t.size() == 20;
        if (shaped && !fractionOK && t[19] == '.' && t.size() > 21) {
            fraction = t.substr(20, t.size() - 21);
            fractionOK = fraction.find_first_not_of("0123456789") == std::string_view::npos;
        }
        if (!shaped || !fractionOK) {
            fail("invalid date " + quote(t) + " (expected YYYY-MM-DDTHH:MM:SSZ)");
            return nullptr;
        }
        if (month < 1 || month > 12 || day < 1 || day > plimpl::daysInMonth(year, month) || hour > 23 ||
            minute > 59 || second > 59) {
            fail("invalid date " + quote(t) + " (a field is out of range)");
            return nullptr;
        }
        const std::int64_t unix = plimpl::daysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second;
        const std::int64_t whole = unix - static_cast<std::int64_t>(kPLAbsoluteTimeIntervalSince1970);
        while (!fraction.empty() && fraction.back() == '0') fraction.remove_suffix(1);
        if (fraction.empty()) return _factory->date(static_cast<double>(whole));
        // whole + 0.fraction, rounded once: as one decimal number (for a
        // negative whole, -((-whole - 1) + (1 - 0.fraction))).
        std::vector<char> number(fraction.size() + 32);
        char* p = number.data();
        if (whole < 0) *p++ = '-';
        p = std::to_chars(p, p + 24, whole < 0 ? -whole - 1 : whole).ptr;
        *p++ = '.';
        std::memcpy(p, fraction.data(), fraction.size());
        if (whole < 0) plimpl::complementDecimalFraction(p, fraction.size());
        p += fraction.size();
        double at = 0;
        std::from_chars(number.data(), p, at);
        return _factory->date(at);
    }

    PLHolder<const PLObject> makeData() {
        const std::string_view text = leafText();
        std::vector<std::uint8_t> bytes(text.size() / 4 * 3 + 3);
        std::uint8_t* d = bytes.data();
        std::uint32_t acc = 0;
        unsigned bits = 0;
        std::size_t symbols = 0;
        unsigned pads = 0;
        const auto* s = reinterpret_cast<const unsigned char*>(text.data());
        const auto* const end = s + text.size();
        while (s < end) {
            // Whole groups of four symbols at once while there are some.
            if (bits == 0 && end - s >= 4) {
                const int a = kBase64Value[s[0]], b = kBase64Value[s[1]], c = kBase64Value[s[2]],
                          e = kBase64Value[s[3]];
                if ((a | b | c | e) >= 0 && pads == 0) {
                    const auto v = static_cast<std::uint32_t>(a << 18 | b << 12 | c << 6 | e);
                    d[0] = static_cast<std::uint8_t>(v >> 16);
                    d[1] = static_cast<std::uint8_t>(v >> 8);
                    d[2] = static_cast<std::uint8_t>(v);
                    d += 3;
                    s += 4;
                    symbols += 4;
                    continue;
                }
            }
            const std::int8_t v = kBase64Value[*s++];
            if (v >= 0 && pads == 0) {
                acc = (acc << 6) | static_cast<std::uint32_t>(v);
                bits += 6;
                ++symbols;
                if (bits >= 8) {
                    bits -= 8;
                    *d++ = static_cast<std::uint8_t>(acc >> bits);
                }
            } else if (v == kB64Space) {
                continue;
            } else if (v == kB64Pad && pads < 2) {
                ++pads;
            } else {
                fail("invalid base64 data in <data>");
                return nullptr;
            }
        }
        if (symbols % 4 == 1) {
            fail("invalid base64 data in <data> (truncated)");
            return nullptr;
        }
        bytes.resize(static_cast<std::size_t>(d - bytes.data()));
        if (_mutableLeaves) return PLMutableData::create(bytes.data(), bytes.size());
        return _factory->data(std::move(bytes));
    }

    XML_Parser const _parser;
    PLObjectFactory* _factory = nullptr;  // of the document being read
    bool _mutableContainers = false;
    bool _mutableLeaves = false;
    std::vector<Frame> _frames;
    std::vector<PLHolder<const PLObject>> _values;
    // Character data of the current leaf.
    std::unique_ptr<char[]> _textBuffer;
    std::size_t _textSize = 0;
    std::size_t _textCapacity = 0;
    Element _leaf = Element::Unknown;
    bool _inLeaf = false;
    bool _failed = false;
    std::string _error;
    PLHolder<const PLObject> _result;
};

// Trivially destructible, so it can be read at any time during thread exit.
thread_local bool tCacheGone = false;

}  // namespace

namespace plimpl {

PLHolder<const PLObject> readXML(const void* bytes, std::size_t size, PLMutability mutability, std::string* error) {
    // Each thread keeps its reader. It is taken out while in use, so a
    // reader is never shared; once the thread's cache is gone (a document
    // read from a thread-exit destructor), readers are made per document.
    struct Cache {
        std::unique_ptr<XMLReader> reader;
        ~Cache() { tCacheGone = true; }
    };
    thread_local Cache cache;
    std::unique_ptr<XMLReader> reader;
    if (!tCacheGone) reader = std::move(cache.reader);
    if (!reader) reader = std::make_unique<XMLReader>();
    PLHolder<const PLObject> result = reader->parse(static_cast<const char*>(bytes), size, mutability, error);
    if (!tCacheGone) cache.reader = std::move(reader);
    return result;
}

}  // namespace plimpl
