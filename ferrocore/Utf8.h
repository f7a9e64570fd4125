// UTF-8 decoding shared by the string and XML code of the base library.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ferrocore::utf8 {

inline constexpr char32_t kReplacementCharacter = 0xFFFD;

// Decodes the character that starts at text[pos] and moves pos past it. A
// malformed sequence (bad lead byte, missing or extra continuation bytes,
// overlong form, surrogate, value above U+10FFFF) yields U+FFFD and consumes
// exactly one byte, so every byte of a malformed sequence counts as one
// character. Requires pos < text.size().
inline char32_t decode(std::string_view text, std::size_t& pos) noexcept {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(pos);
    if (lead < 0x80) {
        ++pos;
        return lead;
    }
    std::size_t extra;
    char32_t cp;
    char32_t minimum;
    if (lead >= 0xC2 && lead <= 0xDF) {
        extra = 1;
        cp = lead & 0x1F;
        minimum = 0x80;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        extra = 2;
        cp = lead & 0x0F;
        minimum = 0x800;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        extra = 3;
        cp = lead & 0x07;
        minimum = 0x10000;
    } else {
        ++pos;
        return kReplacementCharacter;
    }
    if (pos + extra >= text.size()) {
        ++pos;
        return kReplacementCharacter;
    }
    for (std::size_t i = 1; i <= extra; ++i) {
        const unsigned char b = byte(pos + i);
        if ((b & 0xC0) != 0x80) {
            ++pos;
            return kReplacementCharacter;
        }
        cp = (cp << 6) | (b & 0x3F);
    }
    if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        ++pos;
        return kReplacementCharacter;
    }
    pos += extra + 1;
    return cp;
}

// Whether decode() at pos would consume a well-formed sequence (as opposed to
// returning U+FFFD for a malformed one; an encoded U+FFFD is well-formed).
inline bool wellFormedAt(std::string_view text, std::size_t pos) noexcept {
    std::size_t p = pos;
    const char32_t cp = decode(text, p);
    return cp != kReplacementCharacter || p - pos == 3;
}

// Appends the UTF-8 form of a code point; invalid ones become U+FFFD.
inline void append(std::string& out, char32_t cp) {
    if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) cp = kReplacementCharacter;
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

// Whether XML 1.0 allows the character in a document at all (as text or as a
// character reference).
inline bool isXMLCharacter(char32_t cp) noexcept {
    return cp == 0x9 || cp == 0xA || cp == 0xD || (cp >= 0x20 && cp <= 0xD7FF) || (cp >= 0xE000 && cp <= 0xFFFD) ||
           (cp >= 0x10000 && cp <= 0x10FFFF);
}

}  // namespace ferrocore::utf8

namespace ferrocore::xmltext {

// Appends `text` escaped for XML. For an attribute value (between double or
// single quotes) & < > " ' become entity references and tab, line feed,
// carriage return and DEL character references, so the parser hands back
// exactly this text. For character content & < > and carriage return are
// escaped. In both, characters XML cannot carry (other C0 controls, U+FFFE,
// U+FFFF) and malformed UTF-8 bytes become U+FFFD.
inline void appendEscaped(std::string& out, std::string_view text, bool attribute) {
    std::size_t pos = 0;
    while (pos < text.size()) {
        const unsigned char c = static_cast<unsigned char>(text[pos]);
        if (c < 0x80) {
            ++pos;
            switch (c) {
            case '&':
                out += "&amp;";
                continue;
            case '<':
                out += "&lt;";
                continue;
            case '>':
                out += "&gt;";
                continue;
            case '\r':
                out += "&#13;";
                continue;
            default:
                break;
            }
            if (attribute) {
                switch (c) {
                case '"':
                    out += "&quot;";
                    continue;
                case '\'':
                    out += "&apos;";
                    continue;
                case '\t':
                    out += "&#9;";
                    continue;
                case '\n':
                    out += "&#10;";
                    continue;
                case 0x7F:
                    out += "&#127;";
                    continue;
                default:
                    break;
                }
            }
            if (c < 0x20 && c != '\t' && c != '\n')
                utf8::append(out, utf8::kReplacementCharacter);
            else
                out += static_cast<char>(c);
            continue;
        }
        const std::size_t start = pos;
        const bool wellFormed = utf8::wellFormedAt(text, pos);
        const char32_t cp = utf8::decode(text, pos);
        if (wellFormed && utf8::isXMLCharacter(cp))
            out.append(text.substr(start, pos - start));
        else
            utf8::append(out, utf8::kReplacementCharacter);
    }
}

}  // namespace ferrocore::xmltext
