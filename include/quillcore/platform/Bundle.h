// Bundles: a directory that holds a program or shared object together with
// its description and its resources.
//
// Layout (docs/bundles.md has the whole story):
//
//   Name.framework/  or  Name.bundle/     the bundle directory
//     Info.plist                          the information dictionary
//     <executables>                       main and auxiliary executables
//     Resources/                          resources
//       <language>.lproj/<table>.strings  localized strings
//
// Info.plist is a property list (XML or binary) whose top level is a
// dictionary; the keys below have a meaning here, any others belong to the
// bundle's users (a service bundle declares "CorvaneServiceKind", for
// example). A strings table is a property list as well: a dictionary from key
// to localized text.
//
// A bundle is "loaded" when a file loaded into this process (the program or
// a shared object, as the host's loadedImagePaths() reports them) lies, with
// its symbolic links resolved, directly in the bundle directory. That is how a
// library finds its own bundle: by its identifier.
//
// Threads. A CBundle is an immutable value: copies may be used on any threads
// at once. The information dictionary is read when a bundle is opened; strings
// tables and executables are looked up in the file system at every call, and
// nothing is cached between calls.
//
// Errors. Nothing here throws except std::bad_alloc; what cannot be found is
// an empty result.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <quillcore/platform/PLObject.h>
#include <quillcore/platform/export.h>

namespace quill::platform {

// Name of the information dictionary's file inside a bundle.
inline constexpr const char* kBundleInfoFileName = "Info.plist";
// Name of the resources directory inside a bundle.
inline constexpr const char* kBundleResourcesDirectoryName = "Resources";
// Information keys (all strings):
// - the reverse-DNS identifier, "com.tessaly.corvane.QuillCore";
inline constexpr const char* kBundleIdentifierKey = "BundleIdentifier";
// - the file name of the main executable inside the bundle directory;
inline constexpr const char* kBundleExecutableKey = "BundleExecutable";
// - a readable name and the version;
inline constexpr const char* kBundleNameKey = "BundleName";
inline constexpr const char* kBundleVersionKey = "BundleVersion";
// - the language of the bundle's own texts, the last resort of localized
//   lookups ("en" when absent).
inline constexpr const char* kBundleDevelopmentRegionKey = "BundleDevelopmentRegion";
inline constexpr const char* kBundleDefaultDevelopmentRegion = "en";
// The strings table used when none is named.
inline constexpr const char* kBundleDefaultStringsTable = "Localizable";

class QUILL_PLATFORM_EXPORT CBundle final {
public:
    // The bundle whose directory is `path`. Empty when `path` is not a
    // directory. A directory without a usable Info.plist (missing, unreadable,
    // not a property list, not a dictionary) is a bundle with an empty
    // information dictionary.
    static std::optional<CBundle> open(std::string_view path);
    // The same for a file URL; empty for a null URL or one of another scheme.
    static std::optional<CBundle> open(const PLURL* url);
    // The first loaded bundle (see the top of this file) whose identifier is
    // `identifier`; empty when there is none.
    static std::optional<CBundle> loaded(std::string_view identifier);

    CBundle(const CBundle&) = default;
    CBundle& operator=(const CBundle&) = default;
    CBundle(CBundle&&) noexcept = default;
    CBundle& operator=(CBundle&&) noexcept = default;
    ~CBundle();

    // The bundle directory as it was opened (for loaded bundles with symbolic
    // links resolved), without a trailing "/".
    const std::string& path() const noexcept { return _path; }
    // The same as a file URL in directory form.
    PLHolder<const PLURL> url() const;

    // The information dictionary (never null; borrowed from the bundle).
    PLDictionaryRef infoDictionary() const noexcept { return _info.get(); }
    // The value of an information key (borrowed), or null.
    PLTypeRef infoValue(std::string_view key) const noexcept;
    // The identifier (borrowed), or null when the bundle has none that is a
    // string.
    PLStringRef identifier() const noexcept;

    // The file of the main executable, named by kBundleExecutableKey; null
    // when the key is missing or the file does not exist.
    PLHolder<const PLURL> executableURL() const;
    // The executable file `name` in the bundle directory; null when it does
    // not exist or `name` is not a plain file name.
    PLHolder<const PLURL> auxiliaryExecutableURL(std::string_view name) const;
    // The resources directory (whether or not it exists).
    std::string resourcesPath() const;

    // The localized text for `key` in the strings table `table` (the default
    // table when empty). Languages are tried in this order: `languages` (when
    // empty, preferredLanguages()), then the development region; a language
    // "de_DE" is tried as "de_DE" and then as "de". A table that is missing or
    // unreadable counts as not holding the key, as does a value that is not a
    // string. When no language has it: `fallback` when given, else the key
    // itself. A new string.
    PLHolder<const PLString> localizedString(std::string_view key, PLStringRef fallback = nullptr,
                                             std::string_view table = {},
                                             const std::vector<std::string>& languages = {}) const;

    // The user's languages from the environment: LANGUAGE (a colon-separated
    // list), else the first of LC_ALL, LC_MESSAGES and LANG that is set, each
    // without codeset and modifier ("de_DE.UTF-8@euro" gives "de_DE"). "C" and
    // "POSIX" name no language. May be empty.
    static std::vector<std::string> preferredLanguages();

private:
    CBundle(std::string path, PLHolder<const PLDictionary> info) noexcept;

    std::string _path;
    PLHolder<const PLDictionary> _info;
};

}  // namespace quill::platform
