// One address of a network interface: <IP ipAddress="..." />.
#pragma once

#include "core/xml/IdObject.h"

namespace VeskCore {

class VESK_EXPORT CIP : public CIdObject {
  public:
    CIP();

    static wxString ElementName() { return wxS("IP"); }
    wxString GetElementName() const override { return ElementName(); }

    wxString ipAddress;
    bool notAvailable = false;
};

}  // namespace VeskCore
