#include "core/xml/IdNameItemsObject.h"

namespace VeskCore {

CIdNameItemsObject::CIdNameItemsObject() : CIdNameObject(true) {
    AddAttribute("items", &items, "");
}

}  // namespace VeskCore
