#include "LogRecord.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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

void appendTimeFields(std::string& out) {
    const CTimeStamp now(-1.0);
    out += "tms=\"";
    appendFixed3(out, now.seconds());
    out += "\" tmt=\"";
    out += now.text();
    out += '"';
}

void appendRecordHead(std::string& out, unsigned level) {
    out += "<log ";
    appendTimeFields(out);
    out += " pid=\"";
    appendUnsigned(out, static_cast<std::uint32_t>(platform::host().processID()));
    if (level != 3) {
        out += "\" lvl=\"";
        appendUnsigned(out, level);
    }
    out += "\" msg=\"";
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

}  // namespace

namespace {

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

}  // namespace

bool isPlainAttributeText(std::string_view message) noexcept {
    std::size_t i = 0;
    const std::size_t size = message.size();
    while (i < size) {
        if (i + 8 <= size) {
            std::uint64_t word;
            std::memcpy(&word, message.data() + i, sizeof word);
            if (!needsCloserLook(word)) {
                i += 8;
                continue;
            }
        }
        const unsigned char c = static_cast<unsigned char>(message[i]);
        if (c < 0x80) {
            if (kPlain.plain[c]) {
                ++i;
                continue;
            }
            if (c != '&') return false;
            const std::size_t length = referenceLength(message.substr(i));
            if (length == 0) return false;
            i += length;
        } else {
            char32_t cp;
            const std::size_t length = ferrocore::utf8::sequenceLength(message, i, cp);
            if (length == 0 || !ferrocore::utf8::isXMLCharacter(cp)) return false;
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
