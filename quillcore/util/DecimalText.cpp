#include "quillcore/util/DecimalText.h"

#include <charconv>
#include <cmath>
#include <cstdint>

#include <ferrocore/Format.h>

namespace quill::decimal {

// printf rounds the exact binary value; so does this: by whole milliseconds
// when the value is far enough from a half millisecond for the product's
// rounding error not to matter, else by std::to_chars, which rounds exactly.
void appendFixed3(std::string& out, double value, int width) {
    char digits[64];
    std::size_t length = 0;
    const double scaled = value * 1000.0;
    const double fraction = scaled - std::floor(scaled);
    if (value >= 0 && scaled < 9.0e15 && std::fabs(fraction - 0.5) > 1.0e-3) {
        std::uint64_t millis = static_cast<std::uint64_t>(scaled + 0.5);
        char reversed[24];
        std::size_t count = 0;
        do {
            reversed[count++] = static_cast<char>('0' + millis % 10);
            millis /= 10;
            if (count == 3) reversed[count++] = '.';
        } while (millis != 0 || count < 5);
        while (count > 0) digits[length++] = reversed[--count];
    } else {
        const std::to_chars_result result =
            std::to_chars(digits, digits + sizeof digits, value, std::chars_format::fixed, 3);
        if (result.ec != std::errc()) {
            out += ferrocore::formatString("%0*.3lf", width, value);
            return;
        }
        length = static_cast<std::size_t>(result.ptr - digits);
    }
    if (static_cast<std::size_t>(width) > length) out.append(static_cast<std::size_t>(width) - length, '0');
    out.append(digits, length);
}

}  // namespace quill::decimal
