// Helpers shared by the quillctl verbs.
#pragma once

#include <string>
#include <vector>

#include <quillcore/platform/PLObject.h>

namespace quillctl {

// Reads and parses a property-list file (XML or binary). On failure returns
// null and a message naming the problem.
PLHolder<const PLObject> loadPropertyList(const std::string& path, std::string* error);

// Splits a key path at unescaped dots ("\." is a literal dot, "\\" a
// backslash).
std::vector<std::string> splitKeyPath(const std::string& keyPath);

// Follows a dot-separated key path from `root`: dictionary keys by name,
// array elements by decimal index. Because keys such as service kinds contain
// dots themselves, at each dictionary the longest run of path components that
// names an existing key wins. Returns the value (borrowed from `root`), or
// null with a message.
const PLObject* resolveKeyPath(const PLObject* root, const std::string& keyPath, std::string* error);

// A copy of `root` (a dictionary or array) with `value` stored at `keyPath`,
// or, for a null `value`, with the value at `keyPath` removed. Keys are found
// as by resolveKeyPath (longest run of components naming an existing key).
// Setting creates missing dictionaries on the way (a new key containing dots
// must escape them); an array element is replaced by index, and the index
// equal to the count appends. Removing requires the key or index to exist.
// Only the containers on the path are copied. Returns null with a message on
// failure.
PLHolder<const PLObject> editKeyPath(const PLObject* root, const std::string& keyPath, const PLObject* value,
                                     std::string* error);

// The value types of `plist set`.
const std::vector<std::string>& valueTypeNames();

// Makes a value of type `type` (one of valueTypeNames()) from `text`:
// string as it is; integer in decimal within the 64-bit signed range; real in
// decimal or "nan"/"inf"; bool as true/false, yes/no or 1/0 (words in any
// case); date as "YYYY-MM-DDTHH:MM:SSZ" or "YYYY-MM-DD HH:MM:SS", UTC; data as
// base64 (padding optional, no whitespace). Null with a message on failure.
PLHolder<const PLObject> parseTypedValue(const std::string& type, const std::string& text, std::string* error);

// Formats a value for the terminal: scalars as plain text with a line feed,
// containers as an XML property list.
bool formatValue(const PLObject* value, std::string& out, std::string* error);

// ISO-8601 UTC text of an absolute time ("2026-11-22T09:30:00Z").
std::string isoDate(double absoluteTime);

const char* keyPathHelp();

}  // namespace quillctl
