#include "core/host/PlatformInterfaces.h"

#include <wx/log.h>

#include <map>

namespace VeskCore {
namespace {

CInterface* NewInterface(const InterfaceAddress& entry, bool detailed) {
    auto* record = new CInterface;
    record->name = wxString::FromUTF8(entry.name);
    record->SetAttributeNull(&record->name, false);
    record->id = 0;
    record->SetAttributeNull(&record->id, false);
    if (!entry.hardware.empty())
        record->SetMACBinary(entry.hardware);
    if (detailed) {
        record->dhcp = entry.dynamic;
        record->SetAttributeNull(&record->dhcp, false);
    }
    return record;
}

void AddAddress(CInterface& record, const std::string& address) {
    if (address.empty() || address == "0.0.0.0")
        return;
    auto* ip = new CIP;
    ip->ipAddress = wxString::FromUTF8(address);
    ip->SetAttributeNull(&ip->ipAddress, false);
    record.ips.AddChild(ip);
}

}  // namespace

// Linux lists a logical interface once per address; the records stay one per
// name, with each address in its list.
void BuildInterfaces(const std::vector<InterfaceAddress>& entries, bool detailed,
                     CInterfaces& interfaces) {
    std::map<std::string, CInterface*> byName;
    for (const InterfaceAddress& entry : entries) {
        if (!entry.up || entry.loopback)
            continue;
        CInterface*& record = byName[entry.name];
        if (record == nullptr) {
            record = NewInterface(entry, detailed);
            interfaces.AddChild(record);
        }
        if (detailed)
            AddAddress(*record, entry.address);
    }
}

bool GetBiosUuid(wxString&) {
    wxLogError(wxS("This function is not implemented."));
    return false;
}

}  // namespace VeskCore
