// Fuzzes the escaping of log messages: the logger's fast plain-text check
// must never accept a message that the XML parser refuses, its escaping must
// give exactly what the step-by-step way gives, and whatever it gives must
// stand inside a record without breaking it, at level 3 and at another level.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "quillcore/logging/LogRecord.h"
#include "tests/support/LogEscapeReference.h"

namespace {

// Longer messages only slow the fuzzer down without reaching new code.
constexpr std::size_t kMaxInput = 4096;

[[noreturn]] void fail(const char* what, std::string_view message) {
    std::fprintf(stderr, "log_escape_fuzz: %s\n%.*s\n", what, static_cast<int>(message.size()), message.data());
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > kMaxInput) return 0;
    const std::string_view message(reinterpret_cast<const char*>(data), size);
    if (quill::logrecord::isPlainAttributeText(message) &&
        !ferrocore::CXMLService::isWellFormed(quilltest::recordElement(message, 3)))
        fail("plain-text check accepted what the parser refuses", message);
    for (unsigned level : {3u, 5u}) {
        std::string escaped;
        const std::string ours =
            quill::logrecord::escapeMessage(message, level, escaped) ? escaped : std::string(message);
        if (ours != quilltest::referenceEscape(message, level)) fail("escaping differs from the reference", message);
        if (!ferrocore::CXMLService::isWellFormed(quilltest::recordElement(ours, level)))
            fail("escaped message breaks its record", message);
    }
    return 0;
}
