// What the benchmarks of this folder share: a scratch folder, and a main
// for benchmarks that race command-line tools run as child processes. The
// CPU time of a child is not the benchmark's, so every pair here is compared
// by wall-clock time: benchmarks are registered with UseRealTime(), and the
// ratio pairs name them with "/real_time".
#pragma once

#include <stdlib.h>

#include <string>
#include <vector>

#include "bench/support/RatioMain.h"

namespace VeskBench {

// A fresh folder under $TMPDIR (or /tmp), removed with all in it.
class ScratchFolder {
  public:
    ScratchFolder() {
        const char* tmp = getenv("TMPDIR");
        std::string pattern = std::string(tmp != nullptr ? tmp : "/tmp") + "/vesk-bench-XXXXXX";
        path_ = mkdtemp(&pattern[0]) != nullptr ? pattern : "";
    }
    ~ScratchFolder() { Shell("rm -rf '" + path_ + "'"); }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    static int Shell(const std::string& command) { return system(command.c_str()); }

  private:
    std::string path_;
};

// Reports as RatioReporter does, but hands it the wall-clock time of runs
// measured in real time in place of their CPU time.
class WallClockRatioReporter : public RatioReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        std::vector<Run> adjusted = runs;
        for (Run& run : adjusted)
            if (run.run_name.time_type == "real_time")
                run.cpu_accumulated_time = run.real_accumulated_time;
        RatioReporter::ReportRuns(adjusted);
    }
};

}  // namespace VeskBench

#define VESK_WALL_CLOCK_BENCH_MAIN()                   \
    int main(int argc, char** argv) {                  \
        benchmark::Initialize(&argc, argv);            \
        ::VeskBench::WallClockRatioReporter reporter;  \
        benchmark::RunSpecifiedBenchmarks(&reporter);  \
        reporter.PrintRatios();                        \
        benchmark::Shutdown();                         \
        return 0;                                      \
    }
