#include "support/StorageFixtures.h"

#include <fstream>

#include <sys/stat.h>

#include "quillcore/storage/StorageBundle.h"

namespace quilltest {

StorageBundleHost::StorageBundleHost() : LoadedImagesHost({}), _dir(std::make_unique<TempDir>("bundle")) {
    const auto bundle = _dir->path() / "QuillCore.framework";
    images = {makeQuillCoreBundle(bundle).string()};
    std::filesystem::copy(sourceDir() / "resources/QuillCore.framework/Resources", bundle / "Resources",
                          std::filesystem::copy_options::recursive);
    quill::storage::detail::forgetLibraryBundle();
}

StorageBundleHost::~StorageBundleHost() { quill::storage::detail::forgetLibraryBundle(); }

namespace {

void writeScript(const std::filesystem::path& path, const std::filesystem::path& dir, bool isMount) {
    const std::string d = dir.string();
    std::string script = "#!/bin/sh\nPATH=/usr/bin:/bin; export PATH\n";
    script += "D='" + d + "'\n";
    script += "for a in \"$0\" \"$@\"; do printf '%s\\n' \"$a\"; done >> \"$D/log\"\n";
    script += "printf -- '--\\n' >> \"$D/log\"\n";
    script += "for last in \"$@\"; do :; done\n";
    script += "for f in \"$D\"/hang-*; do [ -e \"$f\" ] || continue; w=${f#\"$D\"/hang-}\n";
    script += "  case \"$*\" in *\"$w\"*) exec sleep 300;; esac; done\n";
    script += "if [ -s \"$D/fail\" ]; then exit \"$(cat \"$D/fail\")\"; fi\n";
    if (isMount) {
        script += "printf '%s\\n' \"$last\" >> \"$D/table\"\n";
    } else {
        script +=
            "touch \"$D/table\"; grep -vxF -- \"$last\" \"$D/table\" > \"$D/table.new\"; "
            "mv \"$D/table.new\" \"$D/table\"\n";
    }
    script += "exit 0\n";
    writeFile(path, script);
    ::chmod(path.c_str(), 0755);
}

std::vector<std::string> lines(const std::filesystem::path& path) {
    std::vector<std::string> result;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) result.push_back(line);
    return result;
}

}  // namespace

StandInMount::StandInMount() : _dir("mountcmd") {
    writeScript(_dir.path() / "mount", _dir.path(), true);
    writeScript(_dir.path() / "umount", _dir.path(), false);
}

std::vector<std::vector<std::string>> StandInMount::runs() const {
    std::vector<std::vector<std::string>> result(1);
    for (const auto& line : lines(_dir.path() / "log")) {
        if (line == "--") {
            result.emplace_back();
        } else {
            result.back().push_back(line);
        }
    }
    result.pop_back();
    return result;
}

std::vector<std::string> StandInMount::mounted() const { return lines(_dir.path() / "table"); }

void StandInMount::failWith(int status) { writeFile(_dir.path() / "fail", std::to_string(status)); }

void StandInMount::hangOn(const std::string& word) { writeFile(_dir.path() / ("hang-" + word), ""); }

void StandInMount::behaveNormally() {
    for (const auto& entry : std::filesystem::directory_iterator(_dir.path())) {
        const std::string name = entry.path().filename().string();
        if (name == "fail" || name.rfind("hang-", 0) == 0) std::filesystem::remove(entry.path());
    }
}

}  // namespace quilltest
