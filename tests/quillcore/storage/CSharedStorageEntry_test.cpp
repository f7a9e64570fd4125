#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/NotificationBus.h"
#include "support/TestSupport.h"
#include <ferrocore/CURL.h>
#include <quillcore/storage/CSharedStorageEntry.h>
#include <quillcore/util/PLUtil.h>

namespace {

using ferrocore::CString;
using quill::CSharedStoragePublishedEntry;
using quill::CSharedStorageSubscribedEntry;

auto A = CString::create("A");
auto B = CString::create("B");

std::vector<int> pidsOf(const quill::CSharedStorageReferences& entry, const char* client) {
    std::vector<int> pids;
    const auto* array = PLDynamicCast<PLArray>(entry.clients()->get(std::string_view(client)));
    if (!array) return pids;
    for (std::size_t i = 0; i < array->count(); ++i) {
        std::int32_t pid = 0;
        quill::PLUtil::PLArrayGetIntAtIndex(array, static_cast<std::int32_t>(i), &pid);
        pids.push_back(pid);
    }
    return pids;
}

CSharedStorageSubscribedEntry subscribed(long pid) {
    return CSharedStorageSubscribedEntry(A, CString::create("/mnt/x"), ferrocore::CURL::create("nfs://h/x"), pid);
}

TEST(CSharedStorageEntry, CountsReferencesPerClientAndProcess) {
    CSharedStoragePublishedEntry entry(A, CString::create("/srv/x"), 10);
    EXPECT_EQ(entry.refCount(), 1);
    EXPECT_EQ(entry.addReference(A, 10), 2);
    EXPECT_EQ(entry.deleteReference(A, 10), 1);
    EXPECT_EQ(entry.deleteReference(A, 10), 0);
    EXPECT_EQ(entry.clients()->get(std::string_view("A")), nullptr);

    // Unknown client, unknown process: logged, nothing changes.
    CSharedStoragePublishedEntry other(A, CString::create("/srv/x"), 10);
    EXPECT_EQ(other.deleteReference(B, 10), 1);
    EXPECT_EQ(other.deleteReference(A, 99), 1);
    EXPECT_EQ(pidsOf(other, "A"), std::vector<int>{10});
    EXPECT_EQ(quilltest::consoleLinesWith("CSharedStoragePublishedEntry::deleteReference: entry for client = B not "
                                          "found (PID = 10)")
                  .size(),
              1u);
}

TEST(CSharedStorageEntry, AnonymousReleasesTickWhenSeveralProcessesHold) {
    for (int kind = 0; kind < 2; ++kind) {
        CSharedStoragePublishedEntry published(A, CString::create("/srv/x"), 10);
        auto sub = subscribed(10);
        quill::CSharedStorageReferences& entry =
            kind == 0 ? static_cast<quill::CSharedStorageReferences&>(published) : sub;
        entry.addReference(A, 11);
        EXPECT_EQ(entry.deleteReference(A, -1), 1);
        EXPECT_EQ(pidsOf(entry, "A"), (std::vector<int>{10, 11}));
        EXPECT_EQ(entry.returnedRefTicks(), 1);
        EXPECT_EQ(entry.deleteReference(A, -1), 0);  // ticks caught up: the table is cleared
        EXPECT_EQ(entry.clients()->count(), 2u);
        EXPECT_EQ(entry.returnedRefTicks(), 0);
    }
    // One process only: the last reference goes, no tick.
    CSharedStoragePublishedEntry single(A, CString::create("/srv/x"), 10);
    single.addReference(A, 10);
    EXPECT_EQ(single.deleteReference(A, -1), 1);
    EXPECT_EQ(single.returnedRefTicks(), 0);
    EXPECT_EQ(pidsOf(single, "A"), std::vector<int>{10});
}

TEST(CSharedStorageEntry, UnknownProcessesAreLoggedAndTheSubscribedEntryReusesThePublishedText) {
    auto sub = subscribed(10);
    sub.addReference(A, 11);
    sub.deleteReference(A, -1);
    sub.deleteReference(A, 12);  // unknown PID
    EXPECT_EQ(
        quilltest::consoleLinesWith("CSharedStoragePublishedEntry::deleteReference: PID = 12 not found (client = A)")
            .size(),
        1u);
    EXPECT_TRUE(quilltest::consoleLinesWith("CSharedStorageSubscribedEntry::deleteReference: PID = 12").empty());
    sub.deleteReference(B, 3);
    EXPECT_EQ(quilltest::consoleLinesWith(
                  "CSharedStorageSubscribedEntry::deleteReference: entry for client = B not found (PID = 3)")
                  .size(),
              1u);
}

TEST(CSharedStorageEntry, EndedProcessesAreDroppedOnlyBySubscribedEntries) {
    CSharedStoragePublishedEntry published(A, CString::create("/srv/x"), 10);
    published.addReference(B, 10);
    published.addReference(B, 11);
    published.deleteReferences(10);  // with clients present: nothing happens, on purpose
    EXPECT_EQ(published.refCount(), 3);
    EXPECT_EQ(pidsOf(published, "B"), (std::vector<int>{10, 11}));

    auto sub = subscribed(10);
    sub.addReference(B, 10);
    sub.addReference(B, 11);
    sub.deleteReferences(10);
    EXPECT_EQ(sub.refCount(), 1);
    EXPECT_EQ(pidsOf(sub, "A"), std::vector<int>{});
    EXPECT_EQ(pidsOf(sub, "B"), std::vector<int>{11});

    // The clients copy leaves the bookkeeping out and is the caller's own.
    auto clients = sub.copyClients();
    EXPECT_EQ(clients->count(), 1u);
    EXPECT_EQ(clients->get(std::string_view("_totalRefCount")), nullptr);
    EXPECT_EQ(clients->get(std::string_view("_returnedRefTicks")), nullptr);

    // Copies are independent.
    auto copy = sub;
    copy.addReference(B, 12);
    EXPECT_EQ(sub.refCount(), 1);
    EXPECT_EQ(copy.refCount(), 2);

    published.addNodeHosts(PLDictionary::createFromEntries({}).get());
    EXPECT_EQ(published.nodeHosts(), nullptr);
}

}  // namespace
