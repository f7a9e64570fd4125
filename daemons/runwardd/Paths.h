// Where runwardd and runwardctl meet, and where runwardd keeps its files.
#pragma once

#include <string>

namespace runward {

// The per-user runtime directory of the control socket.
inline constexpr const char* kRuntimeDirectoryName = "runward";
inline constexpr const char* kSocketName = "runwardd.sock";
inline constexpr const char* kLockName = "runwardd.lock";
inline constexpr const char* kStartLockName = "start.lock";

// Below the home directory.
inline constexpr const char* kStateDirectory = "Library/Runward";
inline constexpr const char* kStateFileName = "runwardd.state.plist";
inline constexpr const char* kLogDirectory = "Library/Logs/Lumenforge";
inline constexpr const char* kLogFileName = "runwardd.log";

}  // namespace runward
