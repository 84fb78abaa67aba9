// What the runtime costs where it is called most: a disabled trace line, and
// the making of a Lua state for every thread.
#include <benchmark/benchmark.h>
#include <wx/log.h>

#include <lua.hpp>

#include "bench/support/RatioMain.h"
#include "core/lua/LuaInterpreter.h"
#include "core/runtime/LogTrace.h"

namespace {

// The baseline: an out-of-line call with LogTrace's signature that does nothing.
__attribute__((noinline)) void EmptyCall(const char* mask, const char* format, ...) {
    benchmark::DoNotOptimize(mask);
    benchmark::DoNotOptimize(format);
}

class SilentLog : public wxLog {
  protected:
    void DoLogRecord(wxLogLevel, const wxString&, const wxLogRecordInfo&) override {}
};

void BM_EmptyCall(benchmark::State& state) {
    for (auto _ : state)
        EmptyCall("App", "%d %s", 1, "x");
}
BENCHMARK(BM_EmptyCall);

// The usual case in production: a target is installed, no mask is set.
void BM_DisabledTrace(benchmark::State& state) {
    SilentLog log;
    wxLog* previous = wxLog::SetActiveTarget(&log);
    VeskCore::TraceMasksSet("");
    for (auto _ : state)
        VeskCore::LogTrace("App", "%d %s", 1, "x");
    wxLog::SetActiveTarget(previous);
}
BENCHMARK(BM_DisabledTrace);

// Some masks set, none matching: the list is walked.
void BM_DisabledTraceOtherMasks(benchmark::State& state) {
    SilentLog log;
    wxLog* previous = wxLog::SetActiveTarget(&log);
    VeskCore::TraceMasksSet("HTTP,SSL*");
    for (auto _ : state)
        VeskCore::LogTrace("App", "%d %s", 1, "x");
    VeskCore::TraceMasksSet("");
    wxLog::SetActiveTarget(previous);
}
BENCHMARK(BM_DisabledTraceOtherMasks);

void BM_BareLuaState(benchmark::State& state) {
    for (auto _ : state) {
        lua_State* L = luaL_newstate();
        luaL_openlibs(L);
        lua_close(L);
    }
}
BENCHMARK(BM_BareLuaState);

void BM_InterpreterLifetime(benchmark::State& state) {
    for (auto _ : state)
        VeskCore::CLuaInterpreter lua(false, "Bench", false);
}
BENCHMARK(BM_InterpreterLifetime);

}  // namespace

VESK_BENCH_RATIO(BM_DisabledTrace, BM_EmptyCall, 3.0);
VESK_BENCH_RATIO(BM_InterpreterLifetime, BM_BareLuaState, 4.0);
VESK_BENCH_MAIN();
