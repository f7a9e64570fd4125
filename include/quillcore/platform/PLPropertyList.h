// Property-list serialisation of runtime values.
//
// XML writer, in this exact form:
//   <?xml version="1.0" encoding="UTF-8"?>
//   <plist version="1.0">
//   ... one element per line; the root value at the left margin and nested
//   elements indented by one tab per level; dictionary keys sorted bytewise;
//   <dict/> and <array/> for empty containers; <true/> and <false/> ...
//   </plist>
// and a final line feed. No document-type line is written. Details:
//   - text: "&", "<" and ">" become "&amp;", "&lt;" and "&gt;"; a carriage
//     return becomes "&#13;" (an XML reader would otherwise turn it into a
//     line feed). Text that is not valid UTF-8 or holds characters XML 1.0
//     cannot carry (control characters other than tab, line feed and carriage
//     return; U+FFFE, U+FFFF) cannot be written.
//   - <integer>: decimal.
//   - <real>: the shortest decimal form that reads back to the same double
//     ("0.1", "1e-300", "-0", "1.7976931348623157e+308"); not-a-number as
//     "nan" and infinities as "inf" and "-inf".
//   - <date>: ISO-8601 UTC, "2026-11-22T10:00:00Z"; a date with a fraction of a
//     second carries a decimal fraction ("2026-11-22T10:00:00.25Z") that
//     reads back bit-exact: the reader rounds seconds plus fraction once,
//     and the writer takes the fraction from the shortest decimal form of the
//     date. Only years 1 to 9999 can be written.
//   - <data>: base64 on the element's own line, without line breaks.
//
// Reader: XML property lists (a document-type line is accepted and ignored)
// and binary property lists ("bplist00"), recognised by content. Malformed
// input yields null and an error description that names what is wrong and
// where ("line:column" for XML, byte offset for binary); never a partial
// value. XML rules:
//   - the document must be well-formed (the reader is a conforming XML parser;
//     text that is not UTF-8, or not in the encoding it declares, is refused);
//     entity declarations and undefined entities are refused;
//   - the root element is <plist> holding exactly one value; elements nest at
//     most 512 deep; unknown elements, <key> outside a dictionary, a key
//     without a value and text between elements are refused;
//   - a key given twice in one dictionary: the last value wins;
//   - <integer>: decimal or "0x" hexadecimal, optional sign, within the
//     64-bit signed range; <real>: decimal forms, "nan", "inf", "infinity"
//     (any case, optional sign), refused when beyond the double range;
//     <date>: "YYYY-MM-DDTHH:MM:SSZ" with an optional fraction of a second;
//     <data>: base64, whitespace ignored, padding optional. Leading and
//     trailing whitespace around these values is ignored.
// Binary rules: all object kinds of the format except sets and UIDs; integers
// of 1, 2, 4, 8 and 16 bytes (the latter only within the 64-bit signed range);
// ASCII strings must hold ASCII only, UTF-16 strings no unpaired surrogates;
// dictionary keys must be strings; references that form a cycle or point
// outside the file, and values nested more than 512 deep, are refused, as is a
// file whose shared objects would expand to more values than sixteen times its
// size in bytes (or 2^20, whichever is larger).
//
// Integers are read as 32-bit numbers when they fit, else as 64-bit numbers.
//
// All functions are safe to call from any thread at once. They throw only
// std::bad_alloc.
#pragma once

#include <string>

#include <quillcore/platform/PLObject.h>

enum class PLPropertyListFormat : std::uint8_t { XML = 1, Binary = 2 };

// Parses a property list held in memory. On failure returns null and, when
// `errorDescription` is given, stores the reason there. `format`, when given,
// receives the format that was read (or tried).
QUILL_PLATFORM_EXPORT PLHolder<const PLObject> PLPropertyListCreateFromBytes(const void* bytes, std::size_t size,
                                                                             PLMutability mutability,
                                                                             std::string* errorDescription,
                                                                             PLPropertyListFormat* format = nullptr);

// The same over a data value (either format). The error description is a new
// string value (null on success), suited to "%@" in messages.
QUILL_PLATFORM_EXPORT PLHolder<const PLObject> PLPropertyListCreateFromXMLData(
    const PLData* data, PLMutability mutability, PLHolder<const PLString>* errorDescription);

// Serialises `plist` as an XML property list. Fails (null, with a reason
// naming the offending value's place, such as "/Jobs/3/Path") when the tree
// holds something that cannot be written: a value that is not a property-list
// type, a dictionary key that is not a string, text that XML cannot carry, a
// date outside the years 1 to 9999.
QUILL_PLATFORM_EXPORT PLHolder<const PLData> PLPropertyListCreateXMLData(
    const PLObject* plist, PLHolder<const PLString>* errorDescription = nullptr);

// The same, appending the document to `out`. Returns false (and the reason)
// on failure, leaving `out` as it was.
QUILL_PLATFORM_EXPORT bool PLPropertyListWriteXML(const PLObject* plist, std::string& out,
                                                  std::string* errorDescription = nullptr);

// Whether `plist` can be written in `format` (exactly when the writer of that
// format would succeed): property-list types only, string keys only, no URL
// values; for XML also the text and date rules above; for binary, strings of
// valid UTF-8.
QUILL_PLATFORM_EXPORT bool PLPropertyListIsValid(const PLObject* plist, PLPropertyListFormat format);

// Writes a binary property list ("bplist00"); used by tests and tools to make
// binary input. Equal strings, numbers, dates and data are stored once.
// Fails like PLPropertyListCreateXMLData.
QUILL_PLATFORM_EXPORT PLHolder<const PLData> PLPropertyListCreateBinaryData(
    const PLObject* plist, PLHolder<const PLString>* errorDescription = nullptr);
