// The log file a logger owns: a standard output stream over a file opened for
// appending through the host.
#pragma once

#include <memory>
#include <ostream>
#include <streambuf>
#include <string>
#include <system_error>

#include <quillcore/logging/CQuillLogger.h>
#include <quillcore/platform/FileDescriptor.h>

namespace quill {

// Unbuffered on purpose: each write to the stream is one write of the file,
// so a record written whole stays whole with other processes appending to the
// same file. A failed write puts the stream in its bad state.
class CQuillLogger::LogFile final {
public:
    // Opens `path` (a new file gets mode 0666 less the file-creation mask),
    // appending, or emptied first with `truncate`. Null and the error on
    // failure.
    static std::unique_ptr<LogFile> open(const std::string& path, bool truncate, std::error_code& error);
    ~LogFile();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    std::ostream& stream() noexcept { return _stream; }
    // Whether the file holds nothing yet; false when that cannot be told (a
    // pipe, say).
    bool isEmpty() const;

private:
    class Buffer final : public std::streambuf {
    public:
        explicit Buffer(int fd) : _fd(fd) {}

    protected:
        int_type overflow(int_type c) override;
        std::streamsize xsputn(const char* text, std::streamsize count) override;

    private:
        const int _fd;
    };

    explicit LogFile(platform::CFileDescriptor fd);

    const platform::CFileDescriptor _fd;
    Buffer _buffer;
    std::ostream _stream;
};

}  // namespace quill
