#include <cerrno>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ferrocore/CException.h>
#include <ferrocore/CFileInputStream.h>
#include <ferrocore/Format.h>

namespace ferrocore {

namespace {

inline constexpr std::size_t kCopyBufferSize = 64 * 1024;

// read() until `count` bytes or the end of the file; -1 with errno on error.
ssize_t readFully(int descriptor, void* buffer, std::size_t count) {
    auto* at = static_cast<char*>(buffer);
    std::size_t done = 0;
    while (done < count) {
        const ssize_t n = ::read(descriptor, at + done, count - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) break;
        done += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

bool writeFully(int descriptor, const char* bytes, std::size_t count) {
    while (count > 0) {
        const ssize_t n = ::write(descriptor, bytes, count);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        bytes += n;
        count -= static_cast<std::size_t>(n);
    }
    return true;
}

[[noreturn]] void throwCopyFailure(const char* what, const std::string& path, int error) {
    throw CFileException(formatString("copyFileContents: can't %s file %s, error = %s", what, path, errorText(error)),
                         error);
}

// Closes a descriptor when it goes out of scope.
class CDescriptor {
public:
    explicit CDescriptor(int descriptor) noexcept : _descriptor(descriptor) {}
    ~CDescriptor() {
        if (_descriptor >= 0) ::close(_descriptor);
    }
    CDescriptor(const CDescriptor&) = delete;
    CDescriptor& operator=(const CDescriptor&) = delete;

    int get() const noexcept { return _descriptor; }
    // Closes now; false (with errno) when close reports an error.
    bool close() noexcept { return ::close(std::exchange(_descriptor, -1)) == 0; }

private:
    int _descriptor;
};

}  // namespace

CFileInputStream::CFileInputStream(const std::string& path) : _path(path) {
    do {
        _descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    } while (_descriptor < 0 && errno == EINTR);
    if (_descriptor < 0) {
        const int error = errno;
        throw CException(
            kExceptionKindSystemCall,
            formatString("CFileInputStream::open(%s): can't open file, error = %s", path, errorText(error)), error);
    }
}

CFileInputStream::~CFileInputStream() {
    if (_descriptor >= 0) ::close(_descriptor);
}

CFileInputStream::CFileInputStream(CFileInputStream&& other) noexcept
    : _path(std::move(other._path)), _descriptor(std::exchange(other._descriptor, -1)) {}

CFileInputStream& CFileInputStream::operator=(CFileInputStream&& other) noexcept {
    if (this != &other) {
        if (_descriptor >= 0) ::close(_descriptor);
        _path = std::move(other._path);
        _descriptor = std::exchange(other._descriptor, -1);
    }
    return *this;
}

std::uint64_t CFileInputStream::size() const {
    struct stat status;
    if (::fstat(_descriptor, &status) != 0) {
        const int error = errno;
        throw CException(
            kExceptionKindSystemCall,
            formatString("CFileInputStream::size(%s): can't get file status, error = %s", _path, errorText(error)),
            error);
    }
    return static_cast<std::uint64_t>(status.st_size);
}

std::size_t CFileInputStream::read(void* buffer, std::size_t count) {
    const ssize_t n = readFully(_descriptor, buffer, count);
    if (n < 0) {
        const int error = errno;
        throw CException(
            kExceptionKindSystemCall,
            formatString("CFileInputStream::read(%s): can't read file, error = %s", _path, errorText(error)), error);
    }
    return static_cast<std::size_t>(n);
}

std::uint64_t copyFileContents(const std::string& fromPath, const std::string& toPath) {
    CDescriptor from(::open(fromPath.c_str(), O_RDONLY | O_CLOEXEC));
    if (from.get() < 0) throwCopyFailure("open", fromPath, errno);

    struct stat fromStatus;
    struct stat toStatus;
    if (::fstat(from.get(), &fromStatus) == 0 && ::stat(toPath.c_str(), &toStatus) == 0 &&
        fromStatus.st_dev == toStatus.st_dev && fromStatus.st_ino == toStatus.st_ino)
        throw CFileException(formatString("copyFileContents: %s and %s are the same file", fromPath, toPath));

    CDescriptor to(::open(toPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (to.get() < 0) throwCopyFailure("create", toPath, errno);

    std::vector<char> buffer(kCopyBufferSize);
    std::uint64_t total = 0;
    while (true) {
        const ssize_t n = readFully(from.get(), buffer.data(), buffer.size());
        if (n < 0) throwCopyFailure("read", fromPath, errno);
        if (n == 0) break;
        if (!writeFully(to.get(), buffer.data(), static_cast<std::size_t>(n))) throwCopyFailure("write", toPath, errno);
        total += static_cast<std::uint64_t>(n);
    }
    if (!to.close()) throwCopyFailure("write", toPath, errno);
    return total;
}

}  // namespace ferrocore
