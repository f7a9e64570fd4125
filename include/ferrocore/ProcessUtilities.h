// Facts about processes of this host, read from /proc.
//
// A process's name is the name the kernel keeps for it (/proc/<pid>/comm: the
// file name of the program it runs, or what the process set with prctl).
// The kernel cuts that name to 15 bytes; when it is exactly 15 bytes long and
// the file name of the process's first argument (/proc/<pid>/cmdline) begins
// with it, that longer file name is the process's name instead.
//
// Processes come and go while these functions run; a result is a snapshot.
// All functions are safe to call from any thread.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include <ferrocore/CString.h>
#include <ferrocore/export.h>

namespace ferrocore {

// Whether this process runs 32-bit code (false in a 64-bit build).
inline constexpr bool is32BitRuntime() noexcept { return sizeof(void*) == 4; }

namespace ProcessUtilities {

// The IDs, in ascending order, of the processes whose name equals `name`
// exactly. Empty when there are none (or /proc cannot be read).
FERROCORE_EXPORT std::vector<pid_t> processIDsForName(std::string_view name);
// The same, only processes whose effective user ID is `user`.
FERROCORE_EXPORT std::vector<pid_t> processIDsForName(std::string_view name, uid_t user);
// The name of process `pid`, or null when there is no such process.
FERROCORE_EXPORT CStringRef processNameForID(pid_t pid);
// The effective user ID of process `pid`, or nothing when there is no such
// process.
FERROCORE_EXPORT std::optional<uid_t> processEffectiveUserForID(pid_t pid);

// Whether the host can run 32-bit code for us: only a 32-bit build can.
inline constexpr bool Is32BitRuntimeAvailable() noexcept { return is32BitRuntime(); }

}  // namespace ProcessUtilities

}  // namespace ferrocore
