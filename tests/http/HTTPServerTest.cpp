// The server as clients meet it: the Lua file server (tests/http/file_server.lua
// run by vesk-agent) against curl, openssl s_client and clients that misbehave
// on purpose, and CHTTPServer in-process where a test needs a socket time-out
// below the floor that scripts get.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstring>
#include <thread>

#include "core/http/HTTPServer.h"
#include "core/http/SSLContext.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/http/HttpPeers.h"
#include "tests/support/CapturingLog.h"
#include "tests/support/Tools.h"

using namespace VeskCore;
using namespace VeskTest;

namespace {

std::string Parent(const std::string& path, int levels = 1) {
    std::string dir = path;
    for (int i = 0; i < levels; ++i)
        dir.resize(dir.rfind('/'));
    return dir;
}

// <build>/tests/http/http_tests -> <build>/vesk-agent
std::string AgentPath() {
    char path[4096] = {};
    return readlink("/proc/self/exe", path, sizeof path - 1) > 0 ? Parent(path, 3) + "/vesk-agent"
                                                                 : "";
}

// Sends `request` to [::1]:`port` and gives back all that came until the
// server closed (or 20 s passed).
std::string Exchange(int port, const std::string& request) {
    const int fd = SocketV6(port);
    SetTimeouts(fd, 20);
    std::string reply;
    char buffer[65536];
    if (fd >= 0 && SendAll(fd, request))
        for (ssize_t got; (got = recv(fd, buffer, sizeof buffer, 0)) > 0;)
            reply.append(buffer, static_cast<size_t>(got));
    close(fd);
    return reply;
}

// The agent serving <dir>/www as a service on a port of its own, plain or
// with <dir>/server.pem (CN=manager.test, from <dir>/ca.pem).
class LuaServer : public ChildProcess {
  public:
    LuaServer(const std::string& dir, bool tls) : ChildProcess(Command(dir, tls)) {
        pid = std::atoi(WaitForLine("PID ", 10000).c_str());
        port = std::atoi(WaitForLine("PORT ", 20000).c_str());
    }
    // Whether the output has `text` within 10 s.
    bool Logged(const std::string& text) {
        for (int slice = 0; slice < 100 && output.find(text) == output.npos; ++slice)
            WaitForLine("\x01", 100);
        return output.find(text) != output.npos;
    }
    int pid = 0;
    int port = 0;

  private:
    static std::vector<std::string> Command(const std::string& dir, bool tls) {
        const std::string credentials =
            tls ? "TLS_CERT='" + dir + "/server.pem' TLS_KEY='" + dir + "/server.key' " : "";
        return {"sh", "-c",
                "echo PID $$; exec env ROOT='" + dir + "/www' PORT=0 " + credentials + "'" +
                    AgentPath() + "' --service file_server --stop-timeout 10 --lua-path '" +
                    Parent(__FILE__) + "/?.lua'"};
    }
};

class LuaFileServerTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        VESK_SKIP_WITHOUT_TOOLS("curl", "openssl");
        dir_ = new ScratchDir;
        ASSERT_TRUE(MakePki(dir_->path()));
        ScratchDir::Shell("cd " + dir_->path() + " && mkdir www && cd www && head -c 1024 " +
                          "/dev/urandom >small && head -c 300000 /dev/urandom >big && seq 20000 " +
                          ">notes");
        plain_ = new LuaServer(dir_->path(), false);
        tls_ = new LuaServer(dir_->path(), true);
    }
    static void TearDownTestSuite() { delete plain_, delete tls_, delete dir_; }
    void SetUp() override {
        if (plain_ == nullptr || plain_->port == 0 || tls_->port == 0)
            GTEST_SKIP() << "the Lua server did not start: " << (plain_ ? plain_->output : "");
    }

    static ScratchDir* dir_;
    static LuaServer* plain_;
    static LuaServer* tls_;
};
ScratchDir* LuaFileServerTest::dir_ = nullptr;
LuaServer* LuaFileServerTest::plain_ = nullptr;
LuaServer* LuaFileServerTest::tls_ = nullptr;

// Three files in one curl run: the bodies as the files are, on one
// connection unless the client asks to close, encoded as asked.
TEST_F(LuaFileServerTest, CurlGetsTheFiles) {
    const struct {
        bool tls;
        const char* options;
        const char* connects;  // curl's new connections, per file
        const char* encoding;  // of each answer; "" for none
    } rows[] = {
        {false, "--http1.1", "100", ""},
        {false, "--compressed", "100", "deflate"},  // curl offers deflate first
        {false, "--compressed -H 'Accept-Encoding: gzip'", "100", "gzip"},
        {false, "-H 'Connection: close'", "111", ""},
        {true, "--tlsv1.2 --tls-max 1.2", "100", ""},
        {true, "--tlsv1.3 --compressed", "100", "deflate"},
    };
    const char* files[] = {"small", "big", "notes"};
    for (const auto& row : rows) {
        const int port = row.tls ? tls_->port : plain_->port;
        std::string command =
            "cd " + dir_->path() + " && rm -f got* && curl -sS -m 20 -D " +
            "headers --cacert ca.pem --resolve manager.test:" + std::to_string(port) +
            ":::1 -w '%{num_connects}' " + row.options;
        for (const char* file : files)
            command += std::string(" -o got") + file + (row.tls ? " https://" : " http://") +
                       "manager.test:" + std::to_string(port) + "/" + file;
        EXPECT_EQ(ToolOutput(command), row.connects) << row.options;
        for (const char* file : files)
            EXPECT_TRUE(ReadFile(*dir_ / "got" + file) == ReadFile(*dir_ / "www/" + file))
                << row.options << " " << file;
        const std::string headers = ReadFile(*dir_ / "headers");
        size_t encoded = 0;
        for (size_t at = 0; (at = headers.find("Content-Encoding: ", at)) != headers.npos; ++at)
            encoded += headers.compare(at + 18, strlen(row.encoding), row.encoding) == 0;
        EXPECT_EQ(encoded, *row.encoding != '\0' ? 3u : 0u) << row.options << "\n" << headers;
    }
}

// Each client is dropped (or answered) as it deserves, and the server goes
// on serving the next one.
TEST_F(LuaFileServerTest, BadClientsAreDroppedAndTheNextIsServed) {
    const auto request = [](int names, size_t urlLength) {
        std::string text =
            "GET /" + std::string(urlLength, 'a') + " HTTP/1.1\r\nConnection: close\r\n";
        for (int i = 1; i < names; ++i)
            text += "X-" + std::to_string(i) + ": v\r\n";
        return text + "\r\n";
    };
    const size_t line = 32768 - 16;  // the URL that makes a request line of 32768 bytes
    const struct {
        bool tls;
        std::string request;
        const char* reply;   // the start of the answer; "" for none
        const char* logged;  // "" for nothing
    } rows[] = {
        {false, request(24, 1), "HTTP/1.1 404 Not Found", ""},
        {false, request(25, 1), "", "CHTTP::ReadHeaders() - too many header lines received."},
        {false, request(1, line), "HTTP/1.1 404 Not Found", ""},
        {false, request(1, line + 1), "", "read 32769 bytes from peer without encountering"},
        {false, "GET /small HTTP/1.0\r\n\r\n", "",
         "badly formed HTTP command received: GET /small HTTP/1.0"},
        {true, request(1, 1), "", "BIO_do_handshake() failed, OpenSSL error:0A00009C"},
    };
    for (const auto& row : rows) {
        LuaServer& server = row.tls ? *tls_ : *plain_;
        const std::string reply = Exchange(server.port, row.request);
        // An answer expected in full when none is.
        const size_t length = *row.reply != '\0' ? strlen(row.reply) : std::string::npos;
        EXPECT_EQ(reply.substr(0, length), row.reply) << row.request.substr(0, 40);
        EXPECT_TRUE(*row.logged == '\0' || server.Logged(row.logged)) << row.logged << "\n"
                                                                      << server.output;
    }
    // curl refuses nothing itself: the HTTP/1.0 request is the server's to refuse.
    EXPECT_NE(ScratchDir::Shell("curl -sf -m 10 --http1.0 -o /dev/null http://[::1]:" +
                                std::to_string(plain_->port) + "/small"),
              0);
    // A thousand connections at once, closed before a word: each thread they
    // start ends, and the bound on threads lets the next client in. The
    // connects don't wait, as a flood doesn't: most of them sit in the
    // backlog or are still in their handshake when they are closed.
    std::vector<int> flood;
    const sockaddr_in6 address{AF_INET6, htons(static_cast<uint16_t>(plain_->port)), 0,
                               in6addr_loopback, 0};
    for (int i = 0; i < 1000; ++i) {
        const int fd = socket(AF_INET6, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const bool started =
            connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
            errno == EINPROGRESS;
        flood.push_back(started ? fd : -1);
        if (!started && fd >= 0)
            close(fd);
    }
    for (int fd : flood)
        if (fd >= 0)
            close(fd);
    EXPECT_EQ(std::count(flood.begin(), flood.end(), -1), 0);
    const std::string small = ReadFile(*dir_ / "www/small");
    const std::string reply =
        Exchange(plain_->port, "GET /small HTTP/1.1\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(reply.substr(reply.size() - std::min(reply.size(), small.size())), small);
    EXPECT_NE(ToolOutput("openssl s_client -connect [::1]:" + std::to_string(tls_->port) +
                         " </dev/null 2>/dev/null")
                  .find("subject=CN = manager.test"),
              std::string::npos);
}

// SIGTERM with a keep-alive client idle: every thread sees the stop and the
// agent ends well within its stop time-out.
TEST_F(LuaFileServerTest, StopsOnSigtermWithAnIdleClient) {
    int port = plain_->port;
    const int idle = SocketV6(port);
    SetTimeouts(idle, 20);
    char buffer[4096];
    ASSERT_TRUE(SendAll(idle, "GET /small HTTP/1.1\r\n\r\n") && recv(idle, buffer, 1, 0) == 1);
    kill(plain_->pid, SIGTERM);
    EXPECT_EQ(plain_->Wait(15000), 0) << plain_->output;
    EXPECT_NE(plain_->output.find("vesk-agent: stopped"), std::string::npos);
    close(idle);
}

// A server whose socket time-out can go below the floor of 60 s.
struct ProbedServer : CHTTPServer {
    using CHTTP::m_timeout;
    using CHTTPServer::CHTTPServer;
};

// Peers that stall: the wait gives up at the time-out; a TLS handshake waits
// at least 30 s whatever the time-out, so that row takes that long.
TEST(HTTPServerInProcess, StalledPeersAreDropped) {
    const struct {
        const char* what;
        bool tls;
        std::string sent;  // then the peer stays, silent
        bool stays;
        const char* logged;
    } rows[] = {
        {"slowloris", false, "GET / HTTP/1.1\r\nX-Slow: 12345", true, "operation timed out"},
        {"no TLS word", true, "", true, "timed out while awaiting data from peer"},
        {"gone before TLS", true, "", false, "peer closed connection"},
    };
    std::unique_ptr<CSSLContext, void (*)(CSSLContext*)> context(
        CSSLContext::New(TLS_server_method()), [](CSSLContext* c) { c->Delete(); });
    for (const auto& row : rows) {
        int port = 0;
        const int listener = SocketV6(port);
        std::thread peer([&] {
            const int fd = SocketV6(port);
            SetTimeouts(fd, 60);
            for (char c : row.sent) {  // a byte at a time, each within the time-out
                send(fd, &c, 1, MSG_NOSIGNAL);
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
            char byte;
            if (row.stays)
                recv(fd, &byte, 1, 0);  // until the server closes
            close(fd);
        });
        CapturingLog log;
        ProbedServer server(context.get());
        server.m_timeout = 1;
        ASSERT_TRUE(server.Accept(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)));
        bool timedOut = false;
        if (row.tls)
            EXPECT_FALSE(server.AcceptSSL(nullptr, nullptr, nullptr, &timedOut)) << row.what;
        else
            EXPECT_TRUE(server.ReadCommand() && !server.ReadHeaders()) << row.what;
        EXPECT_EQ(timedOut, row.tls) << row.what;
        EXPECT_TRUE(log.Contains(row.logged)) << row.what;
        server.Disconnect();
        peer.join();
        close(listener);
    }
}

}  // namespace
