// quillctl pids [KEY]: the process IDs recorded in the current user's PID
// file, with their attributes and whether each process still exists.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Commands.h"
#include <quillcore/platform/ProcessSpawner.h>
#include <quillcore/plist/CServicePIDFile.h>

namespace quillctl {

namespace {

using quill::CServicePIDFile;

// Exists, also when it belongs to another user (signal 0 is then refused).
bool isAlive(std::int32_t pid) {
    if (pid <= 0) return false;
    const std::error_code error = quill::platform::processSpawner().signalProcess(pid, 0);
    return !error || error.value() == EPERM;
}

std::string attributeText(PLDictionaryRef attributes) {
    if (!attributes) return "(no attributes)";
    std::string out;
    for (const char* key : {"Kind", "Name", "Version"}) {
        const auto* value = PLDynamicCast<PLString>(attributes->get(key));
        if (!value) continue;
        out += (out.empty() ? "" : " ") + std::string(key) + "=\"" + value->str() + "\"";
    }
    return out.empty() ? "(no attributes)" : out;
}

void printProcess(const CServicePIDFile& file, std::int32_t pid) {
    const PLHolder<const PLDictionary> attributes = file.processAttributes(pid);
    std::printf("  %d %s %s\n", pid, isAlive(pid) ? "alive" : "gone", attributeText(attributes.get()).c_str());
}

int pids(const std::string& key) {
    const CServicePIDFile file(PLString::create(key).get());
    const PLHolder<PLMutableDictionary> top = file.toPropertyList();  // the whole file

    std::vector<std::string> keys;
    if (!key.empty()) {
        keys.push_back(key);
    } else {
        for (const auto& [name, value] : top->entries()) {
            const auto* text = PLDynamicCast<PLString>(name.get());
            if (text && PLDynamicCast<PLArray>(value.get())) keys.push_back(text->str());
        }
        std::sort(keys.begin(), keys.end());
    }

    std::set<std::int32_t> listed;
    bool any = false;
    for (const std::string& name : keys) {
        const auto* array = PLDynamicCast<PLArray>(top->get(name));
        const std::vector<std::int32_t> ids = file.fromArray(array);
        if (ids.empty()) continue;
        any = true;
        std::printf("%s\n", name.c_str());
        for (const std::int32_t pid : ids) {
            printProcess(file, pid);
            listed.insert(pid);
        }
    }

    // Attributes of processes that no service lists (shown for the whole file
    // only).
    std::vector<std::int32_t> unlisted;
    if (key.empty()) {
        if (const PLHolder<const PLDictionary> attributes = file.getAttributes()) {
            for (const auto& [name, value] : attributes->entries()) {
                const auto* text = PLDynamicCast<PLString>(name.get());
                if (!text) continue;
                const std::int32_t pid = std::atoi(text->c_str());
                if (!listed.count(pid)) unlisted.push_back(pid);
            }
        }
        std::sort(unlisted.begin(), unlisted.end());
    }
    if (!unlisted.empty()) {
        any = true;
        std::printf("(attributes only)\n");
        for (const std::int32_t pid : unlisted) printProcess(file, pid);
    }

    if (!any) {
        if (key.empty())
            std::printf("no process IDs recorded in %s\n", file.filePath()->c_str());
        else
            std::printf("no process IDs recorded for %s in %s\n", key.c_str(), file.filePath()->c_str());
    }
    return 0;
}

void addPidCommands(CLI::App& app) {
    auto key = std::make_shared<std::string>();
    CLI::App* pidsCmd = app.add_subcommand("pids", "List the process IDs recorded in the PID file under HOME");
    pidsCmd->add_option("KEY", *key, "Only the processes of this service key (for example corvaned)");
    pidsCmd->footer(
        "Each process is marked alive when it still exists (also when it belongs to\n"
        "another user), else gone, followed by its recorded Kind, Name and Version.");
    setAction(pidsCmd, [key] { return pids(*key); });
}

}  // namespace

QUILLCTL_COMMANDS(addPidCommands);

}  // namespace quillctl
