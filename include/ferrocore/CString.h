// Text as a shared object: CString holds UTF-8 text, CStringRef a reference
// to one.
//
// Null and empty are different things: an empty CStringRef means "no string",
// a CString of length 0 is a string with no characters. nullToEmptyString()
// and emptyToNullString() convert between the two where a caller wants one
// meaning.
//
// Text is kept as the bytes given (normally UTF-8). Lengths, indexes and
// positions are counted in characters, that is Unicode code points of the
// UTF-8 text, not in bytes: "Grüße" has length 5 and 7 bytes. A malformed
// UTF-8 sequence counts one character (U+FFFD) per byte.
//
// Threads: a CString may be read from any number of threads at once. append()
// changes the string in place for every holder; it needs exclusive access and
// must not run while another thread reads the same string.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <ferrocore/CSharedObject.h>
#include <ferrocore/Format.h>
#include <ferrocore/export.h>

namespace ferrocore {

class CString;
using CStringRef = CSharedObjectRef<CString>;

// Conversions of a whole string (see CString(const CString&, eStringOptions)).
enum eStringOptions : int {
    // A plain copy.
    kStringOptionNone = 0,
    // Option 3: a copy that may stand between the double quotes of an XML
    // attribute (see xmlAttributeSafeCopy()).
    kStringOptionXMLAttributeSafe = 3,
};

class FERROCORE_EXPORT CString final : public CSharedObject {
public:
    // A string holding the given bytes.
    explicit CString(std::string_view utf8 = {});
    explicit CString(std::string&& utf8) noexcept;
    // A null pointer gives the empty string here (unlike create()).
    explicit CString(const char* utf8) : _text(utf8 ? utf8 : "") {}
    // A converted copy of `source`. Throws CParamException ("CString: unsupported
    // string option %d") for a value that is not one of eStringOptions.
    CString(const CString& source, eStringOptions options);

    // New strings. create(const char*) yields a null reference for a null
    // pointer.
    static CStringRef create(std::string_view utf8);
    static CStringRef create(const char* utf8);
    static CStringRef create(std::string&& utf8);
    // The decimal text of `value` ("-42").
    static CStringRef fromInt(long long value);
    // formatString() (ferrocore/Format.h) as a new string: printf conversions,
    // "%@" for a string object (a null CStringRef prints "(null)").
    template <class... Args>
    static CStringRef sprintf(std::string_view format, const Args&... args) {
        return create(formatString(format, args...));
    }

    // The bytes, always followed by a NUL in c_str().
    const std::string& utf8() const noexcept { return _text; }
    const char* c_str() const noexcept { return _text.c_str(); }
    std::size_t byteLength() const noexcept { return _text.size(); }
    bool empty() const noexcept { return _text.empty(); }

    // The bytes to hand to system calls for this path. On Linux file names are
    // byte strings and ours are UTF-8, so this is the UTF-8 text itself.
    std::string fileSystemRepresentation() const { return _text; }

    // Number of characters (code points).
    std::size_t length() const noexcept;
    // The character at a character index. Throws CParamException ("CString::
    // characterAtIndex: index %zu out of range (length %zu)") when index >=
    // length().
    char32_t characterAtIndex(std::size_t index) const;

    bool beginsWith(std::string_view prefix) const noexcept;
    bool endsWith(std::string_view suffix) const noexcept;
    // Character index of the first occurrence of `needle` at or after the
    // character index `from`, or npos. An empty needle is found at `from` (when
    // from <= length()).
    static constexpr std::size_t npos = static_cast<std::size_t>(-1);
    std::size_t find(std::string_view needle, std::size_t from = 0) const noexcept;

    // Appends in place (see Threads above).
    void append(std::string_view utf8);
    void append(const CString& other) { append(std::string_view(other._text)); }

    // The text as one word for /bin/sh: enclosed in single quotes, each single
    // quote inside written as '\'' (close, escaped quote, reopen). Inside single
    // quotes the shell takes every byte literally (spaces, double quotes, $, `,
    // \, *, newlines, ...), so the shell hands the command exactly this text.
    // A name beginning with "-" gets "./" in front so that no command takes it
    // for an option; it still names the same file. The empty text becomes ''.
    // Throws CParamException ("CString::shellEscapedFilename: file name contains
    // a NUL character") for text with a NUL byte, which no command can receive.
    CStringRef shellEscapedFilename() const;

    // String option 3: a copy that can stand inside a double-quoted XML
    // attribute value and reads back as this text. & < > " ' become &amp; &lt;
    // &gt; &quot; &apos;; tab, line feed and carriage return become &#9; &#10;
    // &#13; (so attribute-value normalisation keeps them); DEL becomes &#127;.
    // Characters that XML cannot carry at all (other C0 controls, U+FFFE,
    // U+FFFF) and malformed UTF-8 bytes each become U+FFFD.
    CStringRef xmlAttributeSafeCopy() const;

    friend bool operator==(const CString& a, const CString& b) noexcept { return a._text == b._text; }
    friend bool operator==(const CString& a, std::string_view b) noexcept { return a._text == b; }

private:
    ~CString() override;

    std::string _text;
};

// Value equality of two possibly null strings: equal when both are null or
// both hold the same text.
FERROCORE_EXPORT bool stringsEqual(const CStringRef& a, const CStringRef& b) noexcept;
// `string`, or a new empty string when it is null.
FERROCORE_EXPORT CStringRef nullToEmptyString(const CStringRef& string);
// `string`, or null when it is empty.
FERROCORE_EXPORT CStringRef emptyToNullString(const CStringRef& string);

// For "%@": the text itself.
inline std::string ferrocoreDescription(const CString& string) { return string.utf8(); }

}  // namespace ferrocore
