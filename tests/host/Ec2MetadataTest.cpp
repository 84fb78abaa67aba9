// The EC2 side of cloud detection: answers of the metadata service parsed
// from literal bytes; whole collections against a fake service on loopback
// that misbehaves in the ways a network can; and, in a private network
// namespace, at the real address beside curl, and towards an address that
// nobody answers.
#include <gtest/gtest.h>

#include <chrono>

#include "core/host/CloudEnvInfo.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/host/CloudTestSupport.h"
#include "tests/support/Tools.h"

using namespace VeskCore;
using namespace VeskTest;

namespace {

TEST(ImdsReplyTest, FramedAnswersParseAndEverythingElseIsRefused) {
    const std::string ok = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello";
    struct Row {
        std::string bytes;
        bool closed;
        ImdsParse state;
        std::string body;
    } rows[] = {
        {ok, false, ImdsParse::done, "hello"},
        {ok + "trailing", false, ImdsParse::done, "hello"},
        {ok.substr(0, ok.size() - 2), false, ImdsParse::more, ""},
        {ok.substr(0, ok.size() - 2), true, ImdsParse::bad, ""},  // closed mid-body
        {ok.substr(0, 20), true, ImdsParse::bad, ""},             // closed mid-head
        {"HTTP/1.0 404 Not Found\nContent-Length: 0\n\n", false, ImdsParse::done, ""},
        {"HTTP/1.1 200 OK\r\n\r\nuntil close", false, ImdsParse::more, ""},
        {"HTTP/1.1 200 OK\r\n\r\nuntil close", true, ImdsParse::done, "until close"},
        {"HTTP/1.1 200 OK\r\n\r\n" + std::string(kImdsMaxBody + 1, 'x'), false, ImdsParse::bad, ""},
        {"HTTP/1.1 200 OK\r\nContent-Length: 104857600\r\n\r\n", false, ImdsParse::bad, ""},
        {"HTTP/1.1 200 OK\r\nContent-Length: 1\r\nContent-length: 2\r\n\r\nab", false,
         ImdsParse::bad, ""},
        {"HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n", false, ImdsParse::bad, ""},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n", true,
         ImdsParse::bad, ""},
        {"HTTP/1.1 200 OK\r\nX: " + std::string(kImdsMaxHeaders, 'a'), false, ImdsParse::bad, ""},
        {"SSH-2.0-OpenSSH_9.2\r\n\r\n", false, ImdsParse::bad, ""},
        {"HTTP/1.1 2OO OK\r\n\r\n", true, ImdsParse::bad, ""},
        {"HTTP/1.1 200 OK\r\nno colon\r\n\r\n", true, ImdsParse::bad, ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.bytes.substr(0, 60));
        ImdsReply reply;
        EXPECT_EQ(ParseImdsReply(row.bytes, row.closed, reply), row.state);
        EXPECT_EQ(reply.body, row.body);
    }
}

std::string Ec2Values() {
    MapStringToString found;
    QueryEnvInfo(wxS("ec2"), true, found);
    std::string values;
    for (const char* key : {"ec2.instance-id", "ec2.ami-id", "ec2.placement.availability-zone"})
        if (found.count(wxString::FromUTF8(key)) != 0)
            values += found[wxString::FromUTF8(key)].utf8_string() + "\n";
    return values;
}

const std::string kValues = "i-0abc123def4567890\nami-0fedcba9876543210\neu-central-1b\n";

void Status500(int fd, const std::string&, const std::atomic<bool>&) {
    SendAll(fd, Reply(500, "Internal Server Error"));
}
void Garbage(int fd, const std::string&, const std::atomic<bool>&) {
    static const char kBytes[] = "\x16\x03\x01\x00\xa5garbage\r\n\r\n";
    SendAll(fd, std::string(kBytes, sizeof kBytes - 1));
}
void OneByteASecond(int fd, const std::string&, const std::atomic<bool>& stop) {
    for (const char c : Reply(200, "i-0abc123def4567890")) {
        if (!SendAll(fd, std::string(1, c)))
            return;
        for (int tenth = 0; tenth < 10; ++tenth) {
            if (stop)
                return;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }
}
void ClosesMidBody(int fd, const std::string&, const std::atomic<bool>&) {
    SendAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\ni-0abc");
}
void HundredMegabytes(int fd, const std::string&, const std::atomic<bool>& stop) {
    SendAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 104857600\r\n\r\n");
    const std::string block(1 << 20, 'x');
    for (int i = 0; i < 100 && !stop && SendAll(fd, block); ++i) {
    }
}

TEST(Ec2CollectTest, OnlyAWellBehavedServiceFillsTheCacheAndTheFirstFailureEndsTheWalk) {
    const std::vector<std::string> all = {
        "PUT /latest/api/token", "GET /latest/meta-data/instance-id",
        "GET /latest/meta-data/ami-id", "GET /latest/meta-data/placement/availability-zone"};
    const std::vector<std::string> firstGet(all.begin(), all.begin() + 2);
    const std::vector<std::string> putOnly(all.begin(), all.begin() + 1);
    struct Row {
        const char* what;
        Dmi dmi;
        std::string token;
        FakeImds::Answer get;
        std::string values;
        std::vector<std::string> requests;
    } rows[] = {
        {"IMDSv2", kEc2Nitro, "AQAEAFake-Token==", nullptr, kValues, all},
        {"IMDSv1: PUT answered 405", kEc2Nitro, "", nullptr, kValues, all},
        {"not EC2 by DMI: no socket", kBareMetal, "t", nullptr, "", {}},
        {"VMware by DMI: no socket", kVMware, "t", nullptr, "", {}},
        {"token that would inject a header", kEc2Nitro, "t\r\nX-Evil: 1", nullptr, "", putOnly},
        {"500", kEc2Nitro, "t", Status500, "", firstGet},
        {"garbage", kEc2Nitro, "t", Garbage, "", firstGet},
        {"one byte a second", kEc2Nitro, "t", OneByteASecond, "", firstGet},
        {"closing mid-body", kEc2Nitro, "t", ClosesMidBody, "", firstGet},
        {"100 MB body", kEc2Nitro, "t", HundredMegabytes, "", firstGet},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        ScratchDir dmi;
        WriteDmi(dmi.path(), row.dmi);
        int port = 0;
        const int listener = ListenOn("127.0.0.1", port);
        ASSERT_GE(listener, 0);
        FakeImds service(listener, Imds(row.token, row.get));
        CloudEnvPlaces places;
        places.dmiFolder = dmi.path();
        places.imds = {"127.0.0.1", port};
        PlacesOverride use(places);
        EXPECT_TRUE(CollectEnvInfo(false));
        EXPECT_EQ(Ec2Values(), row.values);
        EXPECT_EQ(service.Requests(), row.requests);
    }
}

TEST(Ec2CollectTest, AtTheRealAddressInAPrivateNamespaceGivesWhatCurlGets) {
    VESK_SKIP_WITHOUT_TOOLS("ip", "curl");
    ScratchDir dmi;
    WriteDmi(dmi.path(), kEc2Nitro);
    CloudEnvPlaces places;
    places.dmiFolder = dmi.path();
    PlacesOverride use(places);
    const std::string url = "http://169.254.169.254/latest/";
    std::string ours, curls, tokenless;
    const bool entered = InNetworkNamespace([&] {
        ASSERT_EQ(system("ip addr add 169.254.169.254/32 dev lo"), 0);
        int port = 80;
        const int listener = ListenOn("169.254.169.254", port);
        ASSERT_GE(listener, 0);
        FakeImds service(listener, Imds("AQAEAFake-Token=="));
        CollectEnvInfo(false);
        ours = Ec2Values();
        curls =
            ToolOutput("T=$(curl -s -m 5 -X PUT -H 'X-aws-ec2-metadata-token-ttl-seconds: 21600' " +
                       url + "api/token); for p in instance-id ami-id " +
                       "placement/availability-zone; do curl -s -m 5 -H " +
                       "\"X-aws-ec2-metadata-token: $T\" " + url + "meta-data/$p; echo; done");
        tokenless = ToolOutput("curl -s -m 5 -o /dev/null -w '%{http_code}' " + url +
                               "meta-data/instance-id");
    });
    if (!entered)
        GTEST_SKIP() << "no private network namespace here (it needs CAP_SYS_ADMIN)";
    EXPECT_EQ(tokenless, "401");
    EXPECT_EQ(ours, kValues);
    EXPECT_EQ(curls, kValues);
}

TEST(Ec2CollectTest, AnAddressThatNobodyAnswersLeavesTheCacheEmpty) {
    VESK_SKIP_WITHOUT_TOOLS("ip");
    ScratchDir dmi;
    WriteDmi(dmi.path(), kEc2Nitro);
    CloudEnvPlaces places;
    places.dmiFolder = dmi.path();
    PlacesOverride use(places);
    struct Row {
        const char* what;
        const char* setup;
    } rows[] = {
        {"black-hole route", "ip route add blackhole 169.254.169.254/32"},
        {"packets dropped without a word",  // a tun device that nobody reads
         "ip tuntap add mode tun dev vesk0 && ip link set vesk0 up && "
         "ip route add 169.254.169.254/32 dev vesk0"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        std::chrono::steady_clock::duration took{};
        std::string values = "not run";
        const bool entered = InNetworkNamespace([&] {
            ASSERT_EQ(system(row.setup), 0);
            const auto start = std::chrono::steady_clock::now();
            CollectEnvInfo(true);
            took = std::chrono::steady_clock::now() - start;
            values = Ec2Values();
        });
        if (!entered)
            GTEST_SKIP() << "no private network namespace here (it needs CAP_SYS_ADMIN)";
        EXPECT_EQ(values, "");
        // Not a speed check (bench/cloud measures that): a connect left to
        // the kernel waits out its SYN retries, about 127 s.
        EXPECT_LT(took, std::chrono::seconds(20));
    }
}

}  // namespace
