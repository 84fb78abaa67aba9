// The interface list of Linux: getifaddrs for the IPv4 entries (named by
// their label) and the devices' link-layer addresses; one RTM_GETADDR dump
// over netlink for the address flags, which getifaddrs leaves out.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>
#include <wx/log.h>

#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "core/common/LogSysError.h"
#include "core/host/PlatformInterfaces.h"

namespace VeskCore {
namespace {

struct FreeAddresses {
    void operator()(ifaddrs* list) const { freeifaddrs(list); }
};

struct Descriptor {
    int fd;
    ~Descriptor() {
        if (fd >= 0)
            close(fd);
    }
};

std::string DeviceOf(const std::string& label) {
    return label.substr(0, label.find(':'));
}

std::string Dotted(const in_addr& address) {
    char text[INET_ADDRSTRLEN] = {};
    return inet_ntop(AF_INET, &address, text, sizeof text) != nullptr ? text : "";
}

// Hardware addresses of the devices, from their AF_PACKET entries.
std::map<std::string, std::string> HardwareAddresses(const ifaddrs* list) {
    std::map<std::string, std::string> hardware;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_PACKET)
            continue;
        const auto* link = reinterpret_cast<const sockaddr_ll*>(entry->ifa_addr);
        if (link->sll_halen > 0 && link->sll_halen < 17)
            hardware[entry->ifa_name] =
                std::string(reinterpret_cast<const char*>(link->sll_addr), link->sll_halen);
    }
    return hardware;
}

// The IPv4 addresses the kernel does not mark permanent (DHCP's, shown as
// "dynamic" by ip), as label and dotted address.
bool ReadNetlink(int fd, std::set<std::string>& dynamic) {
    char buffer[16384];
    for (;;) {
        const ssize_t got = recv(fd, buffer, sizeof buffer, 0);
        if (got <= 0)
            return false;
        auto length = static_cast<unsigned int>(got);
        for (auto* header = reinterpret_cast<nlmsghdr*>(buffer); NLMSG_OK(header, length);
             header = NLMSG_NEXT(header, length)) {
            if (header->nlmsg_type == NLMSG_DONE)
                return true;
            if (header->nlmsg_type == NLMSG_ERROR)
                return false;
            if (header->nlmsg_type != RTM_NEWADDR)
                continue;
            const auto* message = static_cast<const ifaddrmsg*>(NLMSG_DATA(header));
            unsigned int flags = message->ifa_flags;
            std::string label, address;
            int left = static_cast<int>(IFA_PAYLOAD(header));
            for (auto* attribute = IFA_RTA(message); RTA_OK(attribute, left);
                 attribute = RTA_NEXT(attribute, left)) {
                if (attribute->rta_type == IFA_FLAGS)
                    memcpy(&flags, RTA_DATA(attribute), sizeof flags);
                else if (attribute->rta_type == IFA_LABEL)
                    label = static_cast<const char*>(RTA_DATA(attribute));
                else if (attribute->rta_type == IFA_LOCAL)
                    address = Dotted(*static_cast<const in_addr*>(RTA_DATA(attribute)));
            }
            char device[IF_NAMESIZE] = {};
            if (label.empty() && if_indextoname(message->ifa_index, device) != nullptr)
                label = device;  // an address without a label of its own
            if ((flags & IFA_F_PERMANENT) == 0)
                dynamic.insert(label + " " + address);
        }
    }
}

std::set<std::string> DynamicAddresses() {
    std::set<std::string> dynamic;
    Descriptor socket{::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)};
    if (socket.fd < 0) {
        VESK_LOG_SYS_ERROR(wxS("Error creating netlink socket: "));
        return dynamic;
    }
    struct {
        nlmsghdr header;
        ifaddrmsg message;
    } request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = RTM_GETADDR;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.message.ifa_family = AF_INET;
    if (send(socket.fd, &request, sizeof request, 0) < 0 || !ReadNetlink(socket.fd, dynamic))
        VESK_LOG_SYS_ERROR(wxS("Error reading the address flags: "));
    return dynamic;
}

std::vector<InterfaceAddress> Entries(const ifaddrs* list, bool detailed) {
    const std::map<std::string, std::string> hardware = HardwareAddresses(list);
    const std::set<std::string> dynamic = detailed ? DynamicAddresses() : std::set<std::string>();
    std::vector<InterfaceAddress> entries;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET)
            continue;
        InterfaceAddress address;
        address.name = entry->ifa_name;
        address.address = Dotted(reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr);
        address.up = (entry->ifa_flags & IFF_UP) != 0;
        address.loopback = (entry->ifa_flags & IFF_LOOPBACK) != 0;
        address.dynamic = dynamic.count(address.name + " " + address.address) != 0;
        const auto device = hardware.find(DeviceOf(address.name));
        if (device != hardware.end())
            address.hardware = device->second;
        entries.push_back(address);
    }
    return entries;
}

}  // namespace

bool GetPlatformInterfaces(CInterfaces& interfaces, bool detailed, int&, wxString&) {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        VESK_LOG_SYS_ERROR(wxS("Error on getifaddrs: "));
        return false;
    }
    const std::unique_ptr<ifaddrs, FreeAddresses> owned(list);
    BuildInterfaces(Entries(list, detailed), detailed, interfaces);
    return true;
}

}  // namespace VeskCore
