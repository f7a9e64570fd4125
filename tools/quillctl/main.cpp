// quillctl — inspect and drive QuillCore from the shell.
#include <cstdio>
#include <map>

#include "Commands.h"

namespace quillctl {

namespace {
std::map<const CLI::App*, Action>& actions() {
    static std::map<const CLI::App*, Action> table;
    return table;
}

std::map<std::string, Registrar>& groups() {
    static std::map<std::string, Registrar> table;
    return table;
}

}  // namespace

CommandGroup::CommandGroup(const char* name, Registrar registrar) { groups()[name] = registrar; }

void addRegisteredCommands(CLI::App& app) {
    for (const auto& [name, registrar] : groups()) registrar(app);
}

CLI::App* commandGroup(CLI::App& app, const std::string& name, const std::string& description) {
    try {
        return app.get_subcommand(name);
    } catch (const CLI::OptionNotFound&) {
        CLI::App* group = app.add_subcommand(name, description);
        group->require_subcommand(1);
        return group;
    }
}

void setAction(CLI::App* verb, Action action) { actions()[verb] = std::move(action); }

void printError(const std::string& message) {
    std::fflush(stdout);
    std::fprintf(stderr, "quillctl: %s\n", message.c_str());
}

}  // namespace quillctl

int main(int argc, char** argv) {
    CLI::App app{"quillctl — inspect and drive QuillCore from the shell", "quillctl"};
    app.require_subcommand(1);
    quillctl::addRegisteredCommands(app);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // --help and --version end well; every other parse error is a usage
        // error, whatever CLI11's own code for it.
        return app.exit(e) == 0 ? 0 : 2;
    }

    // The deepest selected subcommand carries the action.
    const CLI::App* verb = &app;
    for (;;) {
        auto chosen = verb->get_subcommands();
        if (chosen.empty()) break;
        verb = chosen.front();
    }
    auto it = quillctl::actions().find(verb);
    if (it == quillctl::actions().end()) {
        std::fputs(verb->help().c_str(), stderr);
        return 2;
    }
    try {
        return it->second();
    } catch (const std::exception& e) {
        quillctl::printError(e.what());
        return 1;
    }
}
