// "%.3lf"-style text of seconds, fast and exactly as printf gives it: shared
// by the time stamps and the log records. Not installed; exported so that the
// logger and the tests can use it.
#pragma once

#include <string>

#include <quillcore/export.h>

namespace quill::decimal {

// Appends "%.3lf" of `value`, zero-padded to `width` characters as "%0*.3lf"
// would.
QUILL_EXPORT void appendFixed3(std::string& out, double value, int width = 0);

}  // namespace quill::decimal
