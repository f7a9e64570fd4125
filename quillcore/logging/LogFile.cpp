#include "LogFile.h"

#include <quillcore/platform/Host.h>

namespace quill {

std::unique_ptr<CQuillLogger::LogFile> CQuillLogger::LogFile::open(const std::string& path, bool truncate,
                                                                   std::error_code& error) {
    platform::CFileDescriptor fd;
    error = platform::host().openFileForAppending(path, truncate, 0666, fd);
    if (error) return nullptr;
    return std::unique_ptr<LogFile>(new LogFile(std::move(fd)));
}

CQuillLogger::LogFile::LogFile(platform::CFileDescriptor fd)
    : _fd(std::move(fd)), _buffer(_fd.get()), _stream(&_buffer) {}

// The descriptor closes itself; a record that reached the file is there
// whatever close would report.
CQuillLogger::LogFile::~LogFile() = default;

bool CQuillLogger::LogFile::isEmpty() const {
    std::uint64_t length = 0;
    return !platform::host().fileLength(_fd.get(), length) && length == 0;
}

CQuillLogger::LogFile::Buffer::int_type CQuillLogger::LogFile::Buffer::overflow(int_type c) {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    const char byte = traits_type::to_char_type(c);
    return xsputn(&byte, 1) == 1 ? c : traits_type::eof();
}

std::streamsize CQuillLogger::LogFile::Buffer::xsputn(const char* text, std::streamsize count) {
    std::size_t written = 0;
    platform::host().writeFile(_fd, text, static_cast<std::size_t>(count), written);
    return static_cast<std::streamsize>(written);
}

}  // namespace quill
