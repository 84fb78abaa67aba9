// A keyed, named record with a description.
#pragma once

#include "core/xml/IdNameObject.h"

namespace VeskCore {

class VESK_EXPORT CIdNameDescObject : public CIdNameObject {
  public:
    CIdNameDescObject();

    wxString description;
};

}  // namespace VeskCore
