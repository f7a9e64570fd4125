#include <cstdlib>

#include "quillcore/storage/StorageText.h"
#include <ferrocore/Format.h>
#include <quillcore/platform/Host.h>
#include <quillcore/process/CArgsBuilder.h>
#include <quillcore/process/CTask2.h>
#include <quillcore/storage/CNFSSharedStorageSubscriber.h>
#include <quillcore/storage/CSharedStorageUtils.h>

namespace quill {

using ferrocore::CString;
using ferrocore::formatString;
using platform::host;

namespace {

constexpr const char* kMountOptions = "soft,intr,locallocks";

enum class Outcome { Done, TimedOut };

// Runs `program` with `arguments` as a terminal task for at most the
// command time limit; the exit status, or TimedOut.
Outcome runCommand(const std::string& program, const std::vector<std::string>& arguments, int& status) {
    CArgsBuilder args(static_cast<int>(arguments.size()) + 1);
    for (const auto& argument : arguments) args.addArg(argument.c_str());
    CTask2 task(program.c_str(), args);
    const double limit = host().commandTimeLimit(CSharedStorageUtils::requestTimeout() - 5.0);
    try {
        const int launched = task.launch();
        if (launched == 0 && task.processID() > 0 && task.waitForTaskWithTimeout(limit)) {
            status = task.waitForTask();
            return Outcome::Done;
        }
        task.terminate();
        task.waitForTask();
    } catch (...) {
        // A task that fails while waiting or terminating counts as timed out.
    }
    return Outcome::TimedOut;
}

}  // namespace

CNFSSharedStorageSubscriber::CNFSSharedStorageSubscriber() = default;
CNFSSharedStorageSubscriber::~CNFSSharedStorageSubscriber() = default;

std::vector<std::string> CNFSSharedStorageSubscriber::mountArguments(const CURLRef& url,
                                                                     const ferrocore::CStringRef& mountPoint) {
    std::string options = kMountOptions;
    const ferrocore::CStringRef port = url->getQueryParameterValue(CSharedStorageUtils::kSubexportPortParameter);
    if (port) {
        const long value = std::strtol(port->c_str(), nullptr, 10);
        // -1 (a sub-export of a server on its standard ports) is not 0 and
        // goes in as it is: intended.
        if (value != 0) options = formatString("port=%d,mountport=%d,", value, value) + options;
    }
    return {"-o", options, formatString("%@:%@", url->hostName(), url->fileSystemPath()), storage::utf8(mountPoint)};
}

std::vector<std::string> CNFSSharedStorageSubscriber::unmountArguments(const ferrocore::CStringRef& mountPoint) {
    return {"-f", storage::utf8(mountPoint)};  // always forced
}

void CNFSSharedStorageSubscriber::_subscribe(CURLRef url, ferrocore::CStringRef mountPoint) {
    const std::string program = host().systemPath(platform::SystemPath::Mount);
    int status = 0;
    if (runCommand(program, mountArguments(url, mountPoint), status) == Outcome::TimedOut)
        throw ISharedStorageException(kSharedStorageRequestError, 12,
                                      formatString("CNFSSharedStorage::_subscribe: command [%s %@:%@] timed out",
                                                   program, url->hostName(), url->fileSystemPath()));
    if (status != 0)
        throw ISharedStorageException(
            kSharedStorageRequestError, 12,
            formatString("CNFSSharedStorage::_subscribe: command [%s %@:%@] failed, error = %d", program,
                         url->hostName(), url->fileSystemPath(), status));
}

void CNFSSharedStorageSubscriber::_unsubscribe(CURLRef, ferrocore::CStringRef mountPoint) {
    const std::string program = host().systemPath(platform::SystemPath::Umount);
    int status = 0;
    if (runCommand(program, unmountArguments(mountPoint), status) == Outcome::TimedOut)
        throw ISharedStorageException(
            kSharedStorageRequestError, 12,
            formatString("CNFSSharedStorage::_unsubscribe: command [%s %@] timed out", program, mountPoint));
    if (status != 0)
        throw ISharedStorageException(
            kSharedStorageRequestError, 12,
            formatString("CNFSSharedStorage::_unsubscribe: command [%s %@] failed, error = %d", program, mountPoint,
                         status));
}

void CNFSSharedStorageSubscriber::subscribe(CURLRef url, ferrocore::CStringRef mountPoint,
                                            ferrocore::CStringRef clientName, long pid) {
    if (!url) throw ferrocore::CNullPointerException("Error: url is null!");
    CSharedStorageUtils::makeDir(mountPoint, 0777);
    CSharedStorageSubscribedEntry entry(clientName, mountPoint, url, pid);
    const std::string key = storage::utf8(mountPoint);
    auto found = _subscribedMap.find(key);
    if (found != _subscribedMap.end()) {
        found->second.addReference(clientName, pid);
        return;
    }
    _subscribe(url, mountPoint);
    _subscribedMap.emplace(key, std::move(entry));
}

void CNFSSharedStorageSubscriber::unsubscribe(CURLRef url, ferrocore::CStringRef mountPoint,
                                              ferrocore::CStringRef clientName, long pid) {
    const std::string key = storage::utf8(mountPoint);
    auto found = _subscribedMap.find(key);
    bool unmount = found == _subscribedMap.end();  // an unknown mount point is unmounted all the same: intended
    if (!unmount && found->second.deleteReference(clientName, pid) == 0) {
        _subscribedMap.erase(found);
        unmount = true;
    }
    if (unmount) _unsubscribe(url, mountPoint);
}

void CNFSSharedStorageSubscriber::processTerminated(long pid) {
    std::vector<std::string> ended;
    for (auto& [key, entry] : _subscribedMap) {
        if (entry.refCount() == 0) continue;
        entry.deleteReferences(pid);
        if (entry.refCount() != 0) continue;
        try {
            _unsubscribe(entry.exportURL(), entry.mountPath());
        } catch (...) {}
        ended.push_back(key);
    }
    for (const auto& key : ended) _subscribedMap.erase(key);
}

void CNFSSharedStorageSubscriber::cleanMounts() {
    SubscribedMap taken;
    taken.swap(_subscribedMap);
    for (auto& [key, entry] : taken) {
        if (entry.refCount() == 0) continue;
        try {
            _unsubscribe(entry.exportURL(), entry.mountPath());
        } catch (...) {}
    }
}

}  // namespace quill
