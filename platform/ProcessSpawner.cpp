#include <atomic>

#include <quillcore/platform/ProcessSpawner.h>

namespace quill::platform {

namespace {

// Null while the default spawner is in use.
std::atomic<IProcessSpawner*> gSubstitute{nullptr};

}  // namespace

IProcessSpawner::~IProcessSpawner() = default;

IProcessSpawner& processSpawner() noexcept {
    IProcessSpawner* substitute = gSubstitute.load(std::memory_order_acquire);
    return substitute ? *substitute : defaultProcessSpawner();
}

IProcessSpawner* setProcessSpawner(IProcessSpawner* substitute) noexcept {
    if (substitute == &defaultProcessSpawner()) substitute = nullptr;
    return gSubstitute.exchange(substitute, std::memory_order_acq_rel);
}

CProcessSpawnerWrapper::CProcessSpawnerWrapper() : _target(&defaultProcessSpawner()) {}
CProcessSpawnerWrapper::~CProcessSpawnerWrapper() = default;

CSpawnResult CProcessSpawnerWrapper::spawn(const char* path, const char* const* argv, const char* const* envp,
                                           CChildSetup setup, ChildMemory memory) {
    return _target->spawn(path, argv, envp, setup, memory);
}
std::error_code CProcessSpawnerWrapper::waitForProcess(std::int32_t processID, CProcessEnd& end) {
    return _target->waitForProcess(processID, end);
}
std::error_code CProcessSpawnerWrapper::signalProcess(std::int32_t processID, int signal) {
    return _target->signalProcess(processID, signal);
}
std::error_code CProcessSpawnerWrapper::openPipe(CFileDescriptor& readEnd, CFileDescriptor& writeEnd) {
    return _target->openPipe(readEnd, writeEnd);
}
std::error_code CProcessSpawnerWrapper::openPseudoTerminal(CFileDescriptor& master, CFileDescriptor& slave) {
    return _target->openPseudoTerminal(master, slave);
}
std::error_code CProcessSpawnerWrapper::terminalInputFlags(int fd, std::uint32_t& flags) {
    return _target->terminalInputFlags(fd, flags);
}
std::error_code CProcessSpawnerWrapper::setTerminalInputFlags(int fd, std::uint32_t flags) {
    return _target->setTerminalInputFlags(fd, flags);
}
std::int32_t CProcessSpawnerWrapper::effectiveUserID() { return _target->effectiveUserID(); }
bool CProcessSpawnerWrapper::userEntry(std::int32_t userID, CUserEntry& entry) {
    return _target->userEntry(userID, entry);
}

}  // namespace quill::platform
