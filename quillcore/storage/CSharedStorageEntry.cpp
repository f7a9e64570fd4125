#include <vector>

#include "quillcore/storage/StorageText.h"
#include <ferrocore/Format.h>
#include <quillcore/storage/CSharedStorageEntry.h>
#include <quillcore/storage/CSharedStorageUtils.h>
#include <quillcore/util/PLUtil.h>

namespace quill {

namespace {
PL_CONSTANT_STRING_STORAGE(sTotalRefCountKey, "_totalRefCount");
PL_CONSTANT_STRING_STORAGE(sReturnedRefTicksKey, "_returnedRefTicks");

bool isBookkeepingKey(const PLObject* key) {
    return PLEqual(key, &sTotalRefCountKey) || PLEqual(key, &sReturnedRefTicksKey);
}

int readCounter(PLDictionaryRef table, PLStringRef key) {
    std::int32_t value = 0;
    PLUtil::PLDictGetInt(table, key, &value);  // missing reads as 0
    return value;
}

PLHolder<PLMutableDictionary> deepMutableCopy(PLDictionaryRef table) {
    PLHolder<const PLObject> copy = PLPropertyListCreateDeepCopy(table, PLMutability::MutableContainers);
    return PLHolder<PLMutableDictionary>::retain(PLMutableCast<PLMutableDictionary>(copy.get()));
}

// The published entry's own class name; the subscribed entry reuses its
// "PID not found" message unchanged.
constexpr const char* kPublishedEntryClass = "CSharedStoragePublishedEntry";
constexpr const char* kSubscribedEntryClass = "CSharedStorageSubscribedEntry";

}  // namespace

const PLStringRef kSharedStorageTotalRefCountKey = &sTotalRefCountKey;
const PLStringRef kSharedStorageReturnedRefTicksKey = &sReturnedRefTicksKey;

CSharedStorageReferences::CSharedStorageReferences(const char* entryClass) : _entryClass(entryClass) { resetClients(); }

CSharedStorageReferences::CSharedStorageReferences(const CSharedStorageReferences& other)
    : CSharedObject(), _entryClass(other._entryClass), _clients(deepMutableCopy(other._clients.get())) {}

CSharedStorageReferences::CSharedStorageReferences(CSharedStorageReferences&& other) noexcept
    : CSharedObject(), _entryClass(other._entryClass), _clients(std::move(other._clients)) {}

CSharedStorageReferences& CSharedStorageReferences::operator=(const CSharedStorageReferences& other) {
    if (this != &other) {
        _entryClass = other._entryClass;
        _clients = deepMutableCopy(other._clients.get());
    }
    return *this;
}

CSharedStorageReferences& CSharedStorageReferences::operator=(CSharedStorageReferences&& other) noexcept {
    _entryClass = other._entryClass;
    _clients = std::move(other._clients);
    return *this;
}

CSharedStorageReferences::~CSharedStorageReferences() = default;

void CSharedStorageReferences::resetClients() {
    _clients = PLUtil::PLDictMakeMutable();
    PLUtil::PLDictSetInt(_clients.get(), &sTotalRefCountKey, 0);
    PLUtil::PLDictSetInt(_clients.get(), &sReturnedRefTicksKey, 0);
}

int CSharedStorageReferences::addReference(ferrocore::CStringRef clientName, long pid) {
    if (!_clients) resetClients();
    const auto key = storage::plString(clientName);
    PLTypeRef found = nullptr;
    PLUtil::PLDictGet(_clients.get(), key.get(), &found);
    auto* array = PLMutableCast<PLMutableArray>(found);
    if (!array) {
        auto fresh = PLUtil::PLArrayMakeMutable();
        array = fresh.get();
        PLUtil::PLDictSet(_clients.get(), key.get(), fresh.get());
    }
    PLUtil::PLArrayAppendInt(array, static_cast<std::int32_t>(pid));
    const int total = readCounter(_clients.get(), &sTotalRefCountKey) + 1;
    PLUtil::PLDictSetInt(_clients.get(), &sTotalRefCountKey, total);
    return total;
}

int CSharedStorageReferences::deleteReference(ferrocore::CStringRef clientName, long pid) {
    if (!_clients) resetClients();
    int total = readCounter(_clients.get(), &sTotalRefCountKey);
    int ticks = readCounter(_clients.get(), &sReturnedRefTicksKey);
    const auto key = storage::plString(clientName);
    PLTypeRef found = nullptr;
    PLUtil::PLDictGet(_clients.get(), key.get(), &found);
    auto* array = PLMutableCast<PLMutableArray>(found);
    if (!array) {
        PLUtil::LogToConsole(
            ferrocore::formatString("%s::deleteReference: entry for client = %@ not found (PID = %ld)\n", _entryClass,
                                    clientName, pid)
                .c_str());
        return total - ticks;
    }
    if (!(total > ticks)) {
        PLUtil::LogToConsole(ferrocore::formatString(
                                 "%s::deleteReference: entry for client = %@ doesn't have any ticks left (PID = %ld)\n",
                                 _entryClass, clientName, pid)
                                 .c_str());
        return total - ticks;
    }
    bool tickChanged = false;
    if (pid == -1) {
        std::int32_t first = 0;
        PLUtil::PLArrayGetIntAtIndex(array, 0, &first);
        const auto count = static_cast<std::int32_t>(array->count());
        if (PLUtil::PLArrayGetCountOfIntVal(array, first) == count) {
            PLUtil::PLArrayRemoveValueAtIndex(array, count - 1);
            --total;
        } else {
            // Several processes hold it and none was named: count the release only.
            ++ticks;
            tickChanged = true;
        }
    } else {
        const std::int32_t index = PLUtil::PLArrayFindInt(array, static_cast<std::int32_t>(pid));
        if (index < 0) {
            // The published entry's text, also for a subscribed entry: intended.
            PLUtil::LogToConsole(ferrocore::formatString("%s::deleteReference: PID = %ld not found (client = %@)\n",
                                                         kPublishedEntryClass, pid, clientName)
                                     .c_str());
            return total - ticks;
        }
        PLUtil::PLArrayRemoveValueAtIndex(array, index);
        --total;
    }
    if (tickChanged) {
        PLUtil::PLDictSetInt(_clients.get(), &sReturnedRefTicksKey, ticks);
    } else {
        PLUtil::PLDictSetInt(_clients.get(), &sTotalRefCountKey, total);
    }
    if (array->count() == 0) _clients->remove(key.get());
    if (ticks >= 1 && ticks == total) {
        resetClients();
        return 0;
    }
    return total - ticks;
}

int CSharedStorageReferences::refCount() const {
    return readCounter(_clients.get(), &sTotalRefCountKey) - readCounter(_clients.get(), &sReturnedRefTicksKey);
}

int CSharedStorageReferences::returnedRefTicks() const { return readCounter(_clients.get(), &sReturnedRefTicksKey); }

PLHolder<PLMutableDictionary> CSharedStorageReferences::copyClients() const {
    auto copy = deepMutableCopy(_clients.get());
    if (!copy) return PLUtil::PLDictMakeMutable();
    copy->remove(&sTotalRefCountKey);
    copy->remove(&sReturnedRefTicksKey);
    return copy;
}

std::size_t CSharedStorageReferences::tableSize() const { return _clients ? _clients->count() : 0; }

void CSharedStorageReferences::dropReferencesOf(long pid) {
    if (!_clients) return;
    int total = readCounter(_clients.get(), &sTotalRefCountKey);
    const int ticks = readCounter(_clients.get(), &sReturnedRefTicksKey);
    std::vector<PLHolder<const PLObject>> emptied;
    for (const auto& [key, value] : _clients->entries()) {
        if (isBookkeepingKey(key.get())) continue;
        auto* array = PLMutableCast<PLMutableArray>(value.get());
        if (!array) continue;
        while (PLUtil::PLArrayRemoveInt(array, static_cast<std::int32_t>(pid))) --total;
        if (array->count() == 0) emptied.push_back(key);
    }
    for (const auto& key : emptied) _clients->remove(key.get());
    PLUtil::PLDictSetInt(_clients.get(), &sTotalRefCountKey, total);
    if (ticks >= 1 && ticks == total) resetClients();
}

CSharedStoragePublishedEntry::CSharedStoragePublishedEntry(ferrocore::CStringRef clientName, ferrocore::CStringRef path,
                                                           long pid)
    : CSharedStorageReferences(kPublishedEntryClass), _path(std::move(path)) {
    addReference(std::move(clientName), pid);
}

CSharedStoragePublishedEntry::~CSharedStoragePublishedEntry() = default;

void CSharedStoragePublishedEntry::deleteReferences(long pid) {
    // Only a table without any client is worked on; with clients nothing
    // changes. The subscribed entry does the opposite; both are intended.
    if (tableSize() <= 2) dropReferencesOf(pid);
}

void CSharedStoragePublishedEntry::addNodeHosts(PLDictionaryRef) {}  // never filled, on purpose

CSharedStorageSubscribedEntry::CSharedStorageSubscribedEntry(ferrocore::CStringRef clientName,
                                                             ferrocore::CStringRef mountPath,
                                                             ferrocore::CURLRef exportURL, long pid)
    : CSharedStorageReferences(kSubscribedEntryClass),
      _mountPath(std::move(mountPath)),
      _exportURL(std::move(exportURL)) {
    addReference(std::move(clientName), pid);
}

CSharedStorageSubscribedEntry::~CSharedStorageSubscribedEntry() = default;

void CSharedStorageSubscribedEntry::deleteReferences(long pid) {
    if (tableSize() >= 3) dropReferencesOf(pid);
}

void CSharedStorageSubscribedEntry::normalizeMountPath() {
    _normalizedMountPath = CSharedStorageUtils::normalizedPath(_mountPath)->fileSystemPath();
}

}  // namespace quill
