// XML escaping shared by the string and XML code of the base library.
#pragma once

#include <string>
#include <string_view>

#include <ferrocore/Utf8.h>

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
                case '&': out += "&amp;"; continue;
                case '<': out += "&lt;"; continue;
                case '>': out += "&gt;"; continue;
                case '\r': out += "&#13;"; continue;
                default: break;
            }
            if (attribute) {
                switch (c) {
                    case '"': out += "&quot;"; continue;
                    case '\'': out += "&apos;"; continue;
                    case '\t': out += "&#9;"; continue;
                    case '\n': out += "&#10;"; continue;
                    case 0x7F: out += "&#127;"; continue;
                    default: break;
                }
            }
            if (c < 0x20 && c != '\t' && c != '\n')
                utf8::append(out, utf8::kReplacementCharacter);
            else
                out += static_cast<char>(c);
            continue;
        }
        char32_t cp;
        const std::size_t length = utf8::sequenceLength(text, pos, cp);
        if (length != 0 && utf8::isXMLCharacter(cp))
            out.append(text.substr(pos, length));
        else
            utf8::append(out, utf8::kReplacementCharacter);
        // A malformed byte is replaced on its own, a character XML cannot
        // carry as a whole.
        pos += length != 0 ? length : 1;
    }
}

}  // namespace ferrocore::xmltext
