// Fuzzes the mount adapter's reading of its argument vectors and of the
// mount table. The mount point and the exported path come from storage
// requests, so whatever the vector holds, the adapter either refuses it or
// hands mount(8) a vector of the one fixed shape: the NFS type, options that
// start with nfsvers=3 and end with the time-out settings and hold only known
// keys, a HOST:/PATH source and an absolute mount point.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "tools/quillmount/MountTranslation.h"

namespace {

constexpr std::size_t kMaxInput = 4096;

[[noreturn]] void fail(const char* what, const std::string& text) {
    std::fprintf(stderr, "mount_args_fuzz: %s: %s\n", what, text.c_str());
    std::abort();
}

void checkOptions(const std::string& options) {
    const std::string head = "nfsvers=3";
    const std::string tail = ",retry=0,timeo=100,retrans=2";
    if (options.rfind(head, 0) != 0 || options.size() < head.size() + tail.size() ||
        options.compare(options.size() - tail.size(), tail.size(), tail) != 0) {
        fail("options out of shape", options);
    }
    std::string_view middle(options);
    middle = middle.substr(head.size(), middle.size() - head.size() - tail.size());
    while (!middle.empty()) {
        if (middle.front() != ',') fail("options out of shape", options);
        middle.remove_prefix(1);
        std::string_view option = middle.substr(0, middle.find(','));
        middle.remove_prefix(option.size());
        if (option == "soft" || option == "nolock") continue;
        std::string_view key = option.substr(0, option.find('='));
        if (key != "port" && key != "mountport") fail("unknown option passed on", options);
        std::string value(option.substr(key.size() + 1));
        const long port = std::strtol(value.c_str(), nullptr, 10);
        if (port < 1 || port > 65535 || std::to_string(port) != value) fail("port passed on", options);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > kMaxInput) return 0;
    const std::string input(reinterpret_cast<const char*>(data), size);
    // Arguments are separated by NUL bytes, as in a real vector.
    std::vector<std::string> args;
    for (std::size_t start = 0;;) {
        std::size_t end = input.find('\0', start);
        args.push_back(input.substr(start, end == std::string::npos ? std::string::npos : end - start));
        if (end == std::string::npos) break;
        start = end + 1;
    }

    using namespace quill::mountadapter;
    try {
        const std::vector<std::string> argv = translateMount(args, "/bin/mount").argv;
        if (argv.size() != 7 || argv[1] != "-t" || argv[2] != "nfs" || argv[3] != "-o") fail("vector", input);
        checkOptions(argv[4]);
        const std::size_t split = argv[5].find(":/");
        if (split == std::string::npos || split == 0 || argv[5].front() == '-') fail("source", argv[5]);
        if (argv[6].empty() || argv[6].front() != '/' || argv[6] != args[3]) fail("mount point", argv[6]);
    } catch (const CUsageError&) {}
    try {
        const std::vector<std::string> argv = translateUmount(args, "/bin/umount").argv;
        if (argv.back().empty() || argv.back().front() != '/') fail("unmount point", argv.back());
    } catch (const CUsageError&) {}
    // The same bytes as a mount table, looked up at its own first argument.
    const std::string type = mountedFileSystemType(input, args.front());
    if (type.find_first_of(" \n") != std::string::npos) fail("type holds a separator", type);
    return 0;
}
