// The text forms of data and dates in XML property lists (see
// PLPropertyList.h), for programs that read or show such values as the
// property-list reader and writer do: base64 of the standard alphabet
// (RFC 4648, section 4) and ISO-8601 dates in UTC.
//
// All functions are safe to call from any thread at once. Only
// PLDateFromISO8601 throws, and only std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include <quillcore/platform/export.h>

// The length of the base64 text of `size` bytes, padding included.
constexpr std::size_t PLBase64EncodedLength(std::size_t size) noexcept { return (size + 2) / 3 * 4; }

// Writes the base64 text of the `size` bytes at `bytes` to `out`, padded with
// "=" to a whole group of four symbols: PLBase64EncodedLength(size)
// characters and no terminator. Returns the end of what it wrote.
QUILL_PLATFORM_EXPORT char* PLBase64Encode(const void* bytes, std::size_t size, char* out) noexcept;

enum class PLBase64Status : std::uint8_t {
    OK = 0,
    InvalidSymbol = 1,  // a character outside the alphabet (white space and "=" included)
    Truncated = 2,      // a last group of one symbol, which holds no whole byte
};

// Decodes `count` base64 symbols, without padding or white space, into
// count * 3 / 4 bytes at `out`, which may be `symbols` itself (decoding in
// place). The bits of a last, partial group beyond its bytes are ignored.
// InvalidSymbol is reported before Truncated; on failure the bytes at `out`
// are unspecified.
QUILL_PLATFORM_EXPORT PLBase64Status PLBase64Decode(const char* symbols, std::size_t count, std::uint8_t* out) noexcept;

enum class PLDateTextStatus : std::uint8_t {
    OK = 0,
    Malformed = 1,   // not of the form below
    OutOfRange = 2,  // no such month, day, hour, minute or second
};

// Reads "YYYY-MM-DDTHH:MM:SSZ" (UTC), optionally with a decimal fraction of a
// second before the "Z" ("2026-11-22T10:00:00.25Z"), as an absolute time
// (seconds since the reference date, see kPLAbsoluteTimeIntervalSince1970).
// The whole seconds and the fraction are rounded to a double once, which
// gives back exactly what the writer wrote. Years 0000 to 9999 of the
// proleptic Gregorian calendar are read; no white space is allowed. On
// failure `*absoluteTime` is left as it was.
QUILL_PLATFORM_EXPORT PLDateTextStatus PLDateFromISO8601(std::string_view text, double* absoluteTime);
