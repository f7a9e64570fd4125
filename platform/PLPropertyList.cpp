// Entry points of the property-list readers: the format is told by content.
#include <cstring>

#include "platform/PLPropertyListReaders.h"
#include <quillcore/platform/PLPropertyList.h>

namespace {

constexpr char kBinaryMagic[] = "bplist";

}  // namespace

PLHolder<const PLObject> PLPropertyListCreateFromBytes(const void* bytes, std::size_t size, PLMutability mutability,
                                                       std::string* errorDescription, PLPropertyListFormat* format) {
    const bool binary =
        size >= sizeof(kBinaryMagic) - 1 && std::memcmp(bytes, kBinaryMagic, sizeof(kBinaryMagic) - 1) == 0;
    if (format) *format = binary ? PLPropertyListFormat::Binary : PLPropertyListFormat::XML;
    if (size == 0 || !bytes) {
        if (errorDescription) *errorDescription = "empty input: not a property list";
        return nullptr;
    }
    return binary ? plimpl::readBinary(bytes, size, mutability, errorDescription)
                  : plimpl::readXML(bytes, size, mutability, errorDescription);
}

PLHolder<const PLObject> PLPropertyListCreateFromXMLData(const PLData* data, PLMutability mutability,
                                                         PLHolder<const PLString>* errorDescription) {
    std::string error;
    PLHolder<const PLObject> plist;
    if (!data)
        error = "no data: not a property list";
    else
        plist = PLPropertyListCreateFromBytes(data->bytes(), data->size(), mutability, &error);
    if (errorDescription) {
        if (plist)
            errorDescription->reset();
        else
            *errorDescription = PLString::create(error);
    }
    return plist;
}
