// A keyed record with a name.
#pragma once

#include "core/xml/IdObject.h"

namespace VeskCore {

class VESK_EXPORT CIdNameObject : public CIdObject {
  public:
    explicit CIdNameObject(bool strict);

    wxString name;
};

}  // namespace VeskCore
