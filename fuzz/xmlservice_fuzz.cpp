// Fuzzes the XML parser and writer: any text the parser accepts must be
// written back as text that parses to the same tree, and the cheap
// well-formedness check must agree with the full parse. Also checks that the
// attribute-safe copy of any text (string option 3) stands inside an
// attribute.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include <ferrocore/CException.h>
#include <ferrocore/CString.h>
#include <ferrocore/CXMLService.h>

namespace {

// Larger inputs only slow the fuzzer down without reaching new code.
constexpr std::size_t kMaxInput = 64 * 1024;

[[noreturn]] void fail(const char* what, std::string_view detail) {
    std::fprintf(stderr, "xmlservice_fuzz: %s\n%.*s\n", what, static_cast<int>(detail.size()), detail.data());
    std::abort();
}

void compareTrees(const ferrocore::CXMLServiceRef& a, const ferrocore::CXMLServiceRef& b, const std::string& text) {
    if (a->nodeName() != b->nodeName()) fail("node name changed", text);
    if (a->attributes() != b->attributes()) fail("attributes changed", text);
    if (a->textContent() != b->textContent()) fail("text changed", text);
    if (a->childCount() != b->childCount()) fail("children changed", text);
    for (std::size_t i = 0; i < a->childCount(); ++i) compareTrees(a->childAtIndex(i), b->childAtIndex(i), text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > kMaxInput) return 0;
    const std::string_view input(reinterpret_cast<const char*>(data), size);

    const bool wellFormed = ferrocore::CXMLService::isWellFormed(input);
    ferrocore::CXMLServiceRef first;
    try {
        first = ferrocore::CXMLService::create(input);
    } catch (const ferrocore::CParamException&) {}
    if (wellFormed != static_cast<bool>(first)) fail("isWellFormed disagrees with the parser", input);

    if (first) {
        const std::string written = first->xmlString();
        ferrocore::CXMLServiceRef second;
        try {
            second = ferrocore::CXMLService::create(written);
        } catch (const ferrocore::CParamException& e) {
            fail(e.what(), written);
        }
        if (first->HasXMLHeader() != second->HasXMLHeader()) fail("header changed", written);
        compareTrees(first, second, written);
        if (second->xmlString() != written) fail("output not stable", written);
    }

    const std::string safe = ferrocore::CString::create(input)->xmlAttributeSafeCopy()->utf8();
    if (!ferrocore::CXMLService::isWellFormed("<log msg=\"" + safe + "\"/>"))
        fail("option 3 copy does not parse", safe);
    return 0;
}
