// Helpers of the shared-storage tests: the library's bundle with its real
// localized strings, and a stand-in for the mount and unmount commands.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "support/FrameworkTree.h"
#include "support/TestSupport.h"

namespace quilltest {

// A copy of the library's bundle, strings included, reported as loaded for
// the lifetime of the object (install it with a CScopedHost). Forgets the
// bundle that shared storage found before, on creation and at the end.
class StorageBundleHost : public LoadedImagesHost {
public:
    StorageBundleHost();
    ~StorageBundleHost() override;

private:
    std::unique_ptr<TempDir> _dir;
};

// A program standing in for mount and umount: every run appends its argument
// vector to a log (one argument per line, then "--"), keeps a table of what
// is mounted (mount adds its last argument, umount removes it) and then, by
// the control files of its directory:
//   "fail"          holds an exit status to end with;
//   "hang-<word>"   exists: a run whose arguments contain <word> hangs.
// The child gets no environment, so everything goes through files.
class StandInMount {
public:
    StandInMount();
    std::string mountPath() const { return (_dir.path() / "mount").string(); }
    std::string umountPath() const { return (_dir.path() / "umount").string(); }
    // Each run's arguments (program path first).
    std::vector<std::vector<std::string>> runs() const;
    // What is mounted now, by the stand-in's table.
    std::vector<std::string> mounted() const;
    void failWith(int status);
    void hangOn(const std::string& word);
    void behaveNormally();
    const std::filesystem::path& directory() const { return _dir.path(); }

private:
    TempDir _dir;
};

}  // namespace quilltest
