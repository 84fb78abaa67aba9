// The host's network interfaces as the manager sees them: one CInterface
// record per IPv4 logical interface that is up and not loopback (an alias
// label such as "eth0:1" being an interface of its own), with the hardware
// address of its device and, when asked for in detail, its addresses and
// whether they were handed out by DHCP.
//
// Reading the system (Linux: getifaddrs, and a netlink address dump for the
// flags getifaddrs does not give) is kept apart from building the records,
// which tests feed with made-up entries.
//
// Thread safety: every function may be called from any thread.
#pragma once

#include <wx/string.h>

#include <string>
#include <vector>

#include "core/common/Export.h"
#include "core/xml/Interfaces.h"

namespace VeskCore {

// One address entry of the system's list.
struct InterfaceAddress {
    std::string name;      // the logical name, "eth0" or "eth0:1"
    std::string address;   // IPv4, dotted
    std::string hardware;  // the device's hardware address, bytes; may be empty
    bool up = false;
    bool loopback = false;
    bool dynamic = false;  // from DHCP: not marked permanent by the kernel
};

// Fills `interfaces` from the system. `errorCode` and `errorText` are not
// written (a caller's own values stand for a failure). False, logged, when
// the list itself can't be had.
VESK_EXPORT bool GetPlatformInterfaces(CInterfaces& interfaces, bool detailed, int& errorCode,
                                       wxString& errorText);

// Adds the records for `entries` to `interfaces`: one per logical name, in
// the order of the names' first entries; "dhcp" and the addresses only when
// `detailed` ("0.0.0.0" gives no address).
VESK_EXPORT void BuildInterfaces(const std::vector<InterfaceAddress>& entries, bool detailed,
                                 CInterfaces& interfaces);

// The system gives no BIOS identifier here: false, logged.
VESK_EXPORT bool GetBiosUuid(wxString& uuid);

}  // namespace VeskCore
