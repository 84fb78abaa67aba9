#include "core/xml/Interface.h"

#include "core/common/HexCodec.h"

namespace VeskCore {

CInterface::CInterface() : CIdNameObject(true) {
    AddAttribute("notAvailable", &notAvailable, false);
    AddAttribute("bridgeName", &bridgeName, "");
    AddAttribute("dhcp", &dhcp, false);
    AddAttribute("typeId", &typeId, 0, false);
    AddAttribute("typeName", &typeName, "");
    AddAttribute("mac", &mac, "");
    AddAttribute("virtualDeviceKey", &virtualDeviceKey, 0, false);
    AddChild(&ips);
}

void CInterface::SetMACBinary(const std::string& bytes) {
    macBinary = bytes;
    mac = toHexString(bytes, false);
    SetAttributeNull(&mac, false);
}

void CInterface::SetMACBinary(const void* bytes, unsigned long length) {
    SetMACBinary(std::string(static_cast<const char*>(bytes), length));
}

bool CInterface::EndAttributes() {
    macBinary = fromHexString(mac);
    return true;
}

void CInterface::BeforePrint() {
    mac = toHexString(macBinary, false);
    SetAttributeNull(&mac, false);
}

}  // namespace VeskCore
