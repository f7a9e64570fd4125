// A locked property-list file (CPropertyListBasicFile) that holds an ordered
// list of named entries of one type, stored as one section of the file: a
// dictionary from entry name to entry dictionary, kept under the record's own
// key (for example "corvaneservices"). With the ordered flag set, the section
// also records the order under "_orderList" (an array of entry names).
//
// Entry types. T is a value type (copyable and movable) with
// - a constructor T(PLStringRef name, PLDictionaryRef dict),
// - `name() const`, returning the entry's name (its key in the section) as a
//   PLStringRef or a PLHolder<const PLString>; null counts as the empty name,
// - `toDict() const`, returning a holder of the entry's dictionary.
// Names compare exactly (bytewise, case-sensitive).
//
// Record classes derive from CPropertyListFile<T> and define refresh() and
// flush() in a line each with their section's key path:
//
//   bool refresh() { return refreshList({"corvaneservices"}); }
//   bool flush() const { return flushList({"corvaneservices"}); }
//
// Read the note on flushDerived() in CPropertyListBasicFile.h before flushing
// under a lock the caller took: after refreshList() the contents are the
// section alone.
//
// Threads and exceptions as for CPropertyListBasicFile. The list operations
// throw only what T's operations and memory allocation throw.
#pragma once

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <string_view>
#include <utility>
#include <vector>

#include <quillcore/plist/CPropertyListBasicFile.h>

namespace quill {

namespace plistdetail {

inline PLStringRef entryName(PLStringRef name) noexcept { return name; }
inline PLStringRef entryName(const PLHolder<const PLString>& name) noexcept { return name.get(); }

inline std::string_view nameText(PLStringRef name) noexcept { return name ? name->utf8() : std::string_view(); }

}  // namespace plistdetail

template <class T>
concept PropertyListEntry = std::copyable<T> && std::constructible_from<T, PLStringRef, PLDictionaryRef> &&
    requires(const T& entry) {
    { plistdetail::entryName(entry.name()) } -> std::same_as<PLStringRef>;
    { entry.toDict().get() } -> std::convertible_to<PLDictionaryRef>;
};

template <PropertyListEntry T>
class CPropertyListFile : public CPropertyListBasicFile {
public:
    // As the base constructors; the list starts empty and unordered. The
    // base's refresh reads the file; the derived record then sets its flag and
    // runs its own refresh to load the list.
    explicit CPropertyListFile(PLStringRef path) : CPropertyListBasicFile(path) {}
    CPropertyListFile(PLStringRef path, std::int32_t lockMode) : CPropertyListBasicFile(path, lockMode) {}
    ~CPropertyListFile() override = default;

    // Loads the list from `plist`, the record's section. Does nothing when
    // `plist` is not a dictionary. Otherwise:
    // 1. hands it to the base fromPropertyList: the CONTENTS BECOME THE
    //    SECTION (and the version the section's "Version", else "1.0"). This is
    //    deliberate; it is why a flush without a held lock reads the whole file
    //    afresh;
    // 2. collects (name, value) pairs: with the ordered flag set and an
    //    "_orderList" array present, the names of that array in its order that
    //    are keys of the section (other names, and keys the array does not
    //    name, are not loaded); otherwise every key in the dictionary's own
    //    order;
    // 3. empties the list and put()s T(name, value) for each pair whose value
    //    is a dictionary, so a repeated name overwrites in place. Other values
    //    ("Version", "_orderList", ...) are skipped.
    void fromPropertyList(PLTypeRef plist) {
        const PLDictionary* source = PLDynamicCast<PLDictionary>(plist);
        if (!source) return;
        // The section may live inside the contents that the next line replaces.
        const PLHolder<const PLDictionary> section = PLHolder<const PLDictionary>::retain(source);
        CPropertyListBasicFile::fromPropertyList(section.get());

        std::vector<std::pair<PLStringRef, PLTypeRef>> pairs;
        const PLArray* order = _ordered ? PLDynamicCast<PLArray>(section->get(kOrderListKey)) : nullptr;
        if (order) {
            pairs.reserve(order->count());
            for (const auto& element : order->values()) {
                const PLString* name = PLDynamicCast<PLString>(element.get());
                if (!name) continue;
                if (PLTypeRef value = section->get(name)) pairs.emplace_back(name, value);
            }
        } else {
            pairs.reserve(section->count());
            for (const auto& [key, value] : section->entries())
                pairs.emplace_back(PLDynamicCast<PLString>(key.get()), value.get());
        }

        _entries.clear();
        _entries.reserve(pairs.size());
        for (const auto& [name, value] : pairs) {
            if (!name) continue;
            if (const PLDictionary* dict = PLDynamicCast<PLDictionary>(value)) put(T(name, dict));
        }
    }

    // A new section dictionary: each entry with a non-empty name in list
    // order under its name; with the ordered flag set and at least two keys,
    // "_orderList" with the names (a single entry is written without it).
    PLHolder<PLMutableDictionary> toPropertyList() const {
        PLHolder<PLMutableDictionary> section = PLMutableDictionary::create(_entries.size() + 1);
        PLHolder<PLMutableArray> order = PLMutableArray::create(_entries.size());
        for (const T& entry : _entries) {
            const PLHolder<const PLString> name =
                PLHolder<const PLString>::retain(plistdetail::entryName(entry.name()));
            if (!name || name->empty()) continue;
            section->set(name, PLHolder<const PLObject>(entry.toDict()));
            order->append(name);
        }
        if (_ordered && section->count() >= 2) section->set(PLString::create(kOrderListKey), std::move(order));
        return section;
    }

    // Copies out the entry named `name`; false when there is none.
    bool get(PLStringRef name, T& out) const {
        const auto it = find(name);
        if (it == _entries.end()) return false;
        out = *it;
        return true;
    }
    // Copies out all entries in list order; returns true.
    bool get(std::vector<T>& out) const {
        out = _entries;
        return true;
    }
    // False for an index below 0 or at or past the end; else copies that entry.
    bool getAtIndex(int index, T& out) const {
        if (index < 0 || static_cast<std::size_t>(index) >= _entries.size()) return false;
        out = _entries[static_cast<std::size_t>(index)];
        return true;
    }
    // Overwrites the entry of the same name in place (its position is kept),
    // else appends a copy.
    void put(const T& entry) {
        const auto it = find(plistdetail::entryName(entry.name()));
        if (it != _entries.end())
            *it = entry;
        else
            _entries.push_back(entry);
    }
    // False for an index below 0 or above the count; the count appends; a
    // smaller index overwrites that position. Names are NOT checked, so two
    // entries may end up with one name; callers guard against that.
    bool putAtIndex(int index, const T& entry) {
        if (index < 0 || static_cast<std::size_t>(index) > _entries.size()) return false;
        if (static_cast<std::size_t>(index) == _entries.size())
            _entries.push_back(entry);
        else
            _entries[static_cast<std::size_t>(index)] = entry;
        return true;
    }
    // Removes the first entry named `name`, keeping the others' order; false
    // when there is none.
    bool remove(PLStringRef name) {
        const auto it = find(name);
        if (it == _entries.end()) return false;
        _entries.erase(it);
        return true;
    }

    std::size_t count() const noexcept { return _entries.size(); }
    bool isOrdered() const noexcept { return _ordered; }

    // The key of the order array inside a section.
    static constexpr std::string_view kOrderListKey = "_orderList";

protected:
    void setOrdered(bool ordered) noexcept { _ordered = ordered; }

    // The list records' refresh: the base refresh (whole file into the
    // contents), then the value at `section` handed to fromPropertyList above.
    // When the section is missing the list keeps what it had and the contents
    // stay the whole file. Returns what the base refresh returned; throws what
    // it throws.
    bool refreshList(KeyPath section) {
        const bool result = CPropertyListBasicFile::refresh();
        if (PLTypeRef value = valueAtPath(contents(), section)) fromPropertyList(value);
        return result;
    }
    // The list records' flush: flushDerived with the value at `section` set to
    // toPropertyList(); everything else in the base dictionary is kept. Returns
    // false whenever it does not throw.
    bool flushList(KeyPath section) const {
        flushDerived([&](PLMutableDictionary& top) {
            const PLHolder<PLMutableDictionary> list = toPropertyList();
            setValueAtPath(top, section, list.get());
        });
        return false;
    }

private:
    using Iterator = typename std::vector<T>::iterator;
    using ConstIterator = typename std::vector<T>::const_iterator;

    static bool isNamed(const T& entry, std::string_view wanted) {
        return plistdetail::nameText(plistdetail::entryName(entry.name())) == wanted;
    }
    Iterator find(PLStringRef name) {
        const std::string_view wanted = plistdetail::nameText(name);
        return std::find_if(_entries.begin(), _entries.end(), [&](const T& e) { return isNamed(e, wanted); });
    }
    ConstIterator find(PLStringRef name) const {
        const std::string_view wanted = plistdetail::nameText(name);
        return std::find_if(_entries.begin(), _entries.end(), [&](const T& e) { return isNamed(e, wanted); });
    }

    bool _ordered = false;
    std::vector<T> _entries;
};

}  // namespace quill
