// UTF-8 decoding and encoding, strict: overlong forms, surrogates and values
// above U+10FFFF are malformed. Header-only; every layer uses these so that
// all of them agree on what well-formed UTF-8 is.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ferrocore::utf8 {

inline constexpr char32_t kReplacementCharacter = 0xFFFD;

// The length of the well-formed sequence that starts at text[pos], with its
// code point in `cp`; 0 when the bytes there are malformed. Requires
// pos < text.size().
inline std::size_t sequenceLength(std::string_view text, std::size_t pos, char32_t& cp) noexcept {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(pos);
    if (lead < 0x80) {
        cp = lead;
        return 1;
    }
    std::size_t extra;
    char32_t value;
    char32_t minimum;
    if (lead >= 0xC2 && lead <= 0xDF) {
        extra = 1;
        value = lead & 0x1F;
        minimum = 0x80;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        extra = 2;
        value = lead & 0x0F;
        minimum = 0x800;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        extra = 3;
        value = lead & 0x07;
        minimum = 0x10000;
    } else {
        return 0;
    }
    if (pos + extra >= text.size()) return 0;
    for (std::size_t i = 1; i <= extra; ++i) {
        const unsigned char b = byte(pos + i);
        if ((b & 0xC0) != 0x80) return 0;
        value = (value << 6) | (b & 0x3F);
    }
    if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return 0;
    cp = value;
    return extra + 1;
}

// Decodes the character that starts at text[pos] and moves pos past it. A
// malformed sequence yields U+FFFD and consumes exactly one byte, so every
// byte of a malformed sequence counts as one character. Requires
// pos < text.size().
inline char32_t decode(std::string_view text, std::size_t& pos) noexcept {
    char32_t cp;
    const std::size_t length = sequenceLength(text, pos, cp);
    if (length == 0) {
        ++pos;
        return kReplacementCharacter;
    }
    pos += length;
    return cp;
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
