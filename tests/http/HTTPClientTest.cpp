// The client against peers on loopback: scripted ones that misbehave on
// purpose, nginx (plain and TLS, keep-alive, gzip_static), Python's HTTP/1.0
// server, and tinyproxy asking for credentials.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <wx/mstream.h>
#include <zlib.h>

#include <string>
#include <thread>

#include "core/http/OpenSslUtil.h"
#include "core/http/SSLContext.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/http/HttpPeers.h"
#include "tests/support/CapturingLog.h"
#include "tests/support/Tools.h"

using namespace VeskCore;
using namespace VeskTest;

namespace {

wxString W(const std::string& text) {
    return wxString::FromUTF8(text);
}

std::string Bytes(wxMemoryOutputStream& out) {
    std::string bytes(out.GetLength(), '\0');
    out.CopyTo(&bytes[0], bytes.size());
    return bytes;
}

std::string Reply(int headers, int names, const std::string& tail) {
    std::string reply = "HTTP/1.1 200 OK\r\n";
    for (int i = 0; i < headers; ++i)
        reply += "X-H" + std::to_string(i % names) + ": " + std::to_string(i) + "\r\n";
    return reply + tail;
}

TEST(HTTPClientPeers, BadAndOddReplies) {
    const std::string ok = "HTTP/1.1 200 OK\r\n", line = "X: " + std::string(32764, 'a');
    uLongf size = compressBound(line.size());
    std::string zlib(size, '\0');
    compress(reinterpret_cast<Bytef*>(&zlib[0]), &size, reinterpret_cast<const Bytef*>(&line[0]),
             line.size());
    zlib.resize(size);
    const struct {
        std::string reply;  // then the peer closes
        bool ok;
        int status;
        std::string body;
        std::string logged;  // a fragment of an error line, or "x-h3=<received value>"
    } rows[] = {
        {Reply(23, 23, "Content-Length: 2\r\n\r\nok"), true, 200, "ok", "x-h3=3"},
        {Reply(24, 24, "Content-Length: 2\r\n\r\nok"), false, 200, "", "too many header lines"},
        {Reply(100, 4, "\r\n"), true, 200, "", "x-h3=99"},
        {ok + line + "\n\r\n", true, 200, "", ""},  // 32768 bytes with the newline
        {ok + line + "a\n\r\n", false, 200, "", "read 32769 bytes from peer without encountering"},
        {ok + "X-Cut: no newl", false, 200, "", "BIO_gets() returned count of"},
        {"HTTP/2 200 OK\r\n\r\n", false, 0, "", "unexpected HTTP status reply received: HTTP/2"},
        {"HTTP/1.1 204\r\n\r\n", false, 204, "", "unexpected HTTP status reply received"},
        {"HTTP/1.0 404 Not Found\r\nContent-Length: 4\r\n\r\nnope", true, 404, "nope", ""},
        {ok + "Content-Length: 100\r\n\r\nshort", true, 200, "short", ""},
        {ok + "Content-Length: 3\r\nContent-Encoding: br\r\n\r\nabc", false, 200, "", ""},
        {ok + "Content-Length: 9\r\nContent-Encoding: gzip\r\n\r\n\x1f\x8b broken", false, 200, "",
         "read from input stream failed"},
        {ok + "Content-Encoding: Deflate\r\nContent-Length: " + std::to_string(size) + "\r\n\r\n" +
             zlib,
         true, 200, line, ""},
        {ok + "no colon here\r\n\r\n", false, 200, "", "invalid header received: 'no colon"},
        {ok + "A: b\r\n", false, 200, "", "connection closed before end of header fields"},
        {"", false, 0, "", "connection closed before status line was received"},
    };
    for (const auto& row : rows) {
        LoopbackServer peer(CannedReplies(row.reply, true));
        ASSERT_NE(peer.port(), 0) << "no IPv6 loopback";
        CapturingLog log;
        CHTTPClient client(nullptr, true);
        wxMemoryOutputStream out;
        const std::string what = row.reply.substr(0, 60);
        EXPECT_EQ(client.Get(W(peer.Url("/")), out, false), row.ok) << what;
        EXPECT_EQ(client.GetReceivedStatus(), row.status) << what;
        EXPECT_TRUE(Bytes(out) == row.body) << what;
        const bool header = row.logged.rfind("x-h3=", 0) == 0;
        EXPECT_TRUE(header ? client.GetReceivedHeader(wxS("X-h3")) == W(row.logged.substr(5))
                           : row.logged.empty() || log.Contains(row.logged))
            << what;
    }
}

// What goes on the wire, and on which connection: one until a disconnect,
// the preamble at the start of each.
TEST(HTTPClientPeers, RequestsOnTheWire) {
    std::vector<std::string> received;
    std::mutex lock;
    {
        LoopbackServer peer(CannedReplies("HTTP/1.1 200 OK\r\n\r\n", false, &received, &lock));
        ProbedClient client(nullptr, true);
        client.SetCleartextPreamble(new wxMemoryInputStream("PRE\r\n", 5));
        client.SetUserAgent(wxS("vesk/9"));
        for (const char* value : {"1", "2", ""})
            client.AddHTTPHeader(wxS("X-A"), W(value));
        client.AddHTTPHeader(wxS("x-a"), wxS("3"));
        EXPECT_TRUE(!client.RemoveHTTPHeader(wxS("X-a")) && client.RemoveHTTPHeader(wxS("x-a")));
        wxMemoryInputStream body("k=v", 3), empty("", 0);
        wxMemoryOutputStream out;
        EXPECT_TRUE(client.Post(W(peer.Url("/p?q")), body, out, false));
        EXPECT_TRUE(client.Post(W(peer.Url("/e")), empty, out, false));
        EXPECT_TRUE(client.Get(W(peer.Url("/g")), out, true));
        EXPECT_TRUE(client.Get(W(peer.Url("/h")), out, false));
        int fd = -1, delay = 0;
        socklen_t length = sizeof delay;
        BIO_get_fd(client.m_bio, &fd);
        getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &delay, &length);
        EXPECT_EQ(delay + (fcntl(fd, F_GETFD) & FD_CLOEXEC), 2);
        client.Disconnect();
    }
    // The outgoing headers in the order of this platform's hash map.
    const auto request = [](const std::string& command, int length) {
        return command + " HTTP/1.1\r\nContent-Length: " + std::to_string(length) +
               "\r\nHost: [::1]\r\nUser-Agent: vesk/9\r\nX-A: 2\r\nAccept-Encoding: deflate, "
               "gzip\r\n\r\n";
    };
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[0], "PRE\r\n" + request("POST /p?q", 3) + "k=v" + request("POST /e", 0) +
                               request("GET /g", 0));
    EXPECT_EQ(received[1], "PRE\r\n" + request("GET /h", 0));
}

// A peer that never answers, and one that leaves while a body is sent.
TEST(HTTPClientPeers, SilentOrVanishingPeers) {
    const auto previous = signal(SIGPIPE, SIG_DFL);  // a write that raised it would end us
    LoopbackServer silent(CannedReplies("", false)), gone([](int, const std::atomic<bool>&) {});
    ProbedClient client(nullptr, true);
    client.SetSocketTimeout(1);
    EXPECT_EQ(client.m_timeout, 60);
    client.m_timeout = 1;  // scripts can't go below 60 s; the wait is the same
    CapturingLog log;
    wxMemoryOutputStream out;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(client.Get(W(silent.Url("/")), out, false));
    const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - start;
    EXPECT_TRUE(waited.count() >= 0.9 && waited.count() < 5) << waited.count();
    EXPECT_TRUE(log.Contains("operation timed out"));
    const std::string big(8 << 20, 'x');
    wxMemoryInputStream body(big.data(), big.size());
    EXPECT_FALSE(client.Post(W(gone.Url("/")), body, out, false));
    signal(SIGPIPE, previous);
}

TEST(HTTPClientPeers, ConnectFailuresTellHostAndPort) {
    const std::string dead = std::to_string(FreePort());
    const struct {
        std::string url;
        bool logErrors;
        std::string logged;  // nothing logged when empty
        std::string queued;  // in OpenSSLError(); the queue empty when empty
    } rows[] = {
        {"http://[::1]:" + dead + "/", true, "couldn't connect to [::1]:" + dead,
         "Connection refused host='::1' port='" + dead + "'"},
        {"http://[::1]:" + dead + "/", false, "", ""},
        {"https://no-such-host.invalid/", true, "getaddrinfo(no-such-host.invalid) failed",
         "host='no-such-host.invalid' port='443'"},
        {"vkm://[::1]/", true, "invalid scheme in URL vkm://[::1]/", ""},
    };
    for (const auto& row : rows) {
        CapturingLog log;
        ERR_clear_error();
        CHTTPClient client(nullptr, row.logErrors);
        wxMemoryOutputStream out;
        EXPECT_FALSE(client.Get(W(row.url), out, false));
        EXPECT_TRUE(row.logged.empty() ? log.Lines().empty() : log.Contains(row.logged)) << row.url;
        const bool none = ERR_peek_error() == 0;
        const std::string queued = OpenSSLError().utf8_string();
        EXPECT_TRUE(row.queued.empty() ? none : queued.find(row.queued) != queued.npos) << queued;
    }
}

// A name that resolves to two addresses, the first refusing: the client
// goes on to the second, and says what the first did.
TEST(HTTPClientPeers, FirstOfTwoAddressesRefuses) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo("localhost", "80", &hints, &found) != 0)
        GTEST_SKIP() << "localhost does not resolve";
    const bool sixThenFour = found->ai_family == AF_INET6 && found->ai_next != nullptr &&
                             found->ai_next->ai_family == AF_INET;
    freeaddrinfo(found);
    if (!sixThenFour)
        GTEST_SKIP() << "localhost does not resolve to ::1 and then 127.0.0.1";

    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_TRUE(bind(listener, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                listen(listener, 4) == 0 &&
                getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) == 0);
    const std::string port = std::to_string(ntohs(address.sin_port));
    std::thread peer([listener] {
        pollfd waiting{listener, POLLIN, 0};
        if (poll(&waiting, 1, kPeerMs) != 1)
            return;
        const int fd = accept(listener, nullptr, nullptr);
        char request[4096];
        std::string seen;
        while (seen.find("\r\n\r\n") == std::string::npos) {
            pollfd readable{fd, POLLIN, 0};
            const ssize_t got =
                poll(&readable, 1, kPeerMs) == 1 ? recv(fd, request, sizeof request, 0) : -1;
            if (got <= 0)
                break;
            seen.append(request, static_cast<size_t>(got));
        }
        SendAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\nok");
        close(fd);
    });
    CapturingLog log;
    CHTTPClient client(nullptr, true);
    wxMemoryOutputStream out;
    EXPECT_TRUE(client.Get(W("http://localhost:" + port + "/"), out, false));
    EXPECT_EQ(Bytes(out), "ok");
    EXPECT_TRUE(log.Contains("couldn't connect to [::1]:" + port)) << port;
    peer.join();
    close(listener);
}

class HTTPClientServersTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        VESK_SKIP_WITHOUT_TOOLS("openssl", "nginx", "gzip");
        dir_ = new ScratchDir;
        ASSERT_TRUE(MakePki(dir_->path()));
        ScratchDir::Shell("cd " + dir_->path() + " && mkdir www && cd www && head -c 1024 " +
                          "/dev/urandom >small && head -c 300000 /dev/urandom >big && seq 20000 " +
                          ">notes && gzip -k notes");
        nginx_ = Nginx(dir_->path(), plain_ = FreePort(), FreePort()).release();
    }
    static void TearDownTestSuite() { delete nginx_, delete dir_; }
    void SetUp() override {
        if (nginx_ == nullptr || nginx_->port == 0)
            GTEST_SKIP() << "nginx did not start";
    }
    // A context that verifies its peer by the certificate of `ca`.
    static std::unique_ptr<CSSLContext, void (*)(CSSLContext*)> Trusting(const char* ca) {
        CSSLContext* context = CSSLContext::New(TLS_client_method());
        context->SetVerify(SSL_VERIFY_PEER);
        context->LoadVerifyLocations(W(*dir_ / ca + ".pem"));
        return {context, [](CSSLContext* c) { c->Delete(); }};
    }
    static std::string Url(const char* scheme, const char* host, int port, const char* path) {
        return std::string(scheme) + "://" + host + ":" + std::to_string(port) + path;
    }
    // Fetches `url`; true when the body is that of the file named by the path.
    static bool Fetches(CHTTPClient& client, const std::string& url) {
        wxMemoryOutputStream out;
        const std::string file = *dir_ / ("www" + url.substr(url.rfind('/')));
        return client.Get(W(url), out, false) && Bytes(out) == ReadFile(file);
    }

    static ScratchDir* dir_;
    static Daemon* nginx_;  // its port is the TLS one
    static int plain_;
};
ScratchDir* HTTPClientServersTest::dir_ = nullptr;
Daemon* HTTPClientServersTest::nginx_ = nullptr;
int HTTPClientServersTest::plain_ = 0;

TEST_F(HTTPClientServersTest, NginxBodiesAreByteIdentical) {
    auto context = Trusting("ca");
    CHTTPClient client(context.get(), true);
    for (const char* scheme : {"http", "https"})
        for (const char* host : {"127.0.0.1", "[::1]"})
            for (const char* file : {"/small", "/big", "/notes"}) {
                const int port = scheme[4] == 's' ? nginx_->port : plain_;
                EXPECT_TRUE(Fetches(client, Url(scheme, host, port, file))) << host << file;
                EXPECT_EQ(client.GetReceivedHeader(wxS("content-encoding")) == wxS("gzip"),
                          file[1] == 'n');
            }
    wxMemoryOutputStream out;
    EXPECT_TRUE(client.Get(W(Url("https", "[::1]", nginx_->port, "/none")), out, true));
    EXPECT_EQ(client.GetReceivedStatus(), 404);
    auto rogue = Trusting("rogue");  // a server whose certificate the client can't trust
    CHTTPClient doubting(rogue.get(), true);
    EXPECT_FALSE(doubting.Get(W(Url("https", "[::1]", nginx_->port, "/small")), out, false));
    EXPECT_EQ(doubting.GetPeerCertificate(), nullptr);
}

TEST_F(HTTPClientServersTest, TlsCloseWithoutNotifyIsAClose) {
    std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> server(SSL_CTX_new(TLS_server_method()),
                                                        SSL_CTX_free);
    SSL_CTX_use_certificate_file(server.get(), (*dir_ / "server.pem").c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_use_PrivateKey_file(server.get(), (*dir_ / "server.key").c_str(), SSL_FILETYPE_PEM);
    LoopbackServer peer([&](int fd, const std::atomic<bool>&) {
        SSL* ssl = SSL_new(server.get());
        char request[4096];
        if (SSL_set_fd(ssl, fd) == 1 && SSL_accept(ssl) == 1)
            SSL_read(ssl, request, sizeof request);
        SSL_free(ssl);  // and the socket closes, without close_notify
    });
    auto context = Trusting("ca");
    SSL_CTX_clear_options(context->handle(), SSL_OP_IGNORE_UNEXPECTED_EOF);
    CapturingLog log;
    CHTTPClient client(context.get(), true);
    wxMemoryOutputStream out;
    EXPECT_FALSE(client.Get(W(peer.Url("/", "https")), out, false));
    EXPECT_TRUE(log.Contains("connection closed before status line was received"));
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(HTTPClientServersTest, Http10ServerThatCloses) {
    VESK_SKIP_WITHOUT_TOOLS("python3");
    auto python = PythonServer(*dir_ / "www");
    CHTTPClient client(nullptr, true);
    for (int round = 0; round < 2; ++round, client.Disconnect())
        EXPECT_TRUE(Fetches(client, Url("http", "[::1]", python->port, "/big")) &&
                    client.GetReceivedStatusString() == wxS("OK"));
}

TEST_F(HTTPClientServersTest, TlsThroughProxyWithCredentials) {
    VESK_SKIP_WITHOUT_TOOLS("tinyproxy");
    const struct {
        bool asks;  // the proxy, for agent:s3cret
        const char* given;
        int status;
    } rows[] = {{false, "", 200},
                {true, "agent:s3cret", 200},
                {true, "", 407},
                {true, "agent:x", 401}};  // tinyproxy's answer to wrong ones
    for (const auto& row : rows) {
        auto proxy = Tinyproxy(dir_->path(), nginx_->port, row.asks ? "agent s3cret" : "");
        int port = proxy->port;
        const int fd = SocketV6(port);
        auto context = Trusting("ca");
        CHTTPClient client(context.get(), true);
        ASSERT_TRUE(client.Attach(fd, wxS("::1"), proxy->port, false));
        EXPECT_TRUE(client.Redirect(W(Url("https", "[::1]", nginx_->port, "/")), W(row.given)));
        EXPECT_EQ(client.GetReceivedStatus(), row.status) << row.given;
        client.Detach(false);
        if (row.status == 200 && client.Attach(fd, wxS("::1"), nginx_->port, true))
            EXPECT_TRUE(Fetches(client, Url("https", "[::1]", nginx_->port, "/small")));
        else
            close(fd);
    }
}

}  // namespace
