// The interface records: built from made-up entries by the rules, and read
// from this machine as `ip` shows it, alias labels included.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <string>

#include "core/host/PlatformInterfaces.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/support/Tools.h"

using namespace VeskCore;

namespace {

// name -> "mac address address..." of each record, in record order.
std::map<std::string, std::string> Summary(const CInterfaces& interfaces) {
    std::map<std::string, std::string> out;
    for (const XMLObject* child : interfaces.GetChildren()) {
        const auto& record = static_cast<const CInterface&>(*child);
        std::string line = record.mac.utf8_string() + (record.dhcp ? " dhcp" : "");
        for (const XMLObject* ip : record.ips.GetChildren())
            line += " " + static_cast<const CIP&>(*ip).ipAddress.utf8_string();
        out[record.name.utf8_string()] = line;
    }
    return out;
}

TEST(BuildInterfacesTest, OneRecordPerUpLogicalInterfaceWithDetailsOnRequest) {
    const std::string mac("\x02\x00\x5e\x10\x20\x30", 6);
    const std::vector<InterfaceAddress> entries = {
        {"lo", "127.0.0.1", "", true, true, false},
        {"eth0", "10.0.0.5", mac, true, false, true},
        {"eth0", "10.0.0.6", mac, true, false, false},  // a second address of one label
        {"eth0:1", "10.0.1.5", mac, true, false, false},
        {"eth1", "10.0.2.5", "", false, false, false},  // down
        {"tun0", "0.0.0.0", "", true, false, false},
    };
    CInterfaces detailed, plain;
    BuildInterfaces(entries, true, detailed);
    BuildInterfaces(entries, false, plain);
    EXPECT_EQ(Summary(detailed), (std::map<std::string, std::string>{
                                     {"eth0", "02:00:5E:10:20:30 dhcp 10.0.0.5 10.0.0.6"},
                                     {"eth0:1", "02:00:5E:10:20:30 10.0.1.5"},
                                     {"tun0", ""}}));
    EXPECT_EQ(Summary(plain),
              (std::map<std::string, std::string>{
                  {"eth0", "02:00:5E:10:20:30"}, {"eth0:1", "02:00:5E:10:20:30"}, {"tun0", ""}}));
}

// `ip -o -4 addr show up`: name -> "MAC dhcp? address..." as Summary gives it.
std::map<std::string, std::string> FromIp(const std::string& listing) {
    std::map<std::string, std::string> out;
    std::istringstream lines(listing);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line.substr(0, line.find('\\')));
        std::string index, device, inet, address, word, label;
        words >> index >> device >> inet >> address;
        bool dynamic = false;
        while (words >> word) {
            dynamic = dynamic || word == "dynamic";
            label = word;
        }
        if (device == "lo")
            continue;
        std::string mac = VeskTest::ToolOutput("cat /sys/class/net/" + device + "/address");
        mac = mac.substr(0, mac.find('\n'));
        for (char& c : mac)
            c = static_cast<char>(toupper(c));
        std::string& entry = out[label];
        if (entry.empty())
            entry = mac == "00:00:00:00:00:00" ? "" : mac + (dynamic ? " dhcp" : "");
        entry += " " + address.substr(0, address.find('/'));
    }
    return out;
}

TEST(PlatformInterfacesTest, EqualWhatIpShowsOfThisMachine) {
    VESK_SKIP_WITHOUT_TOOLS("ip");
    CInterfaces interfaces;
    int code = 0;
    wxString text;
    ASSERT_TRUE(GetPlatformInterfaces(interfaces, true, code, text));
    EXPECT_EQ(Summary(interfaces), FromIp(VeskTest::ToolOutput("ip -o -4 addr show up")));
}

// In a network namespace of its own the test can make an alias label and a
// DHCP-like address without touching the machine.
TEST(PlatformInterfacesTest, AnAliasLabelIsARecordOfItsOwn) {
    VESK_SKIP_WITHOUT_TOOLS("ip");
    int pipeEnds[2];
    ASSERT_EQ(pipe(pipeEnds), 0);
    const pid_t child = fork();
    if (child == 0) {
        close(pipeEnds[0]);
        std::string result = "skip: no network namespace";
        if (unshare(CLONE_NEWNET) == 0) {
            const bool made =
                system(
                    "ip link add vd0 type veth peer name vd1 "
                    "&& ip link set vd0 address 02:00:00:aa:bb:cc "
                    "&& ip addr add 10.77.0.1/24 dev vd0 valid_lft 300 preferred_lft 300 "
                    "&& ip addr add 10.77.1.1/24 dev vd0 label vd0:7 "
                    "&& ip link set vd0 up && ip link set vd1 up") == 0;
            result = "skip: no veth devices";
            if (made) {
                CInterfaces interfaces;
                int code = 0;
                wxString text;
                GetPlatformInterfaces(interfaces, true, code, text);
                result.clear();
                for (const auto& [name, line] : Summary(interfaces))
                    result += name + "=" + line + ";";
            }
        }
        const ssize_t ignored = write(pipeEnds[1], result.data(), result.size());
        static_cast<void>(ignored);
        _exit(0);
    }
    close(pipeEnds[1]);
    std::string result;
    char buffer[512];
    for (ssize_t got; (got = read(pipeEnds[0], buffer, sizeof buffer)) > 0;)
        result.append(buffer, static_cast<size_t>(got));
    close(pipeEnds[0]);
    waitpid(child, nullptr, 0);
    if (result.rfind("skip: ", 0) == 0)
        GTEST_SKIP() << result.substr(6);
    // An address with a lifetime is what a DHCP client makes: not permanent.
    EXPECT_EQ(result, "vd0=02:00:00:AA:BB:CC dhcp 10.77.0.1;vd0:7=02:00:00:AA:BB:CC 10.77.1.1;");
}

}  // namespace
