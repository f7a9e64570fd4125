#include <cstdint>
#include <cstdio>
#include <string>

#include <ferrocore/Format.h>
#include <ferrocore/Utf8.h>

namespace ferrocore {

namespace {

// One parsed printf conversion.
struct Conversion {
    std::string flags;
    int width = -1;  // -1: none
    int precision = -1;
    std::string length;  // "", "hh", "h", "l", "ll", "j", "z", "t", "L", "q", "Z"
    char conversion = 0;
};

// Appends snprintf(conversion, value...) to out.
template <class... V>
void appendPrintf(std::string& out, const std::string& conversion, V... values) {
    char small[128];
    int n = std::snprintf(small, sizeof(small), conversion.c_str(), values...);
    if (n < 0) return;
    if (static_cast<std::size_t>(n) < sizeof(small)) {
        out.append(small, static_cast<std::size_t>(n));
        return;
    }
    std::size_t at = out.size();
    out.resize(at + static_cast<std::size_t>(n) + 1);
    std::snprintf(out.data() + at, static_cast<std::size_t>(n) + 1, conversion.c_str(), values...);
    out.resize(at + static_cast<std::size_t>(n));
}

// "%" + flags + width + precision, without length and conversion.
std::string conversionPrefix(const Conversion& conversion, bool dropSignFlags = false) {
    std::string s = "%";
    for (char f : conversion.flags) {
        if (dropSignFlags && (f == '+' || f == ' ')) continue;
        s += f;
    }
    if (conversion.width >= 0) s += std::to_string(conversion.width);
    if (conversion.precision >= 0) {
        s += '.';
        s += std::to_string(conversion.precision);
    }
    return s;
}

// Width in bytes implied by a length modifier, 0 when there is none.
std::size_t lengthSize(const std::string& length) {
    if (length == "hh") return sizeof(char);
    if (length == "h") return sizeof(short);
    if (length == "l") return sizeof(long);
    if (length == "ll" || length == "q") return sizeof(long long);
    if (length == "j") return sizeof(long long);
    if (length == "z" || length == "Z") return sizeof(std::size_t);
    if (length == "t") return sizeof(std::ptrdiff_t);
    return 0;
}

void appendText(std::string& out, const Conversion& conversion, std::string_view text) {
    if (conversion.width < 0 && conversion.precision < 0) {
        out.append(text);
        return;
    }
    if (conversion.precision >= 0 && static_cast<std::size_t>(conversion.precision) < text.size())
        text = text.substr(0, static_cast<std::size_t>(conversion.precision));
    std::size_t width = conversion.width > 0 ? static_cast<std::size_t>(conversion.width) : 0;
    std::size_t pad = width > text.size() ? width - text.size() : 0;
    bool left = conversion.flags.find('-') != std::string::npos;
    if (!left) out.append(pad, ' ');
    out.append(text);
    if (left) out.append(pad, ' ');
}

std::string decimalText(const CFormatArgument& arg) {
    switch (arg.type()) {
        case CFormatArgument::Type::Signed: return std::to_string(arg.signedValue());
        case CFormatArgument::Type::Unsigned: return std::to_string(arg.unsignedValue());
        case CFormatArgument::Type::Floating: {
            std::string s;
            appendPrintf(s, "%g", arg.floatingValue());
            return s;
        }
        case CFormatArgument::Type::Pointer: {
            std::string s;
            appendPrintf(s, "%p", arg.pointerValue());
            return s;
        }
        case CFormatArgument::Type::Text: break;
    }
    return arg.isNullText() ? std::string("(null)") : std::string(arg.text());
}

void appendSigned(std::string& out, const Conversion& conversion, const CFormatArgument& arg) {
    switch (arg.type()) {
        case CFormatArgument::Type::Signed:
            appendPrintf(out, conversionPrefix(conversion) + "lld", arg.signedValue());
            return;
        case CFormatArgument::Type::Unsigned:
            appendPrintf(out, conversionPrefix(conversion, true) + "llu", arg.unsignedValue());
            return;
        case CFormatArgument::Type::Floating:
            appendPrintf(out, conversionPrefix(conversion) + "lld", static_cast<long long>(arg.floatingValue()));
            return;
        case CFormatArgument::Type::Pointer:
            appendPrintf(out, conversionPrefix(conversion) + "lld",
                         static_cast<long long>(reinterpret_cast<std::uintptr_t>(arg.pointerValue())));
            return;
        case CFormatArgument::Type::Text:
            appendText(out, Conversion{conversion.flags, conversion.width, -1, {}, 's'}, decimalText(arg));
            return;
    }
}

void appendUnsigned(std::string& out, const Conversion& conversion, const CFormatArgument& arg) {
    unsigned long long value = 0;
    switch (arg.type()) {
        case CFormatArgument::Type::Signed: {
            std::size_t size = lengthSize(conversion.length);
            if (size == 0) size = arg.integerSize();
            value = static_cast<unsigned long long>(arg.signedValue());
            if (arg.signedValue() < 0 && size < sizeof(unsigned long long)) value &= (1ULL << (8 * size)) - 1;
            break;
        }
        case CFormatArgument::Type::Unsigned: value = arg.unsignedValue(); break;
        case CFormatArgument::Type::Floating:
            value = static_cast<unsigned long long>(static_cast<long long>(arg.floatingValue()));
            break;
        case CFormatArgument::Type::Pointer: value = reinterpret_cast<std::uintptr_t>(arg.pointerValue()); break;
        case CFormatArgument::Type::Text:
            appendText(out, Conversion{conversion.flags, conversion.width, -1, {}, 's'}, decimalText(arg));
            return;
    }
    appendPrintf(out, conversionPrefix(conversion, true) + "ll" + conversion.conversion, value);
}

void appendFloating(std::string& out, const Conversion& conversion, const CFormatArgument& arg) {
    double value = 0;
    switch (arg.type()) {
        case CFormatArgument::Type::Signed: value = static_cast<double>(arg.signedValue()); break;
        case CFormatArgument::Type::Unsigned: value = static_cast<double>(arg.unsignedValue()); break;
        case CFormatArgument::Type::Floating: value = arg.floatingValue(); break;
        case CFormatArgument::Type::Pointer:
        case CFormatArgument::Type::Text:
            appendText(out, Conversion{conversion.flags, conversion.width, -1, {}, 's'}, decimalText(arg));
            return;
    }
    appendPrintf(out, conversionPrefix(conversion) + conversion.conversion, value);
}

void appendCharacter(std::string& out, const Conversion& conversion, const CFormatArgument& arg) {
    unsigned long long value = 0;
    switch (arg.type()) {
        case CFormatArgument::Type::Signed: value = static_cast<unsigned long long>(arg.signedValue()); break;
        case CFormatArgument::Type::Unsigned: value = arg.unsignedValue(); break;
        case CFormatArgument::Type::Floating: value = static_cast<unsigned long long>(arg.floatingValue()); break;
        case CFormatArgument::Type::Pointer:
        case CFormatArgument::Type::Text:
            appendText(out, Conversion{conversion.flags, conversion.width, -1, {}, 's'}, decimalText(arg));
            return;
    }
    std::string text;
    if (conversion.length == "l")
        utf8::append(text, static_cast<char32_t>(value > 0x10FFFF ? 0xFFFD : value));
    else
        text += static_cast<char>(static_cast<unsigned char>(value));
    appendText(out, Conversion{conversion.flags, conversion.width, -1, {}, 's'}, text);
}

bool isFlag(char c) { return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0' || c == '\''; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

std::string formatStringWithArguments(std::string_view format, const CFormatArgument* arguments, std::size_t count) {
    std::string out;
    out.reserve(format.size() + 16 * count);
    std::size_t next = 0;  // next argument
    std::size_t i = 0;
    while (i < format.size()) {
        std::size_t percent = format.find('%', i);
        if (percent == std::string_view::npos) {
            out.append(format.substr(i));
            break;
        }
        out.append(format.substr(i, percent - i));
        std::size_t p = percent + 1;
        if (p < format.size() && format[p] == '%') {
            out += '%';
            i = p + 1;
            continue;
        }

        Conversion conversion;
        bool missing = false;
        // Takes the next argument as an int for "*".
        auto starValue = [&](int& into) {
            if (next >= count) {
                missing = true;
                return;
            }
            const CFormatArgument& a = arguments[next++];
            if (a.type() == CFormatArgument::Type::Signed)
                into = static_cast<int>(a.signedValue());
            else if (a.type() == CFormatArgument::Type::Unsigned)
                into = static_cast<int>(a.unsignedValue());
            else
                into = 0;
        };
        while (p < format.size() && isFlag(format[p])) conversion.flags += format[p++];
        if (p < format.size() && format[p] == '*') {
            ++p;
            int w = 0;
            starValue(w);
            if (w < 0) {
                conversion.flags += '-';
                w = -w;
            }
            conversion.width = w;
        } else if (p < format.size() && isDigit(format[p])) {
            conversion.width = 0;
            while (p < format.size() && isDigit(format[p]) && conversion.width < 100000)
                conversion.width = conversion.width * 10 + (format[p++] - '0');
        }
        if (p < format.size() && format[p] == '.') {
            ++p;
            conversion.precision = 0;
            if (p < format.size() && format[p] == '*') {
                ++p;
                int pr = 0;
                starValue(pr);
                conversion.precision = pr < 0 ? -1 : pr;
            } else {
                while (p < format.size() && isDigit(format[p]) && conversion.precision < 100000)
                    conversion.precision = conversion.precision * 10 + (format[p++] - '0');
            }
        }
        while (p < format.size() && std::string_view("hlLqjzZt").find(format[p]) != std::string_view::npos)
            conversion.length += format[p++];
        if (p >= format.size()) {
            out.append(format.substr(percent));  // incomplete conversion at the end
            break;
        }
        conversion.conversion = format[p++];
        std::string_view written = format.substr(percent, p - percent);
        i = p;

        const char c = conversion.conversion;
        const bool known = std::string_view("diouxXcspeEfFgGaAn@").find(c) != std::string_view::npos;
        if (!known) {
            out.append(written);
            continue;
        }
        if (missing || next >= count) {
            out.append(written);
            continue;
        }
        const CFormatArgument& arg = arguments[next++];
        switch (c) {
            case 'd':
            case 'i': appendSigned(out, conversion, arg); break;
            case 'o':
            case 'u':
            case 'x':
            case 'X': appendUnsigned(out, conversion, arg); break;
            case 'c': appendCharacter(out, conversion, arg); break;
            case 's':
            case '@': appendText(out, conversion, decimalText(arg)); break;
            case 'p':
                if (arg.type() == CFormatArgument::Type::Pointer)
                    appendPrintf(out, conversionPrefix(conversion) + "p", arg.pointerValue());
                else
                    appendText(out, conversion, decimalText(arg));
                break;
            case 'n': break;
            default:  // floating conversions
                appendFloating(out, conversion, arg);
                break;
        }
    }
    return out;
}

}  // namespace ferrocore
