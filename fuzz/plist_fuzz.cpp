// Fuzz target for the property-list readers and writers.
//
// Input: any bytes, read as a property list of either format (told by
// content). Refusals must come with a reason. Whatever is read must:
//   - read the same with every mutability option;
//   - for XML, read the same when fed to the parser in pieces (of a size
//     taken from the input), so text that straddles two calls is whole;
//   - survive the XML writer: written, read back, equal, and written again
//     byte for byte the same (the writer's form is canonical), unless the
//     writer refuses it, which PLPropertyListIsValid must then predict;
//   - survive the binary writer the same way.
// Any violation aborts. Inputs are capped at 1 MiB, and the round trips are
// skipped for trees whose shared parts stand for more than a million values
// (the reader allows more, and writing them out would only measure memory).
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/PLPropertyListReaders.h"
#include <quillcore/platform/PLPropertyList.h>

namespace {

constexpr std::size_t kMaxInput = 1 << 20;
constexpr std::size_t kMaxRoundTripValues = 1'000'000;

[[noreturn]] void failCheck(const char* what, const std::string& detail) {
    std::fprintf(stderr, "plist_fuzz: %s: %s\n", what, detail.c_str());
    std::abort();
}

// Values in the tree, counting shared subtrees once per use; stops early
// past `limit`.
std::size_t countValues(const PLObject* value, std::size_t limit) {
    std::size_t n = 1;
    if (const auto* a = PLDynamicCast<PLArray>(value)) {
        for (std::size_t i = 0; i < a->count() && n <= limit; ++i) n += countValues(a->at(i), limit);
    } else if (const auto* d = PLDynamicCast<PLDictionary>(value)) {
        for (const auto& [key, item] : d->entries()) {
            if (n > limit) break;
            n += 1 + countValues(item.get(), limit);
        }
    }
    return n;
}

PLHolder<const PLObject> read(const void* bytes, std::size_t size, PLMutability mutability, std::string* error) {
    return PLPropertyListCreateFromBytes(bytes, size, mutability, error);
}

void checkXML(const PLObject* plist) {
    std::string xml, error;
    if (!PLPropertyListWriteXML(plist, xml, &error)) {
        if (PLPropertyListIsValid(plist, PLPropertyListFormat::XML))
            failCheck("valid tree refused by XML writer", error);
        if (error.empty()) failCheck("XML writer refused without a reason", "");
        return;
    }
    if (!PLPropertyListIsValid(plist, PLPropertyListFormat::XML)) failCheck("written tree called invalid", xml);
    const auto back = read(xml.data(), xml.size(), PLMutability::Immutable, &error);
    if (!back) failCheck("our XML does not read back", error + "\n" + xml);
    if (!back->equals(*plist)) failCheck("XML round trip changed the value", xml);
    std::string again;
    if (!PLPropertyListWriteXML(back.get(), again) || again != xml) failCheck("XML output not canonical", xml);
}

void checkBinary(const PLObject* plist) {
    PLHolder<const PLString> error;
    const auto data = PLPropertyListCreateBinaryData(plist, &error);
    if (!data) {
        if (PLPropertyListIsValid(plist, PLPropertyListFormat::Binary))
            failCheck("valid tree refused by binary writer", std::string(error ? error->utf8() : ""));
        return;
    }
    std::string reason;
    const auto back = read(data->bytes(), data->size(), PLMutability::Immutable, &reason);
    if (!back) failCheck("our binary does not read back", reason);
    if (!back->equals(*plist)) failCheck("binary round trip changed the value", "");
}

}  // namespace

// The XML reader given the document in pieces must agree with it given
// the whole.
void checkPieces(const std::uint8_t* bytes, std::size_t size, const PLObject* whole) {
    if (size == 0 || (size >= 6 && std::memcmp(bytes, "bplist", 6) == 0)) return;
    const std::size_t piece = 1 + bytes[size / 2] % 97;
    std::string error;
    const auto cut = plimpl::readXML(bytes, size, PLMutability::Immutable, &error, piece);
    if (static_cast<bool>(cut) != static_cast<bool>(whole))
        failCheck("reading in pieces changed whether it reads", error);
    if (cut && !cut->equals(*whole)) failCheck("reading in pieces changed the value", std::to_string(piece));
    if (!cut && error.empty()) failCheck("refused in pieces without a reason", "");
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    if (size > kMaxInput) return 0;
    std::string error;
    const auto plist = read(bytes, size, PLMutability::Immutable, &error);
    checkPieces(bytes, size, plist.get());
    if (!plist) {
        if (error.empty()) failCheck("refused without a reason", "");
        return 0;
    }
    for (PLMutability m : {PLMutability::MutableContainers, PLMutability::MutableContainersAndLeaves}) {
        const auto other = read(bytes, size, m, &error);
        if (!other || !other->equals(*plist)) failCheck("mutability changed the result", error);
    }
    if (countValues(plist.get(), kMaxRoundTripValues) > kMaxRoundTripValues) return 0;
    checkXML(plist.get());
    checkBinary(plist.get());
    return 0;
}
