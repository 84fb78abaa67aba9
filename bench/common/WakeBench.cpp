// A wake round trip between two threads through WakeableSelect on the
// event pairs, against the same ping-pong on bare pipes with poll().
#include <benchmark/benchmark.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <thread>

#include "bench/support/RatioMain.h"
#include "core/common/NetUtil.h"

namespace {

struct Event {
    unsigned long* pair = nullptr;
    unsigned long count = 0;
    Event() { VeskCore::MakeWakeable(nullptr, 0, pair, count); }
    ~Event() {
        VeskCore::CloseEvent(pair[0]);
        VeskCore::CloseEvent(pair[1]);
        free(pair);
    }
    void Wake() const {
        const uint64_t one = 1;
        benchmark::DoNotOptimize(write(static_cast<int>(pair[1]), &one, sizeof one));
    }
    void Wait() const {
        unsigned long none = 0;
        unsigned long errors = 0;
        int* errorSockets = nullptr;
        wxString text;
        VeskCore::WakeableSelect(pair, count, nullptr, none, nullptr, none, 0xFFFFFFFFu,
                                 errorSockets, errors, text);
        free(errorSockets);
    }
};

void BM_WakeRoundTrip(benchmark::State& state) {
    Event ping, pong;
    std::atomic<bool> done{false};
    std::thread echo([&] {
        for (;;) {
            ping.Wait();
            if (done)
                return;
            pong.Wake();
        }
    });
    for (auto _ : state) {
        ping.Wake();
        pong.Wait();
    }
    done = true;
    ping.Wake();
    echo.join();
}
BENCHMARK(BM_WakeRoundTrip)->UseRealTime();

void PipeWait(int fd) {
    pollfd wanted{fd, POLLIN, 0};
    poll(&wanted, 1, -1);
    char byte;
    benchmark::DoNotOptimize(read(fd, &byte, 1));
}

void BM_PipePollRoundTrip(benchmark::State& state) {
    int ping[2], pong[2];
    if (pipe(ping) != 0 || pipe(pong) != 0)
        return state.SkipWithError("pipe");
    std::atomic<bool> done{false};
    std::thread echo([&] {
        for (;;) {
            PipeWait(ping[0]);
            if (done)
                return;
            benchmark::DoNotOptimize(write(pong[1], "x", 1));
        }
    });
    for (auto _ : state) {
        benchmark::DoNotOptimize(write(ping[1], "x", 1));
        PipeWait(pong[0]);
    }
    done = true;
    benchmark::DoNotOptimize(write(ping[1], "x", 1));
    echo.join();
    for (int fd : {ping[0], ping[1], pong[0], pong[1]})
        close(fd);
}
BENCHMARK(BM_PipePollRoundTrip)->UseRealTime();

}  // namespace

VESK_BENCH_RATIO(BM_WakeRoundTrip / real_time, BM_PipePollRoundTrip / real_time, 1.5);
VESK_BENCH_MAIN();
