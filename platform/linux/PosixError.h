// The one place where the platform layer turns errno values into errors.
#pragma once

#include <system_error>

namespace quill::platform {

// `err` (an errno value) as an error code whose message() is the system's
// error text.
inline std::error_code posixError(int err) noexcept { return {err, std::system_category()}; }

}  // namespace quill::platform
