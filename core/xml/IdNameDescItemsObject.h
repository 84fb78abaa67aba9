// A keyed, named record with a description and an item list in one text.
#pragma once

#include "core/xml/IdNameDescObject.h"

namespace VeskCore {

class VESK_EXPORT CIdNameDescItemsObject : public CIdNameDescObject {
  public:
    CIdNameDescItemsObject();

    wxString items;
};

}  // namespace VeskCore
