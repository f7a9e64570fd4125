#include "JobDefinition.h"

#include <cerrno>
#include <cmath>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/PLPropertyList.h>

namespace runward {

namespace {

const PLDictionary* asDictionary(const PLObject* object) { return PLDynamicCast<PLDictionary>(object); }

bool readSeconds(const PLDictionary& dict, const char* key, double& out, std::string& problem) {
    const PLObject* value = dict.get(key);
    if (!value) return true;
    const PLNumber* number = PLDynamicCast<PLNumber>(value);
    if (!number) {
        problem = std::string("\"") + key + "\" must be a number, not a " + PLTypeName(value->typeID());
        return false;
    }
    double seconds = number->doubleValue();
    if (!std::isfinite(seconds) || seconds < 0 || seconds > 86400.0 * 365) {
        problem = std::string("\"") + key + "\" must be between 0 and a year of seconds";
        return false;
    }
    out = seconds;
    return true;
}

bool readBoolean(const PLDictionary& dict, const char* key, bool& out, std::string& problem) {
    const PLObject* value = dict.get(key);
    if (!value) return true;
    const PLBoolean* flag = PLDynamicCast<PLBoolean>(value);
    if (!flag) {
        problem = std::string("\"") + key + "\" must be a boolean, not a " + PLTypeName(value->typeID());
        return false;
    }
    out = flag->value();
    return true;
}

bool validLabel(const std::string& label, std::string& problem) {
    if (label.empty()) {
        problem = "\"Label\" is empty";
        return false;
    }
    if (label.size() > kMaxLabelLength) {
        problem = "\"Label\" is longer than " + std::to_string(kMaxLabelLength) + " bytes";
        return false;
    }
    for (unsigned char c : label) {
        if (c == '/') {
            problem = "\"Label\" holds a \"/\"";
            return false;
        }
        if (c < 0x20 || c == 0x7f) {
            problem = "\"Label\" holds a control character";
            return false;
        }
    }
    if (label == "." || label == "..") {
        problem = "\"Label\" may not be \".\" or \"..\"";
        return false;
    }
    return true;
}

// An absolute path without empty, "." or ".." components and without a
// trailing "/": the form in which its directory's events name it.
bool isPlainAbsolutePath(std::string_view path) {
    if (path.size() < 2 || path.size() > 4095 || path[0] != '/' || path.back() == '/') return false;
    if (path.find('\0') != std::string_view::npos) return false;
    std::size_t at = 1;
    while (at <= path.size()) {
        auto slash = path.find('/', at);
        if (slash == std::string_view::npos) slash = path.size();
        auto part = path.substr(at, slash - at);
        if (part.empty() || part == "." || part == "..") return false;
        at = slash + 1;
    }
    return true;
}

}  // namespace

std::optional<JobDefinition> parseJobDefinition(const PLObject* plist, std::string& problem) {
    const PLDictionary* dict = asDictionary(plist);
    if (!dict) {
        problem = "the job definition is not a dictionary";
        return std::nullopt;
    }
    JobDefinition job;
    const PLObject* label = dict->get("Label");
    if (!label) {
        problem = "no \"Label\"";
        return std::nullopt;
    }
    const PLString* labelText = PLDynamicCast<PLString>(label);
    if (!labelText) {
        problem = std::string("\"Label\" must be a string, not a ") + PLTypeName(label->typeID());
        return std::nullopt;
    }
    job.label = labelText->str();
    if (!validLabel(job.label, problem)) return std::nullopt;

    const PLObject* args = dict->get("ProgramArguments");
    if (!args) {
        problem = "no \"ProgramArguments\"";
        return std::nullopt;
    }
    const PLArray* argArray = PLDynamicCast<PLArray>(args);
    if (!argArray) {
        problem = std::string("\"ProgramArguments\" must be an array, not a ") + PLTypeName(args->typeID());
        return std::nullopt;
    }
    if (argArray->count() == 0) {
        problem = "\"ProgramArguments\" is empty";
        return std::nullopt;
    }
    if (argArray->count() > kMaxArguments) {
        problem = "\"ProgramArguments\" has more than " + std::to_string(kMaxArguments) + " elements";
        return std::nullopt;
    }
    for (std::size_t i = 0; i < argArray->count(); ++i) {
        const PLString* arg = PLDynamicCast<PLString>(argArray->at(i));
        if (!arg) {
            problem = "\"ProgramArguments\" element " + std::to_string(i) + " is not a string";
            return std::nullopt;
        }
        if (arg->utf8().find('\0') != std::string_view::npos) {
            problem = "\"ProgramArguments\" element " + std::to_string(i) + " holds a NUL byte";
            return std::nullopt;
        }
        job.programArguments.push_back(arg->str());
    }
    if (job.programArguments[0].empty()) {
        problem = "\"ProgramArguments\" names no program";
        return std::nullopt;
    }

    if (!readBoolean(*dict, "RunAtLoad", job.runAtLoad, problem)) return std::nullopt;
    if (const PLObject* keepAlive = dict->get("KeepAlive")) {
        if (const PLBoolean* flag = PLDynamicCast<PLBoolean>(keepAlive)) {
            job.keepAlive = flag->value();
        } else if (const PLDictionary* conditions = asDictionary(keepAlive)) {
            bool successful = false;
            if (conditions->get("SuccessfulExit")) {
                if (!readBoolean(*conditions, "SuccessfulExit", successful, problem)) return std::nullopt;
                job.successfulExit = successful;
            }
            if (const PLObject* paths = conditions->get("PathState")) {
                const PLDictionary* pathDict = asDictionary(paths);
                if (!pathDict) {
                    problem = std::string("\"PathState\" must be a dictionary, not a ") + PLTypeName(paths->typeID());
                    return std::nullopt;
                }
                if (pathDict->count() > kMaxPathStates) {
                    problem = "\"PathState\" has more than " + std::to_string(kMaxPathStates) + " paths";
                    return std::nullopt;
                }
                for (const auto& [key, value] : pathDict->entries()) {
                    const PLString* path = PLDynamicCast<PLString>(key.get());
                    const PLBoolean* wanted = PLDynamicCast<PLBoolean>(value.get());
                    if (!path || !wanted) {
                        problem = "\"PathState\" must map paths to booleans";
                        return std::nullopt;
                    }
                    if (!isPlainAbsolutePath(path->utf8())) {
                        problem = "\"PathState\" path \"" + path->str() + "\" is not a plain absolute path";
                        return std::nullopt;
                    }
                    job.pathState[path->str()] = wanted->value();
                }
            }
        } else {
            problem = std::string("\"KeepAlive\" must be a boolean or a dictionary, not a ") +
                      PLTypeName(keepAlive->typeID());
            return std::nullopt;
        }
    }
    if (!readSeconds(*dict, "ExitTimeOut", job.exitTimeOut, problem)) return std::nullopt;
    if (!readSeconds(*dict, "ThrottleInterval", job.throttleInterval, problem)) return std::nullopt;
    return job;
}

PLHolder<const PLDictionary> jobDefinitionDictionary(const JobDefinition& job) {
    auto dict = PLMutableDictionary::create();
    dict->set(PLString::create("Label"), PLString::create(job.label));
    auto args = PLMutableArray::create(job.programArguments.size());
    for (const auto& arg : job.programArguments) args->append(PLString::create(arg));
    dict->set(PLString::create("ProgramArguments"), args);
    if (job.runAtLoad) dict->set(PLString::create("RunAtLoad"), PLHolder<const PLObject>::retain(kPLBooleanTrue));
    if (job.successfulExit || job.hasPathState()) {
        auto keepAlive = PLMutableDictionary::create();
        if (job.successfulExit) {
            keepAlive->set(PLString::create("SuccessfulExit"),
                           PLHolder<const PLObject>::retain(PLBoolean::get(*job.successfulExit)));
        }
        if (job.hasPathState()) {
            auto paths = PLMutableDictionary::create();
            for (const auto& [path, wanted] : job.pathState) {
                paths->set(PLString::create(path), PLHolder<const PLObject>::retain(PLBoolean::get(wanted)));
            }
            keepAlive->set(PLString::create("PathState"), paths);
        }
        dict->set(PLString::create("KeepAlive"), keepAlive);
    } else if (job.keepAlive) {
        dict->set(PLString::create("KeepAlive"), PLHolder<const PLObject>::retain(kPLBooleanTrue));
    }
    dict->set(PLString::create("ExitTimeOut"), PLNumber::create(job.exitTimeOut));
    dict->set(PLString::create("ThrottleInterval"), PLNumber::create(job.throttleInterval));
    return dict;
}

std::optional<JobDefinition> readJobDefinitionFile(const std::string& path, std::string& problem) {
    quill::platform::CFileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (!fd) {
        problem = path + ": " + std::strerror(errno);
        return std::nullopt;
    }
    struct stat st;
    if (::fstat(fd.get(), &st) != 0) {
        problem = path + ": " + std::strerror(errno);
        return std::nullopt;
    }
    if (!S_ISREG(st.st_mode)) {
        problem = path + ": not a regular file";
        return std::nullopt;
    }
    if (st.st_uid != ::geteuid()) {
        problem = path + ": owned by uid " + std::to_string(st.st_uid) + ", not by uid " + std::to_string(::geteuid());
        return std::nullopt;
    }
    if ((st.st_mode & 022) != 0) {
        problem = path + ": its group or others can write to it";
        return std::nullopt;
    }
    if (static_cast<std::size_t>(st.st_size) > kMaxDefinitionFileSize) {
        problem = path + ": larger than " + std::to_string(kMaxDefinitionFileSize) + " bytes";
        return std::nullopt;
    }
    std::string bytes;
    char buffer[65536];
    for (;;) {
        ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            problem = path + ": " + std::strerror(errno);
            return std::nullopt;
        }
        if (n == 0) break;
        bytes.append(buffer, static_cast<std::size_t>(n));
        if (bytes.size() > kMaxDefinitionFileSize) {
            problem = path + ": larger than " + std::to_string(kMaxDefinitionFileSize) + " bytes";
            return std::nullopt;
        }
    }
    std::string reason;
    auto plist = PLPropertyListCreateFromBytes(bytes.data(), bytes.size(), PLMutability::Immutable, &reason);
    if (!plist) {
        problem = path + ": not a property list (" + reason + ")";
        return std::nullopt;
    }
    auto job = parseJobDefinition(plist.get(), problem);
    if (!job) problem = path + ": " + problem;
    return job;
}

}  // namespace runward
