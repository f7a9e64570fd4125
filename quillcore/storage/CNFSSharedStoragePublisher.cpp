#include <cctype>
#include <set>

#include "quillcore/storage/ExportsFileSyntax.h"
#include "quillcore/storage/StorageText.h"
#include <ferrocore/CException.h>
#include <ferrocore/Format.h>
#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/Host.h>
#include <quillcore/storage/CNFSSharedStoragePublisher.h>
#include <quillcore/storage/CSharedStorageUtils.h>

namespace quill {

using ferrocore::CString;
using ferrocore::formatString;
using platform::host;

namespace {

constexpr const char* kStandardExportsFile = "/etc/exports";
constexpr std::string_view kSharedSuffix = "/shared";
constexpr std::string_view kSubexportMarker = "/.cvsubexp";

bool isWhiteSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

// Hexadecimal as the locale classes it; every byte of a UTF-8 sequence is
// above 0x7f and none is a digit, so a byte test equals a character test.
bool isHexDigit(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

bool readWholeFile(const std::string& path, std::string& contents) {
    platform::CFileDescriptor fd;
    if (host().openFileForReading(path, fd)) return false;
    std::uint64_t length = 0;
    if (host().fileLength(fd.get(), length)) return false;
    std::string buffer(static_cast<std::size_t>(length), '\0');
    std::size_t got = 0;
    if (host().readFile(fd.get(), buffer.data(), buffer.size(), got)) return false;
    buffer.resize(got);
    contents = std::move(buffer);
    return true;
}

}  // namespace

CNFSSharedStoragePublisher::CNFSSharedStoragePublisher() : _exportsFilePath(kStandardExportsFile) {
    setExportsFilePath(host().systemPath(platform::SystemPath::ExportsFile));
}

CNFSSharedStoragePublisher::~CNFSSharedStoragePublisher() = default;

void CNFSSharedStoragePublisher::setExportsFilePath(const std::string& path) {
    _exportsFilePath = path;
    if (path != kStandardExportsFile) _privateExportsFile = true;  // never cleared again
}

std::string CNFSSharedStoragePublisher::escapedFilePath(const std::string& path) {
    if (!storage::exportsfile::isFaithfullyExportable(path))
        throw ISharedStorageException(kSharedStoragePathError, 0,
                                      "Path [%@] cannot be exported: the exports file would name another path", path);
    return storage::exportsfile::escapePath(path);
}

void CNFSSharedStoragePublisher::readExportFile(std::vector<std::string>& lines) const {
    std::string contents;
    if (!readWholeFile(_exportsFilePath, contents)) return;
    std::size_t start = 0;
    while (start < contents.size()) {
        std::size_t end = contents.find_first_of("\r\n", start);
        if (end == std::string::npos) {
            lines.push_back(contents.substr(start));
            break;
        }
        lines.push_back(contents.substr(start, end - start));
        start = end + ((contents[end] == '\r' && end + 1 < contents.size() && contents[end + 1] == '\n') ? 2 : 1);
    }
}

void CNFSSharedStoragePublisher::writeExportFile(const std::vector<std::string>& lines) const {
    std::string contents;
    for (const auto& line : lines) contents.append(line).append("\n");
    // Names "/etc/exports" whatever file is in use: intended, callers match it.
    const ferrocore::CException failure(ferrocore::kExceptionKindHostRuntime,
                                        "CNFSSharedStoragePublisher::writeExportFile(): couldn't write file "
                                        "\"/etc/exports\"");
    // A new file renamed over the old one: the NFS tools never read half a file.
    std::string temporary = _exportsFilePath + ".quillXXXXXX";
    if (host().makeUniqueName(temporary)) throw failure;
    platform::CFileDescriptor fd;
    if (host().createFile(temporary, 0644, fd)) throw failure;
    std::size_t written = 0;
    const bool ok = !host().writeFile(fd.get(), contents.data(), contents.size(), written) && !host().closeFile(fd);
    if (!ok || host().renameFile(temporary, _exportsFilePath)) {
        host().removeFile(temporary);
        throw failure;
    }
}

int CNFSSharedStoragePublisher::findExportEntry(const std::vector<std::string>& lines, const std::string& entry) const {
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::string& line = lines[i];
        if (line.compare(0, entry.size(), entry) == 0 && line.size() >= entry.size()) {
            if (line.size() == entry.size()) return static_cast<int>(i);
            if (isWhiteSpace(line[entry.size()])) return static_cast<int>(i);
        }
        if (_privateExportsFile && line.find(entry) != std::string::npos &&
            line.size() == entry.size() + kSharedSuffix.size())
            return static_cast<int>(i);
    }
    return -1;
}

bool CNFSSharedStoragePublisher::isCorvaneExportEntry(const std::string& line) const {
    if (_privateExportsFile) return true;
    if (line.find(kSubexportMarker) != std::string::npos) return true;
    for (std::size_t p = line.find(kSharedSuffix); p != std::string::npos; p = line.find(kSharedSuffix, p + 1)) {
        if (p < 18 || line[p - 18] != '/' || line[p - 9] != '-') continue;
        bool hex = true;
        for (std::size_t i = p - 17; i < p && hex; ++i)
            if (i != p - 9) hex = isHexDigit(line[i]);
        if (hex) return true;
    }
    return false;
}

void CNFSSharedStoragePublisher::cleanExports() {
    std::vector<std::string> lines;
    readExportFile(lines);
    std::vector<std::string> kept;
    for (auto& line : lines)
        if (!isCorvaneExportEntry(line)) kept.push_back(std::move(line));
    if (kept.size() != lines.size()) writeExportFile(kept);
}

void CNFSSharedStoragePublisher::_publish(const std::string& path, std::vector<std::string>& lines) {
    const std::string escaped = escapedFilePath(path);
    if (findExportEntry(lines, escaped) != -1) return;
    lines.push_back(escaped + " " + host().exportOptions());
    writeExportFile(lines);
}

void CNFSSharedStoragePublisher::_unpublish(const std::string& path, std::vector<std::string>& lines) {
    const int index = findExportEntry(lines, escapedFilePath(path));
    if (index < 0) return;
    lines.erase(lines.begin() + index);
    writeExportFile(lines);
}

void CNFSSharedStoragePublisher::_unpublish(const std::vector<std::string>& paths, std::vector<std::string>& lines) {
    bool removed = false;
    for (const auto& path : paths) {
        if (!storage::exportsfile::isFaithfullyExportable(path)) continue;  // never written
        const int index = findExportEntry(lines, escapedFilePath(path));
        if (index < 0) continue;
        lines.erase(lines.begin() + index);
        removed = true;
    }
    if (removed) writeExportFile(lines);
}

void CNFSSharedStoragePublisher::publish(CURLRef url, ferrocore::CStringRef clientName, long pid) {
    if (!url) throw ferrocore::CNullPointerException("Error: url is null!");
    const std::string path = storage::utf8(url->fileSystemPath());
    std::vector<std::string> lines;
    readExportFile(lines);
    // Looked up with the path as it is, not escaped: kept as it has always been.
    const int index = findExportEntry(lines, path);
    CSharedStoragePublishedEntry entry(clientName, CString::create(path), pid);
    auto found = _publishedMap.find(path);
    if (found != _publishedMap.end()) {
        if (index >= 0) {
            found->second.addReference(clientName, pid);
            return;
        }
        _publishedMap.erase(found);  // the line was removed behind our back
    } else if (index >= 0) {
        _publishedMap.emplace(path, std::move(entry));  // a line of an earlier run
        return;
    }
    escapedFilePath(path);  // refuse what cannot be exported before touching anything
    CSharedStorageUtils::makeDir(CString::create(path), 0777);
    CSharedStorageUtils::addSharedInfoFile(url, clientName);
    if (CSharedStorageUtils::isExFATBasedPath(CString::create(path))) {
        const CURLRef concerned =
            storage::utf8(url->lastPathComponent()) == CSharedStorageUtils::kSubexportDirectoryName
                ? url->copyByDeletingLastPathComponent()
                : url;
        const std::string message =
            formatString(storage::utf8(ISharedStorage::localizedStringForKey("ExFATExportNotSupported")),
                         concerned->fileSystemPath());
        throw ISharedStorageException(kSharedStoragePathError, 0, "%@", message);
    }
    _publish(path, lines);
    _publishedMap.insert_or_assign(path, std::move(entry));
}

void CNFSSharedStoragePublisher::unpublish(CURLRef url, ferrocore::CStringRef clientName, long pid) {
    if (!url) throw ferrocore::CNullPointerException("Error: url is null!");
    const std::string path = storage::utf8(url->fileSystemPath());
    std::vector<std::string> lines;
    readExportFile(lines);
    const int index = findExportEntry(lines, path);
    auto found = _publishedMap.find(path);
    if (found == _publishedMap.end()) {
        if (index < 0)
            throw ISharedStorageException(kSharedStoragePathError, 2, "entry [%@] not present in publishedMap", path);
        found = _publishedMap.emplace(path, CSharedStoragePublishedEntry(clientName, CString::create(path), pid)).first;
    }
    if (found->second.deleteReference(clientName, pid) == 0) {
        _publishedMap.erase(found);
        if (index >= 0) _unpublish(path, lines);
    }
}

void CNFSSharedStoragePublisher::processTerminated(long pid) {
    std::vector<std::string> ended;
    for (auto& [path, entry] : _publishedMap) {
        if (entry.refCount() == 0) continue;
        entry.deleteReferences(pid);
        if (entry.refCount() == 0) ended.push_back(path);
    }
    for (const auto& path : ended) _publishedMap.erase(path);
    if (ended.empty()) return;
    std::vector<std::string> lines;
    readExportFile(lines);
    _unpublish(ended, lines);
}

}  // namespace quill
