// The real host on Linux.
//
// Host names: the kernel's node name (gethostname) first, then the canonical
// name the resolver gives for it (getaddrinfo with AI_CANONNAME) when that
// differs. Resolving may consult DNS, so callers should not ask on a hot path.
//
// Host addresses: every IPv4 and IPv6 address of the interfaces that are up
// (getifaddrs), numeric, without duplicates, ordered so that the most useful
// one comes first and counts as primary: IPv4 addresses, then global IPv6
// addresses, then link-local addresses (169.254.0.0/16, fe80::/10, written
// with their "%interface" scope), then loopback addresses. Within a group the
// order is that of the interface list.
//
// Computer name: PRETTY_HOSTNAME of /etc/machine-info when set, else the node
// name.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <new>
#include <utility>

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/magic.h>
#include <mntent.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <pthread.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <syslog.h>
#include <unistd.h>

#include "platform/linux/LinuxSystemFacts.h"
#include "platform/linux/PosixError.h"
#include <quillcore/platform/Host.h>

namespace quill::platform {

// QUILL_HELPER_DIR is the helper directory under the configured install
// prefix (platform/CMakeLists.txt).
const char* const kMountPath = QUILL_HELPER_DIR "/quill-nfs-mount";
const char* const kUmountPath = QUILL_HELPER_DIR "/quill-nfs-umount";

namespace {

// Beyond this many seconds either way the C library's broken-down time would
// overflow its year field.
constexpr double kCalendarLimit = 1e16;

// Every setting the host takes from the environment is read with
// secure_getenv: in a program running with privileges its caller does not
// have (set-user-ID, file capabilities) the caller's environment is ignored.
std::string environment(const char* name) {
    const char* value = secure_getenv(name);
    return value ? std::string(value) : std::string();
}

// Names of the file-system types that QuillCore asks about or that a host
// commonly has, by the magic number statfs reports; the mount table's names.
struct FileSystemType {
    unsigned long magic;
    const char* name;
    bool remote;
};

constexpr FileSystemType kFileSystemTypes[] = {
    {EXT4_SUPER_MAGIC, "ext4", false},  // ext2 and ext3 share it
    {0x2011BAB0UL, "exfat", false},
    {0x4D44UL, "vfat", false},
    {0x5346544EUL, "ntfs", false},
    {0x58465342UL, "xfs", false},
    {BTRFS_SUPER_MAGIC, "btrfs", false},
    {TMPFS_MAGIC, "tmpfs", false},
    {OVERLAYFS_SUPER_MAGIC, "overlay", false},
    {SQUASHFS_MAGIC, "squashfs", false},
    {0x9660UL, "iso9660", false},
    {PROC_SUPER_MAGIC, "proc", false},
    {SYSFS_MAGIC, "sysfs", false},
    {NFS_SUPER_MAGIC, "nfs", true},
    {SMB_SUPER_MAGIC, "smbfs", true},
    {0xFF534D42UL, "cifs", true},
    {0xFE534D42UL, "smb2", true},
    {0x01021997UL, "9p", true},
    {0x65735546UL, "fuse", true},
    {0x00C36400UL, "ceph", true},
    {AFS_SUPER_MAGIC, "afs", true},
};

std::string nodeName() {
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0) return {};
    return name;
}

// Value of PRETTY_HOSTNAME in /etc/machine-info, unquoted; empty when absent.
std::string prettyHostName() {
    std::ifstream in("/etc/machine-info");
    std::string line;
    constexpr std::string_view kKey = "PRETTY_HOSTNAME=";
    while (std::getline(in, line)) {
        if (line.compare(0, kKey.size(), kKey) != 0) continue;
        std::string value = line.substr(kKey.size());
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front())
            value = value.substr(1, value.size() - 2);
        return value;
    }
    return {};
}

enum class AddressGroup { IPv4, IPv6, LinkLocal, Loopback };

AddressGroup classify(const sockaddr* addr, unsigned flags) {
    if (flags & IFF_LOOPBACK) return AddressGroup::Loopback;
    if (addr->sa_family == AF_INET) {
        const auto* in = reinterpret_cast<const sockaddr_in*>(addr);
        std::uint32_t a = ntohl(in->sin_addr.s_addr);
        if ((a >> 24) == 127) return AddressGroup::Loopback;
        if ((a >> 16) == 0xA9FE) return AddressGroup::LinkLocal;
        return AddressGroup::IPv4;
    }
    const auto* in6 = reinterpret_cast<const sockaddr_in6*>(addr);
    if (IN6_IS_ADDR_LOOPBACK(&in6->sin6_addr)) return AddressGroup::Loopback;
    if (IN6_IS_ADDR_LINKLOCAL(&in6->sin6_addr)) return AddressGroup::LinkLocal;
    return AddressGroup::IPv6;
}

std::atomic<std::int32_t> gProcessID{0};

void forgetProcessID() noexcept { gProcessID.store(0, std::memory_order_relaxed); }

std::int32_t cachedProcessID() noexcept {
    std::int32_t pid = gProcessID.load(std::memory_order_relaxed);
    if (pid == 0) {
        static const int registered = pthread_atfork(nullptr, nullptr, forgetProcessID);
        (void)registered;
        pid = static_cast<std::int32_t>(getpid());
        gProcessID.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

class CLinuxHost final : public IHost {
public:
    PLAbsoluteTime currentTime() override {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        return static_cast<double>(now.tv_sec) - kPLAbsoluteTimeIntervalSince1970 +
               static_cast<double>(now.tv_nsec) * 1e-9;
    }

    CCalendarDate calendarDate(PLAbsoluteTime at) override {
        if (std::isnan(at)) at = 0.0;
        at = std::clamp(at, -kCalendarLimit, kCalendarLimit);
        double whole = std::floor(at);
        time_t t = static_cast<time_t>(whole) + static_cast<time_t>(kPLAbsoluteTimeIntervalSince1970);
        tzset();
        tm parts{};
        if (!localtime_r(&t, &parts) && !gmtime_r(&t, &parts)) return {};
        CCalendarDate date;
        date.year = parts.tm_year + 1900;
        date.month = parts.tm_mon + 1;
        date.day = parts.tm_mday;
        date.hour = parts.tm_hour;
        date.minute = parts.tm_min;
        date.second = parts.tm_sec + (at - whole);
        date.weekday = parts.tm_wday == 0 ? 7 : parts.tm_wday;
        return date;
    }

    PLAbsoluteTime absoluteTime(const CCalendarDate& local) override {
        constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
        if (!std::isfinite(local.second) || std::fabs(local.second) > 1e9) return kNaN;
        double whole = std::floor(local.second);
        tm parts{};
        std::int64_t year = std::int64_t{local.year} - 1900;
        if (year < std::numeric_limits<int>::min() || year > std::numeric_limits<int>::max()) return kNaN;
        parts.tm_year = static_cast<int>(year);
        parts.tm_mon = local.month - 1;
        parts.tm_mday = local.day;
        parts.tm_hour = local.hour;
        parts.tm_min = local.minute;
        parts.tm_sec = static_cast<int>(whole);
        parts.tm_isdst = -1;
        parts.tm_wday = -1;  // mktime sets it only on success; -1 is also a valid time
        tzset();
        time_t t = mktime(&parts);
        if (t == -1 && parts.tm_wday == -1) return kNaN;
        return static_cast<double>(t) - kPLAbsoluteTimeIntervalSince1970 + (local.second - whole);
    }

    const char* timeZoneSetting() override { return secure_getenv("TZ"); }

    std::string computerName() override {
        std::string pretty = prettyHostName();
        return pretty.empty() ? nodeName() : pretty;
    }

    std::vector<std::string> hostNames() override {
        std::vector<std::string> names;
        std::string node = nodeName();
        if (node.empty()) return names;
        names.push_back(node);
        addrinfo hints{};
        hints.ai_family = AF_UNSPEC;
        hints.ai_flags = AI_CANONNAME;
        addrinfo* found = nullptr;
        if (getaddrinfo(node.c_str(), nullptr, &hints, &found) == 0) {
            if (found && found->ai_canonname && node != found->ai_canonname) names.emplace_back(found->ai_canonname);
            freeaddrinfo(found);
        }
        return names;
    }

    std::vector<std::string> hostAddresses() override {
        std::vector<std::pair<AddressGroup, std::string>> found;
        ifaddrs* list = nullptr;
        if (getifaddrs(&list) != 0) return {};
        for (const ifaddrs* entry = list; entry; entry = entry->ifa_next) {
            const sockaddr* addr = entry->ifa_addr;
            if (!addr || !(entry->ifa_flags & IFF_UP)) continue;
            if (addr->sa_family != AF_INET && addr->sa_family != AF_INET6) continue;
            socklen_t size = addr->sa_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
            char text[NI_MAXHOST] = {};
            if (getnameinfo(addr, size, text, sizeof text, nullptr, 0, NI_NUMERICHOST) != 0) continue;
            std::string address(text);
            bool seen = std::any_of(found.begin(), found.end(), [&](const auto& e) { return e.second == address; });
            if (!seen) found.emplace_back(classify(addr, entry->ifa_flags), std::move(address));
        }
        freeifaddrs(list);
        std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
        std::vector<std::string> addresses;
        addresses.reserve(found.size());
        for (auto& entry : found) addresses.push_back(std::move(entry.second));
        return addresses;
    }

    std::int32_t processorCount() override {
        long count = sysconf(_SC_NPROCESSORS_ONLN);
        return count > 0 ? static_cast<std::int32_t>(count) : -1;
    }

    CProcessorFacts processorFacts() override { return linuxhost::readProcessorFacts(); }

    std::vector<std::string> loadedImagePaths() override { return linuxhost::readLoadedImagePaths(); }

    std::string processName() override { return program_invocation_short_name; }

    // getpid() is a system call each time; loggers ask for every record. The
    // cached value is dropped in a forked child (see cachedProcessID).
    std::int32_t processID() override { return cachedProcessID(); }

    const char* const* processEnvironment() override {
        static const char* const kEmpty[] = {nullptr};
        return environ ? environ : kEmpty;
    }

    std::string homeDirectory() override {
        std::string home = environment("HOME");
        if (!home.empty()) return home;
        long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
        std::vector<char> buffer(hint > 0 ? static_cast<std::size_t>(hint) : 16384);
        for (;;) {
            passwd entry{};
            passwd* result = nullptr;
            int rc = getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &result);
            if (rc == ERANGE && buffer.size() < (std::size_t{1} << 20)) {
                buffer.resize(buffer.size() * 2);
                continue;
            }
            return rc == 0 && result && result->pw_dir ? std::string(result->pw_dir) : std::string();
        }
    }

    std::string temporaryDirectory() override {
        std::string dir = environment("TMPDIR");
        if (dir.empty()) dir = "/tmp";
        while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
        return dir;
    }

    std::string systemPath(SystemPath which) override {
        const char* fixed = nullptr;
        const char* variable = nullptr;
        switch (which) {
            case SystemPath::RunwardCtl: fixed = kRunwardCtlPath, variable = kRunwardCtlPathVariable; break;
            case SystemPath::Mount: fixed = kMountPath, variable = kMountPathVariable; break;
            case SystemPath::Umount: fixed = kUmountPath, variable = kUmountPathVariable; break;
            case SystemPath::ExportsFile: fixed = kExportsFilePath, variable = kExportsFilePathVariable; break;
        }
        if (!fixed) return {};
        std::string overridden = environment(variable);
        return overridden.empty() ? std::string(fixed) : overridden;
    }

    double commandTimeLimit(double standardSeconds) override {
        const std::string text = environment(kCommandTimeLimitVariable);
        if (text.empty()) return standardSeconds;
        char* end = nullptr;
        const double value = std::strtod(text.c_str(), &end);
        if (end == text.c_str() || *end != '\0' || !(value > 0.0) || !(value < standardSeconds)) return standardSeconds;
        return value;
    }

    std::string exportOptions() override {
        std::string options = environment(kExportOptionsVariable);
        return options.empty() ? std::string(kExportOptions) : options;
    }

    void logToConsole(std::string_view text) override {
        while (!text.empty() && text.back() == '\n') text.remove_suffix(1);
        std::string file = environment(kConsoleLogVariable);
        if (file.empty()) {
            syslog(LOG_NOTICE, "%.*s", static_cast<int>(text.size()), text.data());
            return;
        }
        appendConsoleLine(file, text);
    }

    std::error_code getOpenFilesLimit(CResourceLimit& limit) override {
        rlimit current{};
        if (getrlimit(RLIMIT_NOFILE, &current) != 0) return posixError(errno);
        limit.soft = fromKernel(current.rlim_cur);
        limit.hard = fromKernel(current.rlim_max);
        return {};
    }

    std::error_code setOpenFilesLimit(const CResourceLimit& limit) override {
        if (limit.soft < 0 || limit.hard < 0) return posixError(EINVAL);
        rlimit wanted{toKernel(limit.soft), toKernel(limit.hard)};
        if (setrlimit(RLIMIT_NOFILE, &wanted) != 0) return posixError(errno);
        return {};
    }

    // Linux has no lock-at-open flags: the lock is taken with flock right
    // after open, before the descriptor is handed out.
    std::error_code openLockedFile(const std::string& path, FileLock lock, CFileDescriptor& fd) override {
        const bool exclusive = lock == FileLock::Exclusive;
        const int flags = (exclusive ? O_RDWR | O_CREAT : O_RDONLY) | O_CLOEXEC;
        int rc;
        do {
            rc = ::open(path.c_str(), flags, 0600);
        } while (rc < 0 && errno == EINTR);
        if (rc < 0) return posixError(errno);
        CFileDescriptor opened(rc);
        do {
            rc = ::flock(opened.get(), exclusive ? LOCK_EX : LOCK_SH);
        } while (rc != 0 && errno == EINTR);
        if (rc != 0) return posixError(errno);
        fd = std::move(opened);
        return {};
    }

    std::error_code closeFile(CFileDescriptor& fd) override {
        if (!fd) return posixError(EBADF);
        // Linux releases the descriptor even when close reports EINTR, so it
        // must not be retried.
        if (::close(fd.release()) != 0 && errno != EINTR) return posixError(errno);
        return {};
    }

    std::error_code fileLength(int fd, std::uint64_t& length) override {
        const off_t end = ::lseek(fd, 0, SEEK_END);
        if (end < 0) return posixError(errno);
        if (::lseek(fd, 0, SEEK_SET) < 0) return posixError(errno);
        length = static_cast<std::uint64_t>(end);
        return {};
    }

    std::error_code readFile(int fd, void* buffer, std::size_t size, std::size_t& got) override {
        got = 0;
        auto* bytes = static_cast<char*>(buffer);
        while (got < size) {
            const ssize_t n = ::read(fd, bytes + got, size - got);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return posixError(errno);
            if (n == 0) break;
            got += static_cast<std::size_t>(n);
        }
        return {};
    }

    std::error_code writeFileAt(int fd, std::uint64_t offset, const void* data, std::size_t size,
                                std::size_t& written) override {
        written = 0;
        const auto* bytes = static_cast<const char*>(data);
        while (written < size) {
            const ssize_t n = ::pwrite(fd, bytes + written, size - written, static_cast<off_t>(offset + written));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return posixError(errno);
            if (n == 0) return posixError(EIO);
            written += static_cast<std::size_t>(n);
        }
        return {};
    }

    std::error_code openFileForAppending(const std::string& path, bool truncate, std::uint32_t mode,
                                         CFileDescriptor& fd) override {
        return openDescriptor(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | (truncate ? O_TRUNC : 0), mode, fd);
    }

    std::error_code openFileForReading(const std::string& path, CFileDescriptor& fd) override {
        return openDescriptor(path, O_RDONLY | O_CLOEXEC, 0, fd);
    }

    std::error_code createFile(const std::string& path, std::uint32_t mode, CFileDescriptor& fd) override {
        return openDescriptor(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode, fd);
    }

    std::error_code writeFile(int fd, const void* data, std::size_t size, std::size_t& written) override {
        written = 0;
        const auto* bytes = static_cast<const char*>(data);
        while (written < size) {
            const ssize_t n = ::write(fd, bytes + written, size - written);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return posixError(errno);
            if (n == 0) return posixError(EIO);
            written += static_cast<std::size_t>(n);
        }
        return {};
    }

    std::error_code truncateFile(int fd, std::uint64_t length) override {
        int rc;
        do {
            rc = ::ftruncate(fd, static_cast<off_t>(length));
        } while (rc != 0 && errno == EINTR);
        if (rc != 0) return posixError(errno);
        return {};
    }

    std::error_code fileSystemStatus(const std::string& path) override {
        struct statfs status {};
        if (::statfs(path.c_str(), &status) != 0) return posixError(errno);
        return {};
    }

    std::error_code fileSystemFacts(const std::string& path, CFileSystemFacts& facts) override {
        struct statfs status {};
        if (::statfs(path.c_str(), &status) != 0) return posixError(errno);
        const auto magic = static_cast<unsigned long>(status.f_type) & 0xFFFFFFFFUL;
        CFileSystemFacts found;
        found.readOnly = (status.f_flags & ST_RDONLY) != 0;
        char hex[16];
        std::snprintf(hex, sizeof hex, "0x%08lx", magic);
        found.typeName = hex;
        for (const FileSystemType& type : kFileSystemTypes) {
            if (type.magic == magic) {
                found.typeName = type.name;
                found.local = !type.remote;
                break;
            }
        }
        facts = std::move(found);
        return {};
    }

    std::error_code mountedFileSystems(std::vector<CMountedFileSystem>& mounts) override {
        // /proc/self/mounts is the kernel's own table: reading it never waits
        // for a file system, whatever state its server is in.
        std::FILE* table = ::setmntent("/proc/self/mounts", "re");
        if (!table) return posixError(errno);
        std::vector<CMountedFileSystem> found;
        struct mntent entry {};
        char buffer[8192];
        while (::getmntent_r(table, &entry, buffer, sizeof buffer)) {
            found.push_back({entry.mnt_fsname, entry.mnt_dir, entry.mnt_type});
        }
        ::endmntent(table);
        mounts = std::move(found);
        return {};
    }

    std::error_code checkAccess(const std::string& path, bool read, bool write) override {
        const int mode = (read ? R_OK : 0) | (write ? W_OK : 0);
        if (::access(path.c_str(), mode == 0 ? F_OK : mode) != 0) return posixError(errno);
        return {};
    }

    std::error_code resolvePath(const std::string& path, std::string& resolved) override {
        char* result = ::realpath(path.c_str(), nullptr);
        if (!result) return posixError(errno);
        resolved = result;
        std::free(result);
        return {};
    }

    std::error_code linkFile(const std::string& from, const std::string& to) override {
        if (::link(from.c_str(), to.c_str()) != 0) return posixError(errno);
        return {};
    }

    std::error_code makeUniqueName(std::string& pathTemplate) override {
        constexpr std::string_view kXs = "XXXXXX";
        if (pathTemplate.size() < kXs.size() || pathTemplate.compare(pathTemplate.size() - 6, 6, kXs) != 0)
            return posixError(EINVAL);
        static constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
        std::string candidate = pathTemplate;
        for (int attempt = 0; attempt < 1000; ++attempt) {
            unsigned char random[6];
            if (::getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) return posixError(errno);
            for (std::size_t i = 0; i < 6; ++i)
                candidate[candidate.size() - 6 + i] = kLetters[random[i] % (sizeof kLetters - 1)];
            struct stat status {};
            if (::lstat(candidate.c_str(), &status) != 0) {
                if (errno != ENOENT) return posixError(errno);
                pathTemplate = std::move(candidate);
                return {};
            }
        }
        return posixError(EEXIST);
    }

    std::error_code fileMode(const std::string& path, std::uint32_t& mode) override {
        struct stat status {};
        if (::stat(path.c_str(), &status) != 0) return posixError(errno);
        mode = status.st_mode;
        return {};
    }

    std::error_code fileStatus(const std::string& path, CFileStatus& status) override {
        struct stat st {};
        if (::stat(path.c_str(), &st) != 0) return posixError(errno);
        status.mode = st.st_mode;
        status.ownerUserID = st.st_uid;
        status.size = static_cast<std::uint64_t>(st.st_size);
        return {};
    }

    std::error_code duplicateDescriptor(int from, int to) override {
        int rc;
        do {
            rc = ::dup2(from, to);
        } while (rc < 0 && errno == EINTR);
        if (rc < 0) return posixError(errno);
        return {};
    }

    std::error_code setFileMode(const std::string& path, std::uint32_t mode) override {
        if (::chmod(path.c_str(), static_cast<mode_t>(mode)) != 0) return posixError(errno);
        return {};
    }

    std::error_code createDirectory(const std::string& path, std::uint32_t mode) override {
        if (::mkdir(path.c_str(), static_cast<mode_t>(mode)) != 0) return posixError(errno);
        return {};
    }

    std::uint32_t setFileCreationMask(std::uint32_t mask) override {
        return static_cast<std::uint32_t>(::umask(static_cast<mode_t>(mask & 0777)));
    }

    std::error_code renameFile(const std::string& from, const std::string& to) override {
        if (::rename(from.c_str(), to.c_str()) != 0) return posixError(errno);
        return {};
    }

    std::error_code removeFile(const std::string& path) override {
        if (::unlink(path.c_str()) != 0) return posixError(errno);
        return {};
    }

    std::error_code removeDirectory(const std::string& path) override {
        if (::rmdir(path.c_str()) != 0) return posixError(errno);
        return {};
    }

    std::error_code listDirectory(const std::string& path, std::vector<std::string>& names) override {
        int rc;
        do {
            rc = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        } while (rc < 0 && errno == EINTR);
        if (rc < 0) return posixError(errno);
        DIR* dir = ::fdopendir(rc);
        if (!dir) {
            const int err = errno;
            ::close(rc);
            return posixError(err);
        }
        std::vector<std::string> found;
        for (;;) {
            errno = 0;
            const dirent* entry = ::readdir(dir);
            if (!entry) break;
            const std::string_view name(entry->d_name);
            if (name != "." && name != "..") found.emplace_back(name);
        }
        const int err = errno;
        ::closedir(dir);
        if (err != 0) return posixError(err);
        std::sort(found.begin(), found.end());
        names = std::move(found);
        return {};
    }

private:
    static std::error_code openDescriptor(const std::string& path, int flags, std::uint32_t mode, CFileDescriptor& fd) {
        int opened;
        do {
            opened = ::open(path.c_str(), flags, static_cast<mode_t>(mode));
        } while (opened < 0 && errno == EINTR);
        if (opened < 0) return posixError(errno);
        fd.reset(opened);
        return {};
    }

    static std::int64_t fromKernel(rlim_t value) {
        if (value == RLIM_INFINITY || value >= static_cast<rlim_t>(CResourceLimit::kUnlimited))
            return CResourceLimit::kUnlimited;
        return static_cast<std::int64_t>(value);
    }
    static rlim_t toKernel(std::int64_t value) {
        return value == CResourceLimit::kUnlimited ? RLIM_INFINITY : static_cast<rlim_t>(value);
    }

    // One entry as one line: "2026-07-04 09:05:03.250 name[pid]: text", inner
    // line feeds continued with a tab so that every entry starts a line. The
    // line goes out in a single append so that concurrent writers (threads or
    // processes) never interleave within an entry.
    void appendConsoleLine(const std::string& file, std::string_view text) {
        CCalendarDate now = calendarDate(currentTime());
        char prefix[128];
        std::snprintf(prefix, sizeof prefix, "%04d-%02d-%02d %02d:%02d:%06.3f %s[%d]: ", now.year, now.month, now.day,
                      now.hour, now.minute, now.second, program_invocation_short_name, static_cast<int>(getpid()));
        std::string line(prefix);
        line.reserve(line.size() + text.size() + 8);
        for (char c : text) {
            line.push_back(c);
            if (c == '\n') line.push_back('\t');
        }
        line.push_back('\n');
        const CFileDescriptor fd(open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
        if (!fd) {
            syslog(LOG_NOTICE, "%.*s", static_cast<int>(text.size()), text.data());
            return;
        }
        const char* data = line.data();
        std::size_t left = line.size();
        while (left > 0) {
            ssize_t written = write(fd.get(), data, left);
            if (written < 0 && errno == EINTR) continue;
            if (written <= 0) break;
            data += written;
            left -= static_cast<std::size_t>(written);
        }
    }
};

}  // namespace

IHost& defaultHost() noexcept {
    // Built in place and never destroyed, so that code running during static
    // destruction (loggers, run loops of ending threads) can still use it.
    alignas(CLinuxHost) static unsigned char storage[sizeof(CLinuxHost)];
    static IHost* const instance = new (storage) CLinuxHost();
    return *instance;
}

}  // namespace quill::platform
