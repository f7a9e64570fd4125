// What this library shares with other processes: the constants (paths,
// service kinds, notification names, the version), and the exported
// notification functions over an in-process centre: the status payload, the
// sender each function uses and what each removal removes.
#include <limits>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/FixedClockHost.h"
#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/control/QuillCoreVersion.h>
#include <quillcore/control/QuillNotification.h>
#include <quillcore/platform/RunLoop.h>

namespace {

using namespace quill::platform;
using namespace quill::QuillCorePrivate;
namespace qn = quill::QuillNotification;

// ---------------------------------------------------------------- constants

struct Row {
    const char* name;
    std::string_view actual;
    PLStringRef object;  // null for byte text
    std::string_view expected;
};

Row row(const char* name, const char* value, const char* expected) { return {name, value, nullptr, expected}; }
Row row(const char* name, PLStringRef value, const char* expected) {
    return {name, value ? value->utf8() : std::string_view(), value, expected};
}
#define BYTES(constant, text) row(#constant, static_cast<const char*>(constant), text)
#define OBJECT(constant, text) row(#constant, static_cast<PLStringRef>(constant), text)

// The shared paths, service kinds and notification names against the text
// other processes expect (the five configuration records share one file; the
// notification names keep their "2" suffix, and "Terminated" and "Terminate"
// stay apart); the macro each row goes through pins the storage form.
TEST(QuillCorePrivate, EveryConstantHoldsItsText) {
    const Row rows[] = {
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
    for (const Row& row : rows) {
        EXPECT_EQ(row.actual, row.expected) << row.name;
        if (!row.object) continue;
        EXPECT_STREQ(row.object->c_str(), row.expected.data()) << row.name;
        EXPECT_EQ(row.object->retainCount(), std::numeric_limits<std::int32_t>::max())
            << row.name << " is not immortal";
    }
    EXPECT_EQ(kQuillDaemonPortNumber, 2189);
}

TEST(QuillCoreVersion, ExportedWithCLinkage) {
    EXPECT_STREQ(QuillCoreVersionString, "@(#)PROGRAM:QuillCore  PROJECT:QuillCore-303\n");
    EXPECT_EQ(QuillCoreVersionNumber, 303.0);
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "QuillCoreVersionString"), static_cast<const void*>(QuillCoreVersionString));
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "QuillCoreVersionNumber"), static_cast<const void*>(&QuillCoreVersionNumber));
}

// ------------------------------------------------------------ notifications

PLHolder<const PLString> str(std::string_view s) { return PLString::create(s); }

struct Delivery {
    PLHolder<const PLString> sender;
    PLHolder<const PLDictionary> userInfo;
};

using Inbox = std::vector<Delivery>;

void collect(PLNotificationCenterRef, void* observer, PLStringRef, PLStringRef sender, PLDictionaryRef info) {
    static_cast<Inbox*>(observer)->push_back(
        {PLHolder<const PLString>::retain(sender), PLHolder<const PLDictionary>::retain(info)});
}

class QuillNotificationTest : public testing::Test {
protected:
    CNotificationCenter center{makeLoopbackNotificationTransport()};
    CScopedNotificationCenter installed{center};
    void settle() { CRunLoop::current().runFor(0.0); }
};

TEST_F(QuillNotificationTest, EachKindCarriesTypeSenderMessageTimePidAndExtraValue) {
    quilltest::CFixedClockHost clock(86400.0 * 31 + 3600 * 13 + 60 * 5 + 7.25);  // the time text is exact
    CScopedHost host(clock);
    Inbox inbox;
    registerForNotification(&inbox, &collect, nullptr, nullptr);
    auto extra = PLMutableArray::create();
    extra->append(str("detail"));
    sendStatusNotification(str("S").get(), qn::kQuillAppID, str("hello").get(), extra.get());
    sendWarningNotification(str("W").get(), str("").get(), nullptr, nullptr);
    sendErrorNotification(qn::kQuillStatusNotification, nullptr, nullptr, nullptr);
    settle();
    ASSERT_EQ(inbox.size(), 3u);
    auto text = [](const Delivery& d, const char* key) { return PLDynamicCast<PLString>(d.userInfo->get(key))->str(); };
    EXPECT_EQ(inbox[0].sender->str(), "com.tessaly.corvane.app");
    for (const auto& [field, value] : {std::pair{"time", "02/01/2001 13:05:07.250"},
                                       {"type", "status"},
                                       {"from", "com.tessaly.corvane.app"},
                                       {"message", "hello"}})
        EXPECT_EQ(text(inbox[0], field), value) << field;
    EXPECT_TRUE(PLEqual(inbox[0].userInfo->get("userInfo"), extra.get()));

    EXPECT_EQ(text(inbox[1], "type"), "warning");
    ASSERT_NE(inbox[1].sender, nullptr);
    EXPECT_EQ(inbox[1].sender->str(), "");

    // Without sender or message: empty texts, and only the five fixed fields.
    const Delivery& error = inbox[2];
    EXPECT_EQ(error.sender, nullptr);
    ASSERT_NE(error.userInfo, nullptr);
    EXPECT_EQ(error.userInfo->count(), 5u);
    for (const auto& [field, value] :
         {std::pair{"type", "error"}, {"from", ""}, {"message", ""}, {"time", "02/01/2001 13:05:07.250"}})
        EXPECT_EQ(text(error, field), value) << field;
    const auto* pid = PLDynamicCast<PLNumber>(error.userInfo->get("pid"));
    EXPECT_EQ(pid->int32Value(), getpid());
    EXPECT_FALSE(pid->isFloat());
}

TEST_F(QuillNotificationTest, SignalFunctionsPostOppositeSenders) {
    Inbox fromPane, fromDaemon;
    addPrefsPaneObserver(&fromPane, &collect, str("N").get());
    addDaemonObserver(&fromDaemon, &collect, str("N").get());
    signalDaemon(str("N").get(), nullptr);
    signalPrefsPane(str("N").get(), nullptr);
    signalFrom(str("N").get(), qn::kQuillDaemonID, nullptr);
    settle();
    ASSERT_EQ(fromPane.size(), 1u);
    EXPECT_EQ(fromPane[0].sender->str(), "com.tessaly.corvane.prefpane");
    ASSERT_EQ(fromDaemon.size(), 2u);
    EXPECT_EQ(fromDaemon[0].sender->str(), "com.tessaly.corvane.corvaned");
}

TEST_F(QuillNotificationTest, EachRemovalRemovesOnlyWhatItNames) {
    Inbox inbox;
    auto post = [&] {
        for (PLStringRef sender : {qn::kQuillDaemonID, qn::kPrefPaneBundleID, qn::kQuillAppID})
            sendNotification(str("N").get(), sender, nullptr);
        settle();
        std::vector<std::string> senders;
        for (const Delivery& d : inbox) senders.push_back(d.sender->str());
        inbox.clear();
        return senders;
    };
    addDaemonObserver(&inbox, &collect, str("N").get());
    addPrefsPaneObserver(&inbox, &collect, str("N").get());
    addObserver(&inbox, &collect, str("N").get(), qn::kQuillAppID);

    removeDaemonObserver(&inbox);
    EXPECT_EQ(post(), (std::vector<std::string>{"com.tessaly.corvane.prefpane", "com.tessaly.corvane.app"}));
    removePrefsPaneObserver(&inbox);
    EXPECT_EQ(post(), (std::vector<std::string>{"com.tessaly.corvane.app"}));
    removeObserver(&inbox, qn::kQuillAppID);
    EXPECT_TRUE(post().empty());

    addDaemonObserver(&inbox, &collect, str("N").get());
    addObserver(&inbox, &collect, nullptr, nullptr);
    unregisterForNotifications(&inbox);
    EXPECT_TRUE(post().empty());
    EXPECT_EQ(center.registrationCount(), 0u);
}

}  // namespace
