#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/control/QuillCoreVersion.h>
#include <quillcore/control/QuillNotification.h>

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace quill::QuillCorePrivate;
namespace qn = quill::QuillNotification;

struct Row {
    const char* name;
    std::string_view actual;
    PLStringRef object;  // null for byte text
    std::string_view expected;
};

Row bytes(const char* name, const char* value, const char* expected) { return {name, value, nullptr, expected}; }
Row object(const char* name, PLStringRef value, const char* expected) {
    return {name, value ? value->utf8() : std::string_view(), value, expected};
}
#define BYTES(constant, text) bytes(#constant, constant, text)
#define OBJECT(constant, text) object(#constant, constant, text)

// The shared paths, service kinds and notification names against the text
// other processes expect (the five configuration records share one file; the
// notification names keep their "2" suffix, and "Terminated" and "Terminate"
// stay apart); the helper each row goes through pins the storage form.
const std::vector<Row>& table() {
    static const std::vector<Row> rows = {
        BYTES(kQuillConfigFilePath, "~/Library/Application Support/Lumenforge/LumenforgeConfig.plist"),
        OBJECT(kServiceConfigFilePath, "~/Library/Application Support/Lumenforge/LumenforgeConfig.plist"),
        OBJECT(kServiceCacheFilePath, "~/Library/Application Support/Lumenforge/LumenforgeConfig.plist"),
        OBJECT(kHostPerfScoreFilePath, "~/Library/Application Support/Lumenforge/LumenforgeConfig.plist"),
        OBJECT(kRadHostsFilePath, "~/Library/Application Support/Lumenforge/LumenforgeConfig.plist"),
        OBJECT(kQuillPIDFilePath, "~/Library/Application Support/Lumenforge/LumenforgePID.plist"),
        OBJECT(kQuillConfigPath, "~/Library/Application Support/Lumenforge/"),
        BYTES(kQuillLogFilePath, "~/Library/Logs/Lumenforge/"),
        BYTES(kLoopbackAddress, "127.0.0.1"),
        OBJECT(kEmptyString, ""),
        BYTES(kClusterAdminServiceKind, "jobcontroller:com.tessaly.corvane.cluster.admin"),
        OBJECT(kClusterServiceKind, "jobcontroller:com.tessaly.corvane.cluster.admin"),
        BYTES(kClusterUserServiceKind, "jobcontroller:com.tessaly.corvane.cluster.user"),
        BYTES(kContentControllerServiceKind, "requestprocessor:com.tessaly.corvane.contentcontroller"),
        BYTES(kExecutorServiceKind, "servicecontroller:com.tessaly.corvane.executor"),
        BYTES(kTranscoderServiceKind, "servicecontroller:com.tessaly.tolva.transcoderx"),
        BYTES(kContentAgentServiceKind, "contentcontroller:com.tessaly.corvane.contentagent"),
        BYTES(kTolvaClusterAdminServiceKind, "jobcontroller:com.tessaly.lumenforge.cluster.admin"),
        BYTES(kTolvaContentControllerServiceKind, "requestprocessor:com.tessaly.lumenforge.contentcontroller"),
        BYTES(kTolvaTranscoderServiceKind, "servicecontroller:com.tessaly.tolva.transcoder.tolva"),
        BYTES(kTolvaTranscoder32bitServiceKind, "servicecontroller:com.tessaly.tolva.transcoder32bit.tolva"),
        BYTES(kClusterAdminServiceDesc, "Corvane Cluster Admin"),
        OBJECT(kClusterServiceDesc, "Corvane Cluster Admin"),
        OBJECT(kDictKeyLogging, "logging"),
        OBJECT(kDictKeyHeadless, "headless"),
        OBJECT(kDictKeyTaskPtr, "taskPtr"),
        OBJECT(qn::kQuillStatusNotification, "CorvaneStatusNotification2"),
        OBJECT(qn::kQuillAppStoppingNotification, "CorvaneAppTerminatedNotification2"),
        OBJECT(qn::kQuillAppTerminateNotification, "CorvaneAppTerminateNotification2"),
        OBJECT(qn::kQuillSetSystemWideSalveeParams, "CorvaneSetSystemWideSalveeParams2"),
        OBJECT(qn::kQuillDaemonID, "com.tessaly.corvane.corvaned"),
        OBJECT(qn::kPrefPaneBundleID, "com.tessaly.corvane.prefpane"),
        OBJECT(qn::kPrefExternalID, "com.tessaly.corvane.prefexternal"),
    };
    return rows;
}

TEST(QuillCorePrivate, EveryConstantHoldsItsText) {
    for (const Row& row : table()) {
        EXPECT_EQ(row.actual, row.expected) << row.name;
        if (!row.object) continue;
        EXPECT_STREQ(row.object->c_str(), row.expected.data()) << row.name;
        EXPECT_EQ(row.object->retainCount(), std::numeric_limits<std::int32_t>::max()) << row.name << " is not immortal";
    }
    EXPECT_EQ(kQuillDaemonPortNumber, 2189);
}

TEST(QuillCoreVersion, ExportedWithCLinkage) {
    EXPECT_STREQ(QuillCoreVersionString, "@(#)PROGRAM:QuillCore  PROJECT:QuillCore-303\n");
    EXPECT_EQ(QuillCoreVersionNumber, 303.0);
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "QuillCoreVersionString"), static_cast<const void*>(QuillCoreVersionString));
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "QuillCoreVersionNumber"), static_cast<const void*>(&QuillCoreVersionNumber));
}

}  // namespace
