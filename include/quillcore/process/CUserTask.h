// CUserTask: a task (see CTask.h) whose child runs as another user and whose
// end is announced to the cluster.
//
// The child changes user in on_exec(). When the process runs as root (real
// user ID 0), the child first takes back an effective user ID of 0, sets its
// group ID to its effective group ID when its real group ID is 0, and takes
// the supplementary groups of the target user's database entry (none when the
// user has no entry). The primary group ID is deliberately not taken from the
// user's entry. Then it sets the user ID (without root this fails silently
// unless the ID is the process's own) and starts a new session. A user ID of
// 0 means no change: the child keeps the parent's identity and session.
//
// The environment is built as for any task, from the calling process's
// effective user, not the target user; this is intended.
//
// When the child has ended, the monitor thread wakes the waiters and then
// posts "CorvaneTaskTerminatedNotification2"
// (QuillNotification::kQuillTaskTerminatedNotification) with no sender and a
// dictionary of one entry: "taskPtr" (QuillCorePrivate::kDictKeyTaskPtr), the
// task object's address as a signed 64-bit number. Receivers in this process
// use it to find the task; it means nothing in another process.
//
// Threads and exceptions: as CTask.
#pragma once

#include <cstdint>

#include <quillcore/export.h>
#include <quillcore/process/CTask.h>

namespace quill {

class QUILL_EXPORT CUserTask : public CTask {
public:
    // A CTask without shell, whose child runs as `userID` (0: no change).
    CUserTask(const char* path, const char* const* args, const char* const* env, std::int32_t userID);
    ~CUserTask() override;

    void setUserID(std::int32_t userID) noexcept { _userID = userID; }
    std::int32_t userID() const noexcept { return _userID; }

    // Posts the task-terminated notification for this task (see above).
    void sendTaskDiedNotification() const;

protected:
    // CTask::on_exec(), then the change of user described above.
    int on_exec() override;
    // CTask::on_exit(), then sendTaskDiedNotification().
    void on_exit(int status) override;

private:
    std::int32_t _userID;
};

}  // namespace quill
