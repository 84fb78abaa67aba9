// What Linux says about sockets and processes, fed as literal samples: the
// /proc/net lines, sock_diag replies whole, cut short or failing, the /proc
// texts that name an owner; and the entries' byte order.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>

#include <cstring>

#include "core/host/ConnectionTables.h"
#include "core/host/linux/ConnectionTablesParse.h"

using namespace VeskCore;
using namespace VeskCore::LinuxSockets;

namespace {

std::string Address(const RawSocket& socket) {
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(socket.family, socket.local, text, sizeof text);
    return text;
}

TEST(ProcNetLineTest, SocketLinesInBothFamilies) {
    struct Row {
        const char* line;
        bool ipv6;
        const char* address;  // "" for a line that is no socket
        unsigned port, state, uid;
        uint64_t inode;
    };
    const Row rows[] = {
        {"   0: 0100007F:1F90 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0"
         "        0 6402247 1 000000009ecc6980 100 0 0 10 0",
         false, "127.0.0.1", 8080, 10, 0, 6402247},
        {" 123: 0100007F:1388 0100007F:1F90 01 00000000:00000000 00:00000000 00000000  1000"
         "        0 42 2 0000000000000000 0",
         false, "127.0.0.1", 5000, 1, 1000, 42},
        {"   2: 0000000000000000FFFF00000100007F:138B 00000000000000000000000000000000:0000 0A"
         " 00000000:00000000 00:00000000 00000000    33        0 7 1 0 100 0 0 10 0",
         true, "::ffff:127.0.0.1", 5003, 10, 33, 7},
        {"   3: 00000000000000000000000001000000:0035 00000000000000000000000000000000:0000 07"
         " 00000000:00000000 00:00000000 00000000     0        0 9 2 0 0",
         true, "::1", 53, 7, 0, 9},
        {"  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid "
         " timeout inode",
         false, "", 0, 0, 0, 0},
        {"   0: 0100007F:1F90 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0", false,
         "", 0, 0, 0, 0},  // cut short
        {"   0: 0100007F:1F90 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0"
         "        0 6402247 1",
         true, "", 0, 0, 0, 0},  // an IPv4 line read as IPv6
        {"   0: 0100007G:1F90 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0"
         "        0 1 1",
         false, "", 0, 0, 0, 0},
        {"   0: 0100007F:11F90 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0"
         "        0 1 1",
         false, "", 0, 0, 0, 0},  // a port of five digits
        {"", false, "", 0, 0, 0, 0},
    };
    for (const Row& row : rows) {
        RawSocket socket;
        const bool parsed = ParseProcNetLine(row.line, row.ipv6, socket);
        EXPECT_EQ(parsed, row.address[0] != '\0') << row.line;
        if (!parsed)
            continue;
        EXPECT_EQ(Address(socket), row.address) << row.line;
        EXPECT_EQ(socket.localPort, row.port) << row.line;
        EXPECT_EQ(socket.state, row.state) << row.line;
        EXPECT_EQ(socket.uid, row.uid) << row.line;
        EXPECT_EQ(socket.inode, row.inode) << row.line;
    }
}

// A reply as the kernel sends it, message by message.
class DiagReply {
  public:
    DiagReply& Socket(uint32_t sequence, int family, const char* address, uint16_t port,
                      uint32_t inode) {
        inet_diag_msg message{};
        message.idiag_family = static_cast<uint8_t>(family);
        message.idiag_state = 10;
        message.id.idiag_sport = htons(port);
        message.idiag_inode = inode;
        inet_pton(family, address, message.id.idiag_src);
        return Message(SOCK_DIAG_BY_FAMILY, sequence, &message, sizeof message);
    }
    DiagReply& Done(uint32_t sequence) {
        const int zero = 0;
        return Message(NLMSG_DONE, sequence, &zero, sizeof zero);
    }
    DiagReply& Error(uint32_t sequence, int error) {
        nlmsgerr message{};
        message.error = -error;
        return Message(NLMSG_ERROR, sequence, &message, sizeof message);
    }
    std::string bytes;

  private:
    DiagReply& Message(uint16_t type, uint32_t sequence, const void* payload, size_t length) {
        nlmsghdr header{};
        header.nlmsg_len = static_cast<uint32_t>(NLMSG_LENGTH(length));
        header.nlmsg_type = type;
        header.nlmsg_seq = sequence;
        std::string message(NLMSG_SPACE(length), '\0');
        memcpy(&message[0], &header, sizeof header);
        memcpy(&message[NLMSG_HDRLEN], payload, length);
        bytes += message;
        return *this;
    }
};

TEST(DiagWalkTest, RepliesWholeCutAndFailing) {
    const std::string whole = DiagReply()
                                  .Socket(7, AF_INET, "127.0.0.1", 8080, 42)
                                  .Socket(6, AF_INET, "10.0.0.1", 1, 1)  // an older request's
                                  .Socket(7, AF_INET6, "::1", 2, 2)      // another family's
                                  .Socket(7, AF_INET, "192.0.2.9", 53, 43)
                                  .Done(7)
                                  .bytes;
    struct Row {
        const char* name;
        std::string bytes;
        DiagWalk walk;
        size_t sockets;
        int error;
    };
    const size_t one = NLMSG_SPACE(sizeof(inet_diag_msg));
    const Row rows[] = {
        {"whole", whole, DiagWalk::Done, 2, 0},
        {"no end yet", whole.substr(0, 4 * one), DiagWalk::More, 2, 0},
        {"last message cut", whole.substr(0, 4 * one - 5), DiagWalk::Failed, 1, EBADMSG},
        {"trailing crumbs", whole.substr(0, one + 7), DiagWalk::More, 1, 0},
        {"refused", DiagReply().Error(7, EPERM).bytes, DiagWalk::Failed, 0, EPERM},
        {"error code beyond any errno",
         DiagReply().Error(7, 0).bytes.replace(NLMSG_HDRLEN, 4, "\0\0\0\x80", 4), DiagWalk::Failed,
         0, EBADMSG},
        {"length below a header", std::string("\x04\0\0\0\x14\0\0\0\x07\0\0\0\0\0\0\0", 16),
         DiagWalk::Failed, 0, EBADMSG},
        {"payload too short", DiagReply().Done(7).bytes.replace(4, 2, "\x14\0", 2), DiagWalk::More,
         0, 0},
    };
    for (const Row& row : rows) {
        for (size_t shift : {0, 1}) {  // datagrams need not be aligned here
            const std::string data = std::string(shift, '\0') + row.bytes;
            std::vector<RawSocket> sockets;
            int error = 0;
            EXPECT_EQ(
                WalkDiagMessages(data.data() + shift, row.bytes.size(), 7, AF_INET, sockets, error),
                row.walk)
                << row.name;
            EXPECT_EQ(sockets.size(), row.sockets) << row.name;
            EXPECT_EQ(error, row.error) << row.name;
            if (!sockets.empty()) {
                EXPECT_TRUE(Address(sockets[0]) == "127.0.0.1" && sockets[0].localPort == 8080 &&
                            sockets[0].inode == 42 && sockets[0].state == 10)
                    << row.name;
            }
        }
    }
}

TEST(ProcTextTest, OwnersFromStatStatusAndLinks) {
    std::string name;
    unsigned long long start = 0;
    EXPECT_TRUE(ParseProcessStat(
        "1234 (my (odd) name) S 1 1234 1234 0 -1 4194560 100 0 0 0 1 2 0 0 20 0 1 0 98765 123",
        name, start));
    EXPECT_EQ(name, "my (odd) name");
    EXPECT_EQ(start, 98765u);
    EXPECT_FALSE(ParseProcessStat("1234 (x) S 1 2 3", name, start));
    EXPECT_FALSE(ParseProcessStat("1234 x) S (1", name, start));

    EXPECT_EQ(ParseBootTime("cpu  1 2 3\nintr 5\nbtime 1700000000\nprocesses 9\n"), 1700000000);
    EXPECT_EQ(ParseBootTime("cpu 1\nbtimex 5\n"), 0);

    uid_t uid = 0;
    gid_t gid = 0;
    EXPECT_TRUE(
        ParseStatusIds("Name:\tx\nUid:\t1000\t0\t0\t0\nGid:\t100\t65534\t1\t1\n", uid, gid));
    EXPECT_EQ(uid, 0u);  // the effective ids
    EXPECT_EQ(gid, 65534u);
    EXPECT_FALSE(ParseStatusIds("Uid:\t1000\n", uid, gid));

    EXPECT_EQ(ParseSocketInode("socket:[6402247]"), 6402247u);
    for (const char* other : {"pipe:[5]", "socket:[]", "socket:[12", "/dev/null", "socket:[1x]"})
        EXPECT_EQ(ParseSocketInode(other), 0u) << other;
}

// The order compares bytes: ports (host order) by their low byte first.
TEST(ConnectionEntryTest, OrderByBytesThenOwner) {
    CConnectionTableEntryEx low, high;
    low.localPort = 256;  // bytes 00 01
    high.localPort = 1;   // bytes 01 00
    EXPECT_TRUE(low < high);
    EXPECT_FALSE(high < low);
    high.localPort = 256;
    EXPECT_FALSE(low < high || high < low);  // equal with empty owners, both ways
    high.processId = -1;
    EXPECT_TRUE(high < low);  // signed
    low.processId = -1;
    low.user = wxS("b");
    high.user = wxS("a");
    EXPECT_TRUE(high < low);
    high.created = 1;
    EXPECT_TRUE(low < high);  // created decides first

    CConnectionTableEntryExV6 a, b;
    inet_pton(AF_INET6, "::1", &a.localAddress);
    inet_pton(AF_INET6, "::2", &b.localAddress);
    b.localPort = 0;
    a.localPort = 65535;
    EXPECT_TRUE(a < b);
}

}  // namespace
