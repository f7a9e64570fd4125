// The user's private runtime directories: where per-user sockets and locks
// live (the private notification bus, the job supervisor's control socket).
#pragma once

#include <string>
#include <string_view>
#include <system_error>

#include <quillcore/platform/export.h>

namespace quill::platform {

// The directory `name` in the user's runtime directory: $XDG_RUNTIME_DIR/name,
// else /run/user/<uid>/name when /run/user/<uid> is a directory of the
// effective user that nobody else can reach, else /tmp/name-<uid>.
QUILL_PLATFORM_EXPORT std::string userPrivateDirectory(std::string_view name);

// Makes `directory` with mode 0700 when it is missing, then checks that it is
// a directory (not a link) of the effective user that nobody else can write.
// On failure returns an error and a description naming the directory.
QUILL_PLATFORM_EXPORT std::error_code ensureUserPrivateDirectory(const std::string& directory, std::string& problem);

}  // namespace quill::platform
