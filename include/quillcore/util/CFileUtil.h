// Process-level helpers: the limit on open files, the user's home and
// temporary directories, and expansion of a leading "~/".
//
// They exist twice: as exported plain functions with C linkage for programs
// outside the library, and as static members of CFileUtil that forward to
// them. The plain functions return new string references raw (the caller owns
// one reference and adopts it, PLHolder<const PLString>::adopt(...)); the
// CFileUtil members return holders.
//
// Threads. All may be called from any thread. Changing the limit is not
// atomic with respect to other threads changing it at the same time. Home
// directory lookups are serialised (one caller at a time).
//
// Errors. None throws. Limit failures are written to standard error, with the
// process ID in brackets, and reported as -1; the string functions return null
// when there is no answer or memory runs out.
#pragma once

#include <quillcore/export.h>
#include <quillcore/platform/PLObject.h>

// The number of files the process may open (soft RLIMIT_NOFILE); -1 when it
// cannot be read. "No limit" reads as the largest 64-bit signed value.
QUILL_EXTERN_C QUILL_EXPORT long getMaxOpenFiles() noexcept;
QUILL_EXTERN_C QUILL_EXPORT long QuillGetMaxOpenFiles() noexcept;

// Raises the soft limit on open files to `limit` and returns the soft limit
// that results, or -1 on failure. Never lowers the limit: when the soft limit
// is already at least `limit` it is returned as it is. When `limit` is above a
// finite hard limit, the soft limit is returned unchanged, without an error
// and without raising it as far as the hard limit would allow.
QUILL_EXTERN_C QUILL_EXPORT long setMaxOpenFiles(long limit) noexcept;
QUILL_EXTERN_C QUILL_EXPORT long QuillSetMaxOpenFiles(long limit) noexcept;
// setMaxOpenFiles(2048).
QUILL_EXTERN_C QUILL_EXPORT long QuillSetDefaultMaxOpenFiles() noexcept;

// The current user's home directory ($HOME, else the user database); null
// when it cannot be found. New reference.
QUILL_EXTERN_C QUILL_EXPORT const PLString* QuillGetHomeDirectory() noexcept;
// The user's temporary directory ($TMPDIR, else "/tmp"), always ending with
// "/" so that names can be joined directly. New reference.
QUILL_EXTERN_C QUILL_EXPORT const PLString* QuillGetTemporaryDirectory() noexcept;
// For a path starting with "~/": the home directory followed by the path
// without its "~" (null when the home directory cannot be found). Any other
// path, a lone "~" and "~user/..." included, is returned as it is. A null
// path gives null. New reference.
QUILL_EXTERN_C QUILL_EXPORT const PLString* QuillExpandTildeInPath(const PLString* path) noexcept;

namespace quill {

// The same helpers for C++ callers; each forwards to the plain function above.
class QUILL_EXPORT CFileUtil final {
public:
    CFileUtil() = delete;

    static long getMaxOpenFiles() noexcept;
    static long setMaxOpenFiles(long limit) noexcept;
    static long setDefaultMaxOpenFiles() noexcept;
    static PLHolder<const PLString> getHomeDirectory() noexcept;
    static PLHolder<const PLString> getTemporaryDirectory() noexcept;
    static PLHolder<const PLString> expandTildeInPath(PLStringRef path) noexcept;
};

}  // namespace quill
