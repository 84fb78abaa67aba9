// The listening ports against ss, with sockets the test makes in a network
// namespace of its own: listeners on IPv4 and IPv6, a connected TCP pair
// (no entry), a connected UDP socket (an entry), two UDP sockets sharing a
// port. As root every owner is known; as another user (setpriv) only that
// user's, exactly as ss shows them. Also the folding of made-up entries.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "core/host/HmdQueries.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/host/HmdTestSupport.h"
#include "tests/support/Tools.h"

using namespace VeskCore;

namespace {

constexpr const char* kInner = "VESK_HMD_LISTEN_INNER";

// identifier -> the pids ss shows for it, one per socket ("" for none).
using Sockets = std::map<std::string, std::multiset<std::string>>;

std::string Identifier(const std::string& protocol, bool ipv6, std::string local) {
    const size_t colon = local.rfind(':');
    std::string address = local.substr(0, colon);
    address = address.substr(0, address.find('%'));  // "127.0.0.1%lo": bound to a device
    if (address.front() == '[')
        address = address.substr(1, address.size() - 2);
    if (address == "*")
        address = ipv6 ? "::" : "0.0.0.0";
    return protocol + (ipv6 ? "6" : "") + "/" + address + "/" + local.substr(colon + 1);
}

Sockets FromSs() {
    static const std::regex pid("pid=([0-9]+)");
    Sockets sockets;
    for (const char* protocol : {"tcp", "udp"}) {
        for (const bool ipv6 : {false, true}) {
            const std::string command = std::string("ss -H -n -p ") +
                                        (protocol[0] == 't' ? "-lt" : "-ua") +
                                        (ipv6 ? " -6" : " -4");
            std::istringstream lines(VeskTest::ToolOutput(command));
            for (std::string line; std::getline(lines, line);) {
                std::istringstream fields(line);
                std::string state, received, sent, local;
                fields >> state >> received >> sent >> local;
                std::smatch owner;
                sockets[Identifier(protocol, ipv6, local)].insert(
                    std::regex_search(line, owner, pid) ? owner[1].str() : "");
            }
        }
    }
    return sockets;
}

// What GetListenPorts says, in the same form: the pids (or "") once per listener.
Sockets FromQuery(std::map<std::string, std::string>& users) {
    CHostMetaDataQueryResult result;
    EXPECT_TRUE(VeskTest::Query(&GetHmdListenPorts, result, {"x", "detailed"}));
    Sockets sockets;
    for (const XMLObject* child : result.items.GetChildren()) {
        const auto& item = static_cast<const CHostMetaData&>(*child);
        const std::string id = item.identifier.utf8_string();
        const wxString listeners = item.GetAttribute("listeners");
        const size_t count = listeners.empty() ? 1 : std::stoul(listeners.utf8_string());
        const auto* pids = item.attributes.GetAttribute("processId");
        for (size_t i = 0; i < count; ++i)  // merged owners: each pid stands once
            sockets[id].insert(
                pids == nullptr ? ""
                                : pids->value[std::min(i, pids->value.size() - 1)].utf8_string());
        users[id] = item.GetAttribute("user").utf8_string();
    }
    return sockets;
}

int Socket(int family, int type, const char* address, int port, bool listen = false,
           bool reuse = false, int* boundPort = nullptr) {
    const int fd = socket(family, type | SOCK_CLOEXEC, 0);
    const int on = 1;
    if (reuse)
        setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
    sockaddr_storage storage{};
    socklen_t length;
    if (family == AF_INET) {
        auto* in = reinterpret_cast<sockaddr_in*>(&storage);
        in->sin_family = AF_INET;
        in->sin_port = htons(static_cast<uint16_t>(port));
        inet_pton(AF_INET, address, &in->sin_addr);
        length = sizeof *in;
    } else {
        auto* in = reinterpret_cast<sockaddr_in6*>(&storage);
        in->sin6_family = AF_INET6;
        in->sin6_port = htons(static_cast<uint16_t>(port));
        inet_pton(AF_INET6, address, &in->sin6_addr);
        length = sizeof *in;
    }
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&storage), length) != 0 ||
        (listen && ::listen(fd, 8) != 0))
        return -1;
    if (boundPort != nullptr &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&storage), &length) == 0)
        *boundPort =
            ntohs(family == AF_INET ? reinterpret_cast<sockaddr_in*>(&storage)->sin_port
                                    : reinterpret_cast<sockaddr_in6*>(&storage)->sin6_port);
    return fd;
}

bool Connect(int fd, const char* address, int port) {
    sockaddr_in in{};
    in.sin_family = AF_INET;
    in.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, address, &in.sin_addr);
    return connect(fd, reinterpret_cast<sockaddr*>(&in), sizeof in) == 0;
}

// The sockets of the test; the ports it made (the connected client's apart).
struct Made {
    std::set<int> ports;
    int clientPort = 0;
    int sharedUdpPort = 0;
    bool ok = true;
};

Made MakeSockets() {
    Made made;
    int port = 0;
    const auto keep = [&](int fd) {
        made.ok = made.ok && fd >= 0;
        made.ports.insert(port);
        return fd;
    };
    const int listener = keep(Socket(AF_INET, SOCK_STREAM, "127.0.0.1", 0, true, false, &port));
    const int listenerPort = port;
    keep(Socket(AF_INET6, SOCK_STREAM, "::1", 0, true, false, &port));
    keep(Socket(AF_INET6, SOCK_STREAM, "::", 0, true, false, &port));  // dual-stack
    keep(Socket(AF_INET, SOCK_DGRAM, "127.0.0.1", 0, false, true, &port));
    made.sharedUdpPort = port;
    keep(Socket(AF_INET, SOCK_DGRAM, "127.0.0.1", port, false, true));
    keep(Socket(AF_INET6, SOCK_DGRAM, "::1", 0, false, false, &port));
    const int connectedUdp = keep(Socket(AF_INET, SOCK_DGRAM, "127.0.0.1", 0, false, false, &port));
    made.ok = made.ok && Connect(connectedUdp, "127.0.0.1", listenerPort);
    const int client = Socket(AF_INET, SOCK_STREAM, "127.0.0.1", 0, false, false, &made.clientPort);
    made.ok = made.ok && Connect(client, "127.0.0.1", listenerPort) &&
              accept4(listener, nullptr, nullptr, SOCK_CLOEXEC) >= 0;
    return made;  // the sockets stay open until the process ends
}

// "" when the query and ss agree on the sockets (all of them, or those on
// `ports` when not alone in a namespace), else what differs.
std::string Compare(const Made& made, bool alone) {
    if (!made.ok)
        return "could not make the sockets";
    std::map<std::string, std::string> users;
    Sockets ours = FromQuery(users), theirs = FromSs();
    std::ostringstream differences;
    const auto mine = [&](const std::string& id) {
        return alone || made.ports.count(std::stoi(id.substr(id.rfind('/') + 1))) != 0;
    };
    std::set<std::string> ids;
    for (const Sockets* side : {&ours, &theirs})
        for (const auto& [id, pids] : *side)
            if (mine(id))
                ids.insert(id);
    const passwd* me = getpwuid(geteuid());
    for (const std::string& id : ids) {
        const auto pids = [](const std::multiset<std::string>& owners) {
            std::string out;
            for (const std::string& pid : owners)
                out += " [" + pid + "]";
            return out;
        };
        if (ours[id] != theirs[id])
            differences << id << ": here" << pids(ours[id]) << ", in ss" << pids(theirs[id])
                        << "\n";
        if (!ours[id].empty() && *ours[id].begin() == std::to_string(getpid()) &&
            users[id] != me->pw_name)
            differences << id << ": user '" << users[id] << "'\n";
    }
    if (ours.count("tcp/127.0.0.1/" + std::to_string(made.clientPort)) != 0)
        differences << "the connected TCP client has an entry\n";
    if (ours["udp/127.0.0.1/" + std::to_string(made.sharedUdpPort)].size() != 2)
        differences << "the shared UDP port does not count 2 listeners\n";
    return differences.str();
}

bool LoopbackUp() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    strcpy(request.ifr_name, "lo");
    const bool up = fd >= 0 && ioctl(fd, SIOCGIFFLAGS, &request) == 0 &&
                    (request.ifr_flags |= IFF_UP, ioctl(fd, SIOCSIFFLAGS, &request) == 0);
    close(fd);
    return up;
}

// In a namespace of its own: the root's sockets, checked, then (with
// `asNobody`) this test again as user nobody, who adds sockets of its own.
std::string InNamespace(bool asNobody) {
    return VeskTest::InChild([asNobody] {
        if (unshare(CLONE_NEWNET) != 0 || !LoopbackUp())
            return std::string("skip: no network namespace");
        const Made made = MakeSockets();
        if (!asNobody)
            return Compare(made, true);
        char self[4096] = {};
        if (readlink("/proc/self/exe", self, sizeof self - 1) <= 0)
            return std::string("no /proc/self/exe");
        const std::string command =
            std::string(kInner) + "=1 setpriv --reuid=65534 --regid=65534 --clear-groups '" + self +
            "' --gtest_filter=ListenPortsTest.EqualSsAsAnotherUser 2>&1";
        std::string output;
        FILE* inner = popen(command.c_str(), "r");
        char buffer[4096];
        for (size_t got; inner != nullptr && (got = fread(buffer, 1, sizeof buffer, inner)) > 0;)
            output.append(buffer, got);
        const int status = inner != nullptr ? pclose(inner) : -1;
        return status == 0 ? std::string() : "the unprivileged run failed:\n" + output;
    });
}

TEST(ListenPortsTest, EqualSsAsRoot) {
    VESK_SKIP_WITHOUT_TOOLS("ss");
    if (geteuid() != 0)  // no namespace of our own: our sockets among the host's
        GTEST_SKIP() << "runs as root, in a network namespace of its own";
    const std::string differences = InNamespace(false);
    if (differences.rfind("skip: ", 0) == 0)
        GTEST_SKIP() << differences.substr(6);
    EXPECT_EQ(differences, "");
}

TEST(ListenPortsTest, EqualSsAsAnotherUser) {
    VESK_SKIP_WITHOUT_TOOLS("ss");
    if (getenv(kInner) != nullptr || geteuid() != 0) {
        // The unprivileged side: root's sockets (if any) show no owner here or in ss.
        EXPECT_EQ(Compare(MakeSockets(), getenv(kInner) != nullptr), "");
        return;
    }
    VESK_SKIP_WITHOUT_TOOLS("setpriv");
    const std::string differences = InNamespace(true);
    if (differences.rfind("skip: ", 0) == 0)
        GTEST_SKIP() << differences.substr(6);
    EXPECT_EQ(differences, "");
}

// Made-up tables: sockets sharing an address fold into one item whose
// owners merge, and the order of the tables does not change the answer.
TEST(ListenPortsTest, SharedAddressesFoldInOneItem) {
    const auto entry = [](const char* address, uint16_t port, long long pid) {
        CConnectionTableEntryEx e;
        inet_pton(AF_INET, address, &e.localAddress);
        e.localPort = port;
        e.processId = pid;
        e.userId = wxS("0");
        e.process = pid == 0 ? wxString() : wxString::Format(wxS("p%lld"), pid);
        return e;
    };
    CConnectionTableEntryExV6 six;
    inet_pton(AF_INET6, "::1", &six.localAddress);
    six.localPort = 53;
    const std::vector<CConnectionTableEntryEx> table = {
        entry("127.0.0.1", 53, 3), entry("127.0.0.1", 53, 1), entry("0.0.0.0", 53, 0),
        entry("127.0.0.1", 53, 2), entry("127.0.0.1", 5353, 1)};
    CHostMetaDataQueryResult forward, backward;
    ConnectionTablesToHmdqr(table, {six}, "udp", forward);
    ConnectionTablesToHmdqr({table.rbegin(), table.rend()}, {six}, "udp", backward);
    const auto items = VeskTest::Items(forward);
    EXPECT_EQ(
        items,
        (std::map<std::string, std::string>{
            {"udp/0.0.0.0/53", "ipVersion=4;localAddress=0.0.0.0;port=53;protocol=udp;userId=0;"},
            {"udp/127.0.0.1/53",
             "ipVersion=4;listeners=3;localAddress=127.0.0.1;port=53;process=p1|p2|p3;"
             "processId=1|2|3;protocol=udp;userId=0;"},
            {"udp/127.0.0.1/5353",
             "ipVersion=4;localAddress=127.0.0.1;port=5353;process=p1;processId=1;"
             "protocol=udp;userId=0;"},
            {"udp6/::1/53", "ipVersion=6;localAddress=::1;port=53;protocol=udp;"}}));
    forward.ComputeHash();
    backward.ComputeHash();
    EXPECT_EQ(forward.hash, backward.hash);
}

}  // namespace
