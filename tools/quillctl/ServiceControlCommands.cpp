// quillctl services install | enable | disable | remove | reset | sync |
// restart | dynamic, and quillctl jobs show: a service from its bundle to a
// running job, through the library's exported service-control functions.
// They work on the service cache and the job definitions under HOME and run
// the service manager's control command (QUILL_RUNWARDCTL, else
// "/bin/runwardctl").
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "ToolSupport.h"
#include <quillcore/control/QuillConfig.h>
#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/platform/Bundle.h>
#include <quillcore/plist/CServiceCacheFile.h>
#include <quillcore/servicemanager/CRunwardCtlPList.h>
#include <quillcore/servicemanager/CServiceUtil.h>

namespace quillctl {

namespace {

using quill::CRunwardCtlPList;
using quill::CServiceCacheEntry;
using quill::CServiceCacheFile;
using quill::CServiceUtil;

PLHolder<const PLString> text(const std::string& value) { return PLString::create(value); }

PLHolder<const PLArray> kindArray(const std::vector<std::string>& kinds) {
    std::vector<PLHolder<const PLObject>> values;
    for (const std::string& kind : kinds) values.push_back(text(kind));
    return PLArray::createFromValues(std::move(values));
}

// The cache entry of `kind`, or false with the message printed.
bool findEntry(const std::string& kind, CServiceCacheEntry& entry) {
    const CServiceCacheFile cache;
    if (cache.get(text(kind).get(), entry)) return true;
    printError("no service \"" + kind + "\" installed");
    return false;
}

const char* launcherName(const CServiceCacheEntry& entry) {
    return CServiceUtil::launchFlagForService(entry) == quill::kServiceLaunchedByServiceManager ? "the service manager"
                                                                                                : "the daemon";
}

// The directory of the configuration file, which a fresh home lacks.
void makeConfigDirectory() {
    const PLHolder<const PLString> path =
        PLHolder<const PLString>::adopt(expandTildeInFilePath(quill::QuillCorePrivate::kQuillConfigPath));
    if (!path) return;
    std::error_code error;
    if (std::filesystem::create_directories(path->str(), error))
        std::filesystem::permissions(path->str(), std::filesystem::perms(0755), error);
}

int install(const std::string& bundlePath, const std::string& name, bool hasName) {
    // The library answers false for every refusal; the bundle is looked at
    // here first so that the message can say which.
    const auto bundle = quill::platform::CBundle::open(bundlePath);
    if (!bundle) {
        printError(bundlePath + ": not a bundle directory");
        return 1;
    }
    const PLHolder<const PLString> kind = PLHolder<const PLString>::adopt(getServiceKindFromBundle(&*bundle));
    if (!kind) {
        printError(bundlePath + ": no \"CorvaneServiceKind\" string in its Info.plist");
        return 1;
    }
    if (!PLDynamicCast<PLDictionary>(bundle->infoValue(kCorvaneServiceConfigKey))) {
        printError(bundlePath + ": no \"CorvaneServiceConfig\" dictionary in its Info.plist");
        return 1;
    }
    const std::string key = hasName ? name : kind->str();
    // The library's answer is that of the cache file's flush, which is false
    // also when it wrote; whether the entry changed tells what happened.
    const auto snapshot = [&key](CServiceCacheEntry& entry) -> PLHolder<const PLDictionary> {
        if (!CServiceCacheFile().get(text(key).get(), entry)) return nullptr;
        return entry.toDict();
    };
    CServiceCacheEntry entry;
    const PLHolder<const PLDictionary> before = snapshot(entry);
    makeConfigDirectory();
    const PLHolder<const PLURL> url = PLURL::createWithPath(bundlePath, true);
    installServiceWithName(hasName ? text(name).get() : nullptr, url.get());
    const PLHolder<const PLDictionary> after = snapshot(entry);
    if (!after) {
        printError(bundlePath + ": not installed (no executable in the bundle?)");
        return 1;
    }
    if (before && PLEqual(before.get(), after.get())) {
        printError("\"" + key + "\" is installed already at the same or a newer version (" +
                   std::to_string(entry.version()) + ") with the same executable; the cache is unchanged");
        return 1;
    }
    std::printf("installed %s (kind %s, version %lld, %d instance%s, run by %s)\n", key.c_str(), kind->c_str(),
                static_cast<long long>(entry.version()), entry.instances(), entry.instances() == 1 ? "" : "s",
                launcherName(entry));
    return 0;
}

int setEnabled(const std::string& kind, bool enable) {
    const bool found = enable ? enableService(text(kind).get()) : disableService(text(kind).get());
    if (!found) {
        printError("no service \"" + kind + "\" installed");
        return 1;
    }
    std::printf("%s %s (run quillctl services sync to apply)\n", kind.c_str(), enable ? "enabled" : "disabled");
    return 0;
}

int remove(const std::string& kind) {
    if (!removeService(text(kind).get())) {
        printError("no service \"" + kind + "\" installed");
        return 1;
    }
    std::printf("removed %s\n", kind.c_str());
    return 0;
}

int reset(const std::string& kind) {
    if (!resetServiceEntry(text(kind).get())) {
        printError("can't reset \"" + kind + "\": it is not installed or its bundle has no configuration");
        return 1;
    }
    std::printf("reset %s to its bundle's configuration\n", kind.c_str());
    return 0;
}

int sync(const std::vector<std::string>& kinds) {
    const CServiceCacheFile cache;
    for (const std::string& kind : kinds) {
        CServiceCacheEntry entry;
        if (!cache.get(text(kind).get(), entry)) {
            printError("no service \"" + kind + "\" installed; skipped");
            continue;
        }
        std::printf("%s: %s, %d instance%s, run by %s\n", kind.c_str(), entry.enabled() ? "enabled" : "disabled",
                    entry.instances(), entry.instances() == 1 ? "" : "s", launcherName(entry));
    }
    syncServices(kinds.empty() ? nullptr : kindArray(kinds).get());
    std::printf("synchronised; the daemon was told\n");
    return 0;
}

int restart(const std::vector<std::string>& kinds) {
    restartServices(kindArray(kinds).get());
    for (const std::string& kind : kinds) std::printf("restart of %s requested\n", kind.c_str());
    return 0;
}

// The kind's entry when it is a service of the service manager.
bool findManagedEntry(const std::string& kind, CServiceCacheEntry& entry) {
    if (!findEntry(kind, entry)) return false;
    if (CServiceUtil::launchFlagForService(entry) == quill::kServiceLaunchedByServiceManager) return true;
    printError("\"" + kind + "\" is run by the daemon; only services of the service manager have dynamic instances");
    return false;
}

int dynamicInstall(const std::string& kind, std::int32_t count) {
    CServiceCacheEntry entry;
    if (!findManagedEntry(kind, entry)) return 1;
    installDynamicServiceInstances(text(kind).get(), count);
    const std::int32_t first = CServiceCacheEntry::ConvertToRealInstanceCount(entry.instances());
    for (std::int32_t instance = first; instance < first + count; ++instance) {
        const auto path = CRunwardCtlPList::expandedPListFilePathForService(entry, static_cast<unsigned>(instance));
        std::printf("instance %d: %s\n", instance, path ? path->c_str() : "(no home directory)");
    }
    return 0;
}

int dynamicSync(const std::string& kind, std::int32_t count, bool enable) {
    CServiceCacheEntry entry;
    if (!findManagedEntry(kind, entry)) return 1;
    syncDynamicServiceInstances(text(kind).get(), count, enable);
    const std::int32_t first = CServiceCacheEntry::ConvertToRealInstanceCount(entry.instances());
    std::printf("instances %d to %d of %s %s\n", first, first + count - 1, kind.c_str(),
                enable ? "started" : "stopped");
    return 0;
}

int showJob(const std::string& kind, std::int32_t instance) {
    CServiceCacheEntry entry;
    if (!findEntry(kind, entry)) return 1;
    const auto number = static_cast<unsigned>(instance);
    const ferrocore::CStringRef path = CRunwardCtlPList::expandedPListFilePathForService(entry, number);
    if (!path) {
        printError("no home directory for the job directory");
        return 1;
    }
    // The trigger file follows from the label, which is known also when the
    // job file is missing.
    CRunwardCtlPList job{ferrocore::CStringRef()};
    job.setPListData(CRunwardCtlPList::plistDataForGenericService().get());
    job.setLabelForService(entry, number);
    const ferrocore::CStringRef trigger = job.getTransientTriggerFilePath(true);
    const bool triggered = trigger && fileExists(text(trigger->utf8()).get());

    std::printf("Job file: %s\n", path->c_str());
    std::string error;
    std::string contents;
    const bool present = fileExists(text(path->utf8()).get());
    if (present) {
        FILE* file = std::fopen(path->c_str(), "rb");
        if (!file) {
            printError(path->utf8() + ": can't read");
            return 1;
        }
        char buffer[4096];
        std::size_t n;
        while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0) contents.append(buffer, n);
        std::fclose(file);
        std::fwrite(contents.data(), 1, contents.size(), stdout);
        if (!contents.empty() && contents.back() != '\n') std::printf("\n");
    } else {
        std::printf("(not written: install the service first)\n");
    }
    std::printf("Trigger file: %s (%s)\n", trigger ? trigger->c_str() : "-", triggered ? "exists" : "missing");
    return present ? 0 : 1;
}

void addServiceControlCommands(CLI::App& app) {
    CLI::App* services = commandGroup(app, "services", "Install, control and show the services of HOME");

    struct InstallOptions {
        std::string bundle;
        std::string name;
    };
    auto installOptions = std::make_shared<InstallOptions>();
    CLI::App* installCmd = services->add_subcommand("install", "Install the service of a bundle");
    installCmd->add_option("BUNDLE", installOptions->bundle, "The service bundle directory")->required();
    CLI::Option* nameOption =
        installCmd->add_option("--name", installOptions->name, "Record it under this name instead of its kind");
    installCmd->footer(
        "Records the bundle's service in the service cache and, for a service of the\n"
        "service manager, writes one job definition per instance. Fails when the same or\n"
        "a newer version with the same executable is installed (its job definitions are\n"
        "written all the same).");
    setAction(installCmd, [installOptions, nameOption] {
        return install(installOptions->bundle, installOptions->name, nameOption->count() > 0);
    });

    auto kind = std::make_shared<std::string>();
    const auto addKindVerb = [&](const char* verb, const char* description, std::function<int(const std::string&)> f) {
        CLI::App* cmd = services->add_subcommand(verb, description);
        cmd->add_option("KIND", *kind, "The service kind (the entry's name)")->required();
        setAction(cmd, [kind, f] { return f(*kind); });
        return cmd;
    };
    addKindVerb("enable", "Set the service's enabled flag", [](const std::string& k) {
        return setEnabled(k, true);
    })->footer("Takes effect with quillctl services sync.");
    addKindVerb("disable", "Clear the service's enabled flag", [](const std::string& k) {
        return setEnabled(k, false);
    })->footer("Takes effect with quillctl services sync.");
    addKindVerb("remove", "Remove the service's cache entry", [](const std::string& k) { return remove(k); });
    addKindVerb("reset", "Rebuild the entry from its bundle's configuration", [](const std::string& k) {
        return reset(k);
    })->footer("The enabled flag, the instance count and the preferences go back to the bundle's.");

    auto kinds = std::make_shared<std::vector<std::string>>();
    CLI::App* syncCmd = services->add_subcommand("sync", "Start the enabled services, stop the disabled ones");
    syncCmd->add_option("KIND", *kinds, "The services (none: only tell the daemon that preferences changed)");
    syncCmd->footer(
        "Services of the service manager: the trigger file of each instance is created\n"
        "and its job definition loaded, or the trigger file removed. Daemon-run services\n"
        "are passed to the daemon in the preferences-changed notification.");
    setAction(syncCmd, [kinds] { return sync(*kinds); });

    auto restartKinds = std::make_shared<std::vector<std::string>>();
    CLI::App* restartCmd = services->add_subcommand("restart", "Ask the daemon to restart services");
    restartCmd->add_option("KIND", *restartKinds, "The services")->required();
    setAction(restartCmd, [restartKinds] { return restart(*restartKinds); });

    CLI::App* dynamic = services->add_subcommand("dynamic", "Instances beyond the configured ones");
    dynamic->require_subcommand(1);
    struct DynamicOptions {
        std::string kind;
        std::int32_t count = 0;
        bool enable = false;
        bool disable = false;
    };
    auto dynamicOptions = std::make_shared<DynamicOptions>();
    CLI::App* dynamicInstallCmd = dynamic->add_subcommand("install", "Write the job definitions of COUNT instances");
    dynamicInstallCmd->add_option("KIND", dynamicOptions->kind, "The service kind")->required();
    dynamicInstallCmd->add_option("COUNT", dynamicOptions->count, "How many")->required()->check(CLI::PositiveNumber);
    setAction(dynamicInstallCmd,
              [dynamicOptions] { return dynamicInstall(dynamicOptions->kind, dynamicOptions->count); });

    CLI::App* dynamicSyncCmd = dynamic->add_subcommand("sync", "Start (or stop) COUNT dynamic instances");
    dynamicSyncCmd->add_option("KIND", dynamicOptions->kind, "The service kind")->required();
    dynamicSyncCmd->add_option("COUNT", dynamicOptions->count, "How many")->required()->check(CLI::PositiveNumber);
    CLI::Option* enableFlag = dynamicSyncCmd->add_flag("--enable", dynamicOptions->enable, "Start them (the default)");
    CLI::Option* disableFlag = dynamicSyncCmd->add_flag("--disable", dynamicOptions->disable, "Stop them");
    enableFlag->excludes(disableFlag);
    dynamicSyncCmd->footer("The n-th dynamic instance of a service with R configured ones is instance R + n.");
    setAction(dynamicSyncCmd, [dynamicOptions] {
        return dynamicSync(dynamicOptions->kind, dynamicOptions->count, !dynamicOptions->disable);
    });

    CLI::App* jobs = commandGroup(app, "jobs", "Show the job definitions of services");
    struct JobOptions {
        std::string kind;
        std::int32_t instance = 0;
    };
    auto jobOptions = std::make_shared<JobOptions>();
    CLI::App* showCmd = jobs->add_subcommand("show", "The job definition of one instance, and its trigger file");
    showCmd->add_option("KIND", jobOptions->kind, "The service kind")->required();
    showCmd->add_option("--instance", jobOptions->instance, "The instance number (default 0)")
        ->check(CLI::NonNegativeNumber);
    showCmd->footer(
        "Prints the job file as written, then where the instance's trigger file is and\n"
        "whether it exists (while it exists, the service manager keeps the job running).\n"
        "Fails when the job file is missing.");
    setAction(showCmd, [jobOptions] { return showJob(jobOptions->kind, jobOptions->instance); });
}

}  // namespace

QUILLCTL_COMMANDS(addServiceControlCommands);

}  // namespace quillctl
