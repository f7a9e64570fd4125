// Fuzz target for the decoding of a received notification's payload (the
// byte array of the bus signal).
//
// Input: any bytes, as they could arrive from any process on the bus. The
// decoder must refuse with a reason or give a dictionary (nothing else, and
// nothing for an empty payload). A dictionary it gives must go out and come
// back unchanged, as it would when an observer passes it on to another
// process. Any violation aborts. Inputs are capped at 1 MiB.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/platform/PLPropertyList.h>

namespace {

constexpr std::size_t kMaxInput = 1 << 20;

[[noreturn]] void failCheck(const char* what, const std::string& detail) {
    std::fprintf(stderr, "notification_payload_fuzz: %s: %s\n", what, detail.c_str());
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > kMaxInput) return -1;
    using namespace quill::platform;
    PLHolder<const PLDictionary> decoded;
    std::string reason;
    if (!decodeNotificationPayload(data, size, decoded, &reason)) {
        if (reason.empty()) failCheck("refused without a reason", std::to_string(size) + " bytes");
        if (decoded) failCheck("refused but gave a value", reason);
        return 0;
    }
    if (size == 0) {
        if (decoded) failCheck("an empty payload gave a dictionary", "");
        return 0;
    }
    if (!decoded) failCheck("accepted without a dictionary", std::to_string(size) + " bytes");

    PLHolder<const PLData> encoded;
    if (!encodeNotificationPayload(decoded.get(), encoded, &reason)) {
        // Only what the binary writer cannot carry may stop the way back.
        if (PLPropertyListIsValid(decoded.get(), PLPropertyListFormat::Binary))
            failCheck("a valid dictionary was not encoded", reason);
        return 0;
    }
    PLHolder<const PLDictionary> again;
    if (!decodeNotificationPayload(encoded->bytes(), encoded->size(), again, &reason))
        failCheck("our own encoding was refused", reason);
    if (!PLEqual(decoded.get(), again.get())) failCheck("the round trip changed the dictionary", "");
    return 0;
}
