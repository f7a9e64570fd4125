// Base64 and ISO-8601 dates, the text forms of the XML property list's
// <data> and <date>; the XML reader and writer and quillctl share them.
#include <array>
#include <charconv>
#include <cstring>
#include <vector>

#include "platform/PLPropertyListPrivate.h"
#include <quillcore/platform/PLObject.h>
#include <quillcore/platform/PLPropertyListText.h>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// For decoding four symbols at once: a symbol's value shifted to its place in
// the 24 bits of a group of four, and a high bit for anything that is not a
// symbol.
constexpr std::uint32_t kNotBase64 = std::uint32_t{1} << 31;

constexpr std::array<std::array<std::uint32_t, 256>, 4> makeDecodeTable() {
    std::array<std::array<std::uint32_t, 256>, 4> t{};
    for (std::size_t place = 0; place < 4; ++place) {
        t[place].fill(kNotBase64);
        for (std::uint32_t v = 0; v < 64; ++v)
            t[place][static_cast<unsigned char>(kAlphabet[v])] = v << (6 * (3 - place));
    }
    return t;
}
constexpr std::array<std::array<std::uint32_t, 256>, 4> kDecode = makeDecodeTable();

}  // namespace

char* PLBase64Encode(const void* bytes, std::size_t size, char* out) noexcept {
    const auto* s = static_cast<const unsigned char*>(bytes);
    std::size_t n = size;
    char* d = out;
    for (; n >= 3; n -= 3, s += 3) {
        const std::uint32_t v = (std::uint32_t{s[0]} << 16) | (std::uint32_t{s[1]} << 8) | s[2];
        d[0] = kAlphabet[v >> 18];
        d[1] = kAlphabet[(v >> 12) & 63];
        d[2] = kAlphabet[(v >> 6) & 63];
        d[3] = kAlphabet[v & 63];
        d += 4;
    }
    if (n > 0) {
        const std::uint32_t v = (std::uint32_t{s[0]} << 16) | (n > 1 ? std::uint32_t{s[1]} << 8 : 0);
        d[0] = kAlphabet[v >> 18];
        d[1] = kAlphabet[(v >> 12) & 63];
        d[2] = n > 1 ? kAlphabet[(v >> 6) & 63] : '=';
        d[3] = '=';
        d += 4;
    }
    return d;
}

// Decoded with as few data-dependent branches as can be: they cost more than
// the arithmetic, as the branch predictor has other things to remember
// between one call and the next. Invalid symbols are only noted on the way.
PLBase64Status PLBase64Decode(const char* symbols, std::size_t count, std::uint8_t* out) noexcept {
    const auto* s = reinterpret_cast<const unsigned char*>(symbols);
    const std::size_t rest = count % 4;
    const unsigned char* const whole = s + (count - rest);
    std::uint8_t* d = out;
    std::uint32_t seen = 0;
    // In place, a group's three bytes go where its four symbols began, and it
    // is read before it is overwritten.
    for (; s != whole; s += 4, d += 3) {
        const std::uint32_t v = kDecode[0][s[0]] | kDecode[1][s[1]] | kDecode[2][s[2]] | kDecode[3][s[3]];
        seen |= v;
        d[0] = static_cast<std::uint8_t>(v >> 16);
        d[1] = static_cast<std::uint8_t>(v >> 8);
        d[2] = static_cast<std::uint8_t>(v);
    }
    // The last, partial group, completed with zero-valued symbols.
    unsigned char last[3] = {'A', 'A', 'A'};
    for (std::size_t i = 0; i < rest; ++i) last[i] = s[i];
    const std::uint32_t v = kDecode[0][last[0]] | kDecode[1][last[1]] | kDecode[2][last[2]];
    seen |= v;
    if (seen & kNotBase64) return PLBase64Status::InvalidSymbol;
    if (rest == 1) return PLBase64Status::Truncated;
    if (rest > 1) d[0] = static_cast<std::uint8_t>(v >> 16);
    if (rest > 2) d[1] = static_cast<std::uint8_t>(v >> 8);
    return PLBase64Status::OK;
}

PLDateTextStatus PLDateFromISO8601(std::string_view t, double* absoluteTime) {
    auto digits = [&](std::size_t at, std::size_t n, unsigned* out) {
        unsigned v = 0;
        for (std::size_t i = at; i < at + n; ++i) {
            if (t[i] < '0' || t[i] > '9') return false;
            v = v * 10 + static_cast<unsigned>(t[i] - '0');
        }
        *out = v;
        return true;
    };
    unsigned year, month, day, hour, minute, second;
    const bool shaped = t.size() >= 20 && t.back() == 'Z' && t[4] == '-' && t[7] == '-' && t[10] == 'T' &&
                        t[13] == ':' && t[16] == ':' && digits(0, 4, &year) && digits(5, 2, &month) &&
                        digits(8, 2, &day) && digits(11, 2, &hour) && digits(14, 2, &minute) && digits(17, 2, &second);
    std::string_view fraction;
    bool fractionOK = t.size() == 20;
    if (shaped && !fractionOK && t[19] == '.' && t.size() > 21) {
        fraction = t.substr(20, t.size() - 21);
        fractionOK = fraction.find_first_not_of("0123456789") == std::string_view::npos;
    }
    if (!shaped || !fractionOK) return PLDateTextStatus::Malformed;
    if (month < 1 || month > 12 || day < 1 || day > plimpl::daysInMonth(year, month) || hour > 23 || minute > 59 ||
        second > 59)
        return PLDateTextStatus::OutOfRange;
    const std::int64_t unix = plimpl::daysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second;
    const std::int64_t whole = unix - static_cast<std::int64_t>(kPLAbsoluteTimeIntervalSince1970);
    while (!fraction.empty() && fraction.back() == '0') fraction.remove_suffix(1);
    if (fraction.empty()) {
        *absoluteTime = static_cast<double>(whole);
        return PLDateTextStatus::OK;
    }
    // whole + 0.fraction, rounded once: as one decimal number (for a negative
    // whole, -((-whole - 1) + (1 - 0.fraction))).
    std::vector<char> number(fraction.size() + 32);
    char* p = number.data();
    if (whole < 0) *p++ = '-';
    p = std::to_chars(p, p + 24, whole < 0 ? -whole - 1 : whole).ptr;
    *p++ = '.';
    std::memcpy(p, fraction.data(), fraction.size());
    if (whole < 0) plimpl::complementDecimalFraction(p, fraction.size());
    p += fraction.size();
    double at = 0;
    std::from_chars(number.data(), p, at);
    *absoluteTime = at;
    return PLDateTextStatus::OK;
}
