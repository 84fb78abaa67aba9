// Cloud detection where it must cost nothing: off-cloud (DMI names neither
// provider) a collection is to take well under 50 ms and open no socket; on
// an EC2 machine whose metadata address nobody answers (a private network
// namespace whose route drops the packets), under 2.5 s. Each is raced
// against a sleep of its budget.
#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "bench/cloud/BenchSupport.h"
#include "core/host/CloudEnvInfo.h"
#include "tests/host/CloudTestSupport.h"

namespace {

std::atomic<int> s_sockets{0};

}  // namespace

// Every socket the process opens is counted on its way to the C library.
extern "C" int socket(int domain, int type, int protocol) {
    using Socket = int (*)(int, int, int);
    static const auto real = reinterpret_cast<Socket>(dlsym(RTLD_NEXT, "socket"));
    ++s_sockets;
    return real(domain, type, protocol);
}

namespace {

using namespace VeskCore;

void Sleep(benchmark::State& state, std::chrono::milliseconds budget) {
    for (auto _ : state)
        std::this_thread::sleep_for(budget);
}

void BM_Budget50ms(benchmark::State& state) {
    Sleep(state, std::chrono::milliseconds(50));
}
BENCHMARK(BM_Budget50ms)->UseRealTime()->Iterations(5);

void BM_Budget2500ms(benchmark::State& state) {
    Sleep(state, std::chrono::milliseconds(2500));
}
BENCHMARK(BM_Budget2500ms)->UseRealTime()->Iterations(1);

void BM_CollectOffCloud(benchmark::State& state) {
    VeskBench::ScratchFolder dmi;
    VeskTest::WriteDmi(dmi.path(), VeskTest::kBareMetal);
    CloudEnvPlaces places;
    places.dmiFolder = dmi.path();
    VeskTest::PlacesOverride use(places);
    const int before = s_sockets;
    for (auto _ : state)
        CollectEnvInfo(false);
    state.counters["sockets"] = s_sockets - before;
    if (s_sockets != before)
        state.SkipWithError("a socket was opened off-cloud");
}
BENCHMARK(BM_CollectOffCloud)->UseRealTime();

// Enters a network namespace of its own for good: it runs last.
void BM_CollectBlackHole(benchmark::State& state) {
    VeskBench::ScratchFolder dmi;
    VeskTest::WriteDmi(dmi.path(), VeskTest::kEc2Nitro);
    CloudEnvPlaces places;
    places.dmiFolder = dmi.path();
    VeskTest::PlacesOverride use(places);
    if (unshare(CLONE_NEWNET) != 0 ||
        system("ip link set lo up && ip tuntap add mode tun dev vesk0 && ip link set vesk0 up && "
               "ip route add 169.254.169.254/32 dev vesk0") != 0)
        return state.SkipWithError("no private network namespace with a tun device here");
    for (auto _ : state)
        CollectEnvInfo(false);
    MapStringToString found;
    QueryEnvInfo(wxS("ec2"), false, found);
    if (!found.empty())
        state.SkipWithError("something answered");
}
BENCHMARK(BM_CollectBlackHole)->UseRealTime()->Iterations(2);

}  // namespace

VESK_BENCH_RATIO(BM_CollectOffCloud/real_time, BM_Budget50ms/iterations:5/real_time, 1.0);
VESK_BENCH_RATIO(BM_CollectBlackHole/iterations:2/real_time,
                 BM_Budget2500ms/iterations:1/real_time, 1.0);
VESK_WALL_CLOCK_BENCH_MAIN();
