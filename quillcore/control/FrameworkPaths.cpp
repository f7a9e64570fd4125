#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include <ferrocore/CURL.h>
#include <quillcore/control/FrameworkPaths.h>
#include <quillcore/platform/Bundle.h>
#include <quillcore/platform/Host.h>

namespace quill {

namespace {

// From the bundle directory ".../Corvane.framework/Versions/A/Frameworks/
// QuillCore.framework" up to ".../Corvane.framework".
inline constexpr int kLevelsAboveCorvaneFramework = 4;

ferrocore::CURLRef corvaneFrameworkLocation() {
    const std::optional<platform::CBundle> bundle = platform::CBundle::loaded(kQuillCoreBundleIdentifier);
    if (!bundle) return {};
    std::error_code error;
    const std::filesystem::path canonical = std::filesystem::canonical(bundle->path(), error);
    if (error) return {};
    ferrocore::CURLRef url = ferrocore::CURL::createWithPath(canonical.string(), true);
    for (int level = 0; level < kLevelsAboveCorvaneFramework; ++level) url = url->copyByDeletingLastPathComponent();
    if (url->lastPathComponent()->utf8() != kCorvaneFrameworkName) return {};
    if (url->copyByDeletingLastPathComponent()->lastPathComponent()->utf8() != kFrameworksDirectoryName) return {};
    std::uint32_t mode = 0;
    if (platform::host().fileMode(url->fileSystemPath()->utf8(), mode)) return {};
    return url;
}

const PLURL* newURL(const ferrocore::CURLRef& url) { return url ? PLURL::create(url->text()).detach() : nullptr; }

// Where the framework component `name` ends in `path` (the last whole
// component of that name); npos when there is none.
std::size_t endOfComponent(std::string_view path, std::string_view name) {
    std::size_t from = std::string_view::npos;
    for (;;) {
        const std::size_t at = path.rfind(name, from);
        if (at == std::string_view::npos) return std::string_view::npos;
        const std::size_t end = at + name.size();
        const bool startsComponent = at == 0 || path[at - 1] == '/';
        const bool endsComponent = end == path.size() || path[end] == '/';
        if (startsComponent && endsComponent) return end;
        if (at == 0) return std::string_view::npos;
        from = at - 1;
    }
}

}  // namespace

PLHolder<const PLString> getRuntimePath(PLStringRef path, PLURLRef corvaneFrameworkURL,
                                        PLURLRef lumenforgeFrameworkURL) {
    if (!path) return nullptr;
    const std::string_view text = path->utf8();
    const std::size_t corvaneEnd = endOfComponent(text, kCorvaneFrameworkName);
    const std::size_t lumenforgeEnd = endOfComponent(text, kLumenforgeFrameworkName);
    std::size_t end = std::string_view::npos;
    PLURLRef framework = nullptr;
    if (corvaneEnd != std::string_view::npos &&
        (lumenforgeEnd == std::string_view::npos || corvaneEnd > lumenforgeEnd)) {
        end = corvaneEnd;
        framework = corvaneFrameworkURL;
    } else if (lumenforgeEnd != std::string_view::npos) {
        end = lumenforgeEnd;
        framework = lumenforgeFrameworkURL;
    }
    if (!framework) return PLString::create(text);
    return PLString::create(framework->fileSystemPath() + std::string(text.substr(end)));
}

PLHolder<const PLString> getRuntimePath(PLStringRef path) {
    if (!path) return nullptr;
    const PLHolder<const PLURL> corvane = PLHolder<const PLURL>::adopt(getCorvaneFrameworkURL());
    const PLHolder<const PLURL> lumenforge = PLHolder<const PLURL>::adopt(getLumenforgeFrameworkURL());
    return getRuntimePath(path, corvane.get(), lumenforge.get());
}

}  // namespace quill

const PLURL* getCorvaneFrameworkURL() noexcept {
    try {
        return quill::newURL(quill::corvaneFrameworkLocation());
    } catch (...) {
        return nullptr;
    }
}

const PLURL* getLumenforgeFrameworkURL() noexcept {
    try {
        const ferrocore::CURLRef corvane = quill::corvaneFrameworkLocation();
        if (!corvane) return nullptr;
        return quill::newURL(corvane->copyByDeletingLastPathComponent()->copyByAppendingPathComponent(
            quill::kLumenforgeFrameworkName, true));
    } catch (...) {
        return nullptr;
    }
}
