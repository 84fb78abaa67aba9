// BIO chains over non-blocking sockets as wx streams, and the tracing BIOs.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "core/common/BioInputStream.h"
#include "core/common/BioOutputStream.h"
#include "core/common/BioStream.h"
#include "core/http/OpenSslUtil.h"
#include "core/runtime/LogTrace.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/support/CapturingLog.h"
#include "tests/support/Tools.h"

using namespace VeskCore;
using namespace VeskTest;

namespace {

const char kTimedOut[] = "BioWaitWithTimeout() - Error on select: operation timed out.";

// A socket pair, and a BIO over the first socket: the library's end, non-blocking.
struct Sockets {
    Sockets() {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        fcntl(fds[0], F_SETFL, O_NONBLOCK);
        bio = BIO_new_socket(fds[0], BIO_NOCLOSE);
    }
    ~Sockets() { BIO_free_all(bio), close(fds[0]), close(fds[1]); }
    int fds[2] = {-1, -1};
    BIO* bio;
};

TEST(BioStreamTest, RetriesBecomeWaitsAndReadsEndAtLimitCloseOrTimeOut) {
    CapturingLog log;
    Sockets sockets;
    BIO* memory = BIO_new_mem_buf("0123456789", 10);
    bool read = true, write = true;
    BIO_set_retry_special(memory);  // as for a connect under way
    EXPECT_FALSE(BioShouldRetry(memory, read, write) || read || write);
    BIO_set_retry_write(memory);
    EXPECT_TRUE(BioShouldRetry(memory, read, write) && !read && write);
    BIO_set_retry_read(memory);
    EXPECT_TRUE(BioShouldRetry(memory, read, write) && read && write);

    EXPECT_FALSE(BioWaitWithTimeout(memory, true, false, 1));  // nothing to wait on
    EXPECT_FALSE(BioWaitWithTimeout(sockets.bio, false, false, 1));
    EXPECT_FALSE(BioWaitWithTimeout(sockets.bio, true, false, 0));
    EXPECT_TRUE(log.Lines().empty());  // a poll is no failure
    ERR_clear_error();
    EXPECT_FALSE(BioWaitWithTimeout(sockets.bio, true, false, 1));
    EXPECT_EQ(log.Texts(wxLOG_Error), std::vector<std::string>{kTimedOut});
    EXPECT_EQ(OpenSSLError().Find(wxS("error:8000006E:system library::Connection timed out")), 0);

    char buffer[16];
    CBioInputStream limited(memory, 5, 1);
    EXPECT_EQ(limited.Read(buffer, sizeof buffer).LastRead(), 5u);
    EXPECT_TRUE(limited.Eof());
    EXPECT_EQ(CBioInputStream(memory, 99, 1).Read(buffer, sizeof buffer).LastRead(), 5u);
    EXPECT_EQ(std::string(buffer, 5), "56789");
    BIO_free(memory);
    CBioInputStream stalled(sockets.bio, 99, 1);
    EXPECT_EQ(stalled.Read(buffer, sizeof buffer).LastRead(), 0u);
    EXPECT_EQ(stalled.GetLastError(), wxSTREAM_READ_ERROR);
    EXPECT_EQ(log.Texts(wxLOG_Error), (std::vector<std::string>{kTimedOut, kTimedOut}));

    // What a buffer above the socket holds needs no wait; then the peer's close is the end.
    sockets.bio = BIO_push(BIO_new(BIO_f_buffer()), sockets.bio);
    ASSERT_EQ(::write(sockets.fds[1], "bye", 3), 3);
    ASSERT_EQ(BIO_read(sockets.bio, buffer, 1), 1);
    EXPECT_TRUE(BioWaitWithTimeout(sockets.bio, true, false, 1));
    shutdown(sockets.fds[1], SHUT_WR);
    CBioInputStream closing(sockets.bio, 99, 1);
    EXPECT_EQ(closing.Read(buffer, sizeof buffer).LastRead(), 2u);
    EXPECT_TRUE(closing.Eof());
}

TEST(BioStreamTest, DescriptorsBeyondFdSetSizeAreWaitedOn) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, std::min<rlim_t>(limit.rlim_max, 4096));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    Sockets sockets;
    const int high = fcntl(sockets.fds[0], F_DUPFD_CLOEXEC, FD_SETSIZE + 1000);
    ASSERT_GT(high, FD_SETSIZE) << strerror(errno);
    BIO* bio = BIO_new_socket(high, BIO_CLOSE);
    ASSERT_EQ(::write(sockets.fds[1], "x", 1), 1);
    EXPECT_TRUE(BioWaitWithTimeout(bio, true, false, 1));
    EXPECT_TRUE(BioWaitWithTimeout(bio, false, true, 1));
    BIO_free(bio);
}

// What a peer thread receives through a buffered chain over a socket, under TLS with contexts.
std::string Deliver(const std::string& payload, SSL_CTX* server = nullptr,
                    SSL_CTX* client = nullptr) {
    Sockets sockets;
    if (client != nullptr)  // in client mode: the handshake happens in the first write
        sockets.bio = BIO_push(BIO_new_ssl(client, 1), sockets.bio);
    sockets.bio = BIO_push(BIO_new(BIO_f_buffer()), sockets.bio);
    std::string received;
    std::thread peer([&, tls = server ? SSL_new(server) : nullptr, fd = sockets.fds[1]] {
        char block[65536];
        int n = tls == nullptr || (SSL_set_fd(tls, fd) == 1 && SSL_accept(tls) == 1);
        while (n > 0 && (n = tls ? SSL_read(tls, block, sizeof block) : read(fd, block, 65536)) > 0)
            received.append(block, n);
        SSL_free(tls);
    });
    CBioOutputStream out(sockets.bio, 5);
    EXPECT_TRUE(out.WriteAll(payload.data(), payload.size()));
    out.Sync();
    EXPECT_TRUE(out.IsOk() && out.GetLength() == static_cast<wxFileOffset>(payload.size()));
    shutdown(sockets.fds[0], SHUT_WR);
    peer.join();
    return received;
}

TEST(BioStreamTest, OutputGoesThroughPlainAndTlsChains) {
    VESK_SKIP_WITHOUT_TOOLS("openssl");
    signal(SIGPIPE, SIG_IGN);  // as the agent does: a freed TLS chain writes its close_notify
    const std::string payload = RandomBytes(3 << 20, 11);  // beyond socket buffers
    EXPECT_TRUE(Deliver(payload) == payload);
    ScratchDir dir;
    ToolOutput("cd " + dir.path() + " && openssl req -x509 -newkey rsa:2048 -nodes -days 1 " +
               "-subj /CN=localhost -keyout key -out cert 2>/dev/null");
    SSL_CTX* server = SSL_CTX_new(TLS_server_method());
    SSL_CTX* client = SSL_CTX_new(TLS_client_method());
    SSL_CTX_use_certificate_file(server, (dir / "cert").c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_use_PrivateKey_file(server, (dir / "key").c_str(), SSL_FILETYPE_PEM);
    EXPECT_TRUE(Deliver(payload, server, client) == payload);
    SSL_CTX_free(client);
    SSL_CTX_free(server);
}

TEST(BioStreamTest, TraceBiosWriteLinesAndDumpTraffic) {
    CapturingLog log;  // first: installing it clears wx's trace masks
    TraceMasksSet("Bio");
    BIO* trace = BIO_new_LogTrace("Bio", false);
    EXPECT_TRUE(BIO_write(trace, "\n", 1) == 0 && BIO_write(trace, "ab\n", 3) == 2);
    BIO_free_all(trace);
    trace = BIO_new_LogTrace("Bio", true);
    EXPECT_TRUE(BIO_printf(trace, "%d more", 2) == 6 && BIO_puts(trace, " lines") == 6);
    EXPECT_EQ(log.Lines().size(), 1u);  // held until the flush
    BIO_flush(trace);
    BIO_free_all(trace);
    TraceMasksSet("");
    EXPECT_EQ(log.Texts(wxLOG_Message),
              (std::vector<std::string>{"[Bio] ab", "[Bio] 2 more lines"}));

    BIO* dump = BIO_new(BIO_s_mem());
    BIO* traffic = BIO_new(BIO_s_mem());
    BIO_set_callback(traffic, BioDumpCB);
    BIO_set_callback_arg(traffic, reinterpret_cast<char*>(dump));
    char back[8], *dumped = nullptr;
    EXPECT_TRUE(BIO_write(traffic, "hello", 5) == 5 && BIO_read(traffic, back, sizeof back) == 5);
    const long length = BIO_get_mem_data(dump, &dumped);
    EXPECT_THAT(std::string(dumped, length),
                testing::MatchesRegex("write to 0x[0-9a-f]+ \\[0x[0-9a-f]+\\] \\(5 bytes => 5 "
                                      "\\(0x5\\)\\)\n  0000 - 68 65 6c 6c 6f .*\nread from .* "
                                      "\\(8 bytes => 5 \\(0x5\\)\\)\n  0000 - 68 .*"));
    BIO_free(traffic);
    BIO_free(dump);
}

}  // namespace
