#include <utility>

#include "ferrocore/XMLText.h"
#include <ferrocore/CException.h>
#include <ferrocore/CString.h>

namespace ferrocore {

namespace {

// Byte offset of the character index `index`, or npos when the text has fewer
// characters.
std::size_t byteOffsetOfCharacter(std::string_view text, std::size_t index) noexcept {
    std::size_t pos = 0;
    for (std::size_t i = 0; i < index; ++i) {
        if (pos >= text.size()) return std::string_view::npos;
        utf8::decode(text, pos);
    }
    return pos;
}

std::size_t characterCount(std::string_view text) noexcept {
    std::size_t count = 0;
    for (std::size_t pos = 0; pos < text.size(); ++count) utf8::decode(text, pos);
    return count;
}

std::string xmlAttributeSafe(std::string_view text) {
    std::string out;
    out.reserve(text.size() + text.size() / 8);
    xmltext::appendEscaped(out, text, true);
    return out;
}

}  // namespace

CString::CString(std::string_view utf8) : _text(utf8) {}

CString::CString(std::string&& utf8) noexcept : _text(std::move(utf8)) {}

CString::CString(const CString& source, eStringOptions options) {
    switch (options) {
        case kStringOptionNone: _text = source._text; return;
        case kStringOptionXMLAttributeSafe: _text = xmlAttributeSafe(source._text); return;
    }
    throw CParamException(formatString("CString: unsupported string option %d", static_cast<int>(options)));
}

CString::~CString() = default;

CStringRef CString::create(std::string_view utf8) { return makeShared<CString>(utf8); }

CStringRef CString::create(const char* utf8) {
    return utf8 ? makeShared<CString>(std::string_view(utf8)) : CStringRef();
}

CStringRef CString::create(std::string&& utf8) { return makeShared<CString>(std::move(utf8)); }

CStringRef CString::fromInt(long long value) { return create(std::to_string(value)); }

std::size_t CString::length() const noexcept { return characterCount(_text); }

char32_t CString::characterAtIndex(std::size_t index) const {
    std::size_t pos = byteOffsetOfCharacter(_text, index);
    if (pos == std::string_view::npos || pos >= _text.size())
        throw CParamException(
            formatString("CString::characterAtIndex: index %zu out of range (length %zu)", index, length()));
    return utf8::decode(_text, pos);
}

bool CString::beginsWith(std::string_view prefix) const noexcept { return _text.starts_with(prefix); }

bool CString::endsWith(std::string_view suffix) const noexcept { return _text.ends_with(suffix); }

std::size_t CString::find(std::string_view needle, std::size_t from) const noexcept {
    const std::size_t start = byteOffsetOfCharacter(_text, from);
    if (start == std::string_view::npos) return npos;
    const std::size_t at = _text.find(needle, start);
    if (at == std::string::npos) return npos;
    return from + characterCount(std::string_view(_text).substr(start, at - start));
}

void CString::append(std::string_view utf8) { _text.append(utf8); }

CStringRef CString::shellEscapedFilename() const {
    if (_text.find('\0') != std::string::npos)
        throw CParamException("CString::shellEscapedFilename: file name contains a NUL character");
    std::string out;
    out.reserve(_text.size() + 4);
    out += '\'';
    if (_text.starts_with('-')) out += "./";
    for (char c : _text) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    out += '\'';
    return create(std::move(out));
}

CStringRef CString::xmlAttributeSafeCopy() const { return create(xmlAttributeSafe(_text)); }

bool stringsEqual(const CStringRef& a, const CStringRef& b) noexcept {
    if (!a || !b) return !a && !b;
    return *a == *b;
}

CStringRef nullToEmptyString(const CStringRef& string) { return string ? string : CString::create(std::string_view()); }

CStringRef emptyToNullString(const CStringRef& string) { return string && string->empty() ? CStringRef() : string; }

}  // namespace ferrocore
