// The main flow's costs: finding a module in an archive, handing a chunk to a
// worker and hearing back, reading and writing settings, and what a CPU limit
// actually lets a busy thread use.
#include <benchmark/benchmark.h>
#include <wx/thread.h>

#include <cstdlib>
#include <fstream>
#include <lua.hpp>
#include <string>

#include "bench/support/RatioMain.h"
#include "core/common/SystemUtil.h"
#include "core/lua/LuaInterpreter.h"
#include "core/runtime/App.h"
#include "core/runtime/LuaThread.h"
#include "core/runtime/vesk_core.h"

namespace {

// 100 modules m001..m100, as files and as a deflated archive in that order.
class ModuleTree {
  public:
    ModuleTree() {
        char pattern[] = "/tmp/vesk-modules-XXXXXX";
        dir = mkdtemp(pattern);
        for (int i = 1; i <= 100; ++i) {
            char name[16];
            snprintf(name, sizeof name, "m%03d.lua", i);
            std::ofstream(dir + "/" + name)
                << "local M = {}\nfunction M.id() return " << i << " end\nreturn M\n";
        }
        const std::string command = "cd " + dir + " && zip -q -9 modules.zip m*.lua";
        if (system(command.c_str()) != 0)
            abort();
    }
    ~ModuleTree() { benchmark::DoNotOptimize(system(("rm -rf " + dir).c_str())); }
    std::string dir;
};

const ModuleTree& Modules() {
    static const ModuleTree tree;
    return tree;
}

// require "m100" afresh each time, called directly so that only the search
// and the load are measured.
void RequireLoop(benchmark::State& state, VeskCore::CLuaInterpreter& lua) {
    lua_State* L = lua.L();
    for (auto _ : state) {
        lua_getglobal(L, "package");
        lua_getfield(L, -1, "loaded");
        lua_pushnil(L);
        lua_setfield(L, -2, "m100");
        lua_pop(L, 2);
        lua_getglobal(L, "require");
        lua_pushstring(L, "m100");
        if (lua_pcall(L, 1, 1, 0) != LUA_OK)
            state.SkipWithError(lua_tostring(L, -1));
        lua_pop(L, 1);
    }
}

void BM_RequireFromFiles(benchmark::State& state) {
    VeskCore::CLuaInterpreter lua(false, "Bench", false);
    lua.SetPackagePaths(Modules().dir, Modules().dir + "/?.lua", "", "");
    RequireLoop(state, lua);
}
BENCHMARK(BM_RequireFromFiles);

void BM_RequireFromArchive(benchmark::State& state) {
    VeskCore::CLuaInterpreter lua(false, "Bench", false);
    lua.SetPackagePaths(Modules().dir, "", "", Modules().dir + "/modules.zip");
    RequireLoop(state, lua);
}
BENCHMARK(BM_RequireFromArchive);

// Stands in for the requester: Awaken is what a worker calls when its chunk is done.
class Requester : public VeskCore::CRunnable {
  public:
    Requester() : CRunnable(false, -1, false) {}
    void Awaken() override {
        wxMutexLocker lock(mutex);
        done = true;
        condition.Signal();
    }
    void WaitDone() {
        wxMutexLocker lock(mutex);
        while (!done)
            condition.Wait();
        done = false;
    }
    const char* GetThreadName() const override { return "requester"; }

  protected:
    void OnRun() override {}

  private:
    wxMutex mutex;
    wxCondition condition{mutex};
    bool done = false;
};

void BM_WorkerRoundTrip(benchmark::State& state) {
    VeskCore_Init();
    Requester requester;
    VeskCore::CLuaThread worker(wxString(), "bench", nullptr);
    worker.startWithDefaults();
    while (!worker.isIdle())
        wxThread::Sleep(1);
    const wxString chunk = wxS("local x = 1");
    for (auto _ : state) {
        while (!worker.RunScript(chunk, &requester))
            wxThread::Yield();
        requester.WaitDone();
    }
}
BENCHMARK(BM_WorkerRoundTrip)->UseRealTime();

// The bare exchange the worker's round trip is built on: signal, and wait for
// the answer, across two threads.
void BM_ConditionRoundTrip(benchmark::State& state) {
    VeskCore_Init();
    wxMutex mutex;
    wxCondition condition(mutex);
    int turn = 0;  // 1: the other thread's turn, 2: ours again, -1: stop
    class Echo : public wxThread {
      public:
        Echo(wxMutex& m, wxCondition& c, int& t) : wxThread(wxTHREAD_JOINABLE), m(m), c(c), t(t) {}
        ExitCode Entry() override {
            wxMutexLocker lock(m);
            for (;;) {
                while (t == 0 || t == 2)
                    c.Wait();
                if (t < 0)
                    return nullptr;
                t = 2;
                c.Broadcast();
            }
        }
        wxMutex& m;
        wxCondition& c;
        int& t;
    } echo(mutex, condition, turn);
    echo.Run();
    for (auto _ : state) {
        wxMutexLocker lock(mutex);
        turn = 1;
        condition.Broadcast();
        while (turn != 2)
            condition.Wait();
        turn = 0;
    }
    {
        wxMutexLocker lock(mutex);
        turn = -1;
        condition.Broadcast();
    }
    echo.Wait();
}
BENCHMARK(BM_ConditionRoundTrip)->UseRealTime();

void BM_SettingsSet(benchmark::State& state) {
    VeskCore::CApp app;
    long long i = 0;
    for (auto _ : state)
        app.SetWxString(wxS("bench.counter"), ++i);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SettingsSet);

void BM_SettingsGet(benchmark::State& state) {
    VeskCore::CApp app;
    app.Set("bench.text", "a value of some length");
    for (auto _ : state)
        benchmark::DoNotOptimize(app.Get("bench.text"));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SettingsGet);

// Burns CPU in 5 ms slices, calling TestDestroy(0) between them as a service
// loop does, until `seconds` of wall time have passed.
class Burner : public VeskCore::CRunnable {
  public:
    explicit Burner(unsigned int percent, int seconds)
        : CRunnable(false, -1, false), seconds(seconds) {
        SetCPULimit(percent);
    }
    const char* GetThreadName() const override { return "burner"; }
    long long usedMs = 0;

  protected:
    void OnRun() override {
        const long long start = VeskCore::get_cpu_time();
        const long long until = VeskCore::TimeNowMillis() + seconds * 1000LL;
        volatile unsigned long sink = 0;
        while (VeskCore::TimeNowMillis() < until) {
            const long long sliceEnd = VeskCore::TimeNowMillis() + 5;
            while (VeskCore::TimeNowMillis() < sliceEnd)
                sink = sink + 1;
            TestDestroy(0);
        }
        usedMs = VeskCore::get_cpu_time() - start;
    }

  private:
    int seconds;
};

// One run of a few seconds; the share of one core the thread got is the figure.
void BM_CpuLimit25(benchmark::State& state) {
    VeskCore_Init();
    for (auto _ : state) {
        Burner burner(25, 4);
        burner.startWithDefaults();
        burner.join();
        state.counters["core_share_percent"] = burner.usedMs / 40.0;
    }
}
BENCHMARK(BM_CpuLimit25)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

VESK_BENCH_RATIO(BM_RequireFromArchive, BM_RequireFromFiles, 2.0);
VESK_BENCH_MAIN();
