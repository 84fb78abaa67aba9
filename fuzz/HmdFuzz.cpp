// What Linux tells the connection tables, one target per build:
// VESK_FUZZ_NETLINK: sock_diag reply datagrams, truncated and garbage
// headers included, walked for both families (the sequence number is the
// first header's, so real dumps are walked whole); otherwise: /proc text,
// each line read as a /proc/net socket line of both families, and the whole
// as the /proc texts that name a socket's owner.
#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "core/host/linux/ConnectionTablesParse.h"

using namespace VeskCore::LinuxSockets;

#ifdef VESK_FUZZ_NETLINK
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    uint32_t sequence = 0;
    if (size >= 12)
        memcpy(&sequence, data + 8, sizeof sequence);
    // A copy of its own size: reading a byte past it is caught.
    const std::vector<uint8_t> datagram(data, data + size);
    for (const int family : {AF_INET, AF_INET6}) {
        std::vector<RawSocket> sockets;
        int error = 0;
        const DiagWalk walk =
            WalkDiagMessages(datagram.data(), datagram.size(), sequence, family, sockets, error);
        if (walk == DiagWalk::Failed && error == 0)
            __builtin_trap();  // a failure always says why
        for (const RawSocket& socket : sockets)
            if (socket.family != family)
                __builtin_trap();
    }
    return 0;
}
#else
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string_view view(text);
    for (size_t at = 0; at <= view.size();) {
        const size_t end = std::min(view.find('\n', at), view.size());
        for (const bool ipv6 : {false, true}) {
            RawSocket socket;
            if (ParseProcNetLine(view.substr(at, end - at), ipv6, socket) &&
                socket.family != (ipv6 ? AF_INET6 : AF_INET))
                __builtin_trap();
        }
        at = end + 1;
    }
    std::string name;
    unsigned long long start = 0;
    ParseProcessStat(view, name, start);
    ParseBootTime(view);
    uid_t uid;
    gid_t gid;
    ParseStatusIds(view, uid, gid);
    ParseSocketInode(view);
    return 0;
}
#endif
