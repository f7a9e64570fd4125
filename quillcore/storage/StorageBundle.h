// The library's bundle as shared storage keeps it (ISharedStorage.cpp).
#pragma once

#include <quillcore/export.h>

namespace quill::storage::detail {

// Forgets the bundle found by localizedStringForKey(), so that the next call
// looks it up again; for tests that install and remove fake bundles.
QUILL_EXPORT void forgetLibraryBundle();

}  // namespace quill::storage::detail
