#include <atomic>

#include <quillcore/platform/Host.h>

namespace quill::platform {

namespace {

// Null while the default host is in use.
std::atomic<IHost*> gSubstitute{nullptr};

}  // namespace

IHost::~IHost() = default;

IHost& host() noexcept {
    IHost* substitute = gSubstitute.load(std::memory_order_acquire);
    return substitute ? *substitute : defaultHost();
}

IHost* setHost(IHost* substitute) noexcept {
    if (substitute == &defaultHost()) substitute = nullptr;
    return gSubstitute.exchange(substitute, std::memory_order_acq_rel);
}

CHostWrapper::CHostWrapper() : _target(&defaultHost()) {}
CHostWrapper::~CHostWrapper() = default;

PLAbsoluteTime CHostWrapper::currentTime() { return _target->currentTime(); }
CCalendarDate CHostWrapper::calendarDate(PLAbsoluteTime at) { return _target->calendarDate(at); }
PLAbsoluteTime CHostWrapper::absoluteTime(const CCalendarDate& local) { return _target->absoluteTime(local); }
const char* CHostWrapper::timeZoneSetting() { return _target->timeZoneSetting(); }
std::string CHostWrapper::computerName() { return _target->computerName(); }
std::vector<std::string> CHostWrapper::hostNames() { return _target->hostNames(); }
std::vector<std::string> CHostWrapper::hostAddresses() { return _target->hostAddresses(); }
std::int32_t CHostWrapper::processorCount() { return _target->processorCount(); }
CProcessorFacts CHostWrapper::processorFacts() { return _target->processorFacts(); }
std::vector<std::string> CHostWrapper::loadedImagePaths() { return _target->loadedImagePaths(); }
std::string CHostWrapper::processName() { return _target->processName(); }
std::int32_t CHostWrapper::processID() { return _target->processID(); }
const char* const* CHostWrapper::processEnvironment() { return _target->processEnvironment(); }
std::string CHostWrapper::homeDirectory() { return _target->homeDirectory(); }
std::string CHostWrapper::temporaryDirectory() { return _target->temporaryDirectory(); }
std::string CHostWrapper::systemPath(SystemPath which) { return _target->systemPath(which); }
double CHostWrapper::commandTimeLimit(double standardSeconds) { return _target->commandTimeLimit(standardSeconds); }
std::string CHostWrapper::exportOptions() { return _target->exportOptions(); }
void CHostWrapper::logToConsole(std::string_view text) { _target->logToConsole(text); }
std::error_code CHostWrapper::getOpenFilesLimit(CResourceLimit& limit) { return _target->getOpenFilesLimit(limit); }
std::error_code CHostWrapper::setOpenFilesLimit(const CResourceLimit& limit) {
    return _target->setOpenFilesLimit(limit);
}
std::error_code CHostWrapper::openLockedFile(const std::string& path, FileLock lock, CFileDescriptor& fd) {
    return _target->openLockedFile(path, lock, fd);
}
std::error_code CHostWrapper::closeFile(CFileDescriptor& fd) { return _target->closeFile(fd); }
std::error_code CHostWrapper::fileLength(int fd, std::uint64_t& length) { return _target->fileLength(fd, length); }
std::error_code CHostWrapper::readFile(int fd, void* buffer, std::size_t size, std::size_t& got) {
    return _target->readFile(fd, buffer, size, got);
}
std::error_code CHostWrapper::writeFileAt(int fd, std::uint64_t offset, const void* data, std::size_t size,
                                          std::size_t& written) {
    return _target->writeFileAt(fd, offset, data, size, written);
}
std::error_code CHostWrapper::truncateFile(int fd, std::uint64_t length) { return _target->truncateFile(fd, length); }
std::error_code CHostWrapper::fileSystemStatus(const std::string& path) { return _target->fileSystemStatus(path); }
std::error_code CHostWrapper::fileSystemFacts(const std::string& path, CFileSystemFacts& facts) {
    return _target->fileSystemFacts(path, facts);
}
std::error_code CHostWrapper::mountedFileSystems(std::vector<CMountedFileSystem>& mounts) {
    return _target->mountedFileSystems(mounts);
}
std::error_code CHostWrapper::checkAccess(const std::string& path, bool read, bool write) {
    return _target->checkAccess(path, read, write);
}
std::error_code CHostWrapper::resolvePath(const std::string& path, std::string& resolved) {
    return _target->resolvePath(path, resolved);
}
std::error_code CHostWrapper::linkFile(const std::string& from, const std::string& to) {
    return _target->linkFile(from, to);
}
std::error_code CHostWrapper::makeUniqueName(std::string& pathTemplate) {
    return _target->makeUniqueName(pathTemplate);
}
std::error_code CHostWrapper::fileMode(const std::string& path, std::uint32_t& mode) {
    return _target->fileMode(path, mode);
}
std::error_code CHostWrapper::fileStatus(const std::string& path, CFileStatus& status) {
    return _target->fileStatus(path, status);
}
std::error_code CHostWrapper::duplicateDescriptor(int from, int to) { return _target->duplicateDescriptor(from, to); }
std::error_code CHostWrapper::setFileMode(const std::string& path, std::uint32_t mode) {
    return _target->setFileMode(path, mode);
}
std::error_code CHostWrapper::openFileForAppending(const std::string& path, bool truncate, std::uint32_t mode,
                                                   CFileDescriptor& fd) {
    return _target->openFileForAppending(path, truncate, mode, fd);
}
std::error_code CHostWrapper::writeFile(int fd, const void* data, std::size_t size, std::size_t& written) {
    return _target->writeFile(fd, data, size, written);
}
std::error_code CHostWrapper::createDirectory(const std::string& path, std::uint32_t mode) {
    return _target->createDirectory(path, mode);
}
std::uint32_t CHostWrapper::setFileCreationMask(std::uint32_t mask) { return _target->setFileCreationMask(mask); }
std::error_code CHostWrapper::openFileForReading(const std::string& path, CFileDescriptor& fd) {
    return _target->openFileForReading(path, fd);
}
std::error_code CHostWrapper::createFile(const std::string& path, std::uint32_t mode, CFileDescriptor& fd) {
    return _target->createFile(path, mode, fd);
}
std::error_code CHostWrapper::renameFile(const std::string& from, const std::string& to) {
    return _target->renameFile(from, to);
}
std::error_code CHostWrapper::removeFile(const std::string& path) { return _target->removeFile(path); }
std::error_code CHostWrapper::removeDirectory(const std::string& path) { return _target->removeDirectory(path); }
std::error_code CHostWrapper::listDirectory(const std::string& path, std::vector<std::string>& names) {
    return _target->listDirectory(path, names);
}

}  // namespace quill::platform
