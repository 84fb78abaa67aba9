// Peers for the cloud detection tests and benchmark: a fake DMI folder, a
// fake instance metadata service on a listening socket (loopback, or
// 169.254.169.254 inside a private network namespace), and a thread that
// runs work in such a namespace. Every wait is bounded.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/host/CloudEnvInfo.h"

namespace VeskTest {

constexpr int kImdsPeerMs = 5000;  // the longest the fake service waits for anything

// Files of /sys/class/dmi/id as a machine of that kind shows them.
struct Dmi {
    const char* sysVendor;
    const char* assetTag;
    const char* uuid;
};
const Dmi kEc2Nitro{"Amazon EC2", "i-0123456789abcdef0", "EC2A1B2C-0000-0000-0000-000000000000"};
const Dmi kVMware{"VMware, Inc.", "No Asset Tag", "4231d1c2-0000-0000-0000-000000000000"};
const Dmi kBareMetal{"Dell Inc.", "", "4c4c4544-0000-0000-0000-000000000000"};

inline void WriteDmi(const std::string& folder, const Dmi& dmi) {
    std::ofstream(folder + "/sys_vendor") << dmi.sysVendor << "\n";
    std::ofstream(folder + "/bios_vendor") << dmi.sysVendor << "\n";
    std::ofstream(folder + "/product_name") << "Some Product\n";
    std::ofstream(folder + "/board_asset_tag") << dmi.assetTag << "\n";
    std::ofstream(folder + "/product_uuid") << dmi.uuid << "\n";
}

// Points cloud detection at `places` for the object's lifetime.
struct PlacesOverride {
    explicit PlacesOverride(const VeskCore::CloudEnvPlaces& places) {
        VeskCore::SetCloudEnvPlaces(places);
    }
    ~PlacesOverride() { VeskCore::SetCloudEnvPlaces(VeskCore::CloudEnvPlaces()); }
};

inline bool SendAll(int fd, const std::string& bytes) {
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

// A listening TCP socket on `address`:`port` (0: any free port, which `port`
// then gets); -1 on failure.
inline int ListenOn(const char* address, int& port) {
    sockaddr_in where{};
    where.sin_family = AF_INET;
    where.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, address, &where.sin_addr);
    socklen_t length = sizeof where;
    auto* any = reinterpret_cast<sockaddr*>(&where);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd, any, length) != 0 || listen(fd, 16) != 0 || getsockname(fd, any, &length) != 0) {
        close(fd);
        return -1;
    }
    port = ntohs(where.sin_port);
    return fd;
}

// The service: each connection's request head is read, recorded as
// "METHOD path", and handed to `answer`, which writes what it likes
// (while `stop` is false) before the connection is closed.
class FakeImds {
  public:
    using Answer =
        std::function<void(int fd, const std::string& request, const std::atomic<bool>& stop)>;

    FakeImds(int listener, Answer answer) : listener_(listener), answer_(std::move(answer)) {
        thread_ = std::thread([this] { Run(); });
    }
    ~FakeImds() {
        stop_ = true;
        thread_.join();
        close(listener_);
    }
    std::vector<std::string> Requests() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return requests_;
    }

  private:
    void Run() {
        while (!stop_) {
            pollfd ready{listener_, POLLIN, 0};
            if (poll(&ready, 1, 20) != 1)
                continue;
            const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            const timeval limit{kImdsPeerMs / 1000, 0};  // for a client that stops reading
            setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
            const std::string request = ReadHead(fd);
            {
                std::lock_guard<std::mutex> lock(mutex_);
                requests_.push_back(request.substr(0, request.find(" HTTP/")));
            }
            answer_(fd, request, stop_);
            close(fd);
        }
    }
    static std::string ReadHead(int fd) {
        std::string text;
        char buffer[4096];
        while (text.find("\r\n\r\n") == std::string::npos) {
            pollfd ready{fd, POLLIN, 0};
            ssize_t got = 0;
            if (poll(&ready, 1, kImdsPeerMs) != 1 || (got = recv(fd, buffer, sizeof buffer, 0)) <= 0)
                break;
            text.append(buffer, static_cast<size_t>(got));
        }
        return text;
    }

    int listener_;
    Answer answer_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
    mutable std::mutex mutex_;
    std::vector<std::string> requests_;
};

inline std::string Reply(int status, const std::string& body) {
    return "HTTP/1.1 " + std::to_string(status) + " X\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

const std::map<std::string, std::string> kInstance = {
    {"/latest/meta-data/instance-id", "i-0abc123def4567890"},
    {"/latest/meta-data/ami-id", "ami-0fedcba9876543210"},
    {"/latest/meta-data/placement/availability-zone", "eu-central-1b"},
};

// The metadata service of kInstance. With a `token` it is IMDSv2 only: the
// PUT gets that token and a GET without it gets 401; with none, the PUT gets
// 405. `get` (if set) answers the GETs instead.
inline FakeImds::Answer Imds(const std::string& token, FakeImds::Answer get = nullptr) {
    return [=](int fd, const std::string& request, const std::atomic<bool>& stop) {
        if (request.compare(0, 24, "PUT /latest/api/token HT") == 0) {
            const bool asked = request.find("\r\nX-aws-ec2-metadata-token-ttl-seconds: 21600\r\n") !=
                               std::string::npos;
            SendAll(fd, token.empty() ? Reply(405, "") : asked ? Reply(200, token) : Reply(400, ""));
            return;
        }
        if (!token.empty() && request.find("\r\nX-aws-ec2-metadata-token: " + token + "\r\n") ==
                                  std::string::npos)
            return (void)SendAll(fd, Reply(401, ""));
        if (get)
            return get(fd, request, stop);
        const std::string path = request.substr(4, request.find(" HTTP/") - 4);
        const auto found = kInstance.find(path);
        SendAll(fd, found == kInstance.end() ? Reply(404, "") : Reply(200, found->second));
    };
}

// Runs `work` on a thread of its own in a new network namespace with
// loopback up; false (work not run) where the system refuses one.
inline bool InNetworkNamespace(const std::function<void()>& work) {
    bool entered = false;
    std::thread([&] {
        entered = unshare(CLONE_NEWNET) == 0 && system("ip link set lo up") == 0;
        if (entered)
            work();
    }).join();
    return entered;
}

}  // namespace VeskTest
