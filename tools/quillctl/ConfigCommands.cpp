// quillctl config show | set: the cluster configuration of the current user
// (the "corvaneconfig" section of the shared configuration file under HOME).
#include <cstdio>
#include <filesystem>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "ToolSupport.h"
#include <ferrocore/CSharedObject.h>
#include <quillcore/plist/CQuillConfigFile.h>
#include <quillcore/util/PLUtil.h>

namespace quillctl {

namespace {

using quill::CQuillConfigFile;
using Advertising = CQuillConfigFile::Advertising;

enum class FieldType { Bool, Int, String, Advertising };

// One setting of the cluster configuration, by its key in the file.
struct Field {
    const char* key;
    FieldType type;
    bool CQuillConfigFile::*flag = nullptr;
    std::int32_t CQuillConfigFile::*number = nullptr;
    PLHolder<const PLString> CQuillConfigFile::*text = nullptr;
};

Field boolField(const char* key, bool CQuillConfigFile::*member) { return {key, FieldType::Bool, member}; }
Field intField(const char* key, std::int32_t CQuillConfigFile::*member) {
    return {key, FieldType::Int, nullptr, member};
}
Field stringField(const char* key, PLHolder<const PLString> CQuillConfigFile::*member) {
    return {key, FieldType::String, nullptr, nullptr, member};
}

// In the order of the file's layout.
const std::vector<Field>& fields() {
    static const std::vector<Field> table = {
        stringField("StdoutPath", &CQuillConfigFile::stdoutPath),
        stringField("StdoutServicePath", &CQuillConfigFile::stdoutServicePath),
        boolField("DaemonEnabled", &CQuillConfigFile::daemonEnabled),
        intField("DaemonPort", &CQuillConfigFile::daemonPort),
        boolField("LaunchContentAgent", &CQuillConfigFile::launchContentAgent),
        boolField("SharingEnabled", &CQuillConfigFile::sharingEnabled),
        intField("SharingType", &CQuillConfigFile::sharingType),
        boolField("LogToFile", &CQuillConfigFile::logToFile),
        boolField("RequirePassword", &CQuillConfigFile::requirePassword),
        stringField("ServerPassword", &CQuillConfigFile::serverPassword),
        stringField("ServerName", &CQuillConfigFile::serverName),
        {"Advertising", FieldType::Advertising},
        stringField("NetworkConnection", &CQuillConfigFile::networkConnection),
        boolField("AllowSalveeAds", &CQuillConfigFile::allowSalveeAds),
        boolField("AllowRemoteAds", &CQuillConfigFile::allowRemoteAds),
        stringField("DNSDomain", &CQuillConfigFile::dnsDomain),
        boolField("UseDNSDomain", &CQuillConfigFile::useDNSDomain),
        boolField("UsePortRange", &CQuillConfigFile::usePortRange),
        intField("PortRangeStart", &CQuillConfigFile::portRangeStart),
        intField("PortRangePorts", &CQuillConfigFile::portRangePorts),
    };
    return table;
}

const char* advertisingText(Advertising value) {
    switch (value) {
        case Advertising::DN: return "DN";
        case Advertising::MC: return "MC";
        case Advertising::RV: return "RV";
    }
    return "?";
}

std::string valueText(const CQuillConfigFile& config, const Field& field) {
    switch (field.type) {
        case FieldType::Bool: return config.*field.flag ? "true" : "false";
        case FieldType::Int: return std::to_string(config.*field.number);
        case FieldType::String: {
            const PLHolder<const PLString>& text = config.*field.text;
            return text ? "\"" + text->str() + "\"" : "(not set)";
        }
        case FieldType::Advertising: return advertisingText(config.advertising);
    }
    return {};
}

// What a configuration without a "corvaneconfig" section reads as.
std::unique_ptr<CQuillConfigFile> defaultsLike(const CQuillConfigFile& config) {
    auto defaults = std::make_unique<CQuillConfigFile>(config.filePath());
    defaults->initRefresh();
    defaults->fromPropertyList(quill::PLUtil::PLDictMakeMutable().get());
    defaults->stdoutPath.reset();
    defaults->stdoutServicePath.reset();
    return defaults;
}

int show() {
    const CQuillConfigFile config;
    const std::unique_ptr<CQuillConfigFile> defaults = defaultsLike(config);
    std::printf("# %s\n", config.filePath()->c_str());
    for (const Field& field : fields()) {
        const std::string value = valueText(config, field);
        const bool isDefault = value == valueText(*defaults, field);
        std::printf("%-19s %s%s\n", field.key, value.c_str(), isDefault ? " (default)" : "");
    }
    return 0;
}

const Field* findField(const std::string& key) {
    for (const Field& field : fields()) {
        if (key == field.key) return &field;
    }
    return nullptr;
}

std::string knownKeys() {
    std::string keys;
    for (const Field& field : fields()) keys += (keys.empty() ? "" : ", ") + std::string(field.key);
    return keys;
}

// Sets `field` of `config` from `text`; false with a message when the text is
// not a value of the field's type.
bool assign(CQuillConfigFile& config, const Field& field, const std::string& text, std::string& error) {
    const std::string bad = "bad value \"" + text + "\" for " + field.key + ": ";
    switch (field.type) {
        case FieldType::Bool: {
            std::string why;
            const PLHolder<const PLObject> value = parseTypedValue("bool", text, &why);
            if (!value) {
                error = bad + "expected true/false, yes/no or 1/0";
                return false;
            }
            config.*field.flag = static_cast<const PLBoolean*>(value.get())->value();
            return true;
        }
        case FieldType::Int: {
            std::string why;
            const PLHolder<const PLObject> value = parseTypedValue("integer", text, &why);
            const std::int64_t number = value ? static_cast<const PLNumber*>(value.get())->int64Value() : 0;
            if (!value || number < std::numeric_limits<std::int32_t>::min() ||
                number > std::numeric_limits<std::int32_t>::max()) {
                error = bad + "expected a 32-bit decimal integer";
                return false;
            }
            config.*field.number = static_cast<std::int32_t>(number);
            return true;
        }
        case FieldType::String: config.*field.text = PLString::create(text); return true;
        case FieldType::Advertising:
            if (text == "DN")
                config.advertising = Advertising::DN;
            else if (text == "MC")
                config.advertising = Advertising::MC;
            else if (text == "RV")
                config.advertising = Advertising::RV;
            else {
                error = bad + "expected DN, MC or RV";
                return false;
            }
            return true;
    }
    return false;
}

// The change is one step between processes: the exclusive lock is held from
// the read to the write. The configuration's own flush() must not be used
// under that lock (after its refresh the contents are the section alone, so
// it would write the section as the whole file); the whole file is read again
// under the lock and written with the new section instead.
int set(const std::string& key, const std::string& text) {
    const Field* field = findField(key);
    if (!field) {
        printError("unknown key \"" + key + "\"; the keys are " + knownKeys());
        return 1;
    }
    CQuillConfigFile config;
    std::string error;
    if (!assign(config, *field, text, error)) {  // checked before anything is locked or written
        printError(error);
        return 1;
    }

    // The exclusive lock creates a missing file, but not its directory.
    std::filesystem::create_directories(std::filesystem::path(config.filePath()->str()).parent_path());
    config.lockForRW();
    const quill::CPropertyListBasicFile::CFileLockMonitorRef monitor =
        ferrocore::makeShared<quill::CPropertyListBasicFile::CFileLockMonitor>(&config);
    config.refresh();
    assign(config, *field, text, error);
    const PLHolder<PLMutableDictionary> top = quill::PLUtil::PLDictMakeMutableCopy(config.readPropertyList().get());
    top->set(PLString::create("corvaneconfig"), config.toPropertyList());
    config.writePropertyList(top.get());
    return 0;
}

CLI::App* configGroup(CLI::App& app) {
    return commandGroup(app, "config", "Show and change the cluster configuration under HOME");
}

void addConfigCommands(CLI::App& app) {
    CLI::App* config = configGroup(app);

    CLI::App* showCmd = config->add_subcommand("show", "Print every setting with its value");
    showCmd->footer("Settings that hold their default value are marked \"(default)\".");
    setAction(showCmd, [] { return show(); });

    struct SetArguments {
        std::string key, value;
    };
    auto setArgs = std::make_shared<SetArguments>();
    CLI::App* setCmd = config->add_subcommand("set", "Change one setting, under the file's write lock");
    setCmd->add_option("KEY", setArgs->key, "The setting's key in the file (\"DaemonPort\", \"ServerName\", ...)")
        ->required();
    setCmd->add_option("VALUE", setArgs->value, "The new value")->required();
    setCmd->footer(
        "Booleans take true/false, yes/no or 1/0; numbers a 32-bit decimal integer;\n"
        "Advertising one of DN, MC, RV; the other keys any text. Keys: " +
        knownKeys() + ".");
    setAction(setCmd, [setArgs] { return set(setArgs->key, setArgs->value); });
}

}  // namespace

QUILLCTL_COMMANDS(addConfigCommands);

}  // namespace quillctl
