// A job definition as runwardd runs it, read from the property list that
// describes it ("Label", "ProgramArguments", "RunAtLoad", "KeepAlive",
// "ExitTimeOut", "ThrottleInterval").
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <quillcore/platform/PLObject.h>

namespace runward {

// Limits that keep a hostile definition from costing more than a page of
// memory per field.
inline constexpr std::size_t kMaxDefinitionFileSize = 1 << 20;
inline constexpr std::size_t kMaxArguments = 4096;
inline constexpr std::size_t kMaxPathStates = 256;
inline constexpr std::size_t kMaxLabelLength = 255;

inline constexpr double kDefaultThrottleInterval = 10.0;
inline constexpr double kDefaultExitTimeOut = 20.0;

struct JobDefinition {
    std::string label;
    std::vector<std::string> programArguments;
    bool runAtLoad = false;
    // "KeepAlive" as a boolean; false when it is a dictionary.
    bool keepAlive = false;
    // "SuccessfulExit" inside a "KeepAlive" dictionary, when given.
    std::optional<bool> successfulExit;
    // "PathState" inside a "KeepAlive" dictionary: path -> must exist.
    std::map<std::string, bool> pathState;
    double exitTimeOut = kDefaultExitTimeOut;
    double throttleInterval = kDefaultThrottleInterval;

    bool hasPathState() const { return !pathState.empty(); }
};

// Reads and checks a definition. On failure returns nothing and a message
// naming the offending key.
std::optional<JobDefinition> parseJobDefinition(const PLObject* plist, std::string& problem);

// The definition as a dictionary again (what the state file keeps).
PLHolder<const PLDictionary> jobDefinitionDictionary(const JobDefinition& job);

// Reads the definition file at `path` as runwardctl does before loading it:
// it must be a regular file of the effective user that neither its group nor
// others can write, at most kMaxDefinitionFileSize bytes, holding a property
// list that parseJobDefinition accepts.
std::optional<JobDefinition> readJobDefinitionFile(const std::string& path, std::string& problem);

}  // namespace runward
