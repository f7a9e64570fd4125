#include "quillcore/process/MonitorThreadPool.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <new>
#include <system_error>
#include <thread>

#include <ferrocore/CMutex.h>

namespace quill {

namespace {

// Enough for a process that launches tasks in a steady stream, a few at a
// time; more idle threads than this would only hold memory.
constexpr std::uint32_t kMaxIdleThreads = 4;
constexpr std::chrono::seconds kIdleTime{10};

class CMonitorThreadPool {
public:
    struct Job {
        void (*body)(CTask&);
        CTask* task;
    };

    int start(Job job) noexcept {
        {
            ferrocore::CAutoMutex lock(_mutex);
            if (_idle > _jobs.size()) {
                try {
                    _jobs.push_back(job);
                } catch (const std::bad_alloc&) {
                    return ENOMEM;
                }
                _wake.notify_one();
                return 0;
            }
        }
        try {
            std::thread(&CMonitorThreadPool::threadMain, this, job).detach();
            return 0;
        } catch (const std::system_error& error) {
            return error.code().value() != 0 ? error.code().value() : EAGAIN;
        } catch (...) {
            return ENOMEM;
        }
    }

private:
    void threadMain(Job job) {
        for (;;) {
            job.body(*job.task);
            ferrocore::CAutoMutex lock(_mutex);
            if (_idle >= kMaxIdleThreads) return;
            ++_idle;
            const bool woken =
                _wake.wait_for(_mutex, kIdleTime, [this]() FERRO_REQUIRES(_mutex) { return !_jobs.empty(); });
            --_idle;
            if (!woken) return;
            job = _jobs.front();
            _jobs.pop_front();
        }
    }

    ferrocore::CMutex _mutex;
    // Waits with _mutex, which it releases while waiting.
    std::condition_variable_any _wake;
    std::deque<Job> _jobs FERRO_GUARDED_BY(_mutex);
    // Threads waiting in threadMain.
    std::uint32_t _idle FERRO_GUARDED_BY(_mutex) = 0;
};

CMonitorThreadPool& pool() {
    // Never destroyed: idle threads may still wait on it while the process
    // exits.
    static CMonitorThreadPool* const instance = new CMonitorThreadPool();
    return *instance;
}

}  // namespace

int startMonitorThread(void (*body)(CTask&), CTask& task) noexcept { return pool().start({body, &task}); }

}  // namespace quill
