#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/control/QuillNotification.h>
#include <quillcore/platform/ProcessSpawner.h>
#include <quillcore/process/CUserTask.h>
#include <quillcore/util/PLUtil.h>

namespace quill {

namespace {

std::int64_t addressOf(const CUserTask* task) {
    return static_cast<std::int64_t>(reinterpret_cast<std::intptr_t>(task));
}

void postTaskDied(std::int64_t taskAddress) {
    PLHolder<PLMutableDictionary> info = PLUtil::PLDictMakeMutable();
    PLHolder<const PLNumber> address = PLNumber::create(taskAddress);
    PLUtil::PLDictSet(info.get(), QuillCorePrivate::kDictKeyTaskPtr, address.get());
    sendNotification(QuillNotification::kQuillTaskTerminatedNotification, nullptr, info.get());
}

}  // namespace

CUserTask::CUserTask(const char* path, const char* const* args, const char* const* env, std::int32_t userID)
    : CTask(path, args, env, nullptr), _userID(userID) {}

CUserTask::~CUserTask() = default;

int CUserTask::on_exec() {
    namespace child = platform::child;
    if (const int result = CTask::on_exec(); result != 0) return result;
    if (_userID == 0) return 0;
    const child::CIdentity identity = child::identity();
    if (identity.realUserID == 0) {
        child::setEffectiveUserID(0);
        if (identity.realGroupID == 0) child::setGroupID(identity.effectiveGroupID);
        child::initGroupsForUser(_userID);
    }
    child::setUserID(_userID);
    child::startSession();
    return 0;
}

void CUserTask::on_exit(int status) {
    const std::int64_t address = addressOf(this);
    CTask::on_exit(status);
    // The waiters are awake and one may be destroying this task already: from
    // here on only its address is used (this is sendTaskDiedNotification()).
    postTaskDied(address);
}

void CUserTask::sendTaskDiedNotification() const { postTaskDied(addressOf(this)); }

}  // namespace quill
