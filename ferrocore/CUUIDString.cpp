#include <uuid/uuid.h>

#include <ferrocore/CUUIDString.h>

namespace ferrocore {

CUUIDString::CUUIDString() {
    uuid_t uuid;
    uuid_generate_random(uuid);
    char text[37];
    uuid_unparse_upper(uuid, text);
    _text = text;
}

}  // namespace ferrocore
