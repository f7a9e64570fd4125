// XML property-list reader over expat.
//
// Values are built bottom-up on one operand stack shared by all levels: a
// leaf is pushed when its element ends, and a container, when it ends, takes
// its elements (for a dictionary, alternating keys and values) off the top of
// the stack in one move into an exactly sized vector. Character data is
// kept only inside leaf elements (between elements it must be white space):
// a leaf whose text expat hands over in one piece is read where it lies in
// expat's input buffer, and only text in several pieces is gathered into one
// reused buffer.
#include <algorithm>
#include <array>
#include <bit>
#include <cfloat>
#include <charconv>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include <expat.h>

#include "platform/PLObjectFactory.h"
#include "platform/PLPropertyListPrivate.h"
#include "platform/PLPropertyListReaders.h"
#include <quillcore/platform/PLPropertyList.h>
#include <quillcore/platform/PLPropertyListText.h>

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

constexpr std::array<bool, 256> kIsXMLSpace = [] {
    std::array<bool, 256> t{};
    t[' '] = t['\t'] = t['\n'] = t['\r'] = true;
    return t;
}();

bool isXMLSpace(char c) noexcept { return kIsXMLSpace[static_cast<unsigned char>(c)]; }

bool isAllSpace(const char* s, std::size_t len) noexcept {
    for (std::size_t i = 0; i < len; ++i) {
        if (!isXMLSpace(s[i])) return false;
    }
    return true;
}

[[gnu::noinline]] std::string_view trimSlow(std::string_view s) noexcept {
    while (!s.empty() && isXMLSpace(s.front())) s.remove_prefix(1);
    while (!s.empty() && isXMLSpace(s.back())) s.remove_suffix(1);
    return s;
}

// Numbers and dates rarely come with white space around them.
inline std::string_view trim(std::string_view s) noexcept {
    if (!s.empty() && !isXMLSpace(s.front()) && !isXMLSpace(s.back())) return s;
    return trimSlow(s);
}

// Whether `text` (at most 19 bytes) is all decimal digits; if so, *value is
// their number. Whole runs of eight digits are checked and converted at once
// in a 64-bit word: a byte b is a digit exactly when neither b + 0x46 nor
// b - 0x30 has its high bit set, and as the lowest byte that is not a digit
// gets no carry or borrow from below, that test cannot miss it.
bool readDigits(std::string_view text, std::uint64_t* value) noexcept {
    const char* p = text.data();
    std::size_t n = text.size();
    std::uint64_t v = 0;
    if constexpr (std::endian::native == std::endian::little) {
        for (; n >= 8; p += 8, n -= 8) {
            std::uint64_t w;
            std::memcpy(&w, p, 8);
            if (((w + 0x4646464646464646) | (w - 0x3030303030303030)) & 0x8080808080808080) return false;
            // Digit values, then pairs, then the whole: the first byte is the
            // most significant digit.
            w -= 0x3030303030303030;
            w = w * 10 + (w >> 8);
            w = (((w & 0x000000FF000000FF) * (100 + (std::uint64_t{1000000} << 32))) +
                 (((w >> 16) & 0x000000FF000000FF) * (1 + (std::uint64_t{10000} << 32)))) >>
                32;
            v = v * 100000000 + w;
        }
    }
    for (; n > 0; ++p, --n) {
        const unsigned d = static_cast<unsigned>(static_cast<unsigned char>(*p)) - '0';
        if (d > 9) return false;
        v = v * 10 + d;
    }
    *value = v;
    return true;
}

// Powers of ten that a double holds exactly.
constexpr double kExactPowersOf10[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                       1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

// The usual form of a real, [-]digits[.digits] without an exponent, whose
// digits make an integer m of at most 2^53 with k <= 22 of them after the
// point: then m and 10^k are exact doubles and one division rounds m / 10^k
// correctly, which is what from_chars would return. False for anything else.
bool readPlainDecimal(std::string_view text, double* out) noexcept {
    if constexpr (FLT_EVAL_METHOD != 0) return false;  // the division must round once, in double
    const char* p = text.data();
    const char* const end = p + text.size();
    const bool negative = p != end && *p == '-';
    p += negative;
    std::uint64_t mantissa = 0;
    int digits = 0;
    int afterPoint = 0;
    bool point = false;
    for (; p != end; ++p) {
        const unsigned d = static_cast<unsigned>(static_cast<unsigned char>(*p)) - '0';
        if (d < 10) {
            if (++digits > 19) return false;  // m could wrap
            mantissa = mantissa * 10 + d;
            afterPoint += point;
        } else if (*p == '.' && !point) {
            point = true;
        } else {
            return false;
        }
    }
    if (digits == 0 || mantissa > (std::uint64_t{1} << 53) ||
        afterPoint >= static_cast<int>(std::size(kExactPowersOf10)))
        return false;
    const double value = static_cast<double>(mantissa) / kExactPowersOf10[afterPoint];
    *out = negative ? -value : value;
    return true;
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

// expat seeds the hash tables of every document afresh from the system (a
// getrandom call per document) unless it is given a seed. One drawn from the
// system when a reader is made is as unknown to the authors of the documents
// it reads, and saves small documents that call. Zero means none could be
// drawn: expat then draws its own.
unsigned long drawHashSalt() noexcept {
    try {
        std::random_device device;
        const std::uint64_t salt = (std::uint64_t{device()} << 32) ^ device();
        return static_cast<unsigned long>(salt) | 1;
    } catch (...) {
        return 0;
    }
}

// One reader per thread is kept and reused (see readXML), so that the expat
// parser, the operand stack and the text buffer are allocated once rather
// than per document.
class XMLReader {
public:
    XMLReader() : _parser(XML_ParserCreate(nullptr)), _hashSalt(drawHashSalt()) {
        if (!_parser) throw std::bad_alloc();
        makeTextBuffer(kFirstText);
        _text = _textBuffer.get();
    }
    ~XMLReader() { XML_ParserFree(_parser); }
    XMLReader(const XMLReader&) = delete;
    XMLReader& operator=(const XMLReader&) = delete;

    PLHolder<const PLObject> parse(const char* bytes, std::size_t size, std::size_t piece, PLMutability mutability,
                                   std::string* error) {
        _mutableContainers = mutability != PLMutability::Immutable;
        _mutableLeaves = mutability == PLMutability::MutableContainersAndLeaves;
        PLObjectFactory factory(size >= kPooledDocumentSize);
        _factory = &factory;
        PLHolder<const PLObject> result = run(bytes, size, piece, error);
        recycle();
        return result;
    }

private:
    // Buffers beyond these sizes are given back after a document rather than
    // kept for the next one.
    static constexpr std::size_t kKeptValues = std::size_t{1} << 16;
    static constexpr std::size_t kKeptText = 64 * 1024;
    static constexpr std::size_t kFirstText = 1024;
    // Documents from this size on have their values pooled (see
    // PLObjectFactory); smaller ones would not fill a block.
    static constexpr std::size_t kPooledDocumentSize = kPLSlabSize;

    void recycle() noexcept {
        _frames.clear();
        _values.clear();
        _keyHashes.clear();
        if (_values.capacity() > kKeptValues) std::vector<PLHolder<const PLObject>>().swap(_values);
        if (_keyHashes.capacity() > kKeptValues) std::vector<std::size_t>().swap(_keyHashes);
        if (_textCapacity > kKeptText) makeTextBuffer(kFirstText);
        _text = _textBuffer.get();
        _textSize = 0;
        _inLeaf = false;
        _failed = false;
        _error.clear();
        _result.reset();
        _factory = nullptr;
    }

    PLHolder<const PLObject> run(const char* bytes, std::size_t size, std::size_t piece, std::string* error) {
        if (!XML_ParserReset(_parser, nullptr)) throw std::bad_alloc();
        if (_hashSalt) XML_SetHashSalt(_parser, _hashSalt);
        XML_SetUserData(_parser, this);
        XML_SetElementHandler(_parser, &XMLReader::onStart, &XMLReader::onEnd);
        XML_SetCharacterDataHandler(_parser, &XMLReader::onText);
        XML_SetEntityDeclHandler(_parser, &XMLReader::onEntityDecl);
        XML_SetSkippedEntityHandler(_parser, &XMLReader::onSkippedEntity);
        piece = std::clamp<std::size_t>(piece, 1, plimpl::kXMLPiece);
        std::size_t done = 0;
        XML_Status status = XML_STATUS_OK;
        do {
            const std::size_t n = std::min(piece, size - done);
            _inputBegin = _inputEnd = 0;
            status = XML_Parse(_parser, bytes + done, static_cast<int>(n), done + n == size);
            done += n;
            // The next call may move expat's buffer under borrowed text.
            ownText();
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
        std::uint32_t keys;  // first slot of a dictionary's key hashes in _keyHashes
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
        // expat may still report an event or two after stopping; with the
        // handlers gone, none of them reaches us, and the handlers need not
        // check for an earlier failure.
        XML_SetElementHandler(_parser, nullptr, nullptr);
        XML_SetCharacterDataHandler(_parser, nullptr);
    }

    // The handlers keep their common paths small; everything unusual goes to
    // out-of-line functions that work out what exactly is wrong.
    static void XMLCALL onStart(void* self, const XML_Char* name, const XML_Char**) {
        static_cast<XMLReader*>(self)->start(name);
    }
    static void XMLCALL onEnd(void* self, const XML_Char*) { static_cast<XMLReader*>(self)->end(); }
    // Most calls bring the white space between elements (expat reports each
    // line break on its own), so that path must not even need a stack frame.
    static void XMLCALL onText(void* self, const XML_Char* s, int len) {
        auto* reader = static_cast<XMLReader*>(self);
        if (reader->_inLeaf) return reader->appendText(s, static_cast<std::size_t>(len));
        if (!isAllSpace(s, static_cast<std::size_t>(len))) reader->strayText(s, static_cast<std::size_t>(len));
    }
    static void XMLCALL onEntityDecl(void* self, const XML_Char* entityName, int, const XML_Char*, int, const XML_Char*,
                                     const XML_Char*, const XML_Char*, const XML_Char*) {
        static_cast<XMLReader*>(self)->fail("entity declarations are not allowed (<!ENTITY " + std::string(entityName) +
                                            ">)");
    }
    static void XMLCALL onSkippedEntity(void* self, const XML_Char* entityName, int) {
        static_cast<XMLReader*>(self)->fail("undefined entity &" + std::string(entityName) + ";");
    }

    static bool isContainer(Element kind) noexcept { return kind == Element::Dict || kind == Element::Array; }

    void start(const char* name) {
        if (!_inputEnd) findInput();
        const Element kind = classify(name);
        if (_inLeaf || kind == Element::Unknown || kind == Element::Plist || _frames.empty())
            return unusualStart(kind, name);
        const Frame& parent = _frames.back();
        const std::size_t held = _values.size() - parent.base;
        const bool fits = parent.kind == Element::Dict
                              ? ((held % 2 == 0) == (kind == Element::Key))
                              : (kind != Element::Key && (parent.kind == Element::Array || held == 0));
        if (!fits) return misplaced(kind);
        if (isContainer(kind)) return open(kind);
        _inLeaf = true;
        _leaf = kind;
        _text = _textBuffer.get();
        _textSize = 0;
    }

    // Where expat keeps the input of the current XML_Parse call; the buffer
    // stays put until the call returns. Nothing is borrowed when expat
    // cannot say.
    [[gnu::noinline]] void findInput() noexcept {
        int offset = 0;
        int size = 0;
        if (const char* buffer = XML_GetInputContext(_parser, &offset, &size)) {
            _inputBegin = reinterpret_cast<std::uintptr_t>(buffer);
            _inputEnd = _inputBegin + static_cast<std::size_t>(size);
        }
    }

    [[gnu::noinline]] void open(Element kind) {
        if (_frames.size() >= plimpl::kMaxDepth)
            return fail("elements nested more than " + std::to_string(plimpl::kMaxDepth) + " deep");
        _frames.push_back(
            {kind, static_cast<std::uint32_t>(_values.size()), static_cast<std::uint32_t>(_keyHashes.size())});
    }

    [[gnu::cold, gnu::noinline]] void unusualStart(Element kind, const char* name) {
        if (_inLeaf) return fail("element <" + trimmedName(name) + "> inside <" + elementName(_leaf) + ">");
        if (kind == Element::Unknown) return fail("unknown element <" + trimmedName(name) + ">");
        if (!_frames.empty()) return fail("<plist> inside a property list");
        if (kind != Element::Plist)
            return fail(std::string("the root element is <") + elementName(kind) + ">, not <plist>");
        _frames.push_back({Element::Plist, static_cast<std::uint32_t>(_values.size()),
                           static_cast<std::uint32_t>(_keyHashes.size())});
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

    std::string_view keyAt(std::size_t slot) const { return static_cast<const PLString*>(_values[slot].get())->utf8(); }

    // The first piece of a leaf's text is borrowed when it lies in expat's
    // input (a line break, or the text of a reference, comes from elsewhere:
    // expat's own short-lived storage); a later piece first copies what was
    // borrowed.
    void appendText(const char* s, std::size_t len) {
        const auto at = reinterpret_cast<std::uintptr_t>(s);
        if (_textSize == 0 && at >= _inputBegin && at < _inputEnd) {
            _text = s;
            _textSize = len;
            return;
        }
        copyText(s, len);
    }

    [[gnu::noinline]] void copyText(const char* s, std::size_t len) {
        // White space in base64 is dropped anyway: the line breaks and
        // indentation of <data> need not be kept.
        if (_leaf == Element::Data && isAllSpace(s, len)) return;
        ownText();
        if (len > _textCapacity - _textSize) return growAndAppendText(s, len);
        char* const to = _textBuffer.get() + _textSize;
        _textSize += len;
        std::memcpy(to, s, len);  // last, so that it is a tail call
    }

    // Makes the leaf's text the reader's own, in the text buffer.
    void ownText() {
        if (_text != _textBuffer.get()) copyBorrowedText();
    }

    [[gnu::noinline]] void copyBorrowedText() {
        const std::size_t n = _textSize;
        if (n > _textCapacity) makeTextBuffer(std::max(_textCapacity * 2, n));
        std::memcpy(_textBuffer.get(), _text, n);
        _text = _textBuffer.get();
    }

    [[gnu::noinline]] void growAndAppendText(const char* s, std::size_t len) {
        growText(len);
        appendText(s, len);
    }

    [[gnu::noinline]] void growText(std::size_t len) {
        std::unique_ptr<char[]> old = std::move(_textBuffer);
        makeTextBuffer(std::max(_textCapacity * 2, _textSize + len));
        std::memcpy(_textBuffer.get(), old.get(), _textSize);
        _text = _textBuffer.get();
    }

    void makeTextBuffer(std::size_t capacity) {
        _textBuffer = std::make_unique<char[]>(capacity);
        _textCapacity = capacity;
    }

    std::string_view leafText() const noexcept { return {_text, _textSize}; }

    [[gnu::cold, gnu::noinline]] void strayText(const char* s, std::size_t len) {
        const char* where = _frames.empty() ? "plist" : elementName(_frames.back().kind);
        fail("unexpected text " + quote(trim(std::string_view(s, len))) + " in <" + where + ">");
    }

    // Keys and strings, the most common leaves, are made here; the other
    // kinds in functions of their own, so that this path stays short.
    void end() {
        if (!_inLeaf) return endContainer();
        _inLeaf = false;
        switch (_leaf) {
            case Element::Key:
                // Hashed now, while its bytes are at hand, for the
                // dictionary's index.
                _keyHashes.push_back(PLObjectFactory::stringHash(leafText()));
                return push(_factory->string(leafText()));
            case Element::String:
                if (_mutableLeaves) return push(PLMutableString::create(leafText()));
                return push(_factory->string(leafText()));
            case Element::Integer: return makeInteger();
            case Element::Real: return makeReal();
            case Element::Date: return makeDate();
            case Element::Data: return makeData();
            default: return makeBoolean();
        }
    }

    void push(PLHolder<const PLObject>&& value) { _values.push_back(std::move(value)); }

    [[gnu::noinline]] void endContainer() {
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
                    _values.push_back(_factory->dictionary(std::move(entries), _keyHashes.data() + frame.keys));
                _keyHashes.resize(frame.keys);
                return;
            }
        }
    }

    [[gnu::noinline]] void makeBoolean() {
        if (!trim(leafText()).empty()) return fail(std::string("text inside <") + elementName(_leaf) + "/>");
        push(PLHolder<const PLObject>::retain(PLBoolean::get(_leaf == Element::True)));
    }

    // A leaf's text is quoted in messages as it stood, white space trimmed.
    [[gnu::cold, gnu::noinline]] void invalidLeaf(const char* what, const char* why = "") {
        fail(what + quote(trim(leafText())) + why);
    }

    [[gnu::noinline]] void makeInteger() {
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
        std::uint64_t small = 0;
        if (base == 10 && !digits.empty() && digits.size() <= 18 && readDigits(digits, &small)) {
            const auto value = static_cast<std::int64_t>(small);
            return push(_factory->integer(negative ? -value : value));
        }
        std::uint64_t magnitude = 0;
        const char* const end = digits.data() + digits.size();
        const auto [ptr, ec] = std::from_chars(digits.data(), end, magnitude, base);
        if (digits.empty() || ptr != end || (ec != std::errc() && ec != std::errc::result_out_of_range))
            return invalidLeaf("invalid integer ");
        constexpr std::uint64_t kMaxPositive = std::numeric_limits<std::int64_t>::max();
        if (ec == std::errc::result_out_of_range || magnitude > kMaxPositive + (negative ? 1 : 0))
            return invalidLeaf("integer out of the 64-bit range ");
        push(_factory->integer(negative ? static_cast<std::int64_t>(0 - magnitude)
                                        : static_cast<std::int64_t>(magnitude)));
    }

    [[gnu::noinline]] void makeReal() {
        std::string_view number = trim(leafText());
        if (number.size() > 1 && number[0] == '+' && number[1] != '-' && number[1] != '+') number.remove_prefix(1);
        double value = 0;
        if (readPlainDecimal(number, &value)) return push(_factory->real(value));
        const char* const end = number.data() + number.size();
        const auto [ptr, ec] = std::from_chars(number.data(), end, value);
        if (number.empty() || ptr != end || (ec != std::errc() && ec != std::errc::result_out_of_range))
            return invalidLeaf("invalid real ");
        if (ec == std::errc::result_out_of_range) return invalidLeaf("real out of range ");
        push(_factory->real(value));
    }

    [[gnu::noinline]] void makeDate() {
        double at = 0;
        switch (PLDateFromISO8601(trim(leafText()), &at)) {
            case PLDateTextStatus::OK: return push(_factory->date(at));
            case PLDateTextStatus::Malformed: return invalidLeaf("invalid date ", " (expected YYYY-MM-DDTHH:MM:SSZ)");
            case PLDateTextStatus::OutOfRange: return invalidLeaf("invalid date ", " (a field is out of range)");
        }
    }

    // The symbols are first moved together in place over the white space
    // (eight at a time where a word holds none), then decoded in place.
    [[gnu::noinline]] void makeData() {
        ownText();  // decoded in place
        auto* const c = reinterpret_cast<unsigned char*>(_textBuffer.get());
        const std::size_t size = _textSize;
        std::size_t n = 0;
        std::size_t i = 0;
        if constexpr (std::endian::native == std::endian::little) {
            for (; i + 8 <= size; i += 8) {
                std::uint64_t w;
                std::memcpy(&w, c + i, 8);
                // No byte below '!' (white space is, the symbols are not).
                if (((w - 0x2121212121212121) & ~w & 0x8080808080808080) == 0) {
                    std::memcpy(c + n, &w, 8);
                    n += 8;
                    continue;
                }
                for (std::size_t j = i; j < i + 8; ++j) {
                    c[n] = c[j];
                    n += !isXMLSpace(static_cast<char>(c[j]));
                }
            }
        }
        for (; i < size; ++i) {
            c[n] = c[i];
            n += !isXMLSpace(static_cast<char>(c[i]));
        }
        // Up to two pads may end the text; any other '=' is invalid.
        const bool lastIsPad = n >= 1 && c[n - 1] == '=';
        const std::size_t pads = lastIsPad + (lastIsPad && n >= 2 && c[n - 2] == '=');
        const std::size_t symbols = n - pads;
        switch (PLBase64Decode(reinterpret_cast<const char*>(c), symbols, c)) {
            case PLBase64Status::OK: break;
            case PLBase64Status::InvalidSymbol: return fail("invalid base64 data in <data>");
            case PLBase64Status::Truncated: return fail("invalid base64 data in <data> (truncated)");
        }
        const std::uint8_t* const bytes = c;
        const std::size_t length = symbols * 3 / 4;
        if (_mutableLeaves) return push(PLMutableData::create(bytes, length));
        push(_factory->data(bytes, length));
    }

    XML_Parser const _parser;
    const unsigned long _hashSalt;
    PLObjectFactory* _factory = nullptr;  // of the document being read
    bool _mutableContainers = false;
    bool _mutableLeaves = false;
    std::vector<Frame> _frames;
    std::vector<PLHolder<const PLObject>> _values;
    // hash() of each key on the operand stack, in order.
    std::vector<std::size_t> _keyHashes;
    // Character data of the current leaf: _textSize bytes at _text, which is
    // either _textBuffer or borrowed from expat's input, [_inputBegin,
    // _inputEnd) while a call to XML_Parse lasts (both zero until known).
    // The buffer is always allocated.
    std::unique_ptr<char[]> _textBuffer;
    const char* _text = nullptr;
    std::size_t _textSize = 0;
    std::uintptr_t _inputBegin = 0;
    std::uintptr_t _inputEnd = 0;
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

PLHolder<const PLObject> readXML(const void* bytes, std::size_t size, PLMutability mutability, std::string* error,
                                 std::size_t piece) {
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
    PLHolder<const PLObject> result = reader->parse(static_cast<const char*>(bytes), size, piece, mutability, error);
    if (!tCacheGone) cache.reader = std::move(reader);
    return result;
}

}  // namespace plimpl
