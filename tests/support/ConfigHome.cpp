#include "support/ConfigHome.h"

#include <quillcore/platform/PLPropertyList.h>

namespace quilltest {

namespace {
const char* const kStateDirectory = "Library/Application Support/Lumenforge";
}

ConfigHome::ConfigHome() : _dir("home"), _home("HOME", _dir.str()) {
    std::filesystem::create_directories(_dir.path() / kStateDirectory);
}

std::filesystem::path ConfigHome::configFile() const {
    return _dir.path() / kStateDirectory / "LumenforgeConfig.plist";
}

std::filesystem::path ConfigHome::pidFile() const { return _dir.path() / kStateDirectory / "LumenforgePID.plist"; }

PLHolder<const PLDictionary> readPlistFile(const std::filesystem::path& path) {
    std::error_code error;
    if (!std::filesystem::exists(path, error)) return {};
    const std::string bytes = readFile(path);
    PLHolder<const PLObject> plist =
        PLPropertyListCreateFromBytes(bytes.data(), bytes.size(), PLMutability::Immutable, nullptr);
    return PLHolder<const PLDictionary>::retain(PLDynamicCast<PLDictionary>(plist.get()));
}

PLHolder<const PLDictionary> parsePlist(const std::string& valueXML) {
    const std::string xml = "<plist version=\"1.0\">" + valueXML + "</plist>";
    PLHolder<const PLObject> plist =
        PLPropertyListCreateFromBytes(xml.data(), xml.size(), PLMutability::Immutable, nullptr);
    return PLHolder<const PLDictionary>::retain(PLDynamicCast<PLDictionary>(plist.get()));
}

std::set<std::string> keysOf(const PLObject* value) {
    std::set<std::string> keys;
    if (const auto* dict = PLDynamicCast<PLDictionary>(value)) {
        for (const auto& [key, unused] : dict->entries()) {
            if (const auto* text = PLDynamicCast<PLString>(key.get())) keys.insert(text->str());
        }
    }
    return keys;
}

const PLObject* plistValue(const PLDictionary* top, std::initializer_list<std::string_view> path) {
    const PLObject* node = top;
    for (std::string_view key : path) {
        const PLDictionary* dict = PLDynamicCast<PLDictionary>(node);
        if (!dict) return nullptr;
        node = dict->get(key);
    }
    return node;
}

}  // namespace quilltest
