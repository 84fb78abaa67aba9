// A main for benchmark executables that also reports, for declared pairs,
// the ratio of a benchmark to its baseline measured in the same run. With
// --benchmark_repetitions the ratio is that of the medians, which a noisy
// machine moves far less than single runs (add
// --benchmark_enable_random_interleaving=true so that both sides meet the
// same noise).
//
//   VESK_BENCH_RATIO(BM_Disabled, BM_Empty, 3.0);  // time: at most 3x the baseline's
//   VESK_BENCH_SPEED(BM_Ours, BM_OpenSsl, 0.8);    // speed: at least 0.8x the baseline's
//   VESK_BENCH_MAIN();
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace VeskBench {

struct RatioPair {
    std::string subject;
    std::string baseline;
    double goal;
    bool speed;  // ratio of speeds (baseline time / subject time), goal a minimum
};

inline std::vector<RatioPair>& Ratios() {
    static std::vector<RatioPair> pairs;
    return pairs;
}

// A name as the macros spell it ("BM_X / real_time" once formatted) becomes
// the name the library reports ("BM_X/real_time"): benchmark names have no
// blanks.
inline std::string RunName(const char* spelled) {
    std::string name;
    for (const char* c = spelled; *c != '\0'; ++c)
        if (*c != ' ')
            name.push_back(*c);
    return name;
}

struct RatioRegistrar {
    RatioRegistrar(const char* subject, const char* baseline, double goal, bool speed) {
        Ratios().push_back({RunName(subject), RunName(baseline), goal, speed});
    }
};

class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs)
            if (run.run_type == Run::RT_Iteration)
                times[run.benchmark_name()].push_back(MeasuresWallClock(run.benchmark_name())
                                                          ? run.GetAdjustedRealTime()
                                                          : run.GetAdjustedCPUTime());
        ConsoleReporter::ReportRuns(runs);
    }

    // Prints one line per pair; returns how many pairs missed their goal.
    int PrintRatios() const {
        int missed = 0;
        for (const RatioPair& pair : Ratios()) {
            const double subject = Median(pair.subject);
            const double baseline = Median(pair.baseline);
            if (subject <= 0 || baseline <= 0)
                continue;
            const double ratio = pair.speed ? baseline / subject : subject / baseline;
            const bool met = pair.speed ? ratio >= pair.goal : ratio <= pair.goal;
            missed += met ? 0 : 1;
            printf("%s %s / %s = %.2f (goal %s %.2f: %s)\n", pair.speed ? "speed" : "time",
                   pair.subject.c_str(), pair.baseline.c_str(), ratio,
                   pair.speed ? ">=" : "<=", pair.goal, met ? "met" : "missed");
        }
        return missed;
    }

  private:
    // A benchmark that asked for real or manual time is compared by it: its
    // cost is in waits the CPU time does not see.
    static bool MeasuresWallClock(const std::string& name) {
        return name.find("/real_time") != std::string::npos ||
               name.find("/manual_time") != std::string::npos;
    }

    // 0 for a benchmark that did not run.
    double Median(const std::string& name) const {
        const auto found = times.find(name);
        if (found == times.end() || found->second.empty())
            return 0;
        std::vector<double> sorted = found->second;
        std::sort(sorted.begin(), sorted.end());
        const size_t middle = sorted.size() / 2;
        return sorted.size() % 2 != 0 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
    }
    std::map<std::string, std::vector<double>> times;
};

}  // namespace VeskBench

#define VESK_BENCH_CONCAT2(a, b) a##b
#define VESK_BENCH_CONCAT(a, b) VESK_BENCH_CONCAT2(a, b)
#define VESK_BENCH_RATIO(subject, baseline, goal)                                                 \
    static ::VeskBench::RatioRegistrar VESK_BENCH_CONCAT(s_ratio_, __LINE__)(#subject, #baseline, \
                                                                             goal, false)
#define VESK_BENCH_SPEED(subject, baseline, goal)                                                 \
    static ::VeskBench::RatioRegistrar VESK_BENCH_CONCAT(s_ratio_, __LINE__)(#subject, #baseline, \
                                                                             goal, true)

// Missed goals are reported, not failed: timing belongs to the reader.
#define VESK_BENCH_MAIN()                             \
    int main(int argc, char** argv) {                 \
        benchmark::Initialize(&argc, argv);           \
        ::VeskBench::RatioReporter reporter;          \
        benchmark::RunSpecifiedBenchmarks(&reporter); \
        reporter.PrintRatios();                       \
        benchmark::Shutdown();                        \
        return 0;                                     \
    }
