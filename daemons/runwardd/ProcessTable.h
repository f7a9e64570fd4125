// What runwardd reads about processes from /proc.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace runward {

// The environment variable that marks every process of a job's run; its
// value is a random token that the state file keeps.
inline constexpr const char* kJobTokenVariable = "RUNWARD_JOB_TOKEN";

struct ProcessInfo {
    pid_t pid = 0;
    pid_t parent = 0;
    pid_t group = 0;
    char state = '?';
    unsigned long long startTicks = 0;
};

// One process's line of /proc/PID/stat; nothing when it is gone.
std::optional<ProcessInfo> readProcess(pid_t pid);

// Every process of the effective user.
std::vector<ProcessInfo> listOwnProcesses();

// Whether the process's environment holds kJobTokenVariable=token.
bool carriesToken(pid_t pid, const std::string& token);

// Whether `pid` still runs the process that started at `startTicks`
// (a zombie counts as gone).
bool isSameProcess(pid_t pid, unsigned long long startTicks);

}  // namespace runward
