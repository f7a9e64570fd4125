// The exported notification functions, over an in-process centre: the names,
// the status payload, the sender each function uses and what each removal
// removes.

#include <quillcore/control/QuillNotification.h>
#include <quillcore/platform/Host.h>
#include <quillcore/platform/RunLoop.h>

#include "support/FixedClockHost.h"

#include <gtest/gtest.h>

#include <regex>
#include <unistd.h>

namespace {

using namespace quill::platform;
namespace qn = quill::QuillNotification;

PLHolder<const PLString> str(std::string_view s) { return PLString::create(s); }

struct Delivery {
    std::string name;
    PLHolder<const PLString> sender;
    PLHolder<const PLDictionary> userInfo;
};

struct Inbox {
    std::vector<Delivery> got;
};

void collect(PLNotificationCenterRef, void* observer, PLStringRef name, PLStringRef sender, PLDictionaryRef info) {
    static_cast<Inbox*>(observer)->got.push_back(
        {name->str(), PLHolder<const PLString>::retain(sender), PLHolder<const PLDictionary>::retain(info)});
}

class QuillNotificationTest : public testing::Test {
protected:
    CNotificationCenter center{makeLoopbackNotificationTransport()};
    CScopedNotificationCenter installed{center};
    void settle() { CRunLoop::current().runFor(0.0); }
};

TEST_F(QuillNotificationTest, ErrorWithoutSenderOrMessageCarriesEmptyTextsAndNoUserInfo) {
    Inbox inbox;
    registerForNotification(&inbox, &collect, qn::kQuillStatusNotification, nullptr);
    sendErrorNotification(qn::kQuillStatusNotification, nullptr, nullptr, nullptr);
    settle();
    ASSERT_EQ(inbox.got.size(), 1u);
    const Delivery& d = inbox.got[0];
    EXPECT_EQ(d.sender, nullptr);
    ASSERT_NE(d.userInfo, nullptr);
    EXPECT_EQ(d.userInfo->count(), 5u);
    for (const auto& [field, value] : {std::pair{"type", "error"}, {"from", ""}, {"message", ""}})
        EXPECT_EQ(PLDynamicCast<PLString>(d.userInfo->get(field))->str(), value) << field;
    EXPECT_EQ(PLDynamicCast<PLNumber>(d.userInfo->get("pid"))->int32Value(), getpid());
    EXPECT_FALSE(PLDynamicCast<PLNumber>(d.userInfo->get("pid"))->isFloat());
    EXPECT_FALSE(d.userInfo->contains(PLString::create("userInfo").get()));
    const std::string time = PLDynamicCast<PLString>(d.userInfo->get("time"))->str();
    EXPECT_TRUE(std::regex_match(time, std::regex(R"(\d\d/\d\d/\d{4} \d\d:\d\d:\d\d\.\d{3})"))) << time;
}

TEST_F(QuillNotificationTest, StatusAndWarningCarrySenderMessageTimeAndExtraValue) {
    quilltest::CFixedClockHost clock(86400.0 * 31 + 3600 * 13 + 60 * 5 + 7.25);  // the time text is exact
    CScopedHost host(clock);
    Inbox inbox;
    registerForNotification(&inbox, &collect, nullptr, nullptr);
    auto extra = PLMutableArray::create();
    extra->append(str("detail"));
    sendStatusNotification(str("S").get(), qn::kQuillAppID, str("hello").get(), extra.get());
    sendWarningNotification(str("W").get(), str("").get(), nullptr, nullptr);
    settle();
    ASSERT_EQ(inbox.got.size(), 2u);
    const PLDictionary* status = inbox.got[0].userInfo.get();
    EXPECT_EQ(inbox.got[0].sender->str(), "com.tessaly.corvane.app");
    for (const auto& [field, value] : {std::pair{"time", "02/01/2001 13:05:07.250"}, {"type", "status"},
                                       {"from", "com.tessaly.corvane.app"}, {"message", "hello"}})
        EXPECT_EQ(PLDynamicCast<PLString>(status->get(field))->str(), value) << field;
    EXPECT_TRUE(PLEqual(status->get("userInfo"), extra.get()));

    EXPECT_EQ(PLDynamicCast<PLString>(inbox.got[1].userInfo->get("type"))->str(), "warning");
    ASSERT_NE(inbox.got[1].sender, nullptr);
    EXPECT_EQ(inbox.got[1].sender->str(), "");
}

TEST_F(QuillNotificationTest, SignalFunctionsPostOppositeSenders) {
    Inbox fromPane, fromDaemon;
    addPrefsPaneObserver(&fromPane, &collect, str("N").get());
    addDaemonObserver(&fromDaemon, &collect, str("N").get());
    signalDaemon(str("N").get(), nullptr);
    signalPrefsPane(str("N").get(), nullptr);
    signalFrom(str("N").get(), qn::kQuillDaemonID, nullptr);
    settle();
    ASSERT_EQ(fromPane.got.size(), 1u);
    EXPECT_EQ(fromPane.got[0].sender->str(), "com.tessaly.corvane.prefpane");
    ASSERT_EQ(fromDaemon.got.size(), 2u);
    EXPECT_EQ(fromDaemon.got[0].sender->str(), "com.tessaly.corvane.corvaned");
}

TEST_F(QuillNotificationTest, EachRemovalRemovesOnlyWhatItNames) {
    Inbox inbox;
    auto post = [&] {
        for (PLStringRef sender : {qn::kQuillDaemonID, qn::kPrefPaneBundleID, qn::kQuillAppID})
            sendNotification(str("N").get(), sender, nullptr);
        settle();
        std::vector<std::string> senders;
        for (const Delivery& d : inbox.got) senders.push_back(d.sender->str());
        inbox.got.clear();
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
