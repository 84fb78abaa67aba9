// Bulk transfer over TLS on loopback: 64 MiB written through CBioOutputStream
// and read through CBioInputStream (the chains HTTP uses: a buffer on TLS on a
// non-blocking socket), against SSL_write and SSL_read on the same kind of
// connection used directly.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "bench/support/RatioMain.h"
#include "core/common/BioInputStream.h"
#include "core/common/BioOutputStream.h"

namespace {

constexpr size_t kBlock = 16384;
constexpr size_t kTotal = 64u << 20;

// A self-signed certificate and its key, made once.
struct Identity {
    EVP_PKEY* key = EVP_RSA_gen(2048);
    X509* certificate = X509_new();
    Identity() {
        X509_set_version(certificate, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
        X509_gmtime_adj(X509_getm_notBefore(certificate), 0);
        X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
        X509_set_pubkey(certificate, key);
        X509_NAME* name = X509_get_subject_name(certificate);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("bench"), -1, -1, 0);
        X509_set_issuer_name(certificate, name);
        X509_sign(certificate, key, EVP_sha256());
    }
};

const Identity& Server() {
    static const Identity identity;
    return identity;
}

// A connected loopback TCP pair: {client, server}.
std::pair<int, int> LoopbackPair() {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
    listen(listener, 1);
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address);
    const int server = accept(listener, nullptr, nullptr);
    close(listener);
    return {client, server};
}

void NonBlocking(int fd) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
}

// Both ends of one TLS connection, handshaken.
class TlsPair {
  public:
    explicit TlsPair(bool nonBlocking) {
        clientContext = SSL_CTX_new(TLS_client_method());
        serverContext = SSL_CTX_new(TLS_server_method());
        SSL_CTX_use_certificate(serverContext, Server().certificate);
        SSL_CTX_use_PrivateKey(serverContext, Server().key);
        std::tie(clientFd, serverFd) = LoopbackPair();
        client = SSL_new(clientContext);
        server = SSL_new(serverContext);
        SSL_set_fd(client, clientFd);
        SSL_set_fd(server, serverFd);
        std::thread accepting([this] { SSL_accept(server); });
        SSL_connect(client);
        accepting.join();
        if (nonBlocking) {
            NonBlocking(clientFd);
            NonBlocking(serverFd);
        }
    }
    ~TlsPair() {
        SSL_free(client);
        SSL_free(server);
        close(clientFd);
        close(serverFd);
        SSL_CTX_free(clientContext);
        SSL_CTX_free(serverContext);
    }
    SSL_CTX* clientContext;
    SSL_CTX* serverContext;
    SSL* client;
    SSL* server;
    int clientFd;
    int serverFd;
};

// The chain HTTP reads and writes through: buffer, TLS, the socket.
BIO* Chain(SSL* ssl) {
    BIO* tls = BIO_new(BIO_f_ssl());
    BIO_set_ssl(tls, ssl, BIO_NOCLOSE);
    return BIO_push(BIO_new(BIO_f_buffer()), tls);
}

void BM_TlsDirect(benchmark::State& state) {
    TlsPair tls(false);
    std::vector<char> block(kBlock, 'x');
    for (auto _ : state) {
        std::thread reader([&tls] {
            std::vector<char> in(kBlock);
            for (size_t got = 0; got < kTotal;) {
                const int n = SSL_read(tls.server, in.data(), static_cast<int>(in.size()));
                if (n <= 0)
                    break;
                got += static_cast<size_t>(n);
            }
        });
        for (size_t sent = 0; sent < kTotal; sent += kBlock)
            SSL_write(tls.client, block.data(), static_cast<int>(kBlock));
        reader.join();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kTotal));
}
BENCHMARK(BM_TlsDirect)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_TlsThroughStreams(benchmark::State& state) {
    TlsPair tls(true);
    BIO* writing = Chain(tls.client);
    BIO* reading = Chain(tls.server);
    std::vector<char> block(kBlock, 'x');
    for (auto _ : state) {
        size_t received = 0;
        std::thread reader([reading, &received] {
            VeskCore::CBioInputStream in(reading, kTotal, 30);
            std::vector<char> buffer(kBlock);
            while (in.IsOk())
                received += in.Read(buffer.data(), buffer.size()).LastRead();
        });
        VeskCore::CBioOutputStream out(writing, 30);
        size_t sent = 0;
        while (sent < kTotal && out.IsOk())
            sent += out.Write(block.data(), kBlock).LastWrite();
        out.Sync();
        reader.join();
        if (sent != kTotal || received != kTotal)
            state.SkipWithError("the transfer was cut short");
    }
    BIO_free_all(writing);
    BIO_free_all(reading);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kTotal));
}
BENCHMARK(BM_TlsThroughStreams)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

VESK_BENCH_SPEED(BM_TlsThroughStreams, BM_TlsDirect, 0.8);
VESK_BENCH_MAIN();
