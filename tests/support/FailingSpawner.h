// A process spawner that fails chosen calls: install it with a
// CScopedProcessSpawner and arm the faults a test needs (an error number;
// 0: none); everything not armed goes to the real spawner. It counts the
// spawns it is asked for.
#pragma once

#include <cstdint>
#include <system_error>

#include <quillcore/platform/ProcessSpawner.h>

namespace quilltest {

class FailingSpawner : public quill::platform::CProcessSpawnerWrapper {
public:
    int spawnError = 0, pipeError = 0, terminalError = 0, setFlagsError = 0;
    // The wait reaps the child and then reports ECHILD.
    bool failWait = false;
    // The user database has no entry.
    bool noUser = false;
    int spawns = 0;

    quill::platform::CSpawnResult spawn(const char* path, const char* const* argv, const char* const* envp,
                                        quill::platform::CChildSetup setup,
                                        quill::platform::ChildMemory memory) override {
        ++spawns;
        if (spawnError) return {-1, spawnError};
        return CProcessSpawnerWrapper::spawn(path, argv, envp, setup, memory);
    }
    std::error_code waitForProcess(std::int32_t pid, quill::platform::CProcessEnd& end) override {
        const std::error_code result = CProcessSpawnerWrapper::waitForProcess(pid, end);
        return failWait ? std::make_error_code(std::errc::no_child_process) : result;
    }
    bool userEntry(std::int32_t uid, quill::platform::CUserEntry& entry) override {
        return !noUser && CProcessSpawnerWrapper::userEntry(uid, entry);
    }
    std::error_code openPipe(quill::platform::CFileDescriptor& readEnd,
                             quill::platform::CFileDescriptor& writeEnd) override {
        return pipeError ? error(pipeError) : CProcessSpawnerWrapper::openPipe(readEnd, writeEnd);
    }
    std::error_code openPseudoTerminal(quill::platform::CFileDescriptor& master,
                                       quill::platform::CFileDescriptor& slave) override {
        return terminalError ? error(terminalError) : CProcessSpawnerWrapper::openPseudoTerminal(master, slave);
    }
    std::error_code setTerminalInputFlags(int fd, std::uint32_t flags) override {
        return setFlagsError ? error(setFlagsError) : CProcessSpawnerWrapper::setTerminalInputFlags(fd, flags);
    }

private:
    static std::error_code error(int err) { return {err, std::system_category()}; }
};

}  // namespace quilltest
