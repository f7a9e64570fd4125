#include <pthread.h>

#include <ferrocore/CMutex.h>
#include <quillcore/logging/CQuillGlobalLogger.h>

namespace quill {

namespace {

struct GlobalLogger {
    ferrocore::CMutex mutex;
    CQuillLoggerRef logger FERRO_GUARDED_BY(mutex);
};

pthread_once_t gOnce = PTHREAD_ONCE_INIT;
// Made once and never destroyed: loggers may log from other threads and from
// static destructors until the very end of the process.
GlobalLogger* gGlobal = nullptr;

void initOnce() { gGlobal = new GlobalLogger(); }

}  // namespace

CQuillLoggerRef CQuillGlobalLogger::getLogger() {
    pthread_once(&gOnce, initOnce);
    ferrocore::CAutoMutex lock(gGlobal->mutex);
    if (!gGlobal->logger) {
        CQuillLoggerRef logger = CQuillLogger::create();
        logger->startupLogging(false, nullptr, 0);
        gGlobal->logger = std::move(logger);
    }
    return gGlobal->logger;
}

void CQuillGlobalLogger::setLogger(CQuillLoggerRef logger) {
    pthread_once(&gOnce, initOnce);
    {
        ferrocore::CAutoMutex lock(gGlobal->mutex);
        std::swap(gGlobal->logger, logger);
    }
    // `logger` now holds the previous one, released here, outside the lock.
}

CQuillLogger::OStream& CQuillGlobalLogger::log(unsigned level) { return getLogger()->log(level); }

CQuillLogger::OStream& CQuillGlobalLogger::serviceLog(unsigned level) { return log(level); }

}  // namespace quill
