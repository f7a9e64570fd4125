// Path helpers shared by the service-manager classes and the exported
// service-control functions (which export expandTildeInFilePath over them).
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quill::servicemanager {

// `path` with a leading "~" or "~/" replaced by the home directory of the
// current user (IHost::homeDirectory). Wildcards are never expanded and the
// path need not exist, so a job file is named the same before and after it is
// written and a kind holding "*" names only itself. Empty for text that is
// not UTF-8, a "~user" form, or when there is no home directory.
std::optional<std::string> expandTildeInFilePath(std::string_view path);

}  // namespace quill::servicemanager
