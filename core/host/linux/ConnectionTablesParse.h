// The texts and messages Linux describes sockets and processes in, read
// without any I/O so that literal samples (and a fuzzer) can drive them:
// sock_diag dump replies, /proc/net/{tcp,udp}[6] lines, and the /proc
// entries that name a socket's owner.
//
// Every parser takes untrusted bytes with their length and never reads
// outside them. Thread safety: no shared state.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace VeskCore {
namespace LinuxSockets {

// One socket as the kernel lists it.
struct RawSocket {
    int family = 0;                // AF_INET or AF_INET6
    unsigned char local[16] = {};  // network byte order; IPv4 uses the first 4 bytes
    unsigned char remote[16] = {};
    uint16_t localPort = 0;  // host byte order
    uint16_t remotePort = 0;
    unsigned state = 0;  // the kernel's TCP state numbers (UDP: 7 unconnected, 1 connected)
    uint32_t uid = 0;
    uint64_t inode = 0;
};

constexpr unsigned kTcpListen = 10;

enum class DiagWalk {
    More,    // the dump goes on in the next datagram
    Done,    // NLMSG_DONE seen
    Failed,  // an NLMSG_ERROR (its errno in `error`) or a malformed message
};

// Walks one datagram of an inet_diag dump reply, appending each socket of
// the right `family`. Messages of another sequence number are skipped.
DiagWalk WalkDiagMessages(const void* data, size_t length, uint32_t sequence, int family,
                          std::vector<RawSocket>& sockets, int& error);

// One line of /proc/net/{tcp,udp} (`ipv6` false) or {tcp6,udp6}. False for
// the header line and for anything else that is not a socket line.
bool ParseProcNetLine(std::string_view line, bool ipv6, RawSocket& socket);

// The inode of an fd link's text "socket:[12345]"; 0 for any other text.
uint64_t ParseSocketInode(std::string_view link);

// From /proc/PID/stat: the name between the first "(" and the last ")", and
// field 22, the start in clock ticks after boot.
bool ParseProcessStat(std::string_view stat, std::string& name, unsigned long long& startTicks);

// "btime" of /proc/stat, seconds since the epoch; 0 when absent.
long long ParseBootTime(std::string_view stat);

// The effective user and group of /proc/PID/status ("Uid:" and "Gid:",
// second field).
bool ParseStatusIds(std::string_view status, uid_t& uid, gid_t& gid);

}  // namespace LinuxSockets
}  // namespace VeskCore
