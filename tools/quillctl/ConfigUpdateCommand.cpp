// quillctl config update
#include <iostream>

#include "Commands.h"
#include <quillcore/plist/QuillConfigUpdater.h>

namespace quillctl {

namespace {

CLI::App* configGroup(CLI::App& app) {
    return commandGroup(app, "config", "Show and change the cluster configuration under HOME");
}

void addConfigUpdateCommand(CLI::App& app) {
    CLI::App* updateCmd = configGroup(app)->add_subcommand(
        "update", "Copy or merge the framework's master defaults into the configuration file under HOME");
    updateCmd->footer(
        "Runs the daemon's start-up update: without a usable configuration file the master defaults are\n"
        "copied; when the master's Version is newer they are merged, keeping the settings the user changed.\n"
        "Progress lines go to standard output; failures are reported there too, and the status is still 0.");
    setAction(updateCmd, [] {
        quill::QuillConfigUpdater updater(std::cout);
        updater.run();
        return 0;
    });
}

}  // namespace

QUILLCTL_COMMANDS(addConfigUpdateCommand);

}  // namespace quillctl
