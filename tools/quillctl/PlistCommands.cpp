// quillctl plist lint | print | get | set | delete
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include <unistd.h>

#include "Commands.h"
#include "ToolSupport.h"
#include <ferrocore/CException.h>
#include <quillcore/platform/PLPropertyList.h>
#include <quillcore/plist/CPropertyListBasicFile.h>

namespace quillctl {

namespace {

int lint(const std::vector<std::string>& files) {
    int status = 0;
    for (const std::string& file : files) {
        std::string error;
        if (loadPropertyList(file, &error)) {
            std::printf("%s: OK\n", file.c_str());
        } else {
            printError(file + ": " + error);
            status = 1;
        }
    }
    return status;
}

int print(const std::string& file) {
    std::string error;
    PLHolder<const PLObject> plist = loadPropertyList(file, &error);
    if (!plist) {
        printError(file + ": " + error);
        return 1;
    }
    std::string xml;
    if (!PLPropertyListWriteXML(plist.get(), xml, &error)) {
        printError(file + ": cannot write as XML: " + error);
        return 1;
    }
    std::fwrite(xml.data(), 1, xml.size(), stdout);
    return 0;
}

int get(const std::string& file, const std::string& keyPath) {
    std::string error;
    PLHolder<const PLObject> plist = loadPropertyList(file, &error);
    if (!plist) {
        printError(file + ": " + error);
        return 1;
    }
    const PLObject* value = resolveKeyPath(plist.get(), keyPath, &error);
    if (!value) {
        printError(file + ": " + error);
        return 1;
    }
    std::string text;
    if (!formatValue(value, text, &error)) {
        printError(file + ": " + error);
        return 1;
    }
    std::fwrite(text.data(), 1, text.size(), stdout);
    return 0;
}

// Changes one key path of `file` as one atomic step between processes: the
// exclusive lock is taken before the file is read and held until the whole
// changed top level is written back, so concurrent changers never lose each
// other's changes. `value` null removes. A file that does not parse is left
// untouched (the file class refuses to write it).
int change(const std::string& file, const std::string& keyPath, const PLObject* value) {
    try {
        const PLHolder<const PLString> path = PLString::create(file);
        quill::CPropertyListBasicFile plist(path.get(), quill::CPropertyListBasicFile::kOpenModeReadWrite);
        std::string error;
        const PLHolder<PLMutableDictionary> contents = plist.toPropertyList();
        PLHolder<const PLObject> changed = editKeyPath(contents.get(), keyPath, value, &error);
        if (!changed) {
            printError(file + ": " + error);
            return 1;
        }
        plist.writePropertyList(static_cast<const PLDictionary*>(changed.get()));
        plist.unlock();
        return 0;
    } catch (const ferrocore::CException& e) {
        printError(e.message());
        return 1;
    }
}

int set(const std::string& file, const std::string& keyPath, const std::string& type, const std::string& text) {
    std::string error;
    const PLHolder<const PLObject> value = parseTypedValue(type, text, &error);
    if (!value) {
        printError(error);
        return 1;
    }
    return change(file, keyPath, value.get());
}

int remove(const std::string& file, const std::string& keyPath) {
    // Taking the exclusive lock would create a missing file.
    if (access(file.c_str(), F_OK) != 0) {
        printError(file + ": cannot open: " + std::strerror(errno));
        return 1;
    }
    return change(file, keyPath, nullptr);
}

}  // namespace

namespace {

void addPlistCommands(CLI::App& app) {
    CLI::App* plist = app.add_subcommand("plist", "Read, check and change property-list files");
    plist->require_subcommand(1);

    auto files = std::make_shared<std::vector<std::string>>();
    CLI::App* lintCmd =
        plist->add_subcommand("lint", "Check that each FILE is a readable property list (XML or binary)");
    lintCmd->add_option("FILE", *files, "Property-list files")->required();
    setAction(lintCmd, [files] { return lint(*files); });

    auto printFile = std::make_shared<std::string>();
    CLI::App* printCmd =
        plist->add_subcommand("print", "Print FILE as an XML property list (binary input is converted)");
    printCmd->add_option("FILE", *printFile, "Property-list file")->required();
    setAction(printCmd, [printFile] { return print(*printFile); });

    auto getFile = std::make_shared<std::string>();
    auto getPath = std::make_shared<std::string>();
    CLI::App* getCmd = plist->add_subcommand("get", "Print the value at KEYPATH in FILE");
    getCmd->add_option("FILE", *getFile, "Property-list file")->required();
    getCmd->add_option("KEYPATH", *getPath, keyPathHelp())->required();
    getCmd->footer(
        "Scalars print as plain text (strings as they are, integers and reals in decimal,\n"
        "booleans as true/false, dates as ISO-8601 UTC, data as base64); arrays and\n"
        "dictionaries print as an XML property list.");
    setAction(getCmd, [getFile, getPath] { return get(*getFile, *getPath); });

    struct SetArguments {
        std::string file, keyPath, type, value;
    };
    auto setArgs = std::make_shared<SetArguments>();
    CLI::App* setCmd = plist->add_subcommand("set", "Set the value at KEYPATH in FILE, under the file's write lock");
    setCmd->add_option("FILE", setArgs->file, "Property-list file (created when missing)")->required();
    setCmd->add_option("KEYPATH", setArgs->keyPath, keyPathHelp())->required();
    setCmd->add_option("TYPE", setArgs->type, "Value type")->required()->check(CLI::IsMember(valueTypeNames()));
    setCmd->add_option("VALUE", setArgs->value, "The value as text")->required();
    setCmd->footer(
        "TYPE is string, integer (decimal, 64-bit), real, bool (true/false, yes/no, 1/0),\n"
        "date (YYYY-MM-DDTHH:MM:SSZ or \"YYYY-MM-DD HH:MM:SS\", UTC) or data (base64).\n"
        "Missing dictionaries on the way are created; an array index equal to the\n"
        "array's length appends. The file is rewritten as XML.");
    setAction(setCmd, [setArgs] { return set(setArgs->file, setArgs->keyPath, setArgs->type, setArgs->value); });

    auto deleteFile = std::make_shared<std::string>();
    auto deletePath = std::make_shared<std::string>();
    CLI::App* deleteCmd =
        plist->add_subcommand("delete", "Remove the value at KEYPATH from FILE, under the file's write lock");
    deleteCmd->add_option("FILE", *deleteFile, "Property-list file")->required();
    deleteCmd->add_option("KEYPATH", *deletePath, keyPathHelp())->required();
    setAction(deleteCmd, [deleteFile, deletePath] { return remove(*deleteFile, *deletePath); });
}

}  // namespace

QUILLCTL_COMMANDS(addPlistCommands);

}  // namespace quillctl
