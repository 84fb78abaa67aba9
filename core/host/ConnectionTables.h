// The kernel's tables of TCP listeners and UDP endpoints, IPv4 and IPv6, as
// vectors that the caller sorts, with, on request, who owns each socket.
//
// The entry classes keep one byte layout: addresses as the kernel gives them
// (network byte order), then ports in host byte order. operator< compares
// those bytes unsigned, low address first, so ports order by their low byte
// on this machine; the order need only be the same on every run.
//
// Thread safety: the functions keep no state; entries are plain values.
#pragma once

#include <netinet/in.h>
#include <wx/string.h>

#include <cstdint>
#include <vector>

#include "core/common/Export.h"

namespace VeskCore {

struct VESK_EXPORT CConnectionTableEntry {
    in_addr localAddress{};
    in_addr remoteAddress{};
    uint16_t localPort = 0;
    uint16_t remotePort = 0;

    bool operator<(const CConnectionTableEntry& other) const;
};

struct VESK_EXPORT CConnectionTableEntryV6 {
    in6_addr localAddress{};
    in6_addr remoteAddress{};
    uint16_t localPort = 0;
    uint16_t remotePort = 0;

    bool operator<(const CConnectionTableEntryV6& other) const;
};

// What is known of a socket's owner; empty (and 0) where the caller may not
// look. `created` is the process's start, in milliseconds since the epoch.
struct VESK_EXPORT CConnectionInfo {
    long long created = 0;
    wxString groupId;
    wxString group;
    wxString path;     // the executable
    wxString process;  // the process name (comm)
    long long processId = 0;
    wxString userId;
    wxString user;

    // created, processId (signed), then the texts exactly, in field order.
    bool operator<(const CConnectionInfo& other) const;
};

struct VESK_EXPORT CConnectionTableEntryEx : CConnectionTableEntry, CConnectionInfo {
    // The address bytes; the owner when they are equal.
    bool operator<(const CConnectionTableEntryEx& other) const;
};

struct VESK_EXPORT CConnectionTableEntryExV6 : CConnectionTableEntryV6, CConnectionInfo {
    bool operator<(const CConnectionTableEntryExV6& other) const;
};

// Both vectors are cleared, then filled in kernel order: TCP sockets in the
// listening state, UDP sockets in any state. With `detailed`, each entry's
// owner is filled where this process may see it. True only when both IP
// versions were read; a kernel without IPv6 gives an empty IPv6 table.
// Failures are logged; entries read before one stay.
VESK_EXPORT bool GetTcpTable(bool detailed, std::vector<CConnectionTableEntryEx>& ipv4Table,
                             std::vector<CConnectionTableEntryExV6>& ipv6Table);
VESK_EXPORT bool GetUdpTable(bool detailed, std::vector<CConnectionTableEntryEx>& ipv4Table,
                             std::vector<CConnectionTableEntryExV6>& ipv6Table);

}  // namespace VeskCore
