// Conversions between the base library's strings and runtime strings, for
// the storage classes.
#pragma once

#include <string>
#include <string_view>

#include <ferrocore/CString.h>
#include <quillcore/platform/PLObject.h>

namespace quill::storage {

inline PLHolder<const PLString> plString(const ferrocore::CStringRef& text) {
    return PLString::create(text ? std::string_view(text->utf8()) : std::string_view());
}

inline std::string utf8(const ferrocore::CStringRef& text) { return text ? text->utf8() : std::string(); }

}  // namespace quill::storage
