// How a path is written in the host's NFS exports file (exports(5) on
// Linux): the first field of a line, with every byte that would end the
// field, start a comment or be taken as an escape written as a backslash and
// three octal digits.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <quillcore/export.h>

// Exported for the tests and the fuzz targets only; not part of the installed
// interface.
namespace quill::storage::exportsfile {

// The longest path the NFS tools read from an exports file (their
// NFS_MAXPATHLEN). A longer one does not fail alone: exportfs silently drops
// its line and every line after it.
inline constexpr std::size_t kMaxExportPathLength = 1024;

// Whether `path` can stand in an exports file and mean itself. False when it
// is empty, longer than kMaxExportPathLength bytes or holds a NUL byte, or a
// backslash followed by three octal digits: the NFS tools decode such a
// sequence more than once, so whatever it is escaped as, the server would
// export another path.
QUILL_EXPORT bool isFaithfullyExportable(std::string_view path) noexcept;

// `path` as the first field of an exports line: white space, control
// characters (0x01-0x1f, 0x7f), '"', '\\' and '#' as "\ooo"; every other byte
// (UTF-8 or not) as it is. The result never holds white space, a quote or a
// line break, so it can neither end the line nor add a field. The caller
// checks isFaithfullyExportable() first; for a path that fails it the result
// is well-formed but names another path.
QUILL_EXPORT std::string escapePath(std::string_view path);

// The path an escaped field stands for: "\ooo" sequences (three octal digits,
// value 1-255) become their byte, everything else stays. The inverse of
// escapePath() for every path that isFaithfullyExportable().
QUILL_EXPORT std::string unescapePath(std::string_view field);

}  // namespace quill::storage::exportsfile
