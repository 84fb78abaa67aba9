#include "core/host/linux/ConnectionTablesParse.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace VeskCore {
namespace LinuxSockets {

namespace {

// Copies, never casts: a datagram (or a fuzzer's bytes) need not be aligned.
template <class T>
T Read(const unsigned char* at) {
    T value;
    memcpy(&value, at, sizeof value);
    return value;
}

uint16_t FromNetwork16(uint16_t value) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&value);
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

RawSocket FromDiag(const inet_diag_msg& message) {
    RawSocket socket;
    socket.family = message.idiag_family;
    socket.state = message.idiag_state;
    memcpy(socket.local, message.id.idiag_src, sizeof socket.local);
    memcpy(socket.remote, message.id.idiag_dst, sizeof socket.remote);
    socket.localPort = FromNetwork16(message.id.idiag_sport);
    socket.remotePort = FromNetwork16(message.id.idiag_dport);
    socket.uid = message.idiag_uid;
    socket.inode = message.idiag_inode;
    return socket;
}

// Strict hexadecimal of 1 to `maxDigits` digits.
bool Hex(std::string_view text, size_t maxDigits, unsigned long long& value) {
    if (text.empty() || text.size() > maxDigits)
        return false;
    value = 0;
    for (const char c : text) {
        unsigned digit;
        if (c >= '0' && c <= '9')
            digit = static_cast<unsigned>(c - '0');
        else if (c >= 'A' && c <= 'F')
            digit = static_cast<unsigned>(c - 'A' + 10);
        else if (c >= 'a' && c <= 'f')
            digit = static_cast<unsigned>(c - 'a' + 10);
        else
            return false;
        value = value << 4 | digit;
    }
    return true;
}

bool Decimal(std::string_view text, unsigned long long& value) {
    if (text.empty() || text.size() > 19)
        return false;
    value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9')
            return false;
        value = value * 10 + static_cast<unsigned>(c - '0');
    }
    return true;
}

// The kernel prints each 32-bit word of an address as the native integer
// ("%08X"), so the bytes come back in memory order through the same integer.
bool Endpoint(std::string_view text, bool ipv6, unsigned char* address, uint16_t& port) {
    const size_t colon = text.find(':');
    const size_t words = ipv6 ? 4 : 1;
    if (colon != words * 8)
        return false;
    for (size_t i = 0; i < words; ++i) {
        unsigned long long word;
        if (!Hex(text.substr(i * 8, 8), 8, word))
            return false;
        const auto native = static_cast<uint32_t>(word);
        memcpy(address + i * 4, &native, 4);
    }
    unsigned long long value;
    if (!Hex(text.substr(colon + 1), 4, value))
        return false;
    port = static_cast<uint16_t>(value);
    return true;
}

std::vector<std::string_view> Fields(std::string_view line, size_t most) {
    std::vector<std::string_view> fields;
    size_t at = 0;
    while (fields.size() < most) {
        at = line.find_first_not_of(" \t", at);
        if (at == std::string_view::npos)
            break;
        const size_t end = std::min(line.find_first_of(" \t", at), line.size());
        fields.push_back(line.substr(at, end - at));
        at = end;
    }
    return fields;
}

// The value after `key` at the start of a line of `text`.
std::string_view LineValue(std::string_view text, std::string_view key) {
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        const std::string_view line = text.substr(at, end - at);
        if (line.substr(0, key.size()) == key)
            return line.substr(key.size());
        at = end + 1;
    }
    return {};
}

}  // namespace

DiagWalk WalkDiagMessages(const void* data, size_t length, uint32_t sequence, int family,
                          std::vector<RawSocket>& sockets, int& error) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    size_t offset = 0;
    while (length - offset >= sizeof(nlmsghdr)) {
        const auto header = Read<nlmsghdr>(bytes + offset);
        if (header.nlmsg_len < sizeof header || header.nlmsg_len > length - offset) {
            error = EBADMSG;
            return DiagWalk::Failed;
        }
        const unsigned char* payload = bytes + offset + NLMSG_HDRLEN;
        const size_t payloadLength =
            header.nlmsg_len - std::min<size_t>(header.nlmsg_len, NLMSG_HDRLEN);
        offset += std::min<size_t>(NLMSG_ALIGN(header.nlmsg_len), length - offset);
        if (header.nlmsg_seq != sequence)
            continue;
        if (header.nlmsg_type == NLMSG_DONE)
            return DiagWalk::Done;
        if (header.nlmsg_type == NLMSG_ERROR) {
            const int code = payloadLength >= sizeof(int) ? Read<int>(payload) : -EBADMSG;
            if (code == 0)
                continue;  // an acknowledgement, not a failure
            // Only the kernel's own error numbers are taken: -INT_MIN has no int.
            error = code < 0 && code > -4096 ? -code : EBADMSG;
            return DiagWalk::Failed;
        }
        if (header.nlmsg_type != SOCK_DIAG_BY_FAMILY || payloadLength < sizeof(inet_diag_msg))
            continue;
        const RawSocket socket = FromDiag(Read<inet_diag_msg>(payload));
        if (socket.family == family)
            sockets.push_back(socket);
    }
    return DiagWalk::More;
}

bool ParseProcNetLine(std::string_view line, bool ipv6, RawSocket& socket) {
    // sl local remote st tx:rx tr:when retrnsmt uid timeout inode ...
    const std::vector<std::string_view> fields = Fields(line, 10);
    if (fields.size() < 10 || fields[0].empty() || fields[0].back() != ':')
        return false;
    RawSocket parsed;
    parsed.family = ipv6 ? AF_INET6 : AF_INET;
    unsigned long long state, uid, inode;
    if (!Endpoint(fields[1], ipv6, parsed.local, parsed.localPort) ||
        !Endpoint(fields[2], ipv6, parsed.remote, parsed.remotePort) || !Hex(fields[3], 2, state) ||
        !Decimal(fields[7], uid) || uid > UINT32_MAX || !Decimal(fields[9], inode))
        return false;
    parsed.state = static_cast<unsigned>(state);
    parsed.uid = static_cast<uint32_t>(uid);
    parsed.inode = inode;
    socket = parsed;
    return true;
}

uint64_t ParseSocketInode(std::string_view link) {
    constexpr std::string_view prefix = "socket:[";
    unsigned long long inode;
    if (link.size() < prefix.size() + 2 || link.substr(0, prefix.size()) != prefix ||
        link.back() != ']' ||
        !Decimal(link.substr(prefix.size(), link.size() - prefix.size() - 1), inode))
        return 0;
    return inode;
}

bool ParseProcessStat(std::string_view stat, std::string& name, unsigned long long& startTicks) {
    const size_t open = stat.find('(');
    const size_t close = stat.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open)
        return false;
    // Fields from the third ("state") on; the start time is field 22.
    const std::vector<std::string_view> fields = Fields(stat.substr(close + 1), 20);
    if (fields.size() < 20 || !Decimal(fields[19], startTicks))
        return false;
    name.assign(stat.substr(open + 1, close - open - 1));
    return true;
}

long long ParseBootTime(std::string_view stat) {
    const std::vector<std::string_view> fields = Fields(LineValue(stat, "btime "), 1);
    unsigned long long seconds;
    return !fields.empty() && Decimal(fields[0], seconds) && seconds <= INT64_MAX / 1000
               ? static_cast<long long>(seconds)
               : 0;
}

bool ParseStatusIds(std::string_view status, uid_t& uid, gid_t& gid) {
    const std::vector<std::string_view> users = Fields(LineValue(status, "Uid:"), 2);
    const std::vector<std::string_view> groups = Fields(LineValue(status, "Gid:"), 2);
    unsigned long long user, group;
    if (users.size() < 2 || groups.size() < 2 || !Decimal(users[1], user) ||
        !Decimal(groups[1], group) || user > UINT32_MAX || group > UINT32_MAX)
        return false;
    uid = static_cast<uid_t>(user);
    gid = static_cast<gid_t>(group);
    return true;
}

}  // namespace LinuxSockets
}  // namespace VeskCore
