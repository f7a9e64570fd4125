// Reading files: a file input stream and a whole-file copy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <ferrocore/export.h>

namespace ferrocore {

// Reads one file from its start to its end. Owns the open descriptor.
// Threads: one stream is used by one thread at a time.
class FERROCORE_EXPORT CFileInputStream final {
public:
    // Opens `path` for reading. Throws CException of kind 4 carrying errno,
    // "CFileInputStream::open(<path>): can't open file, error = <text>".
    explicit CFileInputStream(const std::string& path);
    ~CFileInputStream();
    CFileInputStream(CFileInputStream&& other) noexcept;
    CFileInputStream& operator=(CFileInputStream&& other) noexcept;
    CFileInputStream(const CFileInputStream&) = delete;
    CFileInputStream& operator=(const CFileInputStream&) = delete;

    const std::string& path() const noexcept { return _path; }
    // The file's size in bytes now. Throws CException of kind 4 when the
    // status query fails.
    std::uint64_t size() const;
    // Reads up to `count` bytes into `buffer` and returns how many were read:
    // `count` unless the end of the file came first, 0 at the end. Throws
    // CException of kind 4 carrying errno when reading fails, "CFileInputStream
    // ::read(<path>): can't read file, error = <text>".
    std::size_t read(void* buffer, std::size_t count);

private:
    std::string _path;
    int _descriptor = -1;
};

// Copies the whole contents of the file `fromPath` to `toPath`, through a
// buffer, creating `toPath` (mode 0666 less the umask) or replacing its
// contents; the mode of an existing destination is kept. Returns the number
// of bytes copied. Throws CFileException carrying errno when a file cannot be
// opened, read or written ("copyFileContents: can't open file %s, error =
// %s", "... can't create file %s ...", "... can't read file %s ...",
// "... can't write file %s ..."), and when both paths name the same file
// ("copyFileContents: %s and %s are the same file", nothing is changed then).
// After a failed read or write the destination may be incomplete.
FERROCORE_EXPORT std::uint64_t copyFileContents(const std::string& fromPath, const std::string& toPath);

}  // namespace ferrocore
