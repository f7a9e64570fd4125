// quillctl: the verbs of the command-line tool, one registration function per
// group. Each verb writes its results to standard output, its errors to
// standard error prefixed "quillctl: ", and sets the process exit status
// through the returned code (0 success, 1 failure, 2 usage).
#pragma once

#include <functional>
#include <string>

#include <CLI/CLI.hpp>

namespace quillctl {

// The action of a parsed verb; it returns the exit status.
using Action = std::function<int()>;

// Registers a verb's action; main() runs the one the command line selected.
void setAction(CLI::App* verb, Action action);

// Each verb group registers itself from its own source file:
//   QUILLCTL_COMMANDS(addPlistCommands) after `void addPlistCommands(CLI::App&)`.
// Groups are added to the command line in the order of their names.
using Registrar = void (*)(CLI::App&);
struct CommandGroup {
    CommandGroup(const char* name, Registrar registrar);
};
void addRegisteredCommands(CLI::App& app);

// The subcommand `name` of `app`, made (requiring a verb of its own) when no
// group registered it before; for verb groups spread over several files.
CLI::App* commandGroup(CLI::App& app, const std::string& name, const std::string& description);

#define QUILLCTL_COMMANDS(function) \
    static const ::quillctl::CommandGroup quillctlGroup_##function { #function, &function }

// Writes "quillctl: <message>" and a line feed to standard error.
void printError(const std::string& message);

}  // namespace quillctl
