// CPListUpdater: one property-list file kept in memory and written back as an
// XML property list. It reads the file when it is made, lets its owner replace
// the data, decides from a "Version" string whether newer data should replace
// the file's, and writes the data. It is the base of the job definitions
// (CRunwardCtlPList) and writes the job-definition files of installed
// services.
//
// It takes no lock: it is not a CPropertyListBasicFile. Two processes that
// write one file race, and the last writer wins.
//
// Data. The data is always an immutable deep copy owned by the object (or
// null). Every operation that takes data first tests that it can be written
// as an XML property list ("Property list not valid xml format" otherwise).
// The data is changed only by storing a complete new copy, so an exception
// leaves the previous data in place, with one exception: updateIfNeeded()
// replaces the data before it writes, so when that write fails the object
// holds the new data while the file still holds the old.
//
// Threads: one object is used by one thread at a time; there is no lock.
// Exceptions: ferrocore::CNullPointerException and ferrocore::CParamException
// with the messages given below, and std::bad_alloc. Nothing is logged.
#pragma once

#include <cstdint>

#include <ferrocore/CSharedObject.h>
#include <ferrocore/CString.h>
#include <quillcore/export.h>
#include <quillcore/platform/PLObject.h>

namespace quill {

class QUILL_EXPORT CPListUpdater : public ferrocore::CSharedObject {
public:
    // Stores `filePath` (may be null: an updater without a file, whose data is
    // set by its owner); when it is not null, refresh(). Throws what refresh()
    // throws.
    explicit CPListUpdater(const ferrocore::CStringRef& filePath);
    ~CPListUpdater() override;
    CPListUpdater(const CPListUpdater&) = delete;
    CPListUpdater& operator=(const CPListUpdater&) = delete;

    // When the file is present (isFilePresent), the data becomes
    // readFile(filePath()). A missing file leaves the data as it is. Throws
    // what readFile() throws; the data is then unchanged.
    void refresh();

    const ferrocore::CStringRef& filePath() const noexcept { return _filePath; }
    // The data (borrowed, not retained; may be null).
    PLTypeRef plistData() const noexcept { return _plistData.get(); }
    // Stores an immutable deep copy of `data` (null clears the data).
    // Throws ferrocore::CParamException "Property list not valid xml format".
    void setPListData(PLTypeRef data);

    // Parses `xmlText` (null: ferrocore::CNullPointerException
    // "Error: plistText is null!"; text that does not parse:
    // ferrocore::CParamException "Couldn't parse property list, error = %s")
    // and calls updateIfNeeded(data).
    bool updateIfNeeded(const ferrocore::CStringRef& xmlText);
    // Null data: "Error: plistData is null!"; invalid data: "Property list not
    // valid xml format". With current data: returns false without writing
    // unless needMerge(data), else merge(data). Without current data the data
    // becomes a copy of `data`. Then writes the data to the file path
    // (writeFile) and returns true.
    bool updateIfNeeded(PLTypeRef data);
    // Whether `data` should replace the current data: true when there is no
    // current data or it has no "Version" string; otherwise true only when the
    // current "Version" compares numerically below the new one ("9" < "10").
    // An equal or greater version, or new data without a "Version" while the
    // current data has one, gives false. Null data throws
    // ferrocore::CNullPointerException "Error: plistData is null!".
    bool needMerge(PLTypeRef data) const;
    // Null data: "Error: plistData is null!"; invalid data: "Property list not
    // valid xml format". Without current data: the data becomes `data`
    // (through a three-way merge into an empty dictionary, which gives the
    // same). With current data: `data` replaces it whole; keys that only the
    // old data had are dropped.
    void merge(PLTypeRef data);

    // Writes `data` to `filePath` as an XML property list, replacing the
    // file's contents. Throws ferrocore::CNullPointerException
    // "Error: filePath is null!", ferrocore::CParamException "Property list
    // not valid xml format", "Couldn't open write stream to file %s, error =
    // %d" (the errno value) or "Couldn't write property list to file %s,
    // error = %s".
    static void writeFile(const ferrocore::CStringRef& filePath, PLTypeRef data);
    // Reads, parses and validates the property list at `filePath`; the result
    // is immutable. Throws "Error: filePath is null!", "Couldn't open read
    // stream from file %s, error = %d", "Couldn't read property list from file
    // %s, error = %s" or "Property list not valid xml format".
    static PLHolder<const PLObject> readFile(const ferrocore::CStringRef& filePath);

    // writeFile(filePath(), data); true. Without data throws
    // ferrocore::CNullPointerException "Error: _plistData is null!".
    bool flush();

    // Whether a file-status query on `path` succeeds (false for null).
    static bool isFilePresent(const ferrocore::CStringRef& path);
    bool fileExists() const;
    // The same for the directory that holds the file.
    bool parentDirExists() const;
    // Creates the directory that holds the file (one level: missing
    // grandparents are not made) with the permission bits `mode`. Throws
    // ferrocore::CParamException "mkdir(%s) failed, error = %s" (an existing
    // directory is a failure too) and "Error: filePath is null!" without a
    // path.
    void makeParentDir(std::uint32_t mode);
    // makeParentDir(mode) unless parentDirExists().
    void makeParentDirIfNeeded(std::uint32_t mode);

protected:
    // The data, for derived classes that store a changed copy.
    void storePListData(PLHolder<const PLObject> data) noexcept { _plistData = std::move(data); }

private:
    const ferrocore::CStringRef _filePath;
    PLHolder<const PLObject> _plistData;
};

using CPListUpdaterRef = ferrocore::CSharedObjectRef<CPListUpdater>;

}  // namespace quill
