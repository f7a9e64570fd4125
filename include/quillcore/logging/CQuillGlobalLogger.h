// The process-wide logger, for code that logs without being handed one.
//
// A program installs its own started logger with setLogger(). Code that logs
// before that (or after setLogger(nullptr)) gets a logger made on demand that
// writes to standard error at the level of the first service cache entry (3
// when there is none) and follows preference changes.
//
//   CQuillGlobalLogger::log(3) << "Cache refreshed" << std::endl;
//
// Threads: every function may be called from any thread. The stream that
// log() returns belongs to the logger that was current at the call: do not
// keep it across a setLogger() made by another thread, which may release
// that logger.
#pragma once

#include <quillcore/export.h>
#include <quillcore/logging/CQuillLogger.h>

namespace quill {

class QUILL_EXPORT CQuillGlobalLogger final {
public:
    CQuillGlobalLogger() = delete;

    // The current logger, made and started on standard error when there is
    // none. Throws what making or starting that logger throws (reading the
    // service cache file); the process then still has no logger.
    static CQuillLoggerRef getLogger();
    // Makes `logger` the current one (null clears it); the previous one is
    // released after the switch.
    static void setLogger(CQuillLoggerRef logger);
    // getLogger()->log(level).
    static CQuillLogger::OStream& log(unsigned level);
    // The same as log(); callers use it to mark records that concern the
    // service itself.
    static CQuillLogger::OStream& serviceLog(unsigned level);
};

}  // namespace quill
