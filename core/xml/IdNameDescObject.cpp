#include "core/xml/IdNameDescObject.h"

namespace VeskCore {

CIdNameDescObject::CIdNameDescObject() : CIdNameObject(true) {
    AddAttribute("description", &description, "");
}

}  // namespace VeskCore
