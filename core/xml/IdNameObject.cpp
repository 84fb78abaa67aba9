#include "core/xml/IdNameObject.h"

namespace VeskCore {

CIdNameObject::CIdNameObject(bool strict) : CIdObject(strict) {
    AddAttribute("name", &name, "");
}

}  // namespace VeskCore
