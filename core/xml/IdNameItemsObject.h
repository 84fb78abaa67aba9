// A keyed, named record with an item list in one text.
#pragma once

#include "core/xml/IdNameObject.h"

namespace VeskCore {

class VESK_EXPORT CIdNameItemsObject : public CIdNameObject {
  public:
    CIdNameItemsObject();

    wxString items;
};

}  // namespace VeskCore
