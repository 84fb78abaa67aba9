// Who holds a socket, found the way Linux lets a process look: the links
// in /proc/PID/fd name socket inodes; /proc/PID/stat, status and exe tell
// the rest. Processes this one may not look into (other users', for an
// agent that is not root) give nothing, so their sockets keep an empty owner.
//
// Thread safety: no shared state; each call reads /proc afresh.
#pragma once

#include <cstdint>
#include <unordered_map>
#include <unordered_set>

#include "core/host/ConnectionTables.h"

namespace VeskCore {
namespace LinuxSockets {

// The owner of each of `inodes` that a visible process holds. A socket
// shared by several processes gets the first one met in /proc's order. The
// walk stops as soon as every inode is found.
std::unordered_map<uint64_t, CConnectionInfo> FindSocketOwners(
    const std::unordered_set<uint64_t>& inodes);

}  // namespace LinuxSockets
}  // namespace VeskCore
