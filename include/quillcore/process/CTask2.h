// CTask2: a task (see CTask.h) for commands that insist on a terminal or
// whose printed output the caller needs. The child runs with a new
// pseudo-terminal as its standard input and controlling terminal (in a new
// session), and with its standard output and standard error joined into one
// pipe that the parent reads.
//
// Each launch opens a fresh pipe and terminal pair and drops those of the
// launch before. The parent keeps the terminal (both ends) and the pipe's
// read end until closeTerminal(), the next launch or destruction. Nothing is
// ever written to the terminal, so a child that reads its standard input
// waits forever.
//
// The child inherits the parent's other descriptors that are not
// close-on-exec (unlike a plain CTask, whose child closes every descriptor
// above 2).
//
// Setting up the terminal clears bit 0x08 of the terminal's input-mode flags
// (c_iflag), not of the local flags; this is deliberate and kept.
//
// A CTask2 may be held through a CTask2Ref (it is a shared object) or be a
// plain object.
//
// Threads. A mutex keeps getTaskOutput() and closeTerminal() apart: a thread
// blocked in getTaskOutput() holds it until end of file, so closeTerminal()
// from another thread waits. Everything else is as for CTask.
//
// Exceptions: as CTask; getTaskOutput() may throw std::bad_alloc.
#pragma once

#include <cstdio>

#include <ferrocore/CMutex.h>
#include <ferrocore/CSharedObject.h>
#include <ferrocore/CString.h>
#include <ferrocore/ThreadAnnotations.h>
#include <quillcore/export.h>
#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/process/CArgsBuilder.h>
#include <quillcore/process/CTask.h>

namespace quill {

class QUILL_EXPORT CTask2 : public CTask, public ferrocore::CSharedObject {
public:
    // A task for `path` with the NULL-terminated `args` (after the file name;
    // may be null), no environment and no shell.
    CTask2(const char* path, const char* const* args);
    // The same with the entries of `args`.
    CTask2(const char* path, const CArgsBuilder& args);
    // Waits for the child (blocking until it has ended), then closeTerminal().
    // Swallows every exception of these steps.
    ~CTask2() override;

    // Everything the child wrote to standard output and standard error, read
    // until end of file: it blocks until the child, and every other process
    // that holds the pipe, has closed it. Lines come in pieces of at most 498
    // bytes, each taken as a C string (bytes after a NUL in a piece are lost)
    // and joined with their line feeds. A null string when the launch left no
    // reader or nothing was read; a second call after end of file also yields
    // null.
    ferrocore::CStringRef getTaskOutput() FERRO_EXCLUDES(_mutex);

    // Closes the terminal's master and slave, the reader and the pipe's read
    // end, then the pipe's write end, whichever are open.
    void closeTerminal() FERRO_EXCLUDES(_mutex);

protected:
    // CTask::on_fork(), closeTerminal(), then a new pipe and pseudo-terminal
    // (bit 0x08 of its input flags cleared). On a failure returns -1, so that
    // nothing is started, with errno set to the failed call's error; what is
    // open already is closed by the next launch or the destructor.
    int on_fork() override;
    // In the child: a new session with the terminal as standard input and
    // controlling terminal, and the pipe as standard output and standard
    // error. Returns the errno value of the first failing step.
    int on_exec() override;
    // CTask::post_fork(), then closes the pipe's write end (so that end of
    // file comes when the child ends) and opens the reader. A reader that
    // cannot be opened still lets the launch succeed; getTaskOutput() then
    // yields null.
    int post_fork() override;
    // True for an object whose class is CTask2 itself.
    bool childMayShareMemory() const override;

private:
    void closeTerminalLocked() FERRO_REQUIRES(_mutex);

    ferrocore::CMutex _mutex;
    platform::CFileDescriptor _master FERRO_GUARDED_BY(_mutex);
    platform::CFileDescriptor _slave FERRO_GUARDED_BY(_mutex);
    // Owns the pipe's read end once it is open; _pipeRead is empty then.
    std::FILE* _reader FERRO_GUARDED_BY(_mutex) = nullptr;
    platform::CFileDescriptor _pipeRead FERRO_GUARDED_BY(_mutex);
    platform::CFileDescriptor _pipeWrite FERRO_GUARDED_BY(_mutex);
};

using CTask2Ref = ferrocore::CSharedObjectRef<CTask2>;

}  // namespace quill
