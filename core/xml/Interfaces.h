// The network interfaces of the host: <Interfaces><Interface .../>...
#pragma once

#include "core/xml/Interface.h"
#include "core/xml/XMLObjectList.h"

namespace VeskCore {

class VESK_EXPORT CInterfaces : public XMLObjectList {
  public:
    CInterfaces() : XMLObjectList(true, false) {}

    static wxString ElementName() { return wxS("Interfaces"); }
    wxString GetElementName() const override { return ElementName(); }
    wxString ChildElementName() const override { return CInterface::ElementName(); }
    XMLObject* CreateListElement() const override { return new CInterface; }
};

}  // namespace VeskCore
