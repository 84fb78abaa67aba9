#include "core/xml/IdNameDescItemsObject.h"

namespace VeskCore {

CIdNameDescItemsObject::CIdNameDescItemsObject() {
    AddAttribute("items", &items, "");
}

}  // namespace VeskCore
