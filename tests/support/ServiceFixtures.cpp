#include "support/ServiceFixtures.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <stdexcept>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <quillcore/platform/PLPropertyList.h>
#include <quillcore/plist/CQuillConfigFile.h>

namespace quilltest {

namespace {

PLHolder<const PLObject> key(const char* text) { return PLString::create(text); }

}  // namespace

StandInRunwardCtl::StandInRunwardCtl()
    : _dir("runwardctl"), _command("QUILL_RUNWARDCTL", (_dir / "runwardctl").string()) {
    const std::string dir = _dir.str();
    writeFile(_dir / "runwardctl",
              "#!/bin/sh\n"
              "d='" +
                  dir +
                  "'\n"
                  "{ printf 'CALL\\0'; for a in \"$@\"; do printf '%s\\0' \"$a\"; done; } >> \"$d/calls\"\n"
                  "[ -f \"$d/output\" ] && /bin/cat \"$d/output\"\n"
                  "[ -f \"$d/status\" ] && exit \"$(/bin/cat \"$d/status\")\"\n"
                  "exit 0\n");
    std::filesystem::permissions(_dir / "runwardctl", std::filesystem::perms::owner_all);
}

std::vector<std::vector<std::string>> StandInRunwardCtl::calls() const {
    std::vector<std::vector<std::string>> calls;
    std::ifstream in(_dir / "calls", std::ios::binary);
    std::string field;
    while (std::getline(in, field, '\0')) {
        if (field == "CALL")
            calls.emplace_back();
        else if (!calls.empty())
            calls.back().push_back(field);
    }
    return calls;
}

void StandInRunwardCtl::respondWith(const std::string& output, int exitStatus) {
    writeFile(_dir / "output", output);
    writeFile(_dir / "status", std::to_string(exitStatus));
}

void StandInRunwardCtl::forget() { std::filesystem::remove(_dir / "calls"); }

std::string uniqueServiceKind(const std::string& tag, const std::string& role) {
    static std::atomic<int> counter{0};
    return role + ":com.quilltest." + tag + "." + std::to_string(getpid()) + "." + std::to_string(++counter);
}

std::filesystem::path makeServiceBundle(const std::filesystem::path& directory, const std::string& bundleName,
                                        PLDictionaryRef info, const std::string& executable) {
    const std::filesystem::path bundle = directory / bundleName;
    std::filesystem::create_directories(bundle);
    PLHolder<PLMutableDictionary> all = PLDictionaryCreateMutableCopy(info);
    if (!executable.empty()) {
        all->set(key("BundleExecutable"), PLString::create(executable));
        writeFile(bundle / executable, "#!/bin/sh\nexit 0\n");
        std::filesystem::permissions(bundle / executable, std::filesystem::perms::owner_all);
    }
    std::string text;
    if (!PLPropertyListWriteXML(all.get(), text)) throw std::runtime_error("cannot write Info.plist");
    writeFile(bundle / "Info.plist", text);
    return bundle;
}

PLHolder<const PLDictionary> serviceConfig(const std::string& launchHint, int instances, long long version) {
    PLHolder<PLMutableDictionary> config = PLMutableDictionary::create();
    if (!launchHint.empty()) config->set(key("LaunchHint"), PLString::create(launchHint));
    config->set(key("Instances"), PLNumber::create(instances));
    config->set(key("Version"), PLNumber::create(static_cast<std::int64_t>(version)));
    return config;
}

PLHolder<const PLDictionary> serviceInfo(const std::string& kind, PLDictionaryRef config) {
    PLHolder<PLMutableDictionary> info = PLMutableDictionary::create();
    info->set(key("CorvaneServiceKind"), PLString::create(kind));
    if (config) info->set(key("CorvaneServiceConfig"), PLHolder<const PLObject>::retain(config));
    return info;
}

void removeTriggerFiles(const std::string& family, int count) {
    const std::string user = std::to_string(geteuid());
    for (int i = 0; i < count; ++i) {
        const std::string label = i == 0 ? family : family + "-" + std::to_string(i + 1);
        std::error_code ignored;
        std::filesystem::remove("/tmp/" + label + ".runwardagent." + user, ignored);
    }
}

void setCluster(const Cluster& cluster) {
    quill::CQuillConfigFile config;
    config.serverName = PLString::create(cluster.serverName);
    config.serverPassword = PLString::create(cluster.password);
    config.sharingEnabled = cluster.sharing;
    config.requirePassword = cluster.requirePassword;
    config.logToFile = cluster.logToFile;
    config.flush();
}

void collectDelivery(PLNotificationCenterRef, void* observer, PLStringRef name, PLStringRef sender,
                     PLDictionaryRef info) {
    static_cast<std::vector<Delivery>*>(observer)->push_back(
        {name->str(), PLHolder<const PLString>::retain(sender), PLHolder<const PLDictionary>::retain(info)});
}

NamedProcess::NamedProcess(const std::filesystem::path& dir, const std::string& name) {
    const std::filesystem::path program = dir / name;
    if (!std::filesystem::exists(program)) std::filesystem::copy_file("/bin/sleep", program);
    int exec[2];
    if (pipe2(exec, O_CLOEXEC) != 0) return;
    _pid = fork();
    if (_pid == 0) {
        execl(program.c_str(), name.c_str(), "60", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(exec[1]);
    char byte;  // end of file once the exec has closed the other end
    while (read(exec[0], &byte, 1) < 0 && errno == EINTR) {}
    close(exec[0]);
}

NamedProcess::~NamedProcess() {
    if (_pid <= 0) return;
    kill(_pid, SIGKILL);
    waitpid(_pid, nullptr, 0);
}

}  // namespace quilltest
