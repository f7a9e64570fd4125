// Ends a task's child when a test leaves its scope early (a failed ASSERT or
// an exception): destroying a running task would end the whole test program.
#pragma once

#include <quillcore/process/CTask.h>

namespace quilltest {

class TaskReaper {
public:
    explicit TaskReaper(quill::CTask& task) : _task(task) {}
    ~TaskReaper() {
        if (!_task.isRunning()) return;
        _task.terminate();
        _task.waitForTask();
    }
    TaskReaper(const TaskReaper&) = delete;
    TaskReaper& operator=(const TaskReaper&) = delete;

private:
    quill::CTask& _task;
};

}  // namespace quilltest
