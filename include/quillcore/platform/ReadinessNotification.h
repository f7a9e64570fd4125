// Readiness of a daemon started by the host's service manager.
#pragma once

#include <string_view>

#include <quillcore/platform/export.h>

namespace quill::platform {

// Tells the service manager that started this process (a unit of type
// "notify") that it is ready, with `status` as its status text. Returns false
// when no service manager asked to be told or the message could not be sent;
// a daemon started otherwise goes on either way.
QUILL_PLATFORM_EXPORT bool notifyDaemonReady(std::string_view status);

}  // namespace quill::platform
