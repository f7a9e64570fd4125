#include <array>
#include <ostream>
#include <system_error>

#include <ferrocore/CException.h>
#include <ferrocore/CFileInputStream.h>
#include <ferrocore/Format.h>
#include <quillcore/control/FrameworkPaths.h>
#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/platform/Host.h>
#include <quillcore/plist/CPropertyListBasicFile.h>
#include <quillcore/plist/CQuillConfigFile.h>
#include <quillcore/plist/CServiceCacheFile.h>
#include <quillcore/plist/QuillConfigUpdater.h>
#include <quillcore/util/CFileUtil.h>
#include <quillcore/util/CTimeStamp.h>

namespace quill {

namespace {

// The table of the three paths, built when the library is loaded.
enum PathIndex : std::size_t { kUserFile, kUserDefaultsFile, kMasterFile, kPathCount };

const std::array<std::string, kPathCount> gConfigFilePaths = {
    std::string(QuillCorePrivate::kQuillConfigFilePath),
    std::string(QuillCorePrivate::kQuillConfigFilePath) + ".default",
    std::string("@Frameworks/") + kCorvaneFrameworkName + "/Resources/LumenforgeConfig.plist.default",
};

constexpr std::string_view kFrameworksPrefix = "@Frameworks/";

// The service kinds whose cached entries must name an executable.
constexpr std::array kCheckedServiceKinds = {
    &QuillCorePrivate::kTolvaTranscoderServiceKind,
    &QuillCorePrivate::kTolvaTranscoder32bitServiceKind,
    &QuillCorePrivate::kTolvaClusterAdminServiceKind,
};

PLHolder<const PLString> pathString(const std::string& path) { return PLString::create(path); }

// The number that the leading digits of `component` make (saturating).
unsigned long long componentValue(std::string_view component) noexcept {
    constexpr unsigned long long kLimit = 1'000'000'000'000'000ull;
    unsigned long long value = 0;
    for (char c : component) {
        if (c < '0' || c > '9') break;
        if (value < kLimit) value = value * 10 + static_cast<unsigned>(c - '0');
    }
    return value;
}

std::string_view nextComponent(std::string_view& rest) noexcept {
    const auto dot = rest.find('.');
    const std::string_view component = rest.substr(0, dot);
    rest = dot == std::string_view::npos ? std::string_view() : rest.substr(dot + 1);
    return component;
}

std::string_view versionText(PLStringRef version) noexcept {
    return version ? version->utf8() : std::string_view("1.0");
}

}  // namespace

QuillConfigUpdater::QuillConfigUpdater(std::ostream& log)
    : _log(log),
      _userFilePath(gConfigFilePaths[kUserFile]),
      _userDefaultsFilePath(gConfigFilePaths[kUserDefaultsFile]),
      _masterFilePath(gConfigFilePaths[kMasterFile]) {}

QuillConfigUpdater::~QuillConfigUpdater() = default;

void QuillConfigUpdater::run() {
    try {
        resolveFilePaths();
        if (!isFilePresent(_userFilePath)) {
            writeStampedLine("Corvane daemon needs to copy the lumenforge config file " + _userFilePath);
            copyLumenforgeConfigFile();
            return;
        }
        if (!lumenforgeConfigFileContentsValid()) {
            writeStampedLine("Corvane daemon needs to copy the lumenforge config file " + _userFilePath +
                             " (invalid contents)");
            copyLumenforgeConfigFile();
            return;
        }
        if (needMergeLumenforgeConfigFile()) {
            writeStampedLine("Corvane daemon needs to merge the lumenforge config file " + _userFilePath);
            mergeLumenforgeConfigFile();
        }
    } catch (const ferrocore::CException& error) {
        writeStampedLine("Exception caught while copying/merging the lumenforge config file " + _userFilePath + ": " +
                         error.message());
    }
}

// ------------------------------------------------------------------ paths

void QuillConfigUpdater::resolveFilePaths() {
    resolveFilePath(gConfigFilePaths[kUserFile], _userFilePath);
    resolveFilePath(gConfigFilePaths[kUserDefaultsFile], _userDefaultsFilePath);
    resolveFilePath(gConfigFilePaths[kMasterFile], _masterFilePath);
}

bool QuillConfigUpdater::resolveFilePath(const std::string& path, std::string& resolved) const {
    if (isRelativeFilePath(path)) return resolveRelativeFilePath(path, resolved);
    if (isUserHomeBasedFilePath(path)) {
        resolved = resolveUserHomeBasedFilePath(path);
        return resolved != path;
    }
    resolved = path;
    return true;
}

bool QuillConfigUpdater::isRelativeFilePath(std::string_view path) noexcept { return path.starts_with('@'); }

bool QuillConfigUpdater::resolveRelativeFilePath(const std::string& path, std::string& resolved) const {
    resolved = path;
    if (!path.starts_with(kFrameworksPrefix)) return false;
    const PLHolder<const PLURL> corvane = PLHolder<const PLURL>::adopt(getCorvaneFrameworkURL());
    if (!corvane) return false;
    const std::string frameworkPath = corvane->fileSystemPath();
    const auto slash = frameworkPath.rfind('/');
    if (slash == std::string::npos) return false;
    // The framework lies in "Frameworks", so its parent is never the root.
    resolved = frameworkPath.substr(0, slash + 1) + path.substr(kFrameworksPrefix.size());
    return true;
}

bool QuillConfigUpdater::isUserHomeBasedFilePath(std::string_view path) noexcept { return path.starts_with('~'); }

std::string QuillConfigUpdater::resolveUserHomeBasedFilePath(const std::string& path) {
    const PLHolder<const PLString> expanded = CFileUtil::expandTildeInPath(pathString(path).get());
    return expanded ? expanded->str() : path;
}

// ------------------------------------------------------------- the steps

bool QuillConfigUpdater::needCopyLumenforgeConfigFile() const {
    return !isFilePresent(_userFilePath) || !lumenforgeConfigFileContentsValid();
}

void QuillConfigUpdater::copyLumenforgeConfigFile() {
    if (!isFilePresent(_masterFilePath)) throwFileNotFoundException(_masterFilePath);
    copyFile(_masterFilePath, _userDefaultsFilePath, kFileMode);
    copyFile(_masterFilePath, _userFilePath, kFileMode);
}

bool QuillConfigUpdater::lumenforgeConfigFileContentsValid() const {
    try {
        const PLHolder<const PLString> path = pathString(_userFilePath);
        const CQuillConfigFile config(path.get());
        const CServiceCacheFile cache(path.get());
        for (const char* const* kind : kCheckedServiceKinds) {
            CServiceCacheEntry entry;
            if (!cache.get(PLString::create(*kind).get(), entry)) continue;
            if (!entry.path() || entry.path()->empty()) return false;
        }
        return true;
    } catch (const ferrocore::CException& error) {
        writeLine("Exception caught while checking contents of the lumenforge config file " + _userFilePath + ": " +
                  error.message());
        return false;
    }
}

bool QuillConfigUpdater::needMergeLumenforgeConfigFile() const {
    if (!isFilePresent(_userFilePath)) throwFileNotFoundException(_userFilePath);
    if (!isFilePresent(_masterFilePath)) {
        writeLine("Corvane daemon can't find the master config file " + _masterFilePath);
        return false;
    }
    const CPropertyListBasicFile master(pathString(_masterFilePath).get());
    const CPropertyListBasicFile user(pathString(_userFilePath).get());
    return compareVersions(versionText(master.fileVersion()), versionText(user.fileVersion())) > 0;
}

void QuillConfigUpdater::mergeLumenforgeConfigFile() {
    if (!isFilePresent(_userDefaultsFilePath)) copyFile(_userFilePath, _userDefaultsFilePath, kFileMode);

    const CPropertyListBasicFile master(pathString(_masterFilePath).get());
    const CPropertyListBasicFile defaults(pathString(_userDefaultsFilePath).get());
    CPropertyListBasicFile user(pathString(_userFilePath).get());
    if (isEqual(user.fileVersion(), master.fileVersion())) return;

    user.setFileVersion(master.fileVersion());
    // Nested dictionaries are merged in place, so every container of the
    // copy must be mutable.
    const PLHolder<const PLObject> copy =
        PLPropertyListCreateDeepCopy(user.toPropertyList().get(), PLMutability::MutableContainers);
    PLMutableDictionary* merged = PLMutableCast<PLMutableDictionary>(copy.get());
    mergeSettingsDict(merged, defaults.toPropertyList().get(), master.toPropertyList().get());
    user.fromPropertyList(merged);
    user.flush();

    copyFile(_masterFilePath, _userDefaultsFilePath, kFileMode);
}

// ---------------------------------------------------------------- helpers

bool QuillConfigUpdater::isFilePresent(const std::string& path) const {
    return !platform::host().fileSystemStatus(path);
}

void QuillConfigUpdater::copyFile(const std::string& from, const std::string& to, std::uint32_t mode) {
    ferrocore::copyFileContents(from, to);
    applyPermissions("copyFile", to, mode);
}

void QuillConfigUpdater::setFilePermissions(const std::string& path, std::uint32_t mode) {
    applyPermissions("setFilePermissions", path, mode);
}

void QuillConfigUpdater::applyPermissions(const char* operation, const std::string& path, std::uint32_t mode) const {
    platform::IHost& host = platform::host();
    std::uint32_t current = 0;
    if (const std::error_code error = host.fileMode(path, current))
        throw ferrocore::CFileException(
            ferrocore::formatString("QuillConfigUpdater::%s: stat() on file %s failed, error = %s", operation, path,
                                    ferrocore::errorText(error.value())),
            error.value());
    if (current == mode) return;
    if (const std::error_code error = host.setFileMode(path, mode))
        throw ferrocore::CFileException(
            ferrocore::formatString("QuillConfigUpdater::%s: chmod() on file %s failed, error = %s", operation, path,
                                    ferrocore::errorText(error.value())),
            error.value());
}

bool QuillConfigUpdater::isEqual(PLTypeRef a, PLTypeRef b) noexcept {
    if (!a || !b) return !a && !b;
    return PLEqual(a, b);
}

bool QuillConfigUpdater::mergeSettingsDict(PLMutableDictionaryRef target, PLDictionaryRef oldDefaults,
                                           PLDictionaryRef newDefaults) const {
    if (!target || !newDefaults) return false;
    bool changed = false;
    for (const auto& [key, newValue] : newDefaults->entries()) {
        const PLObject* userValue = target->get(key.get());
        const PLObject* oldValue = oldDefaults ? oldDefaults->get(key.get()) : nullptr;

        if (!userValue || userValue->typeID() != newValue->typeID()) {
            target->set(key, newValue);
            changed = true;
            continue;
        }
        if (newValue->typeID() != PLTypeID::Dictionary) {
            if (isEqual(userValue, newValue.get())) continue;
            const bool userChanged =
                oldValue && oldValue->typeID() == userValue->typeID() && !isEqual(oldValue, userValue);
            if (!userChanged) {
                target->set(key, newValue);
                changed = true;
            }
            continue;
        }
        PLMutableDictionary* userDict = PLMutableCast<PLMutableDictionary>(userValue);
        PLHolder<const PLObject> replacement;
        if (!userDict) {
            // An immutable dictionary in the target: merge into a mutable copy
            // and put that in its place if anything changed.
            replacement = PLPropertyListCreateDeepCopy(userValue, PLMutability::MutableContainers);
            userDict = PLMutableCast<PLMutableDictionary>(replacement.get());
        }
        if (mergeSettingsDict(userDict, PLDynamicCast<PLDictionary>(oldValue),
                              PLDynamicCast<PLDictionary>(newValue.get()))) {
            if (replacement) target->set(key, std::move(replacement));
            changed = true;
        }
    }
    return changed;
}

void QuillConfigUpdater::throwFileNotFoundException(const std::string& path) const {
    throw ferrocore::CFileException(ferrocore::formatString("QuillConfigUpdater: file \"%s\" not found", path));
}

int QuillConfigUpdater::compareVersions(std::string_view a, std::string_view b) noexcept {
    while (!a.empty() || !b.empty()) {
        const unsigned long long left = componentValue(nextComponent(a));
        const unsigned long long right = componentValue(nextComponent(b));
        if (left != right) return left < right ? -1 : 1;
    }
    return 0;
}

// ----------------------------------------------------------------- output

void QuillConfigUpdater::writeStampedLine(std::string_view text) const {
    _log << CTimeStamp(-1.0) << text << std::endl;
}

void QuillConfigUpdater::writeLine(std::string_view text) const { _log << text << std::endl; }

}  // namespace quill
