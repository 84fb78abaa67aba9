// A network interface of the host, with its addresses. The hardware address
// is kept as bytes (macBinary, the truth) and as text (the "mac" attribute),
// kept in step when a record is read and before it is written.
#pragma once

#include <string>

#include "core/xml/IPs.h"
#include "core/xml/IdNameObject.h"

namespace VeskCore {

class VESK_EXPORT CInterface : public CIdNameObject {
  public:
    CInterface();

    static wxString ElementName() { return wxS("Interface"); }
    wxString GetElementName() const override { return ElementName(); }

    // Stores the hardware address and its text form ("00:1A:2B:...").
    void SetMACBinary(const std::string& bytes);
    void SetMACBinary(const void* bytes, unsigned long length);

    // The bytes follow the text that arrived (XML or SQL).
    bool EndAttributes() override;
    // The text follows the bytes.
    void BeforePrint() override;

    bool notAvailable = false;
    wxString bridgeName;
    bool dhcp = false;
    int typeId = 0;
    wxString typeName;
    wxString mac;
    int virtualDeviceKey = 0;
    CIPs ips;  // a member, written inside the element; never deleted as a child
    std::string macBinary;
};

}  // namespace VeskCore
