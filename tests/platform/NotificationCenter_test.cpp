// The notification centre over the in-process loopback: matching, delivery on
// the registering thread's loop, removal, and the payload encoding.
#include "support/NotificationBus.h"

#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/platform/PLPropertyList.h>
#include <quillcore/platform/RunLoop.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>

namespace {

using namespace quill::platform;

PLHolder<const PLString> str(std::string_view s) { return PLString::create(s); }

struct Seen {
    std::vector<std::string> names;
    std::vector<std::string> senders;  // "<none>" for no sender
    std::vector<PLHolder<const PLDictionary>> infos;
};

NotificationHandler record(Seen& seen) {
    return [&seen](const CNotification& n) {
        seen.names.push_back(n.name->str());
        seen.senders.push_back(n.sender ? n.sender->str() : "<none>");
        seen.infos.push_back(n.userInfo);
    };
}

class LoopbackCenterTest : public testing::Test {
protected:
    CNotificationCenter center{makeLoopbackNotificationTransport()};
    void settle() { CRunLoop::current().runFor(0.0); }
};

TEST_F(LoopbackCenterTest, MatchesByNameAndSenderAndKeepsNullSenderApartFromEmpty) {
    Seen any, byName, bySender, byEmptySender;
    int o1 = 0, o2 = 0, o3 = 0, o4 = 0;
    center.addObserver(&o1, record(any), nullptr, nullptr);
    center.addObserver(&o2, record(byName), str("A").get(), nullptr);
    center.addObserver(&o3, record(bySender), nullptr, str("s").get());
    center.addObserver(&o4, record(byEmptySender), nullptr, str("").get());

    center.post(str("A").get(), nullptr, nullptr);
    center.post(str("B").get(), str("s").get(), nullptr);
    center.post(str("A").get(), str("").get(), nullptr);
    center.post(str("a").get(), str("S").get(), nullptr);
    EXPECT_TRUE(any.names.empty()) << "delivered before the loop ran";
    settle();

    EXPECT_EQ(any.names, (std::vector<std::string>{"A", "B", "A", "a"}));
    EXPECT_EQ(any.senders, (std::vector<std::string>{"<none>", "s", "", "S"}));
    EXPECT_EQ(byName.names, (std::vector<std::string>{"A", "A"}));
    EXPECT_EQ(bySender.names, (std::vector<std::string>{"B"}));
    EXPECT_EQ(byEmptySender.names, (std::vector<std::string>{"A"}));
    EXPECT_EQ(byEmptySender.senders, (std::vector<std::string>{""}));
}

TEST_F(LoopbackCenterTest, RemovalStopsQueuedDeliveriesAndTheSameTripleReplacesTheCallback) {
    Seen replaced, seen, other;
    int observer, bystander;
    center.addObserver(&observer, record(seen), str("N").get(), str("x").get());
    center.addObserver(&observer, record(replaced), str("N").get(), str("y").get());
    center.addObserver(&observer, record(seen), str("N").get(), str("y").get());
    center.addObserver(&bystander, record(other), str("N").get(), nullptr);
    for (int i = 0; i < 3; ++i) center.post(str("N").get(), str("x").get(), nullptr);
    center.post(str("N").get(), str("y").get(), nullptr);

    center.removeObserver(&observer, nullptr, str("x").get());
    settle();
    EXPECT_EQ(seen.senders, (std::vector<std::string>{"y"}));
    EXPECT_TRUE(replaced.names.empty());
    EXPECT_EQ(other.names.size(), 4u);

    center.post(str("N").get(), str("y").get(), nullptr);
    center.removeObserver(&observer);
    settle();
    EXPECT_EQ(seen.senders.size(), 1u);
    EXPECT_EQ(center.registrationCount(), 1u);
}

TEST_F(LoopbackCenterTest, CallbacksRunOnTheRegisteringThreadsLoop) {
    std::atomic<CRunLoop*> workerLoop{nullptr};
    bool stop = false;  // touched on the worker's thread only
    std::atomic<int> delivered{0};
    std::thread::id callbackThread, observerThread;
    int observer;
    std::thread worker([&] {
        observerThread = std::this_thread::get_id();
        center.addObserver(&observer, NotificationHandler([&](const CNotification&) {
                               callbackThread = std::this_thread::get_id();
                               ++delivered;
                           }),
                           str("T").get(), nullptr);
        workerLoop = &CRunLoop::current();
        CRunLoop::current().runUntil([&] { return stop; }, 10.0);
    });
    while (!workerLoop) std::this_thread::yield();
    center.post(str("T").get(), nullptr, nullptr);
    settle();
    while (delivered == 0) std::this_thread::yield();
    workerLoop.load()->post([&] { stop = true; });
    worker.join();
    EXPECT_EQ(callbackThread, observerThread);

    // The thread has ended: posting must not reach its loop, and its
    // registration goes at the next change.
    center.post(str("T").get(), nullptr, nullptr);
    int other;
    center.addObserver(&other, NotificationHandler([](const CNotification&) {}), str("U").get(), nullptr);
    EXPECT_EQ(center.registrationCount(), 1u);
    EXPECT_EQ(delivered, 1);
}

TEST_F(LoopbackCenterTest, CCallbackGetsCenterObserverAndValues) {
    struct Got {
        PLNotificationCenterRef center = nullptr;
        std::string text;
    } got;
    center.addObserver(
        &got,
        [](PLNotificationCenterRef c, void* observer, PLStringRef name, PLStringRef sender, PLDictionaryRef info) {
            auto* g = static_cast<Got*>(observer);
            g->center = c;
            g->text = name->str() + "/" + (sender ? sender->str() : "<none>") + "/" + (info ? "info" : "<none>");
        },
        str("C").get(), nullptr);
    center.post(str("C").get(), nullptr, nullptr);
    settle();
    EXPECT_EQ(got.center, &center);
    EXPECT_EQ(got.text, "C/<none>/<none>");
}

TEST_F(LoopbackCenterTest, PayloadRoundTripKeepsEveryTypeAndRefusesNonPropertyLists) {
    auto original = quilltest::everyPropertyListType();
    PLHolder<const PLData> bytes;
    std::string reason;
    ASSERT_TRUE(encodeNotificationPayload(original.get(), bytes, &reason)) << reason;
    PLHolder<const PLDictionary> decoded;
    ASSERT_TRUE(decodeNotificationPayload(bytes->bytes(), bytes->size(), decoded, &reason)) << reason;
    EXPECT_TRUE(PLEqual(decoded.get(), original.get()));
    // Equality counts 5 == 5.0; the kinds of numbers must survive as well.
    auto* array = PLDynamicCast<PLArray>(decoded->get("array"));
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(PLDynamicCast<PLNumber>(array->at(0))->numberType(), PLNumberType::SInt32);
    EXPECT_EQ(PLDynamicCast<PLNumber>(array->at(1))->numberType(), PLNumberType::SInt64);
    EXPECT_TRUE(std::signbit(PLDynamicCast<PLNumber>(array->at(3))->doubleValue()));

    auto withURL = PLMutableDictionary::create();
    withURL->set(str("u"), PLURL::create("file:///tmp/x"));
    EXPECT_FALSE(encodeNotificationPayload(withURL.get(), bytes, &reason));
    EXPECT_EQ(center.post(str("N").get(), nullptr, withURL.get()), std::errc::invalid_argument);

    // Decoding: no bytes is no dictionary; anything but a whole dictionary is refused.
    PLHolder<const PLDictionary> out;
    EXPECT_TRUE(decodeNotificationPayload("", 0, out, &reason));
    EXPECT_EQ(out, nullptr);

    auto notDict = PLPropertyListCreateBinaryData(PLArray::create(nullptr, 0).get());
    EXPECT_FALSE(decodeNotificationPayload(notDict->bytes(), notDict->size(), out, &reason));
    EXPECT_NE(reason.find("array"), std::string::npos) << reason;
    const std::string truncated = std::string(notDict->view()).substr(0, notDict->size() - 3);
    EXPECT_FALSE(decodeNotificationPayload(truncated.data(), truncated.size(), out, &reason));
    EXPECT_EQ(out, nullptr);

    const std::string xml =
        "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>k</key><string>v</string></dict></plist>";
    ASSERT_TRUE(decodeNotificationPayload(xml.data(), xml.size(), out, &reason)) << reason;
    EXPECT_EQ(out->count(), 1u);
}

}  // namespace
