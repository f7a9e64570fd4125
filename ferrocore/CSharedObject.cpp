#include <ferrocore/CSharedObject.h>

namespace ferrocore {

CSharedObject::~CSharedObject() = default;

}  // namespace ferrocore
