// Full TLS handshakes per second against one local `openssl s_server`: a
// client on CSSLContext (activated credentials, verifying the server's chain)
// against `openssl s_time -new`, which verifies the same chain. Both close
// as s_time does, without waiting for a close_notify. s_time runs as a child
// process, so its rate is taken from its connection count over the wall time
// of its run; the ratio of the two rates is printed at the end.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <thread>

#include "core/http/SSLContext.h"
#include "tests/http/TlsTestSupport.h"

namespace {

using VeskCore::CSSLContext;
using VeskTest::OpensslServer;

constexpr double kSeconds = 5;  // of each measurement
constexpr double kGoal = 0.8;   // of s_time's rate, at least

// The certificates, the credentials and the server, for the whole run.
struct Setup {
    std::string dir;
    std::unique_ptr<OpensslServer> server;
    std::thread drain;  // s_server's output must not fill its pipe
    std::atomic<bool> stop{false};

    std::string File(const std::string& name) const { return dir + "/" + name; }

    bool Start() {
        char pattern[] = "/tmp/vesk-tlsbench-XXXXXX";
        if (mkdtemp(pattern) == nullptr)
            return false;
        dir = pattern;
        if (!VeskTest::MakePki(dir))
            return false;
        setenv("VESK_HOSTSEAL_FACTS", "m;u;r;02:00:00:00:00:01;h", 1);
        if (!VeskTest::WriteCredentials(File("agent.cred"), File("agent.pem"), File("agent.key")))
            return false;
        server = std::make_unique<OpensslServer>(std::vector<std::string>{
            "-cert", File("server.pem"), "-key", File("server.key"), "-www"});
        if (server->port() == 0)
            return false;
        drain = std::thread([this] {
            while (!stop) {
                server->WaitForLine("\x01", 200);
                server->output.clear();
            }
        });
        return true;
    }
    ~Setup() {
        stop = true;
        if (drain.joinable())
            drain.join();
        server.reset();
        if (!dir.empty())
            std::system(("rm -rf '" + dir + "'").c_str());
    }
};

Setup* g_setup = nullptr;

void BM_Handshake_CSSLContext(benchmark::State& state) {
    CSSLContext* context = CSSLContext::New(TLS_client_method());
    if (context->UseCredentials(wxString::FromUTF8(g_setup->File("agent.cred")),
                                wxString::FromUTF8(g_setup->File("ca.pem"))) != 0) {
        state.SkipWithError("UseCredentials failed");
        context->Delete();
        return;
    }
    context->SetVerify(SSL_VERIFY_PEER);
    for (auto _ : state) {
        const int fd = VeskTest::ConnectLoopback(g_setup->server->port(), 10);
        SSL* ssl = SSL_new(context->handle());
        SSL_set_fd(ssl, fd);
        const bool connected = SSL_connect(ssl) == 1;
        SSL_set_shutdown(ssl, SSL_SENT_SHUTDOWN | SSL_RECEIVED_SHUTDOWN);
        SSL_free(ssl);
        close(fd);
        if (!connected) {
            state.SkipWithError("handshake failed");
            break;
        }
    }
    state.counters["handshakes/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    context->Delete();
}
BENCHMARK(BM_Handshake_CSSLContext)
    ->UseRealTime()
    ->MinTime(kSeconds)
    ->Unit(benchmark::kMicrosecond);

// One run of s_time; the time reported is the wall time per connection.
void BM_Handshake_OpensslSTime(benchmark::State& state) {
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        VeskTest::ChildProcess sTime({"openssl", "s_time", "-connect",
                                      "127.0.0.1:" + std::to_string(g_setup->server->port()),
                                      "-new", "-time", std::to_string(static_cast<int>(kSeconds)),
                                      "-CAfile", g_setup->File("ca.pem"), "-verify", "2"});
        const int status = sTime.Wait(static_cast<int>(kSeconds * 1000) + 30000);
        const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
        const size_t at = sTime.output.find(" connections in ");
        const long connections =
            at == std::string::npos
                ? 0
                : std::atol(sTime.output.c_str() + sTime.output.rfind('\n', at) + 1);
        if (status != 0 || connections <= 0) {
            state.SkipWithError(("s_time failed: " + sTime.output.substr(0, 300)).c_str());
            break;
        }
        state.SetIterationTime(wall.count() / static_cast<double>(connections));
        state.counters["handshakes/s"] = static_cast<double>(connections) / wall.count();
    }
}
BENCHMARK(BM_Handshake_OpensslSTime)->UseManualTime()->Iterations(1)->Unit(benchmark::kMicrosecond);

// Keeps the handshake rate of each benchmark for the closing ratio.
class RateReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            auto counter = run.counters.find("handshakes/s");
            if (!run.error_occurred && counter != run.counters.end())
                rates[run.run_name.function_name] = counter->second.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> rates;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    Setup setup;
    if (!setup.Start()) {
        fprintf(stderr, "TlsBench: needs the openssl command and a loopback interface\n");
        return 1;
    }
    g_setup = &setup;
    RateReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const double ours = reporter.rates["BM_Handshake_CSSLContext"];
    const double tool = reporter.rates["BM_Handshake_OpensslSTime"];
    if (ours > 0 && tool > 0)
        printf(
            "handshakes/s: CSSLContext %.0f, openssl s_time %.0f, ratio %.2f (goal >= %.2f: %s)\n",
            ours, tool, ours / tool, kGoal, ours / tool >= kGoal ? "met" : "missed");
    g_setup = nullptr;
    benchmark::Shutdown();
    return 0;
}
