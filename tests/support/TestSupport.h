// Shared helpers for the test programs: throw-away directories, environment
// guards and small file utilities. Every test program runs with HOME pointing
// at a fresh temporary directory, TZ pinned to UTC and the console log sent to
// a file (see main.cpp), so no test touches the real home or system log.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace quilltest {

// A fresh directory below the test program's temporary root, removed with
// everything in it when the object goes away.
class TempDir {
public:
    explicit TempDir(const std::string& prefix = "t");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return _path; }
    std::string str() const { return _path.string(); }
    std::filesystem::path operator/(const std::string& name) const { return _path / name; }

private:
    std::filesystem::path _path;
};

// Sets (or, with nullopt, unsets) an environment variable for the lifetime
// of the object, then restores the old value.
class ScopedEnv {
public:
    ScopedEnv(std::string name, std::optional<std::string> value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string _name;
    std::optional<std::string> _old;
};

std::string readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, const std::string& contents);

// The temporary root of this test program (also its HOME).
const std::filesystem::path& testRoot();
// The console log file that PLUtil::LogToConsole writes to during tests.
std::filesystem::path consoleLogPath();
// The project's source directory (for fixtures), from QUILL_TEST_SOURCE_DIR.
std::filesystem::path sourceDir();

}  // namespace quilltest
