// Typed access to runtime dictionaries and arrays, and a few host facts as
// runtime values.
//
// Readers never throw and never log. They report through their result whether
// the key (or index) held a value of the expected type, and they always write
// a defined value to their output: the value, or 0 / 0.0 / null when it is
// absent or of another type. The one exception is PLArrayGetIntAtIndex, which
// leaves its output untouched on failure; callers rely on that, so it stays.
// There is no conversion between types: a string "1" is not an integer and a
// number 1 is not a boolean. Output pointers may be null when only the result
// matters; a null dictionary or array reads as empty.
//
// Writers treat a null value as a request to remove the key. A null mutable
// container makes a writer do nothing.
//
// Ownership. Arguments are borrowed. Values that getters hand out are borrowed
// from the container (valid while it holds them). Results of the Make and Host
// functions are new values owned by the caller, returned in holders.
//
// Threads. The functions keep no state. The usual runtime rule applies: a
// mutable container must not be read or changed while another thread changes
// it.
//
// Exceptions. Only the functions that make new values or add to a container
// may throw, and only std::bad_alloc.
#pragma once

#include <cstdint>

#include <quillcore/export.h>
#include <quillcore/platform/PLObject.h>

namespace quill::PLUtil {

// ---------------------------------------------------------------- dictionaries

// A new empty mutable dictionary.
QUILL_EXPORT PLHolder<PLMutableDictionary> PLDictMakeMutable();
// A new mutable shallow copy of `dict` (an empty one when `dict` is null).
QUILL_EXPORT PLHolder<PLMutableDictionary> PLDictMakeMutableCopy(PLDictionaryRef dict);

// True when `key` is present; *out = its value (any type), or null.
QUILL_EXPORT bool PLDictGet(PLDictionaryRef dict, PLStringRef key, PLTypeRef* out) noexcept;
// Adds `value` only when `key` is absent (an existing value stays); a null
// value removes the key.
QUILL_EXPORT void PLDictAdd(PLMutableDictionaryRef dict, PLStringRef key, PLTypeRef value);
// Adds or replaces; a null value removes the key.
QUILL_EXPORT void PLDictSet(PLMutableDictionaryRef dict, PLStringRef key, PLTypeRef value);

// True only for a boolean value; *out = 1 for the true value, else 0.
QUILL_EXPORT bool PLDictGetBoolean(PLDictionaryRef dict, PLStringRef key, std::uint8_t* out) noexcept;
// Stores the shared true value for non-zero, the false value for zero.
QUILL_EXPORT void PLDictSetBoolean(PLMutableDictionaryRef dict, PLStringRef key, std::uint8_t value);

// True only for a number value; *out = the number as a 32-bit integer
// (truncated toward zero, saturated), else 0.
QUILL_EXPORT bool PLDictGetInt(PLDictionaryRef dict, PLStringRef key, std::int32_t* out) noexcept;
// Stores a 32-bit integer number.
QUILL_EXPORT void PLDictSetInt(PLMutableDictionaryRef dict, PLStringRef key, std::int32_t value);

// True only for a number value; *out = the number as a double, else 0.0.
QUILL_EXPORT bool PLDictGetDouble(PLDictionaryRef dict, PLStringRef key, double* out) noexcept;
// Stores a 64-bit floating-point number.
QUILL_EXPORT void PLDictSetDouble(PLMutableDictionaryRef dict, PLStringRef key, double value);

// True only for a string value; *out = the string (borrowed), else null.
QUILL_EXPORT bool PLDictGetString(PLDictionaryRef dict, PLStringRef key, PLStringRef* out) noexcept;
// PLDictSet with a string; null removes the key.
QUILL_EXPORT void PLDictSetString(PLMutableDictionaryRef dict, PLStringRef key, PLStringRef value);

// True only for a URL value; *out = the URL (borrowed), else null.
QUILL_EXPORT bool PLDictGetURL(PLDictionaryRef dict, PLStringRef key, PLURLRef* out) noexcept;
// PLDictSet with a URL; null removes the key.
QUILL_EXPORT void PLDictSetURL(PLMutableDictionaryRef dict, PLStringRef key, PLURLRef value);

// ---------------------------------------------------------------- arrays
//
// The integer helpers compare elements by value equality, so the integer 5
// matches any number equal to 5 (5.0 included).

// A new empty mutable array.
QUILL_EXPORT PLHolder<PLMutableArray> PLArrayMakeMutable();
// A new mutable shallow copy of `array` (an empty one when `array` is null).
QUILL_EXPORT PLHolder<PLMutableArray> PLArrayMakeMutableCopy(PLArrayRef array);

// Whether some element equals `value`.
QUILL_EXPORT bool PLArrayContainsInt(PLArrayRef array, std::int32_t value);
// Index of the first element equal to `value`; -1 when there is none.
QUILL_EXPORT std::int32_t PLArrayFindInt(PLArrayRef array, std::int32_t value);
// Number of elements equal to `value`.
QUILL_EXPORT std::int32_t PLArrayGetCountOfIntVal(PLArrayRef array, std::int32_t value);
// False, leaving *out untouched, when `index` is negative or not below the
// count or the element is not a number; else *out = the element as a 32-bit
// integer and true.
QUILL_EXPORT bool PLArrayGetIntAtIndex(PLArrayRef array, std::int32_t index, std::int32_t* out) noexcept;
// Appends `value` unless an equal element exists (set semantics); true when
// it was appended.
QUILL_EXPORT bool PLArrayAddInt(PLMutableArrayRef array, std::int32_t value);
// Appends `value`, duplicates allowed.
QUILL_EXPORT void PLArrayAppendInt(PLMutableArrayRef array, std::int32_t value);
// Removes the first element equal to `value`; true when one was removed.
QUILL_EXPORT bool PLArrayRemoveInt(PLMutableArrayRef array, std::int32_t value);
// False when `index` is negative or not below the count; else removes the
// element and returns true.
QUILL_EXPORT bool PLArrayRemoveValueAtIndex(PLMutableArrayRef array, std::int32_t index) noexcept;

// ---------------------------------------------------------------- host

// Writes `text` as one entry of the system console log (not the cluster log).
// A null text writes nothing.
QUILL_EXPORT void LogToConsole(const char* text) noexcept;

// All names of this host, in the order the host reports them (primary
// first); null, not an empty array, when it reports none.
QUILL_EXPORT PLHolder<PLMutableArray> HostNames();
// The primary name of this host; null when it has none.
QUILL_EXPORT PLHolder<const PLString> HostName();
// All network addresses of this host as strings, primary first; null when
// there are none.
QUILL_EXPORT PLHolder<PLMutableArray> HostAddresses();
// The primary address of this host; null when it has none.
QUILL_EXPORT PLHolder<const PLString> HostAddress();

// ---------------------------------------------------------------- files

// Writes the bytes of `data` to the file-system path of `url`, replacing the
// file. With `atomically`, the bytes go to a new file in the same directory
// that is then renamed over the target, so readers see the old file or the
// new one, never a part. False when `data` or `url` is null, the URL is not a
// file URL or has no path, or the write fails (a failed atomic write leaves
// the target as it was).
QUILL_EXPORT bool PLDataWriteToURL(PLDataRef data, PLURLRef url, bool atomically) noexcept;

}  // namespace quill::PLUtil
