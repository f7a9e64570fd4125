// Paths of the record files (private to the records).
#pragma once

#include <quillcore/platform/PLObject.h>
#include <quillcore/util/CFileUtil.h>

namespace quill::records {

// A shared path constant with its leading "~/" expanded against the current
// home directory; null when there is no home directory (the base class then
// refuses the null path).
inline PLHolder<const PLString> expandedPath(PLStringRef path) { return CFileUtil::expandTildeInPath(path); }
inline PLHolder<const PLString> expandedPath(const char* path) { return expandedPath(PLString::create(path).get()); }

}  // namespace quill::records
