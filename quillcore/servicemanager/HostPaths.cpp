#include "HostPaths.h"

#include <ferrocore/Utf8.h>
#include <quillcore/platform/Host.h>

namespace quill::servicemanager {

namespace {

bool isUtf8(std::string_view text) noexcept {
    for (std::size_t pos = 0; pos < text.size();) {
        char32_t cp = 0;
        const std::size_t length = ferrocore::utf8::sequenceLength(text, pos, cp);
        if (length == 0) return false;
        pos += length;
    }
    return true;
}

}  // namespace

std::optional<std::string> expandTildeInFilePath(std::string_view path) {
    if (!isUtf8(path)) return std::nullopt;
    if (!path.starts_with('~')) return std::string(path);
    if (path.size() > 1 && path[1] != '/') return std::nullopt;
    std::string home = platform::host().homeDirectory();
    if (home.empty()) return std::nullopt;
    home.append(path.substr(1));
    return home;
}

}  // namespace quill::servicemanager
