// An owned file descriptor and a scoped file-creation mask.
#pragma once

#include <cstdint>
#include <utility>

#include <quillcore/platform/export.h>

namespace quill::platform {

// Owns one open POSIX file descriptor and closes it when it goes away. Move
// only: exactly one object owns a descriptor at a time, so it is closed
// exactly once. Closing in the destructor ignores errors (the descriptor is
// gone either way); a caller that wants the error closes through
// IHost::closeFile().
//
// Threads: like an int, one object may be read from several threads; changing
// it (reset, release, assignment) needs the caller's synchronisation.
class QUILL_PLATFORM_EXPORT CFileDescriptor final {
public:
    CFileDescriptor() noexcept = default;
    // Takes ownership of `fd`; a negative value makes an empty object.
    explicit CFileDescriptor(int fd) noexcept : _fd(fd < 0 ? -1 : fd) {}
    ~CFileDescriptor() { reset(); }

    CFileDescriptor(const CFileDescriptor&) = delete;
    CFileDescriptor& operator=(const CFileDescriptor&) = delete;
    CFileDescriptor(CFileDescriptor&& other) noexcept : _fd(other.release()) {}
    CFileDescriptor& operator=(CFileDescriptor&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }

    // The descriptor, borrowed (-1 when empty): it stays owned by this object.
    int get() const noexcept { return _fd; }
    bool valid() const noexcept { return _fd >= 0; }
    explicit operator bool() const noexcept { return valid(); }

    // Gives up ownership without closing and returns the descriptor (-1 when
    // empty); the object is empty afterwards.
    [[nodiscard]] int release() noexcept { return std::exchange(_fd, -1); }
    // Closes the owned descriptor, if any, and takes `fd` instead.
    void reset(int fd = -1) noexcept;

private:
    int _fd = -1;
};

// Sets the process's file-creation mask through the host for the lifetime of
// the object and puts the previous one back when it goes, also when an
// exception leaves the scope. The mask is process-wide: keep the scope around
// the creations it is meant for and nothing else.
class QUILL_PLATFORM_EXPORT CScopedFileCreationMask final {
public:
    explicit CScopedFileCreationMask(std::uint32_t mask);
    ~CScopedFileCreationMask();
    CScopedFileCreationMask(const CScopedFileCreationMask&) = delete;
    CScopedFileCreationMask& operator=(const CScopedFileCreationMask&) = delete;

private:
    const std::uint32_t _previous;
};

}  // namespace quill::platform
