// BIO chains over non-blocking sockets as wx streams: retries become waits,
// and waits end; plus the tracing BIOs.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <string>
#include <thread>

#include "core/common/BioInputStream.h"
#include "core/common/BioOutputStream.h"
#include "core/common/BioStream.h"
#include "core/http/OpenSslUtil.h"
#include "core/runtime/LogTrace.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/support/CapturingLog.h"

using namespace VeskCore;
using VeskTest::CapturingLog;

namespace {

const char kTimedOut[] = "BioWaitWithTimeout() - Error on select: operation timed out.";

// Two connected stream sockets, the first (the library's end) non-blocking.
std::array<int, 2> Connected(bool tcp) {
    std::array<int, 2> fds{-1, -1};
    if (!tcp) {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds.data()), 0);
    } else {
        const int listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(listen(listener, 1), 0);
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
        fds[0] = socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_EQ(connect(fds[0], reinterpret_cast<sockaddr*>(&address), length), 0);
        fds[1] = accept(listener, nullptr, nullptr);
        close(listener);
    }
    fcntl(fds[0], F_SETFL, fcntl(fds[0], F_GETFL) | O_NONBLOCK);
    return fds;
}

struct Sockets {
    explicit Sockets(bool tcp = false)
        : fds(Connected(tcp)), bio(BIO_new_socket(fds[0], BIO_NOCLOSE)) {}
    ~Sockets() {
        BIO_free_all(bio);
        close(fds[0]);
        close(fds[1]);
    }
    std::array<int, 2> fds;
    BIO* bio;
};

TEST(BioStreamTest, RetryFlagsCountOnlyForReadingOrWriting) {
    BIO* bio = BIO_new(BIO_s_mem());
    bool read = true, write = true;
    EXPECT_FALSE(BioShouldRetry(bio, read, write));
    BIO_set_retry_special(bio);
    EXPECT_FALSE(BioShouldRetry(bio, read, write));
    EXPECT_FALSE(read || write);
    BIO_clear_retry_flags(bio);
    char byte;
    EXPECT_LT(BIO_read(bio, &byte, 1), 0);  // an empty memory BIO asks to retry the read
    EXPECT_TRUE(BioShouldRetry(bio, read, write));
    EXPECT_TRUE(read && !write);
    BIO_clear_retry_flags(bio);
    BIO_set_retry_write(bio);
    EXPECT_TRUE(BioShouldRetry(bio, read, write));
    EXPECT_TRUE(!read && write);
    BIO_free(bio);
}

TEST(BioStreamTest, WaitsEndAndTimeOutsAreReported) {
    CapturingLog log;
    Sockets sockets;
    BIO* memory = BIO_new(BIO_s_mem());
    EXPECT_FALSE(BioWaitWithTimeout(sockets.bio, false, false, 1));
    EXPECT_FALSE(BioWaitWithTimeout(memory, true, false, 1));  // no descriptor to wait on
    BIO_free(memory);
    EXPECT_TRUE(BioWaitWithTimeout(sockets.bio, false, true, 1));
    EXPECT_FALSE(BioWaitWithTimeout(sockets.bio, true, false, 0));
    EXPECT_TRUE(log.Lines().empty());  // a poll is no failure

    ERR_clear_error();
    EXPECT_FALSE(BioWaitWithTimeout(sockets.bio, true, false, 1));
    EXPECT_EQ(log.Texts(wxLOG_Error), std::vector<std::string>{kTimedOut});
    EXPECT_EQ(OpenSSLError().Find(wxS("error:8000006E:system library::Connection timed out")), 0);

    // What a buffer above the socket already holds needs no wait.
    BIO* chain = BIO_push(BIO_new(BIO_f_buffer()), sockets.bio);
    sockets.bio = chain;
    ASSERT_EQ(write(sockets.fds[1], "xyz", 3), 3);
    char byte;
    ASSERT_TRUE(BioWaitWithTimeout(chain, true, false, 1));
    ASSERT_EQ(BIO_read(chain, &byte, 1), 1);
    EXPECT_TRUE(BioWaitWithTimeout(chain, true, false, 1));
    EXPECT_EQ(log.Texts(wxLOG_Error).size(), 1u);
}

TEST(BioStreamTest, InputStreamStopsAtItsLimitAndAtThePeersEnd) {
    CapturingLog log;
    BIO* memory = BIO_new_mem_buf("0123456789", 10);
    char buffer[16];
    {
        CBioInputStream limited(memory, 5, 1);
        EXPECT_EQ(limited.Read(buffer, sizeof buffer).LastRead(), 5u);
        EXPECT_EQ(std::string(buffer, 5), "01234");
        EXPECT_TRUE(limited.Eof());
        EXPECT_EQ(limited.Read(buffer, sizeof buffer).LastRead(), 0u);
    }
    CBioInputStream rest(memory, 100, 1);
    EXPECT_EQ(rest.Read(buffer, sizeof buffer).LastRead(), 5u);
    EXPECT_EQ(std::string(buffer, 5), "56789");
    EXPECT_TRUE(rest.Eof());
    BIO_free(memory);

    Sockets sockets;
    CBioInputStream stalled(sockets.bio, 100, 1);
    EXPECT_FALSE(stalled.CanRead());
    EXPECT_EQ(stalled.Read(buffer, sizeof buffer).LastRead(), 0u);
    EXPECT_EQ(stalled.GetLastError(), wxSTREAM_READ_ERROR);
    EXPECT_TRUE(log.Contains(kTimedOut));

    CBioInputStream closing(sockets.bio, 100, 1);
    ASSERT_EQ(write(sockets.fds[1], "bye", 3), 3);
    shutdown(sockets.fds[1], SHUT_WR);
    EXPECT_TRUE(closing.CanRead());
    EXPECT_EQ(closing.Read(buffer, sizeof buffer).LastRead(), 3u);
    EXPECT_TRUE(closing.Eof());
    EXPECT_EQ(log.Texts(wxLOG_Error).size(), 1u);
}

// Writes `payload` through a stream over `chain` while `receive` takes it in
// at the other end of `sockets`; returns what arrived.
std::string Send(Sockets& sockets, const std::string& payload,
                 const std::function<std::string(int)>& receive) {
    std::string received;
    std::thread peer([&] { received = receive(sockets.fds[1]); });
    CBioOutputStream out(sockets.bio, 5);
    EXPECT_TRUE(out.WriteAll(payload.data(), payload.size()));
    out.Sync();
    EXPECT_TRUE(out.IsOk());
    EXPECT_EQ(out.GetLength(), static_cast<wxFileOffset>(payload.size()));
    shutdown(sockets.fds[0], SHUT_WR);
    peer.join();
    return received;
}

TEST(BioStreamTest, OutputStreamDeliversThroughPlainAndTlsChains) {
    signal(SIGPIPE, SIG_IGN);
    const std::string payload = VeskTest::RandomBytes(3 << 20, 11);  // beyond any socket buffer
    auto drain = [](int fd) {
        std::string got;
        char block[65536];
        for (ssize_t n; (n = read(fd, block, sizeof block)) > 0;)
            got.append(block, static_cast<size_t>(n));
        return got;
    };
    for (bool tcp : {false, true}) {
        Sockets sockets(tcp);
        sockets.bio = BIO_push(BIO_new(BIO_f_buffer()), sockets.bio);
        EXPECT_TRUE(Send(sockets, payload, drain) == payload) << "tcp " << tcp;
    }

    VeskTest::ScratchDir dir;
    VeskTest::ToolOutput(
        "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=localhost -keyout " +
        dir / "key.pem" + " -out " + dir / "cert.pem" + " 2>/dev/null");
    SSL_CTX* serverContext = SSL_CTX_new(TLS_server_method());
    ASSERT_EQ(
        SSL_CTX_use_certificate_file(serverContext, (dir / "cert.pem").c_str(), SSL_FILETYPE_PEM),
        1);
    ASSERT_EQ(
        SSL_CTX_use_PrivateKey_file(serverContext, (dir / "key.pem").c_str(), SSL_FILETYPE_PEM), 1);
    SSL_CTX* clientContext = SSL_CTX_new(TLS_client_method());
    Sockets sockets;
    SSL* client = SSL_new(clientContext);
    SSL_set_connect_state(client);
    BIO* tls = BIO_new(BIO_f_ssl());
    BIO_set_ssl(tls, client, BIO_CLOSE);
    sockets.bio = BIO_push(BIO_new(BIO_f_buffer()), BIO_push(tls, sockets.bio));
    const std::string received = Send(sockets, payload, [serverContext](int fd) {
        SSL* server = SSL_new(serverContext);
        SSL_set_fd(server, fd);
        std::string got;
        char block[65536];
        for (int n = SSL_accept(server); n > 0 && (n = SSL_read(server, block, sizeof block)) > 0;)
            got.append(block, static_cast<size_t>(n));
        SSL_free(server);
        return got;
    });
    EXPECT_TRUE(received == payload);
    SSL_CTX_free(clientContext);
    SSL_CTX_free(serverContext);
}

TEST(BioStreamTest, TraceBiosWriteLinesAndDumpTraffic) {
    TraceMasksSet("Bio");
    CapturingLog log;
    BIO* trace = BIO_new_LogTrace("Bio", false);
    EXPECT_EQ(BIO_write(trace, "\n", 1), 0);
    EXPECT_EQ(BIO_write(trace, "ab\n", 3), 2);
    BIO_free_all(trace);
    trace = BIO_new_LogTrace("Bio", true);
    BIO_puts(trace, "one ");
    BIO_printf(trace, "%d more", 2);
    EXPECT_EQ(log.Lines().size(), 1u);  // held until the flush
    BIO_flush(trace);
    BIO_free_all(trace);
    EXPECT_EQ(log.Texts(wxLOG_Message), (std::vector<std::string>{"[Bio] ab", "[Bio] one 2 more"}));
    TraceMasksSet("");

    BIO* dump = BIO_new(BIO_s_mem());
    BIO* traffic = BIO_new(BIO_s_mem());
    BIO_set_callback(traffic, BioDumpCB);
    BIO_set_callback_arg(traffic, reinterpret_cast<char*>(dump));
    char buffer[8];
    EXPECT_EQ(BIO_write(traffic, "hello", 5), 5);
    EXPECT_EQ(BIO_read(traffic, buffer, sizeof buffer), 5);
    char* text = nullptr;
    const long length = BIO_get_mem_data(dump, &text);
    const std::string dumped(text, static_cast<size_t>(length));
    EXPECT_EQ(dumped.find("write to "), 0u) << dumped;
    EXPECT_NE(dumped.find("(5 bytes => 5 (0x5))\n  0000 - 68 65 6c 6c 6f"), std::string::npos);
    EXPECT_NE(dumped.find("read from "), std::string::npos);
    EXPECT_NE(dumped.find("(8 bytes => 5 (0x5))"), std::string::npos);
    BIO_free(traffic);
    BIO_free(dump);
}

}  // namespace
