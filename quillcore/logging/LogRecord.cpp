#include "LogRecord.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <ferrocore/CXMLService.h>
#include <ferrocore/Format.h>
#include <ferrocore/Utf8.h>
#include <quillcore/platform/Host.h>
#include <quillcore/util/CTimeStamp.h>

namespace quill::logrecord {

namespace {

void appendUnsigned(std::string& out, unsigned long long value) {
    char digits[24];
    const std::to_chars_result result = std::to_chars(digits, digits + sizeof digits, value);
    out.append(digits, static_cast<std::size_t>(result.ptr - digits));
}

}  // namespace

void appendTimeFields(std::string& out, double seconds) {
    const CTimeStamp stamp(seconds);
    out += "tms=\"";
    appendFixed3(out, stamp.seconds());
    out += "\" tmt=\"";
    out += stamp.text();
    out += '"';
}

namespace {

// The head of this thread's records in the current whole second:
// `<log tms="S.mmm" tmt="T.mmm" pid="P" msg="` (other levels than 3 put their
// `lvl` before `msg`). Within one second only the two millisecond fields
// change. Only for the real host: substitute hosts are asked every time, as
// by CTimeStamp.
//
// For the real clock both texts are a whole second's text with the
// milliseconds of the fraction put in: the time is whole + fraction exactly,
// and the time text's seconds, seconds-of-minute + fraction, are exact too
// when the time is at least 2^24 (its fraction has no bits below 2^-28), so
// both round their fraction to the same milliseconds. A fraction that rounds
// up to the next second takes the general path.
struct HeadCache {
    static constexpr std::size_t kCapacity = 120;
    std::int64_t second = -1;
    const char* timeZone = nullptr;
    std::int32_t processID = 0;
    char text[kCapacity] = {};
    std::size_t length = 0;       // up to and including `msg="`
    std::size_t levelOffset = 0;  // where ` lvl="N"` goes for levels other than 3
    std::size_t secondsMillis = 0;
    std::size_t textMillis = 0;
};
thread_local HeadCache tHead __attribute__((tls_model("initial-exec")));

// Times of the fast path: from 2^24, for the exactness above, to 2^31 (the
// year 2069), below which a time in milliseconds, under 2^41, is off by at
// most 2^-13 ms once multiplied out.
constexpr double kFastTimes = 16777216.0;
constexpr double kLastFastTime = 2147483648.0;

// The time in whole milliseconds as "%.3lf" rounds it, or -1 when it lies too
// close to a half millisecond to tell without exact arithmetic.
std::int64_t roundedMillis(double seconds) noexcept {
    const double scaled = seconds * 1000.0;
    const auto whole = static_cast<std::int64_t>(scaled);
    const double rest = scaled - static_cast<double>(whole);
    if (std::fabs(rest - 0.5) <= 1.0e-3) return -1;
    return whole + (rest > 0.5 ? 1 : 0);
}

// Builds the cache for `second` from a time stamp of it, which gives ".000"
// for both fields; false when it does not (the general path is taken).
bool fillHead(HeadCache& cache, std::int64_t second, const char* timeZone, std::int32_t processID) {
    std::string head = "<log ";
    const std::size_t secondsStart = head.size() + 5;  // after `tms="`
    appendTimeFields(head, static_cast<double>(second));
    const std::size_t secondsEnd = head.find('"', secondsStart);
    const std::size_t textEnd = head.size() - 1;
    if (head.compare(secondsEnd - 4, 4, ".000") != 0 || head.compare(textEnd - 4, 4, ".000") != 0) return false;
    head += " pid=\"";
    appendUnsigned(head, static_cast<std::uint32_t>(processID));
    const std::size_t levelOffset = head.size();
    head += "\" msg=\"";
    if (head.size() > HeadCache::kCapacity) return false;
    std::memcpy(cache.text, head.data(), head.size());
    cache.length = head.size();
    cache.levelOffset = levelOffset;
    cache.secondsMillis = secondsEnd - 3;
    cache.textMillis = textEnd - 3;
    cache.second = second;
    cache.timeZone = timeZone;
    cache.processID = processID;
    return true;
}

void appendLevelAndMessageStart(std::string& out, unsigned level) {
    if (level != 3) {
        out += "\" lvl=\"";
        appendUnsigned(out, level);
    }
    out += "\" msg=\"";
}

}  // namespace

void appendRecordHead(std::string& out, unsigned level, double seconds) {
    platform::IHost& host = platform::host();
    if (&host == &platform::defaultHost()) {
        if (seconds < 0.0) seconds = host.currentTime();
        if (seconds >= kFastTimes && seconds < kLastFastTime) {
            const auto whole = static_cast<std::int64_t>(seconds);
            const std::int64_t rounded = roundedMillis(seconds);
            // 1000 when the fraction rounds up into the next second.
            const std::int64_t millis = rounded - whole * 1000;
            const char* timeZone = std::getenv("TZ");
            const std::int32_t processID = host.processID();
            HeadCache& cache = tHead;
            if (rounded >= 0 && millis < 1000 &&
                ((cache.second == whole && cache.timeZone == timeZone && cache.processID == processID) ||
                 fillHead(cache, whole, timeZone, processID))) {
                // The milliseconds go into the copy, not the cache, which is
                // thus only ever read while its second lasts.
                const std::size_t start = out.size();
                if (level == 3) {
                    out.append(cache.text, cache.length);
                } else {
                    out.append(cache.text, cache.levelOffset);
                    appendLevelAndMessageStart(out, level);
                }
                const char digits[3] = {static_cast<char>('0' + millis / 100),
                                        static_cast<char>('0' + millis / 10 % 10),
                                        static_cast<char>('0' + millis % 10)};
                std::memcpy(out.data() + start + cache.secondsMillis, digits, 3);
                std::memcpy(out.data() + start + cache.textMillis, digits, 3);
                return;
            }
        }
    }
    out += "<log ";
    appendTimeFields(out, seconds);
    out += " pid=\"";
    appendUnsigned(out, static_cast<std::uint32_t>(host.processID()));
    appendLevelAndMessageStart(out, level);
}

std::string fileHeader() {
    std::string processName = platform::host().processName();
    if (processName.empty()) processName = "unknown";
    const ferrocore::CStringRef safeName = ferrocore::CString::create(processName)->xmlAttributeSafeCopy();
    std::string header = "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n<logs ";
    appendTimeFields(header);
    header += " pnm=\"";
    header += safeName->utf8();
    header += "\">\n";
    return header;
}

std::string sessionMark(bool begin) {
    std::string mark = "<mrk ";
    appendTimeFields(mark);
    mark += " pid=\"";
    appendUnsigned(mark, static_cast<std::uint32_t>(platform::host().processID()));
    mark += begin ? "\" kind=\"begin\" what=\"log-session\"/>\n" : "\" kind=\"end\" what=\"log-session\"/>\n";
    return mark;
}

namespace {

// The length of a valid reference at the start of `text` (which begins with
// "&"), or 0.
std::size_t referenceLength(std::string_view text) noexcept {
    static constexpr std::string_view kNamed[] = {"&amp;", "&lt;", "&gt;", "&quot;", "&apos;"};
    for (std::string_view named : kNamed)
        if (text.starts_with(named)) return named.size();
    if (text.size() < 4 || text[1] != '#') return 0;
    const bool hex = text[2] == 'x';
    std::size_t i = hex ? 3 : 2;
    const std::size_t digitsStart = i;
    std::uint32_t value = 0;
    for (; i < text.size() && text[i] != ';'; ++i) {
        const char c = text[i];
        unsigned digit;
        if (c >= '0' && c <= '9')
            digit = static_cast<unsigned>(c - '0');
        else if (hex && c >= 'a' && c <= 'f')
            digit = static_cast<unsigned>(c - 'a' + 10);
        else if (hex && c >= 'A' && c <= 'F')
            digit = static_cast<unsigned>(c - 'A' + 10);
        else
            return 0;
        value = value * (hex ? 16 : 10) + digit;
        if (value > 0x10FFFF) return 0;
    }
    if (i == digitsStart || i == text.size() || !ferrocore::utf8::isXMLCharacter(value)) return 0;
    return i + 1;
}

// Which ASCII bytes may stand in an attribute value as they are.
struct PlainTable {
    bool plain[128] = {};
    constexpr PlainTable() {
        for (int c = 0x20; c < 0x80; ++c) plain[c] = c != '"' && c != '<' && c != '&';
        plain[0x09] = plain[0x0A] = plain[0x0D] = true;  // tab, line feed, carriage return
    }
};
constexpr PlainTable kPlain;

// Whether any of the eight bytes of `word` needs a closer look: not ASCII, a
// control character, or one of " < &.
constexpr std::uint64_t kOnes = 0x0101010101010101ull;
constexpr std::uint64_t kHighs = 0x8080808080808080ull;
inline std::uint64_t zeroBytes(std::uint64_t word) noexcept { return (word - kOnes) & ~word & kHighs; }
inline bool needsCloserLook(std::uint64_t word) noexcept {
    if (word & kHighs) return true;
    // For ASCII bytes, (b - 0x20) borrows exactly when b < 0x20.
    const std::uint64_t controls = (word - 0x20 * kOnes) & ~word & kHighs;
    return (controls | zeroBytes(word ^ ('"' * kOnes)) | zeroBytes(word ^ ('<' * kOnes)) |
            zeroBytes(word ^ ('&' * kOnes))) != 0;
}

// The same for sixteen bytes at once, in a vector register: a byte of -1
// for each byte to look at. As signed bytes, those of 0x80 and above are
// negative and so below 0x20 like the control characters; " and & are the
// two bytes that give 0x26 with bit 2 set.
#if defined(__SSE2__)
using Bytes16 = __m128i;
inline Bytes16 flaggedBytes(const char* block) noexcept {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(block));
    const __m128i controls = _mm_cmplt_epi8(bytes, _mm_set1_epi8(0x20));
    const __m128i quoteOrAmpersand = _mm_cmpeq_epi8(_mm_or_si128(bytes, _mm_set1_epi8(0x04)), _mm_set1_epi8(0x26));
    const __m128i less = _mm_cmpeq_epi8(bytes, _mm_set1_epi8('<'));
    return _mm_or_si128(_mm_or_si128(controls, quoteOrAmpersand), less);
}
inline bool anyFlagged(Bytes16 flagged) noexcept { return _mm_movemask_epi8(flagged) != 0; }
#else
using Bytes16 = signed char __attribute__((vector_size(16)));
inline Bytes16 flaggedBytes(const char* block) noexcept {
    Bytes16 bytes;
    std::memcpy(&bytes, block, sizeof bytes);
    return (bytes < 0x20) | ((bytes | 0x04) == 0x26) | (bytes == '<');
}
inline bool anyFlagged(Bytes16 flagged) noexcept {
    std::uint64_t halves[2];
    std::memcpy(halves, &flagged, sizeof halves);
    return (halves[0] | halves[1]) != 0;
}
#endif

// The length of the character at `i` when it may stand in the attribute as
// it is (a reference counts as one character), else 0.
std::size_t plainCharacterLength(std::string_view message, std::size_t i) noexcept {
    const unsigned char c = static_cast<unsigned char>(message[i]);
    if (c < 0x80) {
        if (kPlain.plain[c]) return 1;
        return c == '&' ? referenceLength(message.substr(i)) : 0;
    }
    char32_t cp;
    const std::size_t length = ferrocore::utf8::sequenceLength(message, i, cp);
    return length != 0 && ferrocore::utf8::isXMLCharacter(cp) ? length : 0;
}

}  // namespace

bool isPlainAttributeText(std::string_view message) noexcept {
    const char* const data = message.data();
    const std::size_t size = message.size();
    if (size >= 16) {
        // Most messages are plain ASCII from end to end: one look at every
        // block (the last one overlapping the others) tells.
        Bytes16 flagged = flaggedBytes(data + size - 16);
        for (std::size_t block = 0; block + 16 <= size; block += 16) flagged = flagged | flaggedBytes(data + block);
        if (!anyFlagged(flagged)) return true;
    }
    std::size_t i = 0;
    while (i < size) {
        // Skip what is certainly plain, a block or a word at a time; look at
        // the rest character by character up to `end`.
        std::size_t end = size;
        if (i + 16 <= size) {
            if (!anyFlagged(flaggedBytes(data + i))) {
                i += 16;
                continue;
            }
            end = i + 16;
        } else if (size >= 16) {
            // The last block, overlapping bytes already accepted.
            if (!anyFlagged(flaggedBytes(data + size - 16))) return true;
        } else if (i + 8 <= size) {
            std::uint64_t word;
            std::memcpy(&word, data + i, sizeof word);
            if (!needsCloserLook(word)) {
                i += 8;
                continue;
            }
            end = i + 8;
        }
        while (i < end) {
            const std::size_t length = plainCharacterLength(message, i);
            if (length == 0) return false;
            i += length;
        }
    }
    return true;
}

std::string percentEscaped(std::string_view message) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string escaped;
    escaped.reserve(message.size() + message.size() / 2);
    for (const char ch : message) {
        const unsigned char c = static_cast<unsigned char>(ch);
        if (c < 0x20 || c >= 0x7F || c == '<' || c == '>' || c == '"' || c == '&') {
            escaped += '%';
            escaped += kHex[c >> 4];
            escaped += kHex[c & 0x0F];
        } else {
            escaped += ch;
        }
    }
    return escaped;
}

namespace {

// Whether `message` parses as the value of "msg" in an element with the
// attributes of a real record head, so that it can add no duplicate of them.
bool parsesInRecord(std::string_view message, unsigned level) {
    std::string element =
        level == 3 ? "<log tms=\"\" tmt=\"\" pid=\"\" msg=\"" : "<log tms=\"\" tmt=\"\" pid=\"\" lvl=\"\" msg=\"";
    element += message;
    element += "\"/>";
    return ferrocore::CXMLService::isWellFormed(element);
}

}  // namespace

bool escapeMessage(std::string_view message, unsigned level, std::string& out) noexcept {
    if (message.empty() || isPlainAttributeText(message)) return false;
    try {
        if (parsesInRecord(message, level)) return false;
        std::string escaped = percentEscaped(message);
        if (isPlainAttributeText(escaped) || parsesInRecord(escaped, level)) {
            out = std::move(escaped);
            return true;
        }
    } catch (...) {
        // fall through to the attribute-safe copy
    }
    try {
        out = ferrocore::CString::create(message)->xmlAttributeSafeCopy()->utf8();
    } catch (...) {
        out.clear();
    }
    return true;
}

}  // namespace quill::logrecord
