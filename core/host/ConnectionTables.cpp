#include "core/host/ConnectionTables.h"

#include <cstring>

namespace VeskCore {

// The order compares the fields as one run of bytes: no padding may hide in it.
static_assert(sizeof(CConnectionTableEntry) == 12, "IPv4 entry layout");
static_assert(sizeof(CConnectionTableEntryV6) == 36, "IPv6 entry layout");

bool CConnectionTableEntry::operator<(const CConnectionTableEntry& other) const {
    return memcmp(this, &other, sizeof *this) < 0;
}

bool CConnectionTableEntryV6::operator<(const CConnectionTableEntryV6& other) const {
    return memcmp(this, &other, sizeof *this) < 0;
}

bool CConnectionInfo::operator<(const CConnectionInfo& other) const {
    if (created != other.created)
        return created < other.created;
    if (processId != other.processId)
        return processId < other.processId;
    const wxString CConnectionInfo::*texts[] = {
        &CConnectionInfo::groupId, &CConnectionInfo::group,  &CConnectionInfo::path,
        &CConnectionInfo::process, &CConnectionInfo::userId, &CConnectionInfo::user};
    for (const auto text : texts) {
        const int order = (this->*text).compare(other.*text);
        if (order != 0)
            return order < 0;
    }
    return false;
}

namespace {

template <class Entry, class Address>
bool ExLess(const Entry& a, const Entry& b) {
    const auto& left = static_cast<const Address&>(a);
    const auto& right = static_cast<const Address&>(b);
    if (left < right)
        return true;
    if (right < left)
        return false;
    return static_cast<const CConnectionInfo&>(a) < static_cast<const CConnectionInfo&>(b);
}

}  // namespace

bool CConnectionTableEntryEx::operator<(const CConnectionTableEntryEx& other) const {
    return ExLess<CConnectionTableEntryEx, CConnectionTableEntry>(*this, other);
}

bool CConnectionTableEntryExV6::operator<(const CConnectionTableEntryExV6& other) const {
    return ExLess<CConnectionTableEntryExV6, CConnectionTableEntryV6>(*this, other);
}

}  // namespace VeskCore
