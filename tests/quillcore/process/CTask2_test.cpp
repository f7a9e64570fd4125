#include <quillcore/platform/ProcessSpawner.h>
#include <quillcore/process/CTask2.h>

#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using quill::CTask2;
namespace platform = quill::platform;

std::vector<const char*> shellArgs(const std::string& script) { return {"-c", script.c_str(), nullptr}; }

std::string outputOf(CTask2& task) {
    const ferrocore::CStringRef output = task.getTaskOutput();
    return output ? output->utf8() : "(null)";
}

TEST(CTask2, JoinsStandardOutputAndErrorIntoOneText) {
    const std::string longLine(1000, 'x');
    CTask2 task("/bin/sh", shellArgs("echo one; echo two >&2; echo " + longLine + "; printf tail").data());
    ASSERT_EQ(task.launch(), 0);
    EXPECT_EQ(outputOf(task), "one\ntwo\n" + longLine + "\ntail");
    EXPECT_EQ(task.waitForTask(), 0);
    EXPECT_EQ(outputOf(task), "(null)") << "everything was read already";

    quill::CArgsBuilder args(0);
    args.addArg("-c");
    args.addArg("exit 4");
    CTask2 silent("/bin/sh", args);
    ASSERT_EQ(silent.launch(), 0);
    EXPECT_EQ(outputOf(silent), "(null)");
    EXPECT_EQ(silent.waitForTask(), 4);
}

TEST(CTask2, ChildHasTheTerminalAsInputAndControllingTerminal) {
    CTask2 task("/bin/sh",
                shellArgs("test -t 0 && echo input-is-tty; test -t 1 || echo output-is-not; "
                          "exec 3</dev/tty && echo has-controlling-tty; "
                          "[ \"$(cut -d' ' -f6 /proc/$$/stat)\" = $$ ] && echo session-leader")
                    .data());
    ASSERT_EQ(task.launch(), 0);
    EXPECT_EQ(outputOf(task), "input-is-tty\noutput-is-not\nhas-controlling-tty\nsession-leader\n");
    EXPECT_EQ(task.waitForTask(), 0);
}

std::size_t openDescriptors() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
    return count;
}

TEST(CTask2, EachLaunchReplacesTheDescriptorsOfTheLastOne) {
    const std::size_t before = openDescriptors();
    {
        const char* hello[] = {"hello", nullptr};
        CTask2 task("/bin/echo", hello);
        for (int i = 0; i < 5; ++i) {
            ASSERT_EQ(task.launch(), 0);
            EXPECT_EQ(outputOf(task), "hello\n");
            EXPECT_EQ(task.waitForTask(), 0);
        }
        // The terminal's two ends and the pipe's read end stay until closed.
        EXPECT_EQ(openDescriptors(), before + 3);
        task.closeTerminal();
        EXPECT_EQ(openDescriptors(), before);
        ASSERT_EQ(task.launch(), 0);
    }
    EXPECT_EQ(openDescriptors(), before) << "the destructor waits and closes";
}

TEST(CTask2, ReleasingTheLastReferenceWaitsForTheChild) {
    quilltest::TempDir dir;
    const std::string marker = (dir / "done").string();
    quill::CTask2Ref task = ferrocore::makeShared<CTask2>("/bin/sh", shellArgs("sleep 0.2; echo > " + marker).data());
    ASSERT_EQ(task->launch(), 0);
    task.reset();
    EXPECT_TRUE(std::filesystem::exists(marker));
}

struct TerminalSpawner : platform::CProcessSpawnerWrapper {
    int pipeError = 0;
    int terminalError = 0;
    int setFlagsError = 0;
    int spawns = 0;

    platform::CSpawnResult spawn(const char* path, const char* const* argv, const char* const* envp,
                                 platform::CChildSetup setup, platform::ChildMemory memory) override {
        ++spawns;
        return CProcessSpawnerWrapper::spawn(path, argv, envp, setup, memory);
    }
    std::error_code openPipe(int& readEnd, int& writeEnd) override {
        if (pipeError) return {pipeError, std::system_category()};
        return CProcessSpawnerWrapper::openPipe(readEnd, writeEnd);
    }
    std::error_code openPseudoTerminal(int& master, int& slave) override {
        if (terminalError) return {terminalError, std::system_category()};
        return CProcessSpawnerWrapper::openPseudoTerminal(master, slave);
    }
    std::error_code setTerminalInputFlags(int fd, std::uint32_t flags) override {
        if (setFlagsError) return {setFlagsError, std::system_category()};
        return CProcessSpawnerWrapper::setTerminalInputFlags(fd, flags);
    }
};

TEST(CTask2, FailingTerminalSetupStartsNoChild) {
    TerminalSpawner spawner;
    platform::CScopedProcessSpawner scope(spawner);
    CTask2 task("/bin/true", nullptr);

    for (const auto& [error, code] : {std::pair{&spawner.pipeError, EMFILE}, {&spawner.terminalError, ENOENT},
                                      {&spawner.setFlagsError, EIO}}) {
        *error = code;
        EXPECT_EQ(task.launch(), -1);
        EXPECT_EQ(errno, code);
        *error = 0;
    }
    EXPECT_EQ(spawner.spawns, 0);
    EXPECT_EQ(outputOf(task), "(null)");
    ASSERT_EQ(task.launch(), 0);
    EXPECT_EQ(task.waitForTask(), 0);
    EXPECT_EQ(spawner.spawns, 1);
}

}  // namespace
