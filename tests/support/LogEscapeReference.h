// The obvious, slow way to escape a log message, step by step as the log
// format describes it, for checking the logger's fast paths against: the
// tests and the log escaping fuzz target both use it.
#pragma once

#include <cctype>
#include <string>
#include <string_view>

#include <ferrocore/CString.h>
#include <ferrocore/CXMLService.h>

namespace quilltest {

// The element a record of `level` would be, around `message`.
inline std::string recordElement(std::string_view message, unsigned level) {
    std::string element = "<log tms=\"1.000\" tmt=\"t\" pid=\"1\"";
    if (level != 3) element += " lvl=\"" + std::to_string(level) + "\"";
    element += " msg=\"";
    element += message;
    element += "\"/>";
    return element;
}

// URL percent-escaping: what a URL may hold stays (letters, digits, the
// marks "-_.!~*'()", the reserved ";/?:@=+$," and "#%"), and so does what
// the log leaves alone anyway (" [ ] \ ^ ` { } |"); "<", ">", "\"" and "&"
// are escaped, and so is every other byte.
inline std::string referencePercentEscape(std::string_view message) {
    static constexpr std::string_view kKept = "-_.!~*'();/?:@=+$,#% []\\^`{}|";
    std::string out;
    for (unsigned char c : message) {
        const bool kept = c < 0x80 && (std::isalnum(c) || kKept.find(static_cast<char>(c)) != std::string_view::npos);
        if (kept) {
            out += static_cast<char>(c);
        } else {
            static constexpr char kHex[] = "0123456789ABCDEF";
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    return out;
}

// The message unchanged when it parses in its record, else percent-escaped
// when that parses, else its attribute-safe copy.
inline std::string referenceEscape(std::string_view message, unsigned level) {
    if (message.empty() || ferrocore::CXMLService::isWellFormed(recordElement(message, level)))
        return std::string(message);
    std::string escaped = referencePercentEscape(message);
    if (ferrocore::CXMLService::isWellFormed(recordElement(escaped, level))) return escaped;
    return ferrocore::CString::create(message)->xmlAttributeSafeCopy()->utf8();
}

}  // namespace quilltest
