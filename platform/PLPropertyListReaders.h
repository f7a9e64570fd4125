// The two property-list readers behind PLPropertyListCreateFromBytes. Each
// returns null and sets *error (when given) to the whole description on
// failure.
#pragma once

#include <quillcore/platform/PLObject.h>

#include <cstddef>
#include <string>

namespace plimpl {

PLHolder<const PLObject> readXML(const void* bytes, std::size_t size, PLMutability mutability, std::string* error);
PLHolder<const PLObject> readBinary(const void* bytes, std::size_t size, PLMutability mutability,
                                    std::string* error);

}  // namespace plimpl
