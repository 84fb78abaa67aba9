// The addresses of a network interface: <IPs><IP .../>...</IPs>.
#pragma once

#include "core/xml/IP.h"
#include "core/xml/XMLObjectList.h"

namespace VeskCore {

class VESK_EXPORT CIPs : public XMLObjectList {
  public:
    CIPs() : XMLObjectList(true, false) {}

    static wxString ElementName() { return wxS("IPs"); }
    wxString GetElementName() const override { return ElementName(); }
    wxString ChildElementName() const override { return CIP::ElementName(); }
    XMLObject* CreateListElement() const override { return new CIP; }
};

}  // namespace VeskCore
