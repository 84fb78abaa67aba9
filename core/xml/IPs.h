// The addresses of a network interface: <IPs><IP .../>...</IPs>.
#pragma once

#include "core/xml/IP.h"
#include "core/xml/RecordList.h"

namespace VeskCore {

class VESK_EXPORT CIPs : public RecordList<CIP> {
  public:
    static wxString ElementName() { return wxS("IPs"); }
    wxString GetElementName() const override { return ElementName(); }
};

}  // namespace VeskCore
