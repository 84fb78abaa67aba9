// The network interfaces of the host: <Interfaces><Interface .../>...
#pragma once

#include "core/xml/Interface.h"
#include "core/xml/RecordList.h"

namespace VeskCore {

class VESK_EXPORT CInterfaces : public RecordList<CInterface> {
  public:
    static wxString ElementName() { return wxS("Interfaces"); }
    wxString GetElementName() const override { return ElementName(); }
};

}  // namespace VeskCore
