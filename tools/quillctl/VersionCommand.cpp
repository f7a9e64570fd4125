// quillctl version
#include <cstdio>
#include <cstring>

#include "Commands.h"
#include <quillcore/control/QuillCoreVersion.h>

namespace quillctl {

namespace {

void addVersionCommand(CLI::App& app) {
    CLI::App* cmd = app.add_subcommand("version", "Print the library's version string and number");
    setAction(cmd, [] {
        // The version string carries a what-marker and ends in a line feed.
        std::fputs(QuillCoreVersionString, stdout);
        std::printf("%g\n", QuillCoreVersionNumber);
        return 0;
    });
}

}  // namespace

QUILLCTL_COMMANDS(addVersionCommand);

}  // namespace quillctl
