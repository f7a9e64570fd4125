#include <cerrno>
#include <cstring>
#include <string>

#include <ferrocore/CException.h>
#include <ferrocore/Format.h>
#include <quillcore/platform/Host.h>
#include <quillcore/process/CArgsBuilder.h>
#include <quillcore/process/CTask2.h>
#include <quillcore/servicemanager/CRunwardCtl.h>
#include <quillcore/servicemanager/CRunwardCtlPList.h>

namespace quill {

namespace {

inline constexpr int kExceptionKindHostRuntime = 255;
inline constexpr unsigned long kLastType = 5;

constexpr const char* kSessionTypeTexts[] = {nullptr, "Aqua", "LoginWindow", "Background", "StandardIO", "System"};
constexpr const char* kDomainTypeTexts[] = {nullptr, "system", "local", "network", "user", "all"};

// The output of a finished run as a data value (null when there was none).
PLHolder<const PLData> outputData(const ferrocore::CStringRef& output) {
    if (!output) return nullptr;
    return PLData::create(output->utf8().data(), output->utf8().size());
}

// Runs the control command with `args` to its end and gives what it printed.
// The output is handed back through `output` also when this throws. With
// `checkStatus` a non-zero exit status throws.
void runControlCommand(const CArgsBuilder& args, bool checkStatus, PLHolder<const PLData>& output) {
    const std::string command = platform::host().systemPath(platform::SystemPath::RunwardCtl);
    CTask2 task(command.c_str(), args);
    const int launched = task.launch();
    if (launched != 0) {
        const int error = launched > 0 ? launched : errno;
        output = outputData(task.getTaskOutput());
        throw ferrocore::CException(
            kExceptionKindHostRuntime,
            ferrocore::formatString("CRunwardCtlTask failed to launch, error = %s", std::strerror(error)), error);
    }
    // Read to the end before waiting: a command that prints more than the
    // pipe holds would otherwise never end.
    output = outputData(task.getTaskOutput());
    const int status = task.waitForTask();
    if (checkStatus && status != 0)
        throw ferrocore::CParamException(ferrocore::formatString("CRunwardCtlTask exited with error = %d", status));
}

}  // namespace

CRunwardCtl::CRunwardCtl(const ferrocore::CStringRef& plistPath, unsigned long sessionType, unsigned long domainType)
    : _plistPath(plistPath), _sessionType(sessionType), _domainType(domainType) {}

CRunwardCtl::~CRunwardCtl() = default;

ferrocore::CStringRef CRunwardCtl::getSessionTypeString(unsigned long sessionType) const {
    if (sessionType > kLastType)
        throw ferrocore::CParamException(ferrocore::formatString("Invalid sessionType: 0x%lx", sessionType));
    const char* text = kSessionTypeTexts[sessionType];
    return text ? ferrocore::CString::create(text) : nullptr;
}

ferrocore::CStringRef CRunwardCtl::getDomainTypeString(unsigned long domainType) const {
    if (domainType > kLastType)
        throw ferrocore::CParamException(ferrocore::formatString("Invalid domainType: 0x%lx", domainType));
    const char* text = kDomainTypeTexts[domainType];
    return text ? ferrocore::CString::create(text) : nullptr;
}

bool CRunwardCtl::isLoaded(const ferrocore::CStringRef& label) {
    ferrocore::CStringRef jobLabel = label;
    if (!jobLabel && _plistPath) jobLabel = CRunwardCtlPList(_plistPath).getLabel();
    if (!jobLabel) throw ferrocore::CNullPointerException("Error: label is null!");

    CArgsBuilder args(4);
    args.addArg("list");
    args.addArg("-x");
    args.addArg(jobLabel->c_str());
    PLHolder<const PLData> output;
    try {
        runControlCommand(args, false, output);
    } catch (...) {
        _taskOutput = std::move(output);
        throw;
    }
    _taskOutput = std::move(output);
    // Intended: a job is never reported as loaded, whatever the command
    // printed, so that synchronisation always loads an enabled job.
    return false;
}

void CRunwardCtl::load() { runJobCommand("load"); }

void CRunwardCtl::unload() { runJobCommand("unload"); }

void CRunwardCtl::runJobCommand(const char* verb) {
    if (!_plistPath) throw ferrocore::CNullPointerException("Error: _plistPath is null!");
    _taskOutput.reset();

    const ferrocore::CStringRef session = getSessionTypeString(_sessionType);
    const ferrocore::CStringRef domain = getDomainTypeString(_domainType);
    CArgsBuilder args(8);
    args.addArg(verb);
    if (session) {
        args.addArg("-S");
        args.addArg(session->c_str());
    }
    if (domain) {
        args.addArg("-D");
        args.addArg(domain->c_str());
    }
    args.addArg(_plistPath->c_str());

    PLHolder<const PLData> output;
    try {
        runControlCommand(args, true, output);
    } catch (...) {
        _taskOutput = std::move(output);
        throw;
    }
    _taskOutput = std::move(output);
}

}  // namespace quill
