// The host queries against the tools an operator would use instead, in one
// run, each side timed by the wall clock (the tools run as child processes,
// their output going to a file):
//   listening ports: 10,000 loopback listeners and 9,000 established pairs
//     in a network namespace of this process's own, against `ss -ltnu`, and
//     with owners against `ss -ltnup`;
//   a listing of 100,000 entries against `ls -f`;
//   a contents search over 100 MB against `grep -E`, with this process's
//     peak RSS during the search and what the search added to it (goal:
//     under twice the file size).
// The namespace needs root (CAP_SYS_ADMIN); without it the port benchmarks
// report the reason and are skipped. Its sockets are held by two child
// processes, so owners are looked up across processes as on a real host.
// Each side includes what a script waits for: the query and the digest of
// its result.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "bench/support/RatioMain.h"
#include "core/host/HmdQueries.h"

namespace {

using Clock = std::chrono::steady_clock;
using VeskCore::CHostMetaDataQueryResult;

constexpr int kListeners = 10000;  // 7,000 TCP IPv4, 2,000 TCP IPv6, 1,000 UDP
constexpr int kPairs = 9000;
constexpr int kEntries = 100000;
constexpr size_t kContentsBytes = 100u << 20;
// Two searches: one that takes most lines (the answer is then most of the
// file, held as a wxString), and one that picks about one line in a hundred.
constexpr const char* kPatterns[] = {"error [0-9]+|timeout", "kernelx|errorx [0-9]+"};

std::string g_scratch;  // this run's files, removed at the end

double Seconds(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Runs a tool with its output in a file; its wall time, or -1.
double RunTool(const std::vector<std::string>& argv) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, (g_scratch + "/tool-output").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::vector<char*> args;
    for (const std::string& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    const auto start = Clock::now();
    pid_t child = 0;
    const int spawned = posix_spawnp(&child, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    if (spawned != 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) ||
        WEXITSTATUS(status) > 1)
        return -1;
    return Seconds(start);
}

void Tool(benchmark::State& state, const std::vector<std::string>& argv) {
    for (auto _ : state) {
        const double seconds = RunTool(argv);
        if (seconds < 0) {
            state.SkipWithError(("could not run " + argv[0]).c_str());
            return;
        }
        state.SetIterationTime(seconds);
    }
}

template <class Query>
void Ours(benchmark::State& state, Query query) {
    for (auto _ : state) {
        const auto start = Clock::now();
        CHostMetaDataQueryResult result;
        if (!query(result) || !result.ComputeHash()) {
            state.SkipWithError("the query failed");
            return;
        }
        state.SetIterationTime(Seconds(start));
        state.counters["items"] = static_cast<double>(result.items.GetChildren().GetCount());
    }
}

// --- The network namespace ------------------------------------------------

int Bound(int family, int type, int port) {
    const int fd = socket(family, type | SOCK_CLOEXEC, 0);
    sockaddr_storage address{};
    socklen_t length;
    if (family == AF_INET) {
        auto* in = reinterpret_cast<sockaddr_in*>(&address);
        in->sin_family = AF_INET;
        in->sin_port = htons(static_cast<uint16_t>(port));
        in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        length = sizeof *in;
    } else {
        auto* in = reinterpret_cast<sockaddr_in6*>(&address);
        in->sin6_family = AF_INET6;
        in->sin6_port = htons(static_cast<uint16_t>(port));
        in->sin6_addr = in6addr_loopback;
        length = sizeof *in;
    }
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        (type == SOCK_STREAM && listen(fd, 4096) != 0))
        return -1;
    return fd;
}

// Brings lo up in the current network namespace.
bool LoopbackUp() {
    const int control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    strcpy(request.ifr_name, "lo");
    ioctl(control, SIOCGIFFLAGS, &request);
    request.ifr_flags |= IFF_UP;
    const bool up = ioctl(control, SIOCSIFFLAGS, &request) == 0;
    close(control);
    return up;
}

std::string MakeListeners() {
    for (int i = 0; i < kListeners; ++i) {
        const bool tcp = i < 9000;
        if (Bound(i < 7000 ? AF_INET : (tcp ? AF_INET6 : AF_INET), tcp ? SOCK_STREAM : SOCK_DGRAM,
                  20000 + i) < 0)
            return std::string("listener: ") + strerror(errno);
    }
    return "";
}

std::string MakePairs() {
    const int server = Bound(AF_INET, SOCK_STREAM, 19999);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(19999);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int i = 0; i < kPairs; ++i) {
        const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(client, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0 ||
            accept4(server, nullptr, nullptr, SOCK_CLOEXEC) < 0)
            return std::string("pair: ") + strerror(errno);
    }
    return "";
}

// Runs `make` in a child process that keeps what it made until this process
// ends: the sockets outnumber what one process may hold open (a hard
// RLIMIT_NOFILE of 20,000 is common in containers). "" once they stand.
std::string InHolder(std::string (*make)()) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return std::string("pipe: ") + strerror(errno);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0)
        return std::string("fork: ") + strerror(errno);
    if (child == 0) {
        close(ends[0]);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const std::string failure = getppid() == parent ? make() : "parent gone";
        if (write(ends[1], failure.data(), failure.size()) < 0 || !failure.empty())
            _exit(1);
        close(ends[1]);
        for (;;)
            pause();
    }
    close(ends[1]);
    std::string failure;
    char buffer[256];
    for (ssize_t got; (got = read(ends[0], buffer, sizeof buffer)) != 0;) {
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            break;
        failure.append(buffer, static_cast<size_t>(got));
    }
    close(ends[0]);
    if (failure.empty() && waitpid(child, nullptr, WNOHANG) != 0)
        return "the holder of the sockets died";
    return failure;
}

// "" once the namespace and its sockets stand, else why not.
std::string MakeNamespace() {
    if (unshare(CLONE_NEWNET) != 0)
        return std::string("no private network namespace: ") + strerror(errno);
    if (!LoopbackUp())
        return "can't bring lo up";
    std::string failure = InHolder(MakeListeners);
    return failure.empty() ? InHolder(MakePairs) : failure;
}

bool InNamespace(benchmark::State& state) {
    static const std::string failure = MakeNamespace();
    if (!failure.empty())
        state.SkipWithError(failure.c_str());
    return failure.empty();
}

void BM_ListenPorts(benchmark::State& state) {
    if (InNamespace(state))
        Ours(state, [](CHostMetaDataQueryResult& result) {
            return VeskCore::GetHmdListenPorts(result, 0, nullptr);
        });
}
void BM_SsListening(benchmark::State& state) {
    if (InNamespace(state))
        Tool(state, {"ss", "-ltnu"});
}
void BM_ListenPortsDetailed(benchmark::State& state) {
    const wxString detailed = wxS("detailed");
    if (InNamespace(state))
        Ours(state, [&](CHostMetaDataQueryResult& result) {
            return VeskCore::GetHmdListenPorts(result, 1, &detailed);
        });
}
void BM_SsListeningWithProcesses(benchmark::State& state) {
    if (InNamespace(state))
        Tool(state, {"ss", "-ltnup"});
}

// --- Files ----------------------------------------------------------------

std::string Directory() {
    static const std::string path = [] {
        const std::string dir = g_scratch + "/listing";
        mkdir(dir.c_str(), 0700);
        char name[32];
        for (int i = 0; i < kEntries; ++i) {
            snprintf(name, sizeof name, "/entry-%06d", i);
            close(open((dir + name).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        }
        return dir;
    }();
    return path;
}

std::string TextFile() {
    static const std::string path = [] {
        static const char* const words[] = {"alpha",   "beta", "error",  "warning", "connection",
                                            "timeout", "user", "kernel", "disk",    "request"};
        std::mt19937 random(1);
        std::string text;
        text.reserve(kContentsBytes + 200);
        while (text.size() < kContentsBytes) {
            for (int n = 3 + static_cast<int>(random() % 12); n > 0; --n)
                text += std::string(words[random() % 10]) + (random() % 97 ? " " : "x ");
            text += std::to_string(random() % 1000) + "\n";
        }
        const std::string file = g_scratch + "/text";
        std::ofstream(file, std::ios::binary) << text;
        return file;
    }();
    return path;
}

void BM_Listing(benchmark::State& state) {
    const wxString dir = wxString::FromUTF8(Directory());
    Ours(state, [&](CHostMetaDataQueryResult& result) {
        return VeskCore::GetHmdDirectoryListing(result, 1, &dir);
    });
}
void BM_LsF(benchmark::State& state) {
    Tool(state, {"ls", "-f", Directory()});
}

// A line of /proc/self/status, in KiB.
long StatusKb(const char* field) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(field, 0) == 0)
            return std::stol(line.substr(strlen(field)));
    return 0;
}

// The process's peak RSS during the search, and what the search added to the
// RSS it started from (the earlier benchmarks leave memory behind).
void BM_Contents(benchmark::State& state) {
    const wxString args[] = {wxString::FromUTF8(TextFile()),
                             wxString::FromUTF8(kPatterns[state.range(0)]), wxS("1000000000")};
    long peak = 0, added = 0;
    for (auto _ : state) {
        std::ofstream("/proc/self/clear_refs") << "5";  // the peak from here on
        const long before = StatusKb("VmRSS:");
        const auto start = Clock::now();
        CHostMetaDataQueryResult result;
        if (!VeskCore::GetHmdFileContents(result, 3, args) || !result.ComputeHash()) {
            state.SkipWithError("the query failed");
            return;
        }
        state.SetIterationTime(Seconds(start));
        const long high = StatusKb("VmHWM:");
        peak = std::max(peak, high);
        added = std::max(added, high - before);
    }
    state.counters["peak_rss_MB"] = peak / 1024.0;
    state.counters["added_rss_MB"] = added / 1024.0;
    state.counters["added_per_file_size"] = added * 1024.0 / kContentsBytes;
}
// grep's own peak RSS can't be had here: a child's maxrss starts from its
// parent's when it is spawned.
void BM_GrepE(benchmark::State& state) {
    for (auto _ : state) {
        const double seconds = RunTool({"grep", "-E", kPatterns[state.range(0)], TextFile()});
        if (seconds < 0) {
            state.SkipWithError("could not run grep");
            return;
        }
        state.SetIterationTime(seconds);
    }
}

BENCHMARK(BM_ListenPorts)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(20);
BENCHMARK(BM_SsListening)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(20);
BENCHMARK(BM_ListenPortsDetailed)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(20);
BENCHMARK(BM_SsListeningWithProcesses)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(20);
BENCHMARK(BM_Listing)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(20);
BENCHMARK(BM_LsF)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(20);
BENCHMARK(BM_Contents)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5)
    ->Arg(0)
    ->Arg(1);
BENCHMARK(BM_GrepE)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5)->Arg(0)->Arg(1);

// Registered by hand: the names must stay free of blanks, which the
// stringizing macro would keep from a formatter's layout.
const VeskBench::RatioRegistrar s_ratios[] = {
    {"BM_ListenPorts/iterations:20/manual_time", "BM_SsListening/iterations:20/manual_time", 1.0,
     false},
    {"BM_ListenPortsDetailed/iterations:20/manual_time",
     "BM_SsListeningWithProcesses/iterations:20/manual_time", 1.0, false},
    {"BM_Listing/iterations:20/manual_time", "BM_LsF/iterations:20/manual_time", 1.5, false},
    {"BM_Contents/0/iterations:5/manual_time", "BM_GrepE/0/iterations:5/manual_time", 1.0, false},
    {"BM_Contents/1/iterations:5/manual_time", "BM_GrepE/1/iterations:5/manual_time", 1.0, false},
};

// The ratios compare wall times: a tool's CPU time is its child's, which the
// benchmark's own clock never sees.
class WallRatioReporter : public VeskBench::RatioReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        std::vector<Run> wall = runs;
        for (Run& run : wall)
            run.cpu_accumulated_time = run.real_accumulated_time;
        RatioReporter::ReportRuns(wall);
    }
};

}  // namespace

int main(int argc, char** argv) {
    char scratch[] = "/tmp/vesk-hmdbench-XXXXXX";
    if (mkdtemp(scratch) == nullptr)
        return 1;
    g_scratch = scratch;
    benchmark::Initialize(&argc, argv);
    WallRatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatios();
    benchmark::Shutdown();
    return system(("rm -rf '" + g_scratch + "'").c_str()) == 0 ? 0 : 1;
}
