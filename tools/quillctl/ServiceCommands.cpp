// quillctl services list | show: the service cache of the current user (the
// "corvaneservices" section of the shared configuration file under HOME).
// The verbs that change services are in ServiceControlCommands.cpp.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "ToolSupport.h"
#include <quillcore/plist/CServiceCacheFile.h>

namespace quillctl {

namespace {

using quill::CServiceCacheEntry;
using quill::CServiceCacheFile;

std::string text(PLStringRef value) { return value ? value->str() : std::string("-"); }
const char* yesNo(bool value) { return value ? "yes" : "no"; }

// "Instances" as stored in `top` (the whole file): a negative count means one
// instance per that many processors, which the entry has already turned into
// a real count.
std::string configuredInstances(PLDictionaryRef top, PLStringRef name) {
    const auto* section = PLDynamicCast<PLDictionary>(top->get("corvaneservices"));
    const auto* entry = section ? PLDynamicCast<PLDictionary>(section->get(name)) : nullptr;
    const auto* count = entry ? PLDynamicCast<PLNumber>(entry->get("Instances")) : nullptr;
    return count ? std::to_string(count->int32Value()) : std::string("-");
}

int list() {
    const CServiceCacheFile cache;
    const PLHolder<const PLDictionary> top = cache.readPropertyList();
    std::vector<CServiceCacheEntry> entries;
    cache.get(entries);
    if (entries.empty()) {
        std::printf("no services in %s\n", cache.filePath()->c_str());
        return 0;
    }
    std::vector<std::vector<std::string>> rows = {{"KIND", "ENABLED", "INSTANCES", "REAL", "LAUNCH HINT", "PATH"}};
    for (const CServiceCacheEntry& entry : entries) {
        rows.push_back({text(entry.name()), yesNo(entry.enabled()), configuredInstances(top.get(), entry.name()),
                        std::to_string(entry.instances()), text(entry.launchHint()), text(entry.path())});
    }
    std::vector<std::size_t> widths(rows.front().size(), 0);
    for (const auto& row : rows) {
        for (std::size_t column = 0; column < row.size(); ++column)
            widths[column] = std::max(widths[column], row[column].size());
    }
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t column = 0; column < row.size(); ++column) {
            line += row[column];
            if (column + 1 < row.size()) line += std::string(widths[column] - row[column].size() + 2, ' ');
        }
        std::printf("%s\n", line.c_str());
    }
    return 0;
}

void printLine(const char* key, const std::string& value) { std::printf("%-17s %s\n", key, value.c_str()); }

std::string formatted(PLTypeRef value) {
    if (!value) return "-";
    std::string out;
    std::string error;
    if (!formatValue(value, out, &error)) return "(" + error + ")";
    if (!out.empty() && out.back() == '\n') out.pop_back();
    return out;
}

int show(const std::string& kind) {
    const CServiceCacheFile cache;
    const PLHolder<const PLString> name = PLString::create(kind);
    CServiceCacheEntry entry;
    if (!cache.get(name.get(), entry)) {
        printError("no service \"" + kind + "\" in " + cache.filePath()->str());
        return 1;
    }
    bool found = false;
    const std::int32_t ownLevel = entry.logLevel(false, found);
    const std::int32_t userLevel = entry.logLevel(true, found);
    const bool hasUserLevel = found;
    const bool ownTruncate = entry.truncateLog(false, found);
    const bool userTruncate = entry.truncateLog(true, found);
    const bool hasUserTruncate = found;

    printLine("Kind", kind);
    printLine("Enabled", yesNo(entry.enabled()));
    printLine("Instances", configuredInstances(cache.readPropertyList().get(), entry.name()) + " (real " +
                               std::to_string(entry.instances()) + ")");
    printLine("DisplayName", text(entry.displayName()));
    printLine("NetworkName", text(entry.networkName()));
    printLine("Description", text(entry.description()));
    printLine("Executable", text(entry.executable()));
    printLine("Path", text(entry.path()));
    printLine("BundlePath", text(entry.bundlePath()));
    printLine("CaptureKey", text(entry.captureKey()));
    printLine("Version", std::to_string(entry.version()));
    printLine("UserID", std::to_string(entry.userID()));
    std::string userIDs;
    if (PLArrayRef ids = entry.userIDs()) {
        for (const auto& id : ids->values()) userIDs += (userIDs.empty() ? "" : ", ") + formatted(id.get());
    }
    printLine("UserIDs", entry.userIDs() ? userIDs : "-");
    printLine("PerUserService", yesNo(entry.perUserService()));
    printLine("SharePref", yesNo(entry.sharePref()));
    printLine("Visible", yesNo(entry.visible()));
    printLine("ExplicitSyncOnly", yesNo(entry.explicitSyncOnly()));
    printLine("DetachDaemon", yesNo(entry.detachDaemon()));
    printLine("LocalAds", yesNo(entry.localAds()));
    printLine("Advertising", std::to_string(entry.advertising()));
    printLine("Logging", yesNo(entry.logging()));
    printLine("LogLevel", std::to_string(ownLevel) +
                              (hasUserLevel ? " (per user " + std::to_string(userLevel) + ")" : std::string()));
    printLine("TruncateLog", std::string(yesNo(ownTruncate)) +
                                 (hasUserTruncate ? std::string(" (per user ") + yesNo(userTruncate) + ")" : ""));
    printLine("StdoutPath", text(entry.stdoutPath()));
    printLine("LaunchHint", text(entry.launchHint()));
    PLDictionaryRef prefs = entry.userPrefs();
    if (!prefs || prefs->count() == 0) {
        printLine("UserPrefs", prefs ? "(empty)" : "-");
    } else {
        std::printf("UserPrefs\n");
        std::vector<std::pair<std::string, std::string>> lines;
        for (const auto& [key, value] : prefs->entries())
            lines.emplace_back(formatted(key.get()), formatted(value.get()));
        std::sort(lines.begin(), lines.end());
        for (const auto& [key, value] : lines) std::printf("  %s = %s\n", key.c_str(), value.c_str());
    }
    return 0;
}

void addServiceCommands(CLI::App& app) {
    CLI::App* services = commandGroup(app, "services", "Install, control and show the services of HOME");

    CLI::App* listCmd = services->add_subcommand("list", "One line per installed service");
    listCmd->footer(
        "INSTANCES is the count as configured (negative: one instance per that many\n"
        "processors); REAL is the count on this host.");
    setAction(listCmd, [] { return list(); });

    auto kind = std::make_shared<std::string>();
    CLI::App* showCmd = services->add_subcommand("show", "Every field of one service's cache entry");
    showCmd->add_option("KIND", *kind, "The service kind (the entry's name)")->required();
    setAction(showCmd, [kind] { return show(*kind); });
}

}  // namespace

QUILLCTL_COMMANDS(addServiceCommands);

}  // namespace quillctl
