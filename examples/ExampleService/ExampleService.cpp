#include "ExampleService.h"

#include <algorithm>
#include <cstdio>
#include <ostream>
#include <vector>

#include <unistd.h>

#include "../common/StopSignals.h"
#include <ferrocore/CException.h>
#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/control/QuillNotification.h>
#include <quillcore/logging/CQuillGlobalLogger.h>
#include <quillcore/logging/CQuillLogger.h>
#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/platform/RunLoop.h>
#include <quillcore/plist/CServicePIDFile.h>

namespace example {

namespace {

using quill::platform::CNotification;
using quill::platform::CRunLoop;

PLHolder<const PLString> text(const std::string& value) { return PLString::create(value); }

// The service's PID-file record: the process under its kind, with its
// attributes, changed under one exclusive lock.
class CServiceRecord final {
public:
    CServiceRecord(const ServiceIdentity& identity, const std::string& name)
        : _kind(text(identity.kind)), _pid(static_cast<std::int32_t>(getpid())) {
        change([&](quill::CServicePIDFile& file, std::vector<std::int32_t>& pids) {
            file.setProcessAttributes(_pid, _kind.get(), text(name).get(), text(identity.version).get());
            if (std::find(pids.begin(), pids.end(), _pid) == pids.end()) pids.push_back(_pid);
        });
    }
    ~CServiceRecord() {
        try {
            change([&](quill::CServicePIDFile& file, std::vector<std::int32_t>& pids) {
                pids.erase(std::remove(pids.begin(), pids.end(), _pid), pids.end());
                file.setProcessAttributes(_pid, nullptr);
            });
        } catch (const std::exception& e) {
            std::fprintf(stderr, "ExampleService: can't remove the PID record: %s\n", e.what());
        }
    }
    CServiceRecord(const CServiceRecord&) = delete;
    CServiceRecord& operator=(const CServiceRecord&) = delete;

private:
    template <class F>
    void change(F&& edit) {
        quill::CServicePIDFile file(_kind.get());
        file.lockForRW();
        const auto unlock = ferrocore::makeShared<quill::CPropertyListBasicFile::CFileLockMonitor>(&file);
        file.refresh();
        std::vector<std::int32_t> pids;
        file.get(pids);
        edit(file, pids);
        file.put(pids);
    }

    PLHolder<const PLString> _kind;
    std::int32_t _pid;
};

}  // namespace

int runService(const ServiceArguments& args, const ServiceIdentity& identity) {
    quill::CQuillLoggerRef logger = quill::CQuillLogger::create();
    try {
        logger->startupLogging(args.verbose, ferrocore::CString::create(identity.kind),
                               static_cast<unsigned>(args.instance));
    } catch (const ferrocore::CException& e) {
        std::fprintf(stderr, "ExampleService: can't start logging: %s\n", e.what());
        return 1;
    }
    quill::CQuillGlobalLogger::setLogger(logger);

    std::unique_ptr<CServiceRecord> record;
    try {
        record = std::make_unique<CServiceRecord>(identity, args.name.empty() ? identity.name : args.name);
    } catch (const ferrocore::CException& e) {
        logger->log(3) << "Can't record " << identity.kind << " in the PID file: " << e.what() << std::endl;
        return 1;
    }

    CRunLoop& loop = CRunLoop::current();
    bool stopping = false;
    CStopSignalWatch signals([&](int signal) {
        logger->log(3) << "Signal " << signal << ": ending" << std::endl;
        stopping = true;
        loop.stop();
    });

    // Preference changes: the logger re-reads its level by itself; a change
    // that names this service is noted here.
    int observer = 0;
    quill::platform::notificationCenter().addObserver(
        &observer, quill::platform::NotificationHandler([&](const CNotification& n) {
            const auto* list =
                n.userInfo ? PLDynamicCast<PLDictionary>(n.userInfo->get(quill::QuillCorePrivate::kDictKeyServiceList))
                           : nullptr;
            const PLObject* change = list ? list->get(identity.kind) : nullptr;
            if (!change) return;
            if (const auto* flag = PLDynamicCast<PLBoolean>(change))
                logger->log(3) << "Preferences changed: " << (flag->value() ? "enabled" : "disabled") << std::endl;
            else if (const auto* word = PLDynamicCast<PLString>(change))
                logger->log(3) << "Preferences changed: " << word->str() << std::endl;
        }),
        quill::QuillNotification::kQuillPrefsChangedNotification, nullptr);

    logger->log(3) << identity.kind << " instance " << args.instance << " started as PID " << getpid()
                   << (args.name.empty() ? "" : ", name \"" + args.name + "\"")
                   << (args.identifier.empty() ? "" : ", id " + args.identifier) << std::endl;
    // Announced once the record is written, so that whoever waits for the
    // service finds it in the PID file.
    PLHolder<PLMutableDictionary> info = PLMutableDictionary::create();
    info->set(text("instance"), PLNumber::create(static_cast<std::int64_t>(args.instance)));
    if (!args.identifier.empty()) info->set(text("id"), text(args.identifier));
    sendStatusNotification(quill::QuillNotification::kQuillServiceStartupNotification, text(identity.kind).get(),
                           text("started").get(), info.get());
    while (!stopping) loop.runFor(3600.0);

    quill::platform::notificationCenter().removeObserver(&observer);
    logger->log(3) << identity.kind << " instance " << args.instance << " ended" << std::endl;
    record.reset();
    quill::CQuillGlobalLogger::setLogger(nullptr);
    return 0;
}

}  // namespace example
