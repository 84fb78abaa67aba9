// Peers for the HTTP client's tests and benchmark, on loopback and bounded
// in time: a server thread on [::1] that hands each connection to a handler,
// and nginx, tinyproxy and Python's http.server as child processes with
// configurations of their own (in a directory that MakePki filled). A peer
// that did not come up has port 0.
#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/http/HTTPClient.h"
#include "tests/http/TlsTestSupport.h"

namespace VeskTest {

constexpr int kPeerMs = 10000;  // the longest any peer waits for anything

inline bool SendAll(int fd, const std::string& bytes) {
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

// A connection to [::1]:`port` (`port` 0: a listener on a new port, which
// `port` gets); -1 on failure.
inline int SocketV6(int& port) {
    sockaddr_in6 address{AF_INET6, htons(static_cast<uint16_t>(port)), 0, in6addr_loopback, 0};
    socklen_t length = sizeof address;
    const int fd = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto* any = reinterpret_cast<sockaddr*>(&address);
    const bool ok = port != 0 ? connect(fd, any, length) == 0
                              : bind(fd, any, length) == 0 && listen(fd, 16) == 0 &&
                                    getsockname(fd, any, &length) == 0;
    if (ok && port == 0)
        port = ntohs(address.sin6_port);
    if (!ok && fd >= 0)
        close(fd);
    return ok ? fd : -1;
}

// A port free at the moment of asking (the listener is gone again).
inline int FreePort() {
    int port = 0;
    close(SocketV6(port));
    return port;
}

// Whether something accepts on [::1]:`port` within kPeerMs.
inline bool Answers(int port) {
    for (int waited = 0; waited < kPeerMs; waited += 20) {
        const int fd = SocketV6(port);
        if (fd >= 0)
            return close(fd), true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

// One thread takes the connections on a [::1] port one after another and
// hands each to `handler`, which serves it until `stop`; then it is closed.
class LoopbackServer {
  public:
    using Handler = std::function<void(int fd, const std::atomic<bool>& stop)>;

    explicit LoopbackServer(Handler handler) : handler_(std::move(handler)) {
        if ((listener_ = SocketV6(port_)) >= 0)
            thread_ = std::thread([this] { Run(); });
    }
    ~LoopbackServer() {
        stop_ = true;
        if (thread_.joinable())
            thread_.join();
        close(listener_);
    }
    int port() const { return port_; }
    std::string Url(const std::string& path, const char* scheme = "http") const {
        return std::string(scheme) + "://[::1]:" + std::to_string(port_) + path;
    }

  private:
    void Run() {
        const timeval limit{kPeerMs / 1000, 0};  // for a client that stops reading
        while (!stop_) {
            pollfd ready{listener_, POLLIN, 0};
            if (poll(&ready, 1, 50) != 1)
                continue;
            const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
            handler_(fd, stop_);
            close(fd);
        }
    }

    Handler handler_;
    int port_ = 0;
    int listener_ = -1;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// Answers each header block that comes in with `reply` (never, when it is
// empty) until the client closes, or, with `closeAfter`, closes after the
// first block. The bytes of each connection are added to `received`.
inline LoopbackServer::Handler CannedReplies(std::string reply, bool closeAfter,
                                             std::vector<std::string>* received = nullptr,
                                             std::mutex* lock = nullptr) {
    return [=](int fd, const std::atomic<bool>& stop) {
        std::string text;
        char buffer[65536];
        for (size_t answered = 0; !stop && !(closeAfter && answered > 0);) {
            pollfd ready{fd, POLLIN, 0};
            if (poll(&ready, 1, 50) <= 0)
                continue;
            const ssize_t got = recv(fd, buffer, sizeof buffer, 0);
            if (got <= 0)
                break;
            text.append(buffer, static_cast<size_t>(got));
            size_t blocks = 0;
            for (size_t at = 0; (at = text.find("\r\n\r\n", at)) != text.npos; at += 4)
                ++blocks;
            for (; answered < blocks; ++answered)
                SendAll(fd, reply);
        }
        if (received != nullptr) {
            std::lock_guard<std::mutex> guard(*lock);
            received->push_back(text);
        }
    };
}

// A server process that answers on [::1]:`port` within kPeerMs; port 0 if not.
struct Daemon {
    Daemon(const std::vector<std::string>& argv, int port)
        : process(argv), port(Answers(port) ? port : 0) {}
    ChildProcess process;
    int port;
};

// nginx serving <dir>/www on 127.0.0.1 and [::1], plain on `plain` and TLS on
// `tls` with <dir>/server.pem, keep-alive, and .gz files beside the originals.
inline std::unique_ptr<Daemon> Nginx(const std::string& dir, int plain, int tls) {
    const std::string p = std::to_string(plain), t = std::to_string(tls);
    std::ofstream(dir + "/nginx.conf")
        << "daemon off; master_process off; error_log " << dir << "/error.log; pid " << dir
        << "/nginx.pid; events {}\nhttp { client_body_temp_path " << dir
        << "; access_log off; keepalive_requests 1000000; gzip on; gzip_static on;\n"
        << "server { listen 127.0.0.1:" << p << "; listen [::1]:" << p << "; listen 127.0.0.1:" << t
        << " ssl; listen [::1]:" << t << " ssl; ssl_certificate " << dir
        << "/server.pem; ssl_certificate_key " << dir << "/server.key; root " << dir
        << "/www; } }\n";
    return std::make_unique<Daemon>(
        std::vector<std::string>{"nginx", "-p", dir, "-c", dir + "/nginx.conf", "-e",
                                 dir + "/error.log"},
        tls);
}

// tinyproxy tunnelling to [::1]:`target` only; with `auth` ("user password")
// it asks for Basic credentials.
inline std::unique_ptr<Daemon> Tinyproxy(const std::string& dir, int target,
                                         const std::string& auth) {
    const int port = FreePort();
    std::ofstream(dir + "/tinyproxy.conf")
        << "Port " << port << "\nListen ::1\nAllow ::1\nTimeout 10\nLogLevel Critical\nConnectPort "
        << target << "\n"
        << (auth.empty() ? "" : "BasicAuth " + auth + "\n");
    return std::make_unique<Daemon>(
        std::vector<std::string>{"tinyproxy", "-d", "-c", dir + "/tinyproxy.conf"}, port);
}

// python3 -m http.server on [::1], which answers in HTTP/1.0 and closes.
inline std::unique_ptr<Daemon> PythonServer(const std::string& root) {
    const int port = FreePort();
    return std::make_unique<Daemon>(
        std::vector<std::string>{"python3", "-m", "http.server", std::to_string(port), "--bind",
                                 "::1", "--directory", root},
        port);
}

// A client whose internals a test may look at.
struct ProbedClient : VeskCore::CHTTPClient {
    using CHTTP::m_bio;
    using CHTTP::m_timeout;
    using CHTTP::ReadOneLine;
    using CHTTPClient::CHTTPClient;
};

}  // namespace VeskTest
