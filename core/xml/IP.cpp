#include "core/xml/IP.h"

namespace VeskCore {

CIP::CIP() : CIdObject(true) {
    AddAttribute("ipAddress", &ipAddress, "");
    AddAttribute("notAvailable", &notAvailable, false);
}

}  // namespace VeskCore
