// The exchange of Ec2Metadata.h over a non-blocking IPv4 socket: connect,
// send and every read wait in poll() for what is left of the deadline, so no
// step can outlast it (a blocking connect to an address that nobody answers
// waits through the kernel's SYN retries, about two minutes).
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "core/host/Ec2Metadata.h"

namespace VeskCore {
namespace {

class Socket {
  public:
    Socket() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {}
    ~Socket() {
        if (fd_ >= 0)
            close(fd_);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

// Waits for `events` on `fd` until `deadline`; false on time-out or failure.
bool WaitFor(int fd, short events, ImdsClock::time_point deadline, std::string& error) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - ImdsClock::now());
        if (left.count() <= 0) {
            error = "time-out";
            return false;
        }
        pollfd ready{fd, events, 0};
        const int result = poll(&ready, 1, static_cast<int>(left.count()));
        if (result > 0)
            return true;
        if (result < 0 && errno != EINTR) {
            error = std::string("poll: ") + strerror(errno);
            return false;
        }
    }
}

bool Connect(int fd, const ImdsEndpoint& endpoint, ImdsClock::time_point deadline,
             std::string& error) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(endpoint.port));
    if (fd < 0 || inet_pton(AF_INET, endpoint.address.c_str(), &address.sin_addr) != 1) {
        error = "no socket for " + endpoint.address;
        return false;
    }
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 &&
        errno != EINPROGRESS) {
        error = std::string("connect: ") + strerror(errno);
        return false;
    }
    if (!WaitFor(fd, POLLOUT, deadline, error))
        return false;
    int failure = 0;
    socklen_t size = sizeof failure;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &failure, &size) != 0 || failure != 0) {
        error = std::string("connect: ") + strerror(failure);
        return false;
    }
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return true;
}

bool Send(int fd, const std::string& request, ImdsClock::time_point deadline, std::string& error) {
    for (size_t sent = 0; sent < request.size();) {
        const ssize_t n = send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (n > 0) {
            sent += static_cast<size_t>(n);
        } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
            error = std::string("send: ") + strerror(errno);
            return false;
        } else if (!WaitFor(fd, POLLOUT, deadline, error)) {
            return false;
        }
    }
    return true;
}

bool Receive(int fd, ImdsClock::time_point deadline, ImdsReply& reply, std::string& error) {
    std::string bytes;
    char buffer[16384];
    for (;;) {
        if (!WaitFor(fd, POLLIN, deadline, error))
            return false;
        const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
        if (n < 0 && (errno == EAGAIN || errno == EINTR))
            continue;
        if (n < 0) {
            error = std::string("recv: ") + strerror(errno);
            return false;
        }
        bytes.append(buffer, static_cast<size_t>(n));
        const ImdsParse state = ParseImdsReply(bytes, n == 0, reply);
        if (state == ImdsParse::done)
            return true;
        if (state == ImdsParse::bad) {
            error = n == 0 ? "closed before the answer was complete" : "bad answer";
            return false;
        }
    }
}

}  // namespace

bool ImdsExchange(const ImdsEndpoint& endpoint, const std::string& request,
                  ImdsClock::time_point deadline, ImdsReply& reply, std::string& error) {
    Socket socket;
    return Connect(socket.get(), endpoint, deadline, error) &&
           Send(socket.get(), request, deadline, error) &&
           Receive(socket.get(), deadline, reply, error);
}

}  // namespace VeskCore
