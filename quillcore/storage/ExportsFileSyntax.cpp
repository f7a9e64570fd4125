#include "quillcore/storage/ExportsFileSyntax.h"

namespace quill::storage::exportsfile {

namespace {

bool isOctal(char c) noexcept { return c >= '0' && c <= '7'; }

bool needsEscape(unsigned char c) noexcept { return c <= 0x20 || c == 0x7f || c == '"' || c == '\\' || c == '#'; }

// The byte of the escape at `at` (a backslash), or -1 when none starts there.
int escapedByte(std::string_view text, std::size_t at) noexcept {
    if (at + 3 >= text.size() || text[at] != '\\') return -1;
    if (!isOctal(text[at + 1]) || !isOctal(text[at + 2]) || !isOctal(text[at + 3])) return -1;
    const int value = (text[at + 1] - '0') * 64 + (text[at + 2] - '0') * 8 + (text[at + 3] - '0');
    return value >= 1 && value <= 255 ? value : -1;
}

}  // namespace

bool isFaithfullyExportable(std::string_view path) noexcept {
    if (path.empty()) return false;
    for (std::size_t i = 0; i < path.size(); ++i) {
        if (path[i] == '\0') return false;
        if (path[i] == '\\' && i + 3 < path.size() && isOctal(path[i + 1]) && isOctal(path[i + 2]) &&
            isOctal(path[i + 3]))
            return false;
    }
    return true;
}

std::string escapePath(std::string_view path) {
    static constexpr char kDigits[] = "01234567";
    std::string field;
    field.reserve(path.size() + 8);
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        if (!needsEscape(byte)) {
            field.push_back(c);
            continue;
        }
        field.push_back('\\');
        field.push_back(kDigits[(byte >> 6) & 7]);
        field.push_back(kDigits[(byte >> 3) & 7]);
        field.push_back(kDigits[byte & 7]);
    }
    return field;
}

std::string unescapePath(std::string_view field) {
    std::string path;
    path.reserve(field.size());
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (const int byte = escapedByte(field, i); byte >= 0) {
            path.push_back(static_cast<char>(byte));
            i += 3;
        } else {
            path.push_back(field[i]);
        }
    }
    return path;
}

}  // namespace quill::storage::exportsfile
