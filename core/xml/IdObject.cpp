#include "core/xml/IdObject.h"

namespace VeskCore {

CIdObject::CIdObject(bool strict) : XMLObject(false, strict) {
    AddAttribute("id", &id, 0, true);
}

}  // namespace VeskCore
