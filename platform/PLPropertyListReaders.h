// The two property-list readers behind PLPropertyListCreateFromBytes. Each
// returns null and sets *error (when given) to the whole description on
// failure.
#pragma once

#include <cstddef>
#include <string>

#include <quillcore/platform/PLObject.h>
#include <quillcore/platform/export.h>

namespace plimpl {

// expat takes int lengths, so a document is fed to it in pieces of at most
// `piece` bytes; tests pass small pieces to put the seams anywhere.
inline constexpr std::size_t kXMLPiece = std::size_t{1} << 30;
QUILL_PLATFORM_EXPORT PLHolder<const PLObject> readXML(const void* bytes, std::size_t size, PLMutability mutability,
                                                       std::string* error, std::size_t piece = kXMLPiece);
PLHolder<const PLObject> readBinary(const void* bytes, std::size_t size, PLMutability mutability, std::string* error);

}  // namespace plimpl
