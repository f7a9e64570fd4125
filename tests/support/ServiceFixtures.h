// Fixtures for the tests of service control: a stand-in for the service
// manager's control command, service bundles made on the fly, and service
// kinds that no other test (or other test program) uses, since trigger files
// live in the shared "/tmp".
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <sys/types.h>

#include "support/TestSupport.h"
#include <ferrocore/CException.h>
#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/platform/PLObject.h>

namespace quilltest {

// A shell script that stands in for "/bin/runwardctl" (QUILL_RUNWARDCTL points
// at it for the object's lifetime). Every run appends its argument vector to a
// record; it prints the text and exits with the status it was told to.
class StandInRunwardCtl {
public:
    StandInRunwardCtl();
    StandInRunwardCtl(const StandInRunwardCtl&) = delete;
    StandInRunwardCtl& operator=(const StandInRunwardCtl&) = delete;

    // The arguments of every run so far (without the program name), in order.
    std::vector<std::vector<std::string>> calls() const;
    // What the following runs print, and their exit status.
    void respondWith(const std::string& output, int exitStatus);
    void forget();
    std::string path() const { return (_dir / "runwardctl").string(); }

private:
    TempDir _dir;
    ScopedEnv _command;
};

// A service kind "<role>:com.quilltest.<tag>.<pid>.<n>" unique to this run.
std::string uniqueServiceKind(const std::string& tag, const std::string& role = "servicecontroller");

// Makes `directory`/`bundleName` a service bundle: an Info.plist with
// "BundleExecutable" `executable` (when not empty) plus the entries of
// `info`, and an executable file of that name. Returns the bundle directory.
std::filesystem::path makeServiceBundle(const std::filesystem::path& directory, const std::string& bundleName,
                                        PLDictionaryRef info, const std::string& executable = "service");

// A service configuration for a bundle's "CorvaneServiceConfig".
PLHolder<const PLDictionary> serviceConfig(const std::string& launchHint, int instances, long long version = 1);
// An Info dictionary with "CorvaneServiceKind" and "CorvaneServiceConfig".
PLHolder<const PLDictionary> serviceInfo(const std::string& kind, PLDictionaryRef config);

// Removes the per-user trigger files of `family`'s first `count` labels.
void removeTriggerFiles(const std::string& family, int count);

// The message of the CException that `f` throws, or "(no exception)".
template <class F>
std::string failureOf(F&& f) {
    try {
        f();
    } catch (const ferrocore::CException& e) {
        return e.message();
    }
    return "(no exception)";
}

// The cluster settings that service argument vectors are built from.
struct Cluster {
    std::string serverName = "Render";
    std::string password;
    bool sharing = false;
    bool requirePassword = false;
    bool logToFile = false;
};
void setCluster(const Cluster& cluster);

// A notification as delivered; collectDelivery appends to the
// std::vector<Delivery> registered as the observer.
struct Delivery {
    std::string name;
    PLHolder<const PLString> sender;
    PLHolder<const PLDictionary> userInfo;
};
void collectDelivery(PLNotificationCenterRef, void* observer, PLStringRef name, PLStringRef sender,
                     PLDictionaryRef info);

// A copy of /bin/sleep running under the name `name` (copied into `dir`);
// the constructor returns once the exec has happened, the destructor kills it.
class NamedProcess {
public:
    NamedProcess(const std::filesystem::path& dir, const std::string& name);
    ~NamedProcess();
    NamedProcess(const NamedProcess&) = delete;
    NamedProcess& operator=(const NamedProcess&) = delete;
    pid_t pid() const { return _pid; }

private:
    pid_t _pid = -1;
};

}  // namespace quilltest
