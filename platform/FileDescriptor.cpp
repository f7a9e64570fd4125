#include <unistd.h>

#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/Host.h>

namespace quill::platform {

void CFileDescriptor::reset(int fd) noexcept {
    // Linux frees the descriptor even when close reports an error (EINTR
    // included), so it is never retried.
    if (_fd >= 0) ::close(_fd);
    _fd = fd < 0 ? -1 : fd;
}

CScopedFileCreationMask::CScopedFileCreationMask(std::uint32_t mask) : _previous(host().setFileCreationMask(mask)) {}

CScopedFileCreationMask::~CScopedFileCreationMask() { host().setFileCreationMask(_previous); }

}  // namespace quill::platform
