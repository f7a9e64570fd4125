// A host that fails chosen file calls: install it with a CScopedHost and arm
// the faults a test needs; everything not armed goes to the real host.
#pragma once

#include <cstddef>
#include <optional>

#include <quillcore/platform/Host.h>

namespace quilltest {

class FileFaultHost : public quill::platform::CHostWrapper {
public:
    // The next openLockedFile calls fail with `err` without opening anything.
    std::optional<int> openError;
    // Reads stop after `readLimit` bytes and report `readError` (0: none).
    std::optional<std::size_t> readLimit;
    int readError = 0;
    // Writes stop after `writeLimit` bytes and report `writeError` (0: none).
    std::optional<std::size_t> writeLimit;
    int writeError = 0;
    // truncateFile fails with `truncateError` (0: it works).
    int truncateError = 0;

    std::error_code openLockedFile(const std::string& path, quill::platform::FileLock lock,
                                   quill::platform::CFileDescriptor& fd) override {
        if (openError) return {*openError, std::system_category()};
        return CHostWrapper::openLockedFile(path, lock, fd);
    }
    std::error_code readFile(int fd, void* buffer, std::size_t size, std::size_t& got) override {
        if (readLimit && *readLimit < size) {
            CHostWrapper::readFile(fd, buffer, *readLimit, got);
            return error(readError);
        }
        return CHostWrapper::readFile(fd, buffer, size, got);
    }
    std::error_code writeFileAt(int fd, std::uint64_t offset, const void* data, std::size_t size,
                                std::size_t& written) override {
        if (writeLimit && *writeLimit < size) {
            CHostWrapper::writeFileAt(fd, offset, data, *writeLimit, written);
            return error(writeError);
        }
        return CHostWrapper::writeFileAt(fd, offset, data, size, written);
    }
    std::error_code truncateFile(int fd, std::uint64_t length) override {
        if (truncateError) return error(truncateError);
        return CHostWrapper::truncateFile(fd, length);
    }

private:
    static std::error_code error(int err) {
        return err ? std::error_code(err, std::system_category()) : std::error_code();
    }
};

}  // namespace quilltest
