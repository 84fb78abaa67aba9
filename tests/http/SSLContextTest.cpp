// TLS contexts against the openssl command on loopback: credentials files
// (activated ones open through their sealed password on a made-up machine),
// verification by chain, published option numbers, the security level, and
// the trace of handshakes, also of several connections at once.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <regex>
#include <thread>

#include "core/common/BioStream.h"
#include "core/common/HexCodec.h"
#include "core/http/SSLCert.h"
#include "core/http/SSLContext.h"
#include "core/runtime/LogTrace.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/http/TlsTestSupport.h"
#include "tests/support/CapturingLog.h"
#include "tests/support/Tools.h"

using namespace VeskCore;
using namespace VeskTest;

namespace {

const char kMachine[] = "m;u;r;02:00:00:00:00:01;h";
constexpr int kSeconds = 10;  // every wait on a peer

wxString Utf8(const std::string& text) {
    return wxString::FromUTF8(text);
}

struct ContextDelete {
    void operator()(CSSLContext* context) const { context->Delete(); }
};
using Context = std::unique_ptr<CSSLContext, ContextDelete>;

// One TLS connection over a socket of the test's, which it closes.
class Connection {
  public:
    Connection(CSSLContext* context, int fd) : fd_(fd), ssl_(SSL_new(context->handle())) {
        SSL_set_fd(ssl_, fd);
    }
    ~Connection() { SSL_free(ssl_), close(fd_); }
    bool Connect() { return fd_ >= 0 && SSL_connect(ssl_) == 1; }
    bool Accept() { return fd_ >= 0 && SSL_accept(ssl_) == 1; }
    bool Write(const std::string& text) {
        return SSL_write(ssl_, text.data(), static_cast<int>(text.size())) > 0;
    }
    // Reads until the peer closes or `until` came.
    std::string Read(const std::string& until = "") {
        std::string got;
        char buffer[4096];
        for (int n; (until.empty() || got.find(until) == std::string::npos) &&
                    (n = SSL_read(ssl_, buffer, sizeof buffer)) > 0;)
            got.append(buffer, static_cast<size_t>(n));
        return got;
    }
    std::string PeerFingerprint() const {
        X509* peer = SSL_get0_peer_certificate(ssl_);
        return peer == nullptr ? "" : CSSLCert::New(peer)->GetFingerprint().utf8_string();
    }
    SSL* ssl() const { return ssl_; }

  private:
    int fd_;
    SSL* ssl_;
};

std::string Fingerprint(const std::string& pem) {
    const std::string out = ToolOutput("openssl x509 -noout -fingerprint -sha1 -in " + pem);
    return out.substr(out.find('=') + 1, out.find('\n') - out.find('=') - 1);
}

class SSLContextTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        VESK_SKIP_WITHOUT_TOOLS("openssl");
        signal(SIGPIPE, SIG_IGN);  // a peer may close while tickets are still being sent
        dir_ = new ScratchDir;
        ASSERT_TRUE(MakePki(dir_->path()));
        setenv("VESK_HOSTSEAL_FACTS", kMachine, 1);
        const char* credentials[][3] = {
            {"agent", "agent", "agent"},       {"server", "server", "server"},
            {"weak", "weak", "weak"},          {"selfagent", "self", "self"},
            {"unknown", "impostor", "server"}, {"expiredagent", "selfexpired", "self"},
        };
        for (const auto& [name, certificate, key] : credentials)
            ASSERT_TRUE(
                WriteCredentials(File(name) + ".cred", Pem(certificate), File(key) + ".key"));
        ASSERT_NE(ReadFile(File("agent.cred")).find("ENCRYPTED PRIVATE KEY"), std::string::npos);
        WriteFile(File("certonly.cred"), ReadFile(Pem("agent")));
        std::string newer = ReadFile(File("agent.cred"));
        WriteFile(File("newer.cred"), newer.replace(newer.find("Version: 1"), 10, "Version: 2"));
    }
    static void TearDownTestSuite() {
        delete dir_;
        dir_ = nullptr;
        unsetenv("VESK_HOSTSEAL_FACTS");
    }
    void SetUp() override {
        if (dir_ == nullptr)
            GTEST_SKIP() << "no certificates";
    }
    void TearDown() override { TraceMasksSet(""); }

    static std::string File(const std::string& name) { return *dir_ / name; }
    static std::string Pem(const std::string& name) { return File(name + ".pem"); }
    // A context of `method` with the credentials <agent>.cred and the CA as
    // manager, verifying its peer with `verify`.
    static Context Credentialed(const SSL_METHOD* method, const std::string& agent, int verify) {
        Context context(CSSLContext::New(method));
        EXPECT_EQ(context->UseCredentials(Utf8(File(agent + ".cred")), Utf8(Pem("ca"))), 0);
        context->SetVerify(verify);
        return context;
    }
    static std::string VerifyError(int code) {
        return "SSLVerifyCallback() - verify error " + std::to_string(code) + ": " +
               X509_verify_cert_error_string(code);
    }

    static ScratchDir* dir_;
    CapturingLog log;
};
ScratchDir* SSLContextTest::dir_ = nullptr;

TEST_F(SSLContextTest, UseCredentialsReportsEachFailureWithItsMessageAndCode) {
    constexpr int kShown = 1 << 30;  // the code of the OpenSSL error the message shows
    const std::string pathIs = "Path is: ", errorIs = "Error is: ";
    const std::string agentLoad = "Unable to load agent certificate for verification.\n" + pathIs;
    struct Case {
        const char* agent;
        const char* manager;
        int code;
        std::string message;  // the start of the one error line; "" for none
    } const cases[] = {
        {"agent.cred", "ca.pem", 0, ""},
        {"selfagent.cred", "missing.pem", 0, ""},  // a manager not yet known is skipped
        {"agent.cred", "selfexpired.pem", X509_V_ERR_CERT_HAS_EXPIRED,
         "Unable to load manager certificate for verification: " + pathIs +
             File("selfexpired.pem") + "\n\n" + errorIs + "certificate has expired"},
        {"missing.cred", "", static_cast<int>(ERR_SYSTEM_FLAG | ENOENT),
         agentLoad + File("missing.cred") + "\n" + errorIs +
             "error:80000002:system library::No such file or directory"},
        {"unknown.cred", "ca.pem", X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY,
         agentLoad + File("unknown.cred") + "\n" + errorIs +
             "unable to get local issuer certificate"},
        {"expiredagent.cred", "", X509_V_ERR_CERT_HAS_EXPIRED,
         agentLoad + File("expiredagent.cred") + "\n" + errorIs + "certificate has expired"},
        {"certonly.cred", "ca.pem", kShown, "Unable to load agent private key.\nerror:"},
        {"newer.cred", "ca.pem", -1, "Unable to load agent private key.\nerror:00000000:"},
        // Debian's security level 2 refuses a 1024-bit RSA key.
        {"weak.cred", "ca.pem", static_cast<int>(ERR_PACK(ERR_LIB_SSL, 0, SSL_R_EE_KEY_TOO_SMALL)),
         "Unable to load agent credentials: \n\n" + pathIs + File("weak.cred") + "\n\n" + errorIs +
             "error:0A00018F:SSL routines::ee key too small"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.agent + std::string(" / ") + c.manager);
        Context context(CSSLContext::New(TLS_client_method()));
        log.Clear();
        const int code =
            context->UseCredentials(Utf8(File(c.agent)), Utf8(c.manager[0] ? File(c.manager) : ""));
        std::vector<std::string> errors = log.Texts(wxLOG_Error);
        if (c.message.empty()) {
            EXPECT_EQ(code, 0);
            EXPECT_TRUE(errors.empty()) << errors.front();
            EXPECT_EQ(SSL_CTX_check_private_key(context->handle()), 1);
            continue;
        }
        ASSERT_FALSE(errors.empty());
        EXPECT_EQ(errors.back().substr(0, c.message.size()), c.message);
        if (c.code != kShown) {
            EXPECT_EQ(code, c.code);
        } else {
            char shown[16];
            snprintf(shown, sizeof shown, "error:%08X:", static_cast<unsigned>(code));
            EXPECT_NE(errors.back().find(shown), std::string::npos) << errors.back();
        }
    }
}

// Lines of the message trace are whole messages: a record header or an inner
// content type would show without a content type.
const std::regex kMessageLine(
    R"(\[SSLMsg\] (>>>|<<<) TLS 1\.[23] (ChangeCipherSpec|Alert|Handshake) \[length [0-9a-f]{4}\])"
    R"((, [A-Za-z?]+)?( [a-z_?]+)? \[[0-9A-F]{2}( [0-9A-F]{2}){0,15}( \.\.\.)?\])");

std::vector<std::string> Lines(const CapturingLog& log, const std::string& mask) {
    std::vector<std::string> lines;
    for (const std::string& line : log.Texts(wxLOG_Message))
        if (line.rfind("[" + mask + "] ", 0) == 0)
            lines.push_back(line);
    return lines;
}

TEST_F(SSLContextTest, ClientVerifiesTheServerByChainNotByName) {
    struct Case {
        const char* certificate;
        int version;
        int verify;
        int failure;  // the verification error, or 0 for a connection
    } const cases[] = {
        {"server", TLS1_2_VERSION, SSL_VERIFY_PEER, 0},
        {"server", TLS1_3_VERSION, SSL_VERIFY_PEER, 0},
        {"elsewhere", TLS1_3_VERSION, SSL_VERIFY_PEER, 0},  // another host's
        {"impostor", TLS1_3_VERSION, SSL_VERIFY_PEER, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY},
        {"expired", TLS1_2_VERSION, SSL_VERIFY_PEER, X509_V_ERR_CERT_HAS_EXPIRED},
        {"impostor", TLS1_3_VERSION, SSL_VERIFY_NONE, 0},
    };
    for (const Case& c : cases) {
        const char* protocol = c.version == TLS1_2_VERSION ? "-tls1_2" : "-tls1_3";
        SCOPED_TRACE(c.certificate + std::string(protocol) + (c.verify ? "" : " unverified"));
        // The server insists on a client certificate from the CA.
        OpensslServer server({"-cert", Pem(c.certificate), "-key", File("server.key"), "-CAfile",
                              Pem("ca"), "-Verify", "1", "-verify_return_error", "-www", protocol});
        ASSERT_NE(server.port(), 0) << server.output;
        Context context = Credentialed(TLS_client_method(), "agent", c.verify);
        log.Clear();
        Connection connection(context.get(), ConnectLoopback(server.port(), kSeconds));
        EXPECT_EQ(connection.Connect(), c.failure == 0);
        if (c.failure != 0) {
            EXPECT_TRUE(log.Contains(VerifyError(c.failure))) << VerifyError(c.failure);
            continue;
        }
        EXPECT_EQ(SSL_version(connection.ssl()), c.version);
        EXPECT_TRUE(connection.Write("GET / HTTP/1.0\r\n\r\n"));
        EXPECT_EQ(connection.Read().substr(0, 15), "HTTP/1.0 200 ok");
        // Who answered shows in the fingerprint alone.
        EXPECT_EQ(connection.PeerFingerprint(), Fingerprint(Pem(c.certificate)));
    }
}

TEST_F(SSLContextTest, ServerAcceptsOpensslClientsWithTrustedCertificatesOnly) {
    Context context = Credentialed(TLS_server_method(), "server",
                                   SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT);
    int port = 0;
    const int listener = ListenLoopback(port, kSeconds);
    ASSERT_GE(listener, 0);
    for (const bool withCertificate : {true, false}) {
        SCOPED_TRACE(withCertificate ? "with a certificate" : "without");
        std::vector<std::string> argv = {"openssl",  "s_client",
                                         "-quiet",   "-verify_return_error",
                                         "-connect", "127.0.0.1:" + std::to_string(port),
                                         "-CAfile",  Pem("ca")};
        if (withCertificate)
            argv.insert(argv.end(), {"-cert", Pem("agent"), "-key", File("agent.key")});
        ChildProcess client(argv);
        client.Write("hello\n");
        {
            Connection connection(context.get(), accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
            EXPECT_EQ(connection.Accept(), withCertificate);
            if (withCertificate) {
                EXPECT_EQ(connection.Read("\n"), "hello\n");
                EXPECT_TRUE(connection.Write("bye\n"));
                EXPECT_EQ(connection.PeerFingerprint(), Fingerprint(Pem("agent")));
            }
            SSL_shutdown(connection.ssl());
        }
        client.CloseInput();
        const int status = client.Wait(kSeconds * 1000);
        EXPECT_EQ(status == 0, withCertificate) << client.output;
        EXPECT_EQ(client.output.find("bye") != std::string::npos, withCertificate) << client.output;
    }
    close(listener);
}

TEST_F(SSLContextTest, OptionsKeepTheirPublishedNumbersAndTheSecurityLevelNeverDrops) {
    EXPECT_EQ(CSSLContext::New(nullptr), nullptr);
    ASSERT_EQ(log.Texts(wxLOG_Error).size(), 1u);
    EXPECT_EQ(log.Texts(wxLOG_Error)[0].rfind("CSSLContext::New() - error:", 0), 0u);

    constexpr long kAll = 0x80000BFF, kServerPreference = 0x400000, kNoSslV2 = 0x1000000;
    struct Options {
        long published;
        uint64_t set;    // today's bits that must be on
        uint64_t unset;  // and off
        long reported;   // published bits that come back
    } const options[] = {
        {0, SSL_OP_IGNORE_UNEXPECTED_EOF, SSL_OP_ALL | SSL_OP_NO_ANTI_REPLAY, kNoSslV2},
        {kAll, SSL_OP_ALL, SSL_OP_NO_ANTI_REPLAY, kAll | kNoSslV2},
        {kServerPreference, SSL_OP_CIPHER_SERVER_PREFERENCE, 0, kServerPreference | kNoSslV2},
        {kNoSslV2, 0, SSL_OP_NO_ANTI_REPLAY | SSL_OP_ALL, kNoSslV2},
        {static_cast<long>(SSL_OP_NO_TICKET), SSL_OP_NO_TICKET, SSL_OP_ALL,
         static_cast<long>(SSL_OP_NO_TICKET)},
    };
    for (const Options& o : options) {
        SCOPED_TRACE(o.published);
        Context context(CSSLContext::New(TLS_client_method()));
        EXPECT_EQ(SSL_CTX_get_min_proto_version(context->handle()), TLS1_2_VERSION);
        const long reported = context->SetOptions(o.published);
        EXPECT_EQ(reported & o.reported, o.reported);
        EXPECT_EQ((reported & kAll) == kAll, (o.set & SSL_OP_ALL) != 0);
        const uint64_t today = SSL_CTX_get_options(context->handle());
        EXPECT_EQ(today & o.set, o.set);
        EXPECT_EQ(today & o.unset, 0u);
    }

    Context context(CSSLContext::New(TLS_server_method()));
    const int level = SSL_CTX_get_security_level(context->handle());
    ASSERT_GE(level, 2) << "Debian's default security level is 2";
    struct Ciphers {
        std::string list;
        int result;
        int level;  // afterwards
    } const lists[] = {
        {"ECDHE-RSA-AES128-GCM-SHA256", 1, level},
        {"DEFAULT:@SECLEVEL=0", 0, level},
        {"HIGH:@SECLEVEL=1:@SECLEVEL=" + std::to_string(level), 0, level},
        {"HIGH:@SECLEVEL=" + std::to_string(level), 1, level},
        {"HIGH:@SECLEVEL=" + std::to_string(level + 1), 1, level + 1},
        {"HIGH:@SECLEVEL=" + std::to_string(level), 0, level + 1},  // not even back
        {"NO-SUCH-CIPHER", 0, level + 1},
    };
    for (const Ciphers& c : lists) {
        SCOPED_TRACE(c.list);
        ERR_clear_error();
        EXPECT_EQ(context->SetCipherList(c.list.c_str()), c.result);
        EXPECT_EQ(SSL_CTX_get_security_level(context->handle()), c.level);
        const bool refused = c.result == 0 && c.list.find("@SECLEVEL") != std::string::npos;
        EXPECT_EQ(ERR_GET_REASON(ERR_peek_error()) == SSL_R_INSUFFICIENT_SECURITY, refused);
    }
}

TEST_F(SSLContextTest, CallbacksWriteTheLinesOfTheirMessagesAndStates) {
    TraceMasksSet("SSL,SSLMsg");
    struct Message {
        int writing, version, type;
        const char* hex;
        const char* line;
    } const messages[] = {
        {1, TLS1_3_VERSION, 22, "0102030405060708090A0B0C0D0E0F1011",
         ">>> TLS 1.3 Handshake [length 0011], ClientHello [01 02 03 04 05 06 07 08 09 0A 0B 0C 0D "
         "0E 0F 10 ...]"},
        {0, TLS1_2_VERSION, 21, "0228",
         "<<< TLS 1.2 Alert [length 0002], fatal handshake_failure [02 28]"},
        {1, TLS1_2_VERSION, 20, "01", ">>> TLS 1.2 ChangeCipherSpec [length 0001] [01]"},
        {1, TLS1_3_VERSION, 22, "0400", ">>> TLS 1.3 Handshake [length 0002], ??? [04 00]"},
        {1, SSL2_VERSION, 0, "000002",
         ">>> SSL 2.0 [length 0003], ERROR: NO-CERTIFICATE-ERROR [00 00 02]"},
        {0, 0x7F00, 22, "", "<<< ???Handshake [length 0000], ??? ["},
        {1, TLS1_VERSION, 23, "41", ">>> TLS 1.0  [length 0001] [41]"},
    };
    BIO* trace = BIO_new_LogTrace("SSLMsg", true);
    for (const Message& m : messages) {
        log.Clear();
        const std::string bytes = fromHexString(wxString::FromUTF8(m.hex));
        CSSLContext::SSLContextMessageCallback(m.writing, m.version, m.type, bytes.data(),
                                               bytes.size(), nullptr, trace);
        EXPECT_EQ(Lines(log, "SSLMsg"),
                  std::vector<std::string>{"[SSLMsg] " + std::string(m.line)});
    }
    BIO_free_all(trace);

    Context context(CSSLContext::New(TLS_client_method()));
    SSL* ssl = SSL_new(context->handle());
    struct State {
        int where, result;
        const char* line;  // a trace line, or for a result of 0 or below an error line
    } const states[] = {
        {SSL_CB_LOOP, 1, "[SSL] undefined:before SSL initialization"},
        {SSL_CB_READ_ALERT, 0x228, "[SSL] SSL3 alert read:fatal:handshake failure"},
        {SSL_CB_CONNECT_EXIT, 0, "SSL_connect:failed in before SSL initialization"},
        {SSL_CB_ACCEPT_EXIT, -1, "SSL_accept:error in before SSL initialization"},
        {SSL_CB_HANDSHAKE_START, 1, ""},
    };
    for (const State& s : states) {
        log.Clear();
        ERR_clear_error();
        CSSLContext::SSLContextInfoCallback(ssl, s.where, s.result);
        std::vector<std::string> lines;
        for (const LogLine& line : log.Lines())
            lines.push_back(line.text);
        EXPECT_EQ(lines, *s.line ? std::vector<std::string>{s.line} : std::vector<std::string>{});
    }

    // A handshake that must wait for its peer prints its states but no exit and no error.
    log.Clear();
    BIO* toPeer = BIO_new(BIO_s_mem());
    BIO* fromPeer = BIO_new(BIO_s_mem());
    BIO_set_mem_eof_return(fromPeer, -1);
    SSL_set_bio(ssl, fromPeer, toPeer);
    EXPECT_EQ(SSL_get_error(ssl, SSL_connect(ssl)), SSL_ERROR_WANT_READ);
    const std::vector<std::string> waiting = {"[SSL] SSL_connect:before SSL initialization",
                                              "[SSL] SSL_connect:SSLv3/TLS write client hello"};
    EXPECT_EQ(Lines(log, "SSL"), waiting);
    EXPECT_TRUE(log.Texts(wxLOG_Error).empty());
    SSL_free(ssl);
}

TEST_F(SSLContextTest, TraceLinesOfConcurrentConnectionsStayWhole) {
    TraceMasksSet("SSL,SSLMsg");
    Context server = Credentialed(TLS_server_method(), "server",
                                  SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT);
    Context client = Credentialed(TLS_client_method(), "agent", SSL_VERIFY_PEER);
    log.Clear();
    constexpr int kThreads = 4, kHandshakes = 6;
    std::atomic<int> connected{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; ++t)
        workers.emplace_back([&] {
            for (int i = 0; i < kHandshakes; ++i) {
                int fds[2];
                if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
                    return;
                SetTimeouts(fds[0], kSeconds), SetTimeouts(fds[1], kSeconds);
                std::thread accepting(
                    [&server, fd = fds[1]] { Connection(server.get(), fd).Accept(); });
                connected += Connection(client.get(), fds[0]).Connect();
                accepting.join();
            }
        });
    for (std::thread& worker : workers)
        worker.join();
    EXPECT_EQ(connected, kThreads * kHandshakes);
    size_t hellos = 0;
    for (const std::string& line : Lines(log, "SSLMsg")) {
        EXPECT_TRUE(std::regex_match(line, kMessageLine)) << line;
        hellos += line.find(">>> TLS 1.3 Handshake ") != std::string::npos &&
                  line.find(", ClientHello [") != std::string::npos;
    }
    EXPECT_EQ(hellos, static_cast<size_t>(kThreads * kHandshakes));
    const auto states = Lines(log, "SSL");
    for (const char* line :
         {"[SSL] SSL_connect:SSLv3/TLS write client hello", "[SSL] SSL_connect: exit",
          "[SSL] SSLVerifyCallback() - depth is 1 /O=Vesk Test/CN=Vesk Test CA",
          "[SSL] SSLVerifyCallback() - depth is 0 /CN=manager.test",
          "[SSL] SSLVerifyCallback() - verify return: 1"})
        EXPECT_NE(std::find(states.begin(), states.end(), line), states.end()) << line;
}

}  // namespace
