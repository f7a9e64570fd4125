// A throw-away home for tests of the configuration records and the PID file:
// HOME points at a fresh directory for the lifetime of the object, so the
// records' default paths ("~/Library/Application Support/Lumenforge/...") land
// inside it. Also a host with fixed host facts, and a reader of whole files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <set>
#include <string>
#include <string_view>

#include "support/TestSupport.h"
#include <quillcore/platform/Host.h>
#include <quillcore/platform/PLObject.h>

namespace quilltest {

class ConfigHome {
public:
    // Makes the home and its "Library/Application Support/Lumenforge".
    ConfigHome();
    ConfigHome(const ConfigHome&) = delete;
    ConfigHome& operator=(const ConfigHome&) = delete;

    const std::filesystem::path& home() const { return _dir.path(); }
    // The shared configuration file and the PID file of this home.
    std::filesystem::path configFile() const;
    std::filesystem::path pidFile() const;

private:
    TempDir _dir;
    ScopedEnv _home;
};

// The top-level dictionary of a property-list file; null when the file is
// missing or does not parse to a dictionary.
PLHolder<const PLDictionary> readPlistFile(const std::filesystem::path& path);

// A dictionary from a property list's XML text without its <plist> element
// ("<dict>...</dict>"); null when it does not parse to one.
PLHolder<const PLDictionary> parsePlist(const std::string& valueXML);

// The value at a key path below `top` ("corvaneconfig", "DaemonPort"), or
// null. Borrowed from `top`: keep `top` alive while it is used.
const PLObject* plistValue(const PLDictionary* top, std::initializer_list<std::string_view> path);

// The keys of a dictionary; empty for anything else.
std::set<std::string> keysOf(const PLObject* value);

// Host facts fixed by the test; everything else goes to the real host.
class FixedHostFacts final : public quill::platform::CHostWrapper {
public:
    FixedHostFacts(std::int32_t processors, std::string computerName)
        : _processors(processors), _computerName(std::move(computerName)) {}
    std::int32_t processorCount() override { return _processors; }
    std::string computerName() override { return _computerName; }

private:
    std::int32_t _processors;
    std::string _computerName;
};

}  // namespace quilltest
