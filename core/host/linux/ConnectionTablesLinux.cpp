// The connection tables of Linux: one sock_diag dump per protocol and
// family (the kernel filters TCP to listeners), and /proc/net/{tcp,udp}[6]
// where netlink is refused (a sandbox, a kernel without the diag modules).
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <unordered_set>
#include <vector>

#include "core/common/LogSysError.h"
#include "core/host/ConnectionTables.h"
#include "core/host/linux/ConnectionTablesParse.h"
#include "core/host/linux/ProcFiles.h"
#include "core/host/linux/SocketOwners.h"

namespace VeskCore {

namespace {

using LinuxFiles::UniqueFd;
using LinuxSockets::DiagWalk;
using LinuxSockets::RawSocket;

constexpr uint32_t kAllStates = ~0u;

enum class Dump { Read, Refused };

// Replies of an earlier call (one that gave up) must not be taken for ours.
uint32_t NextSequence() {
    static std::atomic<uint32_t> sequence{static_cast<uint32_t>(time(nullptr))};
    return ++sequence;
}

bool SendDumpRequest(int fd, int family, int protocol, uint32_t states, uint32_t sequence) {
    struct {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } message{};
    message.header.nlmsg_len = sizeof message;
    message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    message.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    message.header.nlmsg_seq = sequence;
    message.request.sdiag_family = static_cast<uint8_t>(family);
    message.request.sdiag_protocol = static_cast<uint8_t>(protocol);
    message.request.idiag_states = states;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    return sendto(fd, &message, sizeof message, 0, reinterpret_cast<sockaddr*>(&kernel),
                  sizeof kernel) == static_cast<ssize_t>(sizeof message);
}

// One family's sockets of one protocol from the kernel, or Refused (with
// nothing appended) when netlink won't give the whole dump.
Dump DumpNetlink(int family, int protocol, uint32_t states, std::vector<RawSocket>& sockets) {
    const UniqueFd fd(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    if (!fd)
        return Dump::Refused;
    const timeval patience{5, 0};  // a kernel that never answers must not hang the agent
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    const uint32_t sequence = NextSequence();
    if (!SendDumpRequest(fd.get(), family, protocol, states, sequence))
        return Dump::Refused;
    std::vector<RawSocket> read;
    std::vector<uint32_t> buffer(16384);  // 64 KiB, aligned for the kernel's messages
    for (;;) {
        const ssize_t got = recv(fd.get(), buffer.data(), buffer.size() * sizeof buffer[0], 0);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return Dump::Refused;
        int error = 0;
        const DiagWalk walk = LinuxSockets::WalkDiagMessages(
            buffer.data(), static_cast<size_t>(got), sequence, family, read, error);
        if (walk == DiagWalk::Failed)
            return Dump::Refused;
        if (walk == DiagWalk::Done)
            break;
    }
    sockets.insert(sockets.end(), read.begin(), read.end());
    return Dump::Read;
}

// The same from /proc/net. A missing IPv6 file is a kernel without IPv6.
bool ReadProcNet(int family, int protocol, std::vector<RawSocket>& sockets) {
    const bool ipv6 = family == AF_INET6;
    const std::string path =
        std::string("/proc/net/") + (protocol == IPPROTO_TCP ? "tcp" : "udp") + (ipv6 ? "6" : "");
    std::string text;
    if (!LinuxFiles::ReadWholeFile(AT_FDCWD, path.c_str(), text, SIZE_MAX)) {
        if (ipv6 && errno == ENOENT)
            return true;
        VESK_LOG_SYS_ERROR(wxS("failed to open %s"), wxString::FromUTF8(path));
        return false;
    }
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        RawSocket socket;
        if (LinuxSockets::ParseProcNetLine(std::string_view(text).substr(at, end - at), ipv6,
                                           socket) &&
            (protocol != IPPROTO_TCP || socket.state == LinuxSockets::kTcpListen))
            sockets.push_back(socket);
        at = end + 1;
    }
    return true;
}

bool ReadFamily(int family, int protocol, std::vector<RawSocket>& sockets) {
    const uint32_t states = protocol == IPPROTO_TCP ? 1u << LinuxSockets::kTcpListen : kAllStates;
    return DumpNetlink(family, protocol, states, sockets) == Dump::Read ||
           ReadProcNet(family, protocol, sockets);
}

template <class Entry>
Entry MakeEntry(const RawSocket& socket) {
    Entry entry;
    memcpy(&entry.localAddress, socket.local, sizeof entry.localAddress);
    memcpy(&entry.remoteAddress, socket.remote, sizeof entry.remoteAddress);
    entry.localPort = socket.localPort;
    entry.remotePort = socket.remotePort;
    return entry;
}

void FillOwners(const std::vector<RawSocket>& sockets, std::vector<CConnectionTableEntryEx>& ipv4,
                std::vector<CConnectionTableEntryExV6>& ipv6) {
    std::unordered_set<uint64_t> inodes;
    for (const RawSocket& socket : sockets)
        if (socket.inode != 0)
            inodes.insert(socket.inode);
    const auto owners = LinuxSockets::FindSocketOwners(inodes);
    size_t v4 = 0, v6 = 0;  // entries stand in the sockets' order, by family
    for (const RawSocket& socket : sockets) {
        const auto owner = owners.find(socket.inode);
        CConnectionInfo* info = socket.family == AF_INET
                                    ? static_cast<CConnectionInfo*>(&ipv4[v4++])
                                    : static_cast<CConnectionInfo*>(&ipv6[v6++]);
        if (owner != owners.end() && socket.inode != 0)
            *info = owner->second;
    }
}

bool GetConnectionTable(int protocol, bool detailed, std::vector<CConnectionTableEntryEx>& ipv4,
                        std::vector<CConnectionTableEntryExV6>& ipv6) {
    ipv4.clear();
    ipv6.clear();
    std::vector<RawSocket> sockets;
    const bool read =
        ReadFamily(AF_INET, protocol, sockets) && ReadFamily(AF_INET6, protocol, sockets);
    for (const RawSocket& socket : sockets) {
        if (socket.family == AF_INET)
            ipv4.push_back(MakeEntry<CConnectionTableEntryEx>(socket));
        else
            ipv6.push_back(MakeEntry<CConnectionTableEntryExV6>(socket));
    }
    if (detailed)
        FillOwners(sockets, ipv4, ipv6);
    return read;
}

}  // namespace

bool GetTcpTable(bool detailed, std::vector<CConnectionTableEntryEx>& ipv4Table,
                 std::vector<CConnectionTableEntryExV6>& ipv6Table) {
    return GetConnectionTable(IPPROTO_TCP, detailed, ipv4Table, ipv6Table);
}

bool GetUdpTable(bool detailed, std::vector<CConnectionTableEntryEx>& ipv4Table,
                 std::vector<CConnectionTableEntryExV6>& ipv6Table) {
    return GetConnectionTable(IPPROTO_UDP, detailed, ipv4Table, ipv6Table);
}

}  // namespace VeskCore
