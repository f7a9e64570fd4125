#include "quillcore/servicemanager/HostPaths.h"
#include <quillcore/control/QuillConfig.h>
#include <quillcore/platform/Host.h>

std::uint32_t currentUser() noexcept {
    quill::platform::CFileStatus status;
    // The result of the query is not tested: "/dev/console" is expected.
    static_cast<void>(quill::platform::host().fileStatus("/dev/console", status));
    return status.ownerUserID;
}

const PLString* expandTildeInFilePath(const PLString* path) noexcept {
    if (!path) return nullptr;
    try {
        const std::optional<std::string> expanded = quill::servicemanager::expandTildeInFilePath(path->utf8());
        return expanded ? PLString::create(*expanded).detach() : nullptr;
    } catch (...) {
        return nullptr;
    }
}

bool fileExists(const PLString* path) noexcept {
    if (!path) return false;
    try {
        std::uint32_t mode = 0;
        return !quill::platform::host().fileMode(path->str(), mode);
    } catch (...) {
        return false;
    }
}

std::int64_t fileSize(const PLString* path) noexcept {
    if (!path) return -1;
    try {
        quill::platform::CFileStatus status;
        if (quill::platform::host().fileStatus(path->str(), status)) return -1;
        return static_cast<std::int64_t>(status.size);
    } catch (...) {
        return -1;
    }
}
