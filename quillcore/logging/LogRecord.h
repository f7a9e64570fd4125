// The pieces of a log line that the logger, its streams and the log queries
// share: time fields, the fixed lines, and the escaping of messages. Not
// installed; exported so that the tests and the fuzz target can check the
// fast paths here against the slow, obvious ones.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "quillcore/util/DecimalText.h"
#include <quillcore/export.h>

namespace quill::logrecord {

// Appends `tms="<seconds>" tmt="<time text>"` for `seconds` (now when
// negative), exactly as a CTimeStamp of that time prints them: "%.3lf" and
// the stamp's text.
QUILL_EXPORT void appendTimeFields(std::string& out, double seconds = -1.0);

using decimal::appendFixed3;

// Appends the head of a record of `level` at `seconds` (now when negative),
// up to and including `msg="`. The same text as appendTimeFields() and the
// rest put together, made faster from a per-thread copy of the last head.
QUILL_EXPORT void appendRecordHead(std::string& out, unsigned level, double seconds = -1.0);

// The file header (declaration and the opening <logs> element) and the
// session marks, each with its line feed.
QUILL_EXPORT std::string fileHeader();
QUILL_EXPORT std::string sessionMark(bool begin);

// Whether `message` certainly parses inside a double-quoted attribute without
// changing the element around it: no quote, no "<", only valid references
// after "&", and only well-formed UTF-8 of characters XML allows. False means
// "ask the parser", not "does not parse".
QUILL_EXPORT bool isPlainAttributeText(std::string_view message) noexcept;

// Escapes a message for a record of `level` (see CQuillLogger::escapedString).
// Returns false when the message may stand as it is; otherwise stores the
// text to write in `out` and returns true. Never throws.
QUILL_EXPORT bool escapeMessage(std::string_view message, unsigned level, std::string& out) noexcept;

// The URL percent-escaping of log messages: every byte that is a control
// character, DEL, not ASCII, or one of < > " & becomes %XX (upper-case hex);
// everything else stays.
QUILL_EXPORT std::string percentEscaped(std::string_view message);

}  // namespace quill::logrecord
