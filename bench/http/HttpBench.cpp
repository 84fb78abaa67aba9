// Keep-alive GETs of a 1 KiB file from one local nginx, over TLS and plain:
// CHTTPClient against curl fetching the same URLs in one process (which
// reuses its connection too). Each side makes kRequests requests on one
// connection; curl runs as a child process, so both are timed by the wall
// clock, and the ratio of the two rates is printed at the end.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <wx/stream.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>

#include "core/http/HTTPClient.h"
#include "core/http/SSLContext.h"
#include "tests/http/HttpPeers.h"

namespace {

constexpr int kRequests = 10000;
constexpr double kGoal = 0.8;  // of curl's rate, at least

struct Setup {
    std::string dir;
    std::unique_ptr<VeskTest::Daemon> nginx;  // its port is the TLS one
    int plain = VeskTest::FreePort();

    bool Start() {
        char pattern[] = "/tmp/vesk-httpbench-XXXXXX";
        if (mkdtemp(pattern) == nullptr)
            return false;
        dir = pattern;
        if (!VeskTest::MakePki(dir) ||
            std::system(
                ("mkdir " + dir + "/www && head -c 1024 /dev/urandom >" + dir + "/www/small.bin")
                    .c_str()) != 0)
            return false;
        nginx = VeskTest::Nginx(dir, plain, VeskTest::FreePort());
        return nginx->port != 0;
    }
    std::string Url(bool tls) const {
        return std::string(tls ? "https" : "http") +
               "://127.0.0.1:" + std::to_string(tls ? nginx->port : plain) + "/small.bin";
    }
    ~Setup() {
        nginx.reset();
        if (!dir.empty())
            std::system(("rm -rf '" + dir + "'").c_str());
    }
};

Setup* g_setup = nullptr;

void Report(benchmark::State& state, std::chrono::steady_clock::time_point start) {
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
    state.SetIterationTime(wall.count());
    state.counters["requests/s"] = kRequests / wall.count();
}

// Neither side verifies the certificate: the handshake is one in 10,000.
// (The CA is loaded all the same, so that the callback has nothing to log.)
void BM_Get_CHTTPClient(benchmark::State& state) {
    const bool tls = state.range(0) != 0;
    VeskCore::CSSLContext* context = VeskCore::CSSLContext::New(TLS_client_method());
    context->LoadVerifyLocations(wxString::FromUTF8(g_setup->dir + "/ca.pem"));
    const wxString url = wxString::FromUTF8(g_setup->Url(tls));
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        VeskCore::CHTTPClient client(context, true);
        for (int i = 0; i < kRequests; ++i) {
            wxCountingOutputStream out;
            if (!client.Get(url, out, false) || out.GetLength() != 1024) {
                state.SkipWithError("GET failed");
                break;
            }
        }
        client.Disconnect();
        Report(state, start);
    }
    context->Delete();
}
BENCHMARK(BM_Get_CHTTPClient)->Arg(1)->Arg(0)->UseManualTime()->Iterations(1)->Repetitions(3);

// One curl process for all the requests, its URLs in a config file.
void BM_Get_Curl(benchmark::State& state) {
    const bool tls = state.range(0) != 0;
    const std::string config = g_setup->dir + "/urls.cfg";
    {
        std::ofstream urls(config);
        for (int i = 0; i < kRequests; ++i)
            urls << "url = \"" << g_setup->Url(tls) << "\"\noutput = \"/dev/null\"\n";
    }
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        VeskTest::ChildProcess curl({"curl", "-s", "-k", "--http1.1", "--fail", "-K", config});
        if (curl.Wait(300000) != 0) {
            state.SkipWithError(("curl failed: " + curl.output.substr(0, 300)).c_str());
            break;
        }
        Report(state, start);
    }
}
BENCHMARK(BM_Get_Curl)->Arg(1)->Arg(0)->UseManualTime()->Iterations(1)->Repetitions(3);

// Keeps the best rate of each benchmark and argument for the closing ratios.
class RateReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            auto counter = run.counters.find("requests/s");
            if (run.error_occurred || counter == run.counters.end() ||
                run.run_type != Run::RT_Iteration)
                continue;
            double& best = rates[run.run_name.function_name + "/" + run.run_name.args];
            best = std::max(best, counter->second.value);
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
        fprintf(stderr, "HttpBench: needs nginx, curl, the openssl command and loopback\n");
        return 1;
    }
    g_setup = &setup;
    RateReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    for (const char* kind : {"/1", "/0"}) {
        const double ours = reporter.rates[std::string("BM_Get_CHTTPClient") + kind];
        const double curl = reporter.rates[std::string("BM_Get_Curl") + kind];
        if (ours > 0 && curl > 0)
            printf("%s GETs/s: CHTTPClient %.0f, curl %.0f, ratio %.2f (goal >= %.2f: %s)\n",
                   kind[1] == '1' ? "TLS" : "plain", ours, curl, ours / curl, kGoal,
                   ours / curl >= kGoal ? "met" : "missed");
    }
    g_setup = nullptr;
    benchmark::Shutdown();
    return 0;
}
