// The one exception family of the base library and everything built on it.
//
// Every failure is thrown by value as a CException (or a subclass) and caught
// by const reference. An exception carries a numeric kind that says what sort
// of failure it is, the complete message text, and, when a system call failed,
// the errno value of that call. The message is final: callers build it with
// formatString() (ferrocore/Format.h) and what() returns it unchanged.
//
// Threads: exceptions are plain values; copies may travel between threads.
#pragma once

#include <exception>
#include <string>

#include <ferrocore/export.h>

namespace ferrocore {

// Kinds of failure. Other values may be used by subsystems for their own
// failures (a logger's stream error is kind kExceptionKindIO, for example).
inline constexpr int kExceptionKindGeneral = 0;        // no finer kind given
inline constexpr int kExceptionKindParam = 1;          // bad argument or failed external command
inline constexpr int kExceptionKindNullPointer = 2;    // a required value is missing
inline constexpr int kExceptionKindIO = 3;             // a file or stream could not be used
inline constexpr int kExceptionKindSystemCall = 4;     // a system call failed
inline constexpr int kExceptionKindHostRuntime = 255;  // the host object runtime failed

class FERROCORE_EXPORT CException : public std::exception {
public:
    // An exception of `kind` with `message`, not tied to a system call.
    CException(int kind, std::string message);
    // The same, remembering the errno value of the system call that failed.
    // The message should already contain the system's text for it.
    CException(int kind, std::string message, int errorNumber);

    CException(const CException&) = default;
    CException& operator=(const CException&) = default;
    CException(CException&&) noexcept = default;
    CException& operator=(CException&&) noexcept = default;
    ~CException() override;

    int kind() const noexcept { return _kind; }
    const std::string& message() const noexcept { return _message; }
    // Whether an errno value was given, and that value (0 when none was).
    bool hasErrorNumber() const noexcept { return _hasErrorNumber; }
    int errorNumber() const noexcept { return _errorNumber; }

    // The message.
    const char* what() const noexcept override;

private:
    int _kind;
    int _errorNumber = 0;
    bool _hasErrorNumber = false;
    std::string _message;
};

// Kind kExceptionKindParam: an argument is out of range or malformed, or an
// external command failed.
class FERROCORE_EXPORT CParamException : public CException {
public:
    explicit CParamException(std::string message);
    ~CParamException() override;
};

// Kind kExceptionKindNullPointer: a value that is required is missing.
// Messages read "Error: <name> is null!".
class FERROCORE_EXPORT CNullPointerException : public CException {
public:
    explicit CNullPointerException(std::string message);
    ~CNullPointerException() override;
};

// Kind kExceptionKindIO: a file could not be found, read, written, copied or
// have its status or mode changed. Carries errno when a system call failed.
class FERROCORE_EXPORT CFileException : public CException {
public:
    explicit CFileException(std::string message);
    CFileException(std::string message, int errorNumber);
    ~CFileException() override;
};

// The system's text for an errno value (strerror), safe to call from any
// thread.
FERROCORE_EXPORT std::string errorText(int errorNumber);

}  // namespace ferrocore
