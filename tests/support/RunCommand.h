// Runs a program to completion and captures what it printed: for tests of
// command-line tools.
#pragma once

#include <string>
#include <vector>

namespace quilltest {

struct CommandResult {
    int exitCode = -1;  // the exit status, or 128 + signal number
    std::string out;    // standard output
    std::string err;    // standard error
};

// Runs argv[0] (looked up in PATH when it has no slash) with the given
// arguments and standard input `input`; waits for it to end.
CommandResult runCommand(const std::vector<std::string>& argv, const std::string& input = {});

// The quillctl under test (environment variable QUILLCTL), or "" when unset.
std::string quillctlPath();

}  // namespace quilltest
