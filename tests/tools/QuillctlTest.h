// The fixture of the quillctl tests: skips every test when the build made no
// quillctl, and runs it to completion.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/RunCommand.h"

namespace quilltest {

class QuillctlTest : public testing::Test {
protected:
    // A subclass's SetUp calls this first and returns when IsSkipped().
    void SetUp() override {
        _tool = quillctlPath();
        if (_tool.empty()) GTEST_SKIP() << "QUILLCTL is not set";
    }
    // quillctl with `args`; waits for it to end.
    CommandResult run(std::vector<std::string> args) const {
        args.insert(args.begin(), _tool);
        return runCommand(args);
    }

    std::string _tool;
};

}  // namespace quilltest
