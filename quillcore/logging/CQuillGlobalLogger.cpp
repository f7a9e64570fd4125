#include <ferrocore/CMutex.h>
#include <quillcore/logging/CQuillGlobalLogger.h>

namespace quill {

namespace {

struct GlobalState {
    ferrocore::CMutex mutex;
    CQuillLoggerRef logger FERRO_GUARDED_BY(mutex);
};

// Made once and never destroyed: loggers may log from other threads and from
// static destructors until the very end of the process.
GlobalState& globalState() {
    static GlobalState* const instance = new GlobalState();
    return *instance;
}

}  // namespace

CQuillLoggerRef CQuillGlobalLogger::getLogger() {
    GlobalState& state = globalState();
    ferrocore::CAutoMutex lock(state.mutex);
    if (!state.logger) {
        CQuillLoggerRef logger = CQuillLogger::create();
        logger->startupLogging(false, nullptr, 0);
        state.logger = std::move(logger);
    }
    return state.logger;
}

void CQuillGlobalLogger::setLogger(CQuillLoggerRef logger) {
    GlobalState& state = globalState();
    {
        ferrocore::CAutoMutex lock(state.mutex);
        std::swap(state.logger, logger);
    }
    // `logger` now holds the previous one, released here, outside the lock.
}

CQuillLogger::OStream& CQuillGlobalLogger::log(unsigned level) { return getLogger()->log(level); }

CQuillLogger::OStream& CQuillGlobalLogger::serviceLog(unsigned level) { return log(level); }

}  // namespace quill
