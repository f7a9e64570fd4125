#include <cstring>
#include <utility>

#include <ferrocore/CException.h>

namespace ferrocore {

CException::CException(int kind, std::string message) : _kind(kind), _message(std::move(message)) {}

CException::CException(int kind, std::string message, int errorNumber)
    : _kind(kind), _errorNumber(errorNumber), _hasErrorNumber(true), _message(std::move(message)) {}

CException::~CException() = default;

const char* CException::what() const noexcept { return _message.c_str(); }

CParamException::CParamException(std::string message) : CException(kExceptionKindParam, std::move(message)) {}
CParamException::~CParamException() = default;

CNullPointerException::CNullPointerException(std::string message)
    : CException(kExceptionKindNullPointer, std::move(message)) {}
CNullPointerException::~CNullPointerException() = default;

CFileException::CFileException(std::string message) : CException(kExceptionKindIO, std::move(message)) {}
CFileException::CFileException(std::string message, int errorNumber)
    : CException(kExceptionKindIO, std::move(message), errorNumber) {}
CFileException::~CFileException() = default;

std::string errorText(int errorNumber) {
    char buffer[256];
    // The GNU strerror_r may return a static string instead of filling buffer.
    const char* text = strerror_r(errorNumber, buffer, sizeof(buffer));
    return text ? std::string(text) : std::string("Unknown error");
}

}  // namespace ferrocore
