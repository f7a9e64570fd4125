#include <cstdio>
#include <string>
#include <string_view>

#include <ferrocore/CMutex.h>
#include <quillcore/platform/Host.h>
#include <quillcore/util/CFileUtil.h>

namespace quill {

namespace {

inline constexpr long kDefaultMaxOpenFiles = 2048;

// Home directory lookups, one caller at a time: without $HOME the answer
// comes from the user database, which not every host lets several threads
// read at once.
class CQuillFileUtilities final {
public:
    CQuillFileUtilities() = delete;

    static std::string homeDirectory() {
        ferrocore::CAutoStaticMutex lock(_mutex);
        return platform::host().homeDirectory();
    }

private:
    static constinit ferrocore::CStaticMutex _mutex;
};

constinit ferrocore::CStaticMutex CQuillFileUtilities::_mutex;

const PLString* newString(std::string_view text) { return PLString::create(text).detach(); }

void reportGetLimitFailure(platform::IHost& host, const std::error_code& error) {
    std::fprintf(stderr, "[%d]: getrlimit(RLIMIT_NOFILE) failed: %s\n", static_cast<int>(host.processID()),
                 error.message().c_str());
}

}  // namespace

}  // namespace quill

using quill::platform::CResourceLimit;

long getMaxOpenFiles() noexcept {
    try {
        quill::platform::IHost& host = quill::platform::host();
        CResourceLimit limit;
        if (std::error_code error = host.getOpenFilesLimit(limit)) {
            quill::reportGetLimitFailure(host, error);
            return -1;
        }
        return static_cast<long>(limit.soft);
    } catch (...) {
        return -1;
    }
}

long QuillGetMaxOpenFiles() noexcept { return getMaxOpenFiles(); }

long setMaxOpenFiles(long limit) noexcept {
    try {
        quill::platform::IHost& host = quill::platform::host();
        CResourceLimit current;
        if (std::error_code error = host.getOpenFilesLimit(current)) {
            quill::reportGetLimitFailure(host, error);
            return -1;
        }
        if (current.soft >= limit) return static_cast<long>(current.soft);
        // Deliberately no clamping to a finite hard limit: the caller asked for
        // more than the process may have and keeps what it has.
        if (limit > current.hard && current.hard != CResourceLimit::kUnlimited) return static_cast<long>(current.soft);
        CResourceLimit wanted{limit, current.hard};
        if (std::error_code error = host.setOpenFilesLimit(wanted)) {
            std::fprintf(stderr, "[%d]: setrlimit(RLIMIT_NOFILE, %ld/%ld) failed: %s\n",
                         static_cast<int>(host.processID()), limit, static_cast<long>(current.hard),
                         error.message().c_str());
            return -1;
        }
        return limit;
    } catch (...) {
        return -1;
    }
}

long QuillSetMaxOpenFiles(long limit) noexcept { return setMaxOpenFiles(limit); }

long QuillSetDefaultMaxOpenFiles() noexcept { return setMaxOpenFiles(quill::kDefaultMaxOpenFiles); }

const PLString* QuillGetHomeDirectory() noexcept {
    try {
        std::string home = quill::CQuillFileUtilities::homeDirectory();
        return home.empty() ? nullptr : quill::newString(home);
    } catch (...) {
        return nullptr;
    }
}

const PLString* QuillGetTemporaryDirectory() noexcept {
    try {
        std::string dir = quill::platform::host().temporaryDirectory();
        if (dir.empty() || dir.back() != '/') dir.push_back('/');
        return quill::newString(dir);
    } catch (...) {
        return nullptr;
    }
}

const PLString* QuillExpandTildeInPath(const PLString* path) noexcept {
    if (!path) return nullptr;
    std::string_view text = path->utf8();
    if (!text.starts_with("~/")) return PLHolder<const PLString>::retain(path).detach();
    try {
        std::string home = quill::CQuillFileUtilities::homeDirectory();
        if (home.empty()) return nullptr;
        home.append(text.substr(1));
        return quill::newString(home);
    } catch (...) {
        return nullptr;
    }
}

namespace quill {

long CFileUtil::getMaxOpenFiles() noexcept { return ::getMaxOpenFiles(); }

long CFileUtil::setMaxOpenFiles(long limit) noexcept { return ::setMaxOpenFiles(limit); }

long CFileUtil::setDefaultMaxOpenFiles() noexcept { return ::QuillSetDefaultMaxOpenFiles(); }

PLHolder<const PLString> CFileUtil::getHomeDirectory() noexcept {
    return PLHolder<const PLString>::adopt(::QuillGetHomeDirectory());
}

PLHolder<const PLString> CFileUtil::getTemporaryDirectory() noexcept {
    return PLHolder<const PLString>::adopt(::QuillGetTemporaryDirectory());
}

PLHolder<const PLString> CFileUtil::expandTildeInPath(PLStringRef path) noexcept {
    return PLHolder<const PLString>::adopt(::QuillExpandTildeInPath(path));
}

}  // namespace quill
