// Zip and Unzip of a tree of about 50 MB in 700 files (half of them text,
// half random bytes) against `zip -qr` and `unzip -q` on the same tree and
// the same archive, in the same run.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <string>

#include "bench/cloud/BenchSupport.h"
#include "core/common/Archive.h"

namespace {

using namespace VeskCore;

void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// The tree, and zip's archive of it, made once for all benchmarks.
const VeskBench::ScratchFolder& Workspace() {
    static const VeskBench::ScratchFolder dir;
    static const bool made = [] {
        std::mt19937 generator(42);
        const std::string words = "host agent metadata archive record service thread ";
        for (int file = 0; file < 700; ++file) {
            const std::string folder = dir / ("tree/d" + std::to_string(file / 35));
            mkdir((dir / "tree").c_str(), 0755);
            mkdir(folder.c_str(), 0755);
            std::string bytes(40000 + generator() % 65000, '\0');
            for (size_t i = 0; i < bytes.size(); ++i)
                bytes[i] = file % 2 == 0 ? words[(i * 7 + i / 51) % words.size()]
                                         : static_cast<char>(generator());
            WriteFile(folder + "/f" + std::to_string(file) + ".dat", bytes);
        }
        return VeskBench::ScratchFolder::Shell("cd '" + dir.path() + "' && zip -qr tool.zip tree") == 0;
    }();
    (void)made;
    return dir;
}

QXZipAction IncludeAll(void*, const wxString*) {
    return QXZipInclude;
}

bool AcceptAll(void*, const wxZipEntry*) {
    return true;
}

void BM_Zip(benchmark::State& state) {
    const auto& dir = Workspace();
    for (auto _ : state) {
        unlink((dir / "ours.zip").c_str());
        Zip(wxFileName(wxString::FromUTF8(dir / "ours.zip")),
            wxFileName(wxString::FromUTF8(dir / "tree")), IncludeAll, nullptr);
    }
}
BENCHMARK(BM_Zip)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_ZipTool(benchmark::State& state) {
    const auto& dir = Workspace();
    for (auto _ : state) {
        unlink((dir / "again.zip").c_str());  // zip -r would update it
        VeskBench::ScratchFolder::Shell("cd '" + dir.path() + "' && zip -qr again.zip tree");
    }
}
BENCHMARK(BM_ZipTool)->UseRealTime()->Unit(benchmark::kMillisecond);

// Each round unpacks into a folder that does not exist yet.
void BM_Unzip(benchmark::State& state) {
    const auto& dir = Workspace();
    for (auto _ : state) {
        state.PauseTiming();
        VeskBench::ScratchFolder::Shell("rm -rf '" + dir / "ours" + "'");
        state.ResumeTiming();
        Unzip(wxFileName(wxString::FromUTF8(dir / "tool.zip")),
              wxFileName::DirName(wxString::FromUTF8(dir / "ours")), AcceptAll, nullptr);
    }
}
BENCHMARK(BM_Unzip)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_UnzipTool(benchmark::State& state) {
    const auto& dir = Workspace();
    for (auto _ : state) {
        state.PauseTiming();
        VeskBench::ScratchFolder::Shell("rm -rf '" + dir / "theirs" + "'");
        state.ResumeTiming();
        VeskBench::ScratchFolder::Shell("cd '" + dir.path() + "' && unzip -q tool.zip -d theirs");
    }
}
BENCHMARK(BM_UnzipTool)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

VESK_BENCH_RATIO(BM_Zip/real_time, BM_ZipTool/real_time, 1.2);
VESK_BENCH_RATIO(BM_Unzip/real_time, BM_UnzipTool/real_time, 1.0);
VESK_WALL_CLOCK_BENCH_MAIN();
