// Exports local directories over NFS by keeping one line per directory in the
// host's exports file, counting who asked, so that a line goes only when its
// last holder lets go.
//
// Lines this class writes are the path in the exports file's escaping
// (octal "\ooo" for white space, control characters, '"', '\\' and '#'),
// one space, and the host's export options (IHost::exportOptions(): every
// host may read and write by default). Lines it did not write are kept, in
// order, through every write. The file is replaced as a whole (a new file
// renamed over it). The NFS server is expected to notice the change by its
// own means (docs/storage.md).
//
// Threads: not locked; the request server calls it from one thread.
// Exceptions: as each operation says, and std::bad_alloc.
#pragma once

#include <string>
#include <vector>

#include <quillcore/export.h>
#include <quillcore/storage/ISharedStorage.h>

namespace quill {

class QUILL_EXPORT CNFSSharedStoragePublisher : public ISharedStoragePublisher {
public:
    // The exports file is the host's (IHost::systemPath(ExportsFile)); when
    // that is not "/etc/exports" every line of it counts as the cluster's.
    CNFSSharedStoragePublisher();
    CNFSSharedStoragePublisher(const CNFSSharedStoragePublisher&) = delete;
    CNFSSharedStoragePublisher& operator=(const CNFSSharedStoragePublisher&) = delete;

    // Exports the directory of `url` for (clientName, pid): makes it and its
    // marker files and adds its line when new, else adds a reference. Throws
    // ISharedStorageException (3, 0) for an exFAT volume or a path the
    // exports file cannot carry faithfully, the failures of makeDir and
    // addSharedInfoFile, and CException kind 255 when the file is not written.
    void publish(CURLRef url, ferrocore::CStringRef clientName, long pid) override;
    // Gives back one reference; the last removes the line. Throws
    // ISharedStorageException (3, 2) "entry [%@] not present in publishedMap"
    // for a directory neither in the map nor in the file.
    void unpublish(CURLRef url, ferrocore::CStringRef clientName, long pid) override;
    // Always -1: the NFS server listens on its standard ports.
    long getServerPort() override { return -1; }
    void processTerminated(long pid) override;
    PublishedMap getPublishedMap() const override { return _publishedMap; }

    // The lines of the exports file (none when it cannot be read).
    void readExportFile(std::vector<std::string>& lines) const;
    // Replaces the file by `lines`, each ended by "\n".
    void writeExportFile(const std::vector<std::string>& lines) const;
    // The index of the line for `entry`, or -1.
    int findExportEntry(const std::vector<std::string>& lines, const std::string& entry) const;
    bool isCorvaneExportEntry(const std::string& line) const;
    // Removes every line of the cluster; writes only when one was removed.
    void cleanExports();
    // `path` as the exports file writes it. Throws ISharedStorageException
    // (3, 0) for a path that the NFS tools would read as another one.
    static std::string escapedFilePath(const std::string& path);
    void setExportsFilePath(const std::string& path);
    const std::string& exportsFilePath() const noexcept { return _exportsFilePath; }
    bool hasPrivateExportsFile() const noexcept { return _privateExportsFile; }
    // Does nothing: the NFS server notices the file by its own means.
    void updateNFSDaemons() {}

protected:
    ~CNFSSharedStoragePublisher() override;

    virtual void _publish(const std::string& path, std::vector<std::string>& lines);
    virtual void _unpublish(const std::string& path, std::vector<std::string>& lines);
    virtual void _unpublish(const std::vector<std::string>& paths, std::vector<std::string>& lines);

private:
    bool _privateExportsFile = false;
    std::string _exportsFilePath;
    PublishedMap _publishedMap;
};

using CNFSSharedStoragePublisherRef = ferrocore::CSharedObjectRef<CNFSSharedStoragePublisher>;

}  // namespace quill
