#include <cerrno>
#include <cstdint>
#include <string>
#include <system_error>
#include <typeinfo>

#include <ferrocore/CException.h>
#include <ferrocore/Format.h>
#include <quillcore/platform/ProcessSpawner.h>
#include <quillcore/process/CTask2.h>
#include <quillcore/util/PLUtil.h>

namespace quill {

namespace {

// The input-mode bit that the terminal setup clears.
inline constexpr std::uint32_t kClearedInputFlag = 0x08;

// Pieces of output are read with a buffer of this size, its NUL included.
inline constexpr int kReadBufferSize = 499;

void throwIfFailed(const std::error_code& error, const char* what) {
    if (error) throw ferrocore::CException(ferrocore::kExceptionKindSystemCall, what, error.value());
}

}  // namespace

CTask2::CTask2(const char* path, const char* const* args) : CTask(path, args, nullptr, nullptr) {}

CTask2::CTask2(const char* path, const CArgsBuilder& args) : CTask(path, args.getArgs(), nullptr, nullptr) {}

CTask2::~CTask2() {
    try {
        waitForTask();
    } catch (...) {}
    try {
        closeTerminal();
    } catch (...) {}
}

ferrocore::CStringRef CTask2::getTaskOutput() {
    ferrocore::CAutoMutex lock(_mutex);
    if (!_reader) return nullptr;
    std::string output;
    char piece[kReadBufferSize];
    for (;;) {
        if (std::fgets(piece, sizeof piece, _reader)) {
            output += piece;
        } else if (std::ferror(_reader) && errno == EINTR) {
            std::clearerr(_reader);
        } else {
            break;
        }
    }
    if (output.empty()) return nullptr;
    return ferrocore::CString::create(std::move(output));
}

void CTask2::closeTerminal() {
    ferrocore::CAutoMutex lock(_mutex);
    closeTerminalLocked();
}

void CTask2::closeTerminalLocked() {
    _master.reset();
    _slave.reset();
    if (_reader) {
        std::fclose(_reader);  // closes the pipe's read end with it
        _reader = nullptr;
    }
    _pipeRead.reset();
    _pipeWrite.reset();
}

int CTask2::on_fork() {
    if (const int result = CTask::on_fork(); result != 0) return result;
    closeTerminal();
    ferrocore::CAutoMutex lock(_mutex);
    try {
        platform::IProcessSpawner& spawner = platform::processSpawner();
        throwIfFailed(spawner.openPipe(_pipeRead, _pipeWrite), "pipe failed'");
        throwIfFailed(spawner.openPseudoTerminal(_master, _slave), "failed to open tty'");
        std::uint32_t flags = 0;
        throwIfFailed(spawner.terminalInputFlags(_slave.get(), flags), "tcgetattr failed'");
        throwIfFailed(spawner.setTerminalInputFlags(_slave.get(), flags & ~kClearedInputFlag), "tcsetattr failed'");
    } catch (const ferrocore::CException& e) {
        errno = e.errorNumber();
        return -1;
    }
    return 0;
}

// The child reads the descriptors without the mutex: it is a copy of the
// parent, or borrows the memory of a parent whose launching thread is
// suspended, and nobody else changes them during a launch.
int CTask2::on_exec() FERRO_NO_THREAD_SAFETY_ANALYSIS {
    namespace child = platform::child;
    // Only the plain system calls of the child: the owning objects are the
    // parent's and stay untouched here.
    const int master = _master.get(), slave = _slave.get();
    const int pipeRead = _pipeRead.get(), pipeWrite = _pipeWrite.get();
    int error = child::closeDescriptor(master);
    if (!error) error = child::startSession();
    if (!error) error = child::duplicateDescriptor(slave, 0);
    if (!error && slave != 0) error = child::closeDescriptor(slave);
    if (!error) error = child::makeControllingTerminal(0);
    if (!error) error = child::closeDescriptor(pipeRead);
    if (!error) error = child::duplicateDescriptor(pipeWrite, 1);
    if (!error) error = child::duplicateDescriptor(pipeWrite, 2);
    if (!error && pipeWrite > 2) error = child::closeDescriptor(pipeWrite);
    return error;
}

int CTask2::post_fork() {
    if (const int result = CTask::post_fork(); result != 0) return result;
    ferrocore::CAutoMutex lock(_mutex);
    _pipeWrite.reset();
    _reader = fdopen(_pipeRead.get(), "r");
    if (_reader) {
        (void)_pipeRead.release();  // the reader owns it now
    } else {
        // The launch stands; the output is lost, and getTaskOutput() says so
        // by returning null.
        const ferrocore::CParamException failure(
            ferrocore::formatString("Failed to open file from pipe: %d", _pipeRead.get()));
        PLUtil::LogToConsole(failure.what());
    }
    return 0;
}

bool CTask2::childMayShareMemory() const { return typeid(*this) == typeid(CTask2); }

}  // namespace quill
