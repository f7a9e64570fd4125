#include <pthread.h>

#include <ferrocore/CMutex.h>
#include <quillcore/logging/CQuillGlobalLogger.h>

namespace quill {

namespace {

pthread_once_t gOnce = PTHREAD_ONCE_INIT;
// Made once and never destroyed: loggers may log from other threads and from
// static destructors until the very end of the process.
ferrocore::CMutex* gMutex = nullptr;
CQuillLoggerRef* gLogger = nullptr;

void initOnce() {
    gMutex = new ferrocore::CMutex();
    gLogger = new CQuillLoggerRef();
}

}  // namespace

CQuillLoggerRef CQuillGlobalLogger::getLogger() {
    pthread_once(&gOnce, initOnce);
    ferrocore::CAutoMutex lock(*gMutex);
    if (!*gLogger) {
        CQuillLoggerRef logger = CQuillLogger::create();
        logger->startupLogging(false, nullptr, 0);
        *gLogger = std::move(logger);
    }
    return *gLogger;
}

void CQuillGlobalLogger::setLogger(CQuillLoggerRef logger) {
    pthread_once(&gOnce, initOnce);
    {
        ferrocore::CAutoMutex lock(*gMutex);
        std::swap(*gLogger, logger);
    }
    // `logger` now holds the previous one, released here, outside the lock.
}

CQuillLogger::OStream& CQuillGlobalLogger::log(unsigned level) { return getLogger()->log(level); }

CQuillLogger::OStream& CQuillGlobalLogger::serviceLog(unsigned level) { return log(level); }

}  // namespace quill
