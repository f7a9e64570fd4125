#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>

#include <quillcore/platform/Bundle.h>
#include <quillcore/platform/Host.h>
#include <quillcore/platform/PLPropertyList.h>

namespace quill::platform {

namespace {

namespace fs = std::filesystem;

bool isDirectory(const std::string& path) {
    std::error_code error;
    return fs::is_directory(path, error);
}

bool isFile(const std::string& path) {
    std::error_code error;
    return fs::exists(path, error) && !fs::is_directory(path, error);
}

// The top-level dictionary of a property-list file; null when the file is
// missing or holds anything else.
PLHolder<const PLDictionary> readDictionary(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return nullptr;
    const std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (in.bad()) return nullptr;
    PLHolder<const PLObject> plist =
        PLPropertyListCreateFromBytes(bytes.data(), bytes.size(), PLMutability::Immutable, nullptr);
    if (!PLDynamicCast<PLDictionary>(plist.get())) return nullptr;
    return PLHolder<const PLDictionary>::retain(PLDynamicCast<PLDictionary>(plist.get()));
}

std::string withoutTrailingSlashes(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    return std::string(path);
}

// "de_DE.UTF-8@euro" -> "de_DE"; "C" and "POSIX" -> "".
std::string languageOfLocale(std::string_view locale) {
    const auto cut = locale.find_first_of(".@");
    if (cut != std::string_view::npos) locale = locale.substr(0, cut);
    if (locale == "C" || locale == "POSIX") return {};
    return std::string(locale);
}

void addLanguage(std::vector<std::string>& list, const std::string& language) {
    if (language.empty()) return;
    for (const std::string& known : list)
        if (known == language) return;
    list.push_back(language);
}

}  // namespace

CBundle::CBundle(std::string path, PLHolder<const PLDictionary> info) noexcept
    : _path(std::move(path)), _info(std::move(info)) {}

CBundle::~CBundle() = default;

std::optional<CBundle> CBundle::open(std::string_view path) {
    if (path.empty()) return std::nullopt;
    std::string directory = withoutTrailingSlashes(path);
    if (!isDirectory(directory)) return std::nullopt;
    PLHolder<const PLDictionary> info = readDictionary(directory + "/" + kBundleInfoFileName);
    if (!info) info = PLDictionary::createFromEntries({});
    return CBundle(std::move(directory), std::move(info));
}

std::optional<CBundle> CBundle::open(const PLURL* url) {
    if (!url || url->scheme() != "file") return std::nullopt;
    return open(url->fileSystemPath());
}

std::optional<CBundle> CBundle::loaded(std::string_view identifier) {
    for (const std::string& image : host().loadedImagePaths()) {
        std::error_code error;
        const fs::path file = fs::canonical(image, error);
        if (error) continue;
        const std::string directory = file.parent_path().string();
        if (!isFile(directory + "/" + kBundleInfoFileName)) continue;
        std::optional<CBundle> bundle = open(directory);
        if (!bundle) continue;
        const PLString* found = bundle->identifier();
        if (found && found->utf8() == identifier) return bundle;
    }
    return std::nullopt;
}

PLHolder<const PLURL> CBundle::url() const { return PLURL::createWithPath(_path, true); }

PLTypeRef CBundle::infoValue(std::string_view key) const noexcept { return _info->get(key); }

PLStringRef CBundle::identifier() const noexcept { return PLDynamicCast<PLString>(infoValue(kBundleIdentifierKey)); }

PLHolder<const PLURL> CBundle::executableURL() const {
    const PLString* name = PLDynamicCast<PLString>(infoValue(kBundleExecutableKey));
    return name ? auxiliaryExecutableURL(name->utf8()) : nullptr;
}

PLHolder<const PLURL> CBundle::auxiliaryExecutableURL(std::string_view name) const {
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string_view::npos) return nullptr;
    const std::string file = _path + "/" + std::string(name);
    if (!isFile(file)) return nullptr;
    return PLURL::createWithPath(file, false);
}

std::string CBundle::resourcesPath() const { return _path + "/" + kBundleResourcesDirectoryName; }

PLHolder<const PLString> CBundle::localizedString(std::string_view key, PLStringRef fallback, std::string_view table,
                                                  const std::vector<std::string>& languages) const {
    std::vector<std::string> tried;
    for (const std::string& language : languages.empty() ? preferredLanguages() : languages) {
        addLanguage(tried, language);
        const auto underscore = language.find('_');
        if (underscore != std::string::npos) addLanguage(tried, language.substr(0, underscore));
    }
    const PLString* region = PLDynamicCast<PLString>(infoValue(kBundleDevelopmentRegionKey));
    addLanguage(tried, region ? region->str() : std::string(kBundleDefaultDevelopmentRegion));

    const std::string tableName = table.empty() ? std::string(kBundleDefaultStringsTable) : std::string(table);
    for (const std::string& language : tried) {
        const PLHolder<const PLDictionary> strings =
            readDictionary(resourcesPath() + "/" + language + ".lproj/" + tableName + ".strings");
        if (!strings) continue;
        if (const PLString* text = PLDynamicCast<PLString>(strings->get(key)))
            return PLHolder<const PLString>::retain(text);
    }
    if (fallback) return PLHolder<const PLString>::retain(fallback);
    return PLString::create(key);
}

std::vector<std::string> CBundle::preferredLanguages() {
    std::vector<std::string> languages;
    if (const char* list = secure_getenv("LANGUAGE"); list && *list) {
        std::string_view rest(list);
        while (!rest.empty()) {
            const auto colon = rest.find(':');
            addLanguage(languages, languageOfLocale(rest.substr(0, colon)));
            if (colon == std::string_view::npos) break;
            rest.remove_prefix(colon + 1);
        }
        if (!languages.empty()) return languages;
    }
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* locale = secure_getenv(variable);
        if (!locale || !*locale) continue;
        addLanguage(languages, languageOfLocale(locale));
        break;
    }
    return languages;
}

}  // namespace quill::platform
