// Cost of the binder against hand-written Lua C functions doing the same work,
// measured in the same run:
//   method call:  obj:add(i, 1) from a Lua loop, bound method vs lua_CFunction;
//   construction: making and collecting an object, bound class vs a raw
//                 userdata with __gc.
// After the run the ratios bound/raw are printed.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <lua.hpp>
#include <map>
#include <new>
#include <string>

#include "slb/SLB.h"

namespace {

constexpr int kLoop = 1000;

class Adder {
  public:
    explicit Adder(int base) : base_(base) {}
    int add(int a, int b) { return a + b + base_; }

  private:
    int base_;
};

// The hand-written binding: a userdata holding an Adder, checked by metatable.
int rawAdd(lua_State* L) {
    auto* adder = static_cast<Adder*>(luaL_checkudata(L, 1, "RawAdder"));
    const int a = static_cast<int>(luaL_checkinteger(L, 2));
    const int b = static_cast<int>(luaL_checkinteger(L, 3));
    lua_pushinteger(L, adder->add(a, b));
    return 1;
}

int rawCollect(lua_State* L) {
    static_cast<Adder*>(luaL_checkudata(L, 1, "RawAdder"))->~Adder();
    return 0;
}

int rawNew(lua_State* L) {
    const int base = static_cast<int>(luaL_checkinteger(L, 1));
    new (lua_newuserdata(L, sizeof(Adder))) Adder(base);
    luaL_setmetatable(L, "RawAdder");
    return 1;
}

void openRaw(lua_State* L) {
    luaL_newmetatable(L, "RawAdder");
    lua_createtable(L, 0, 1);
    lua_pushcfunction(L, &rawAdd);
    lua_setfield(L, -2, "add");
    lua_setfield(L, -2, "__index");
    lua_pushcfunction(L, &rawCollect);
    lua_setfield(L, -2, "__gc");
    lua_pop(L, 1);
    lua_pushcfunction(L, &rawNew);
    lua_setglobal(L, "RawAdder");
}

SLB::Manager& boundManager() {
    static SLB::Manager* manager = [] {
        auto* m = new SLB::Manager;
        SLB::Class<Adder, SLB::Instance::NoCopy>("Adder", m)
            .constructor<int>()
            .set("add", &Adder::add);
        return m;
    }();
    return *manager;
}

// A state with both bindings and the chunk compiled once, as global "run".
class BenchState {
  public:
    explicit BenchState(const char* chunk) : L(luaL_newstate()) {
        luaL_openlibs(L);
        openRaw(L);
        boundManager().registerSLB(L);
        lua_getglobal(L, "SLB");
        lua_getfield(L, -1, "Adder");
        lua_setglobal(L, "Adder");
        lua_pop(L, 1);
        if (luaL_loadstring(L, chunk) != LUA_OK)
            std::fprintf(stderr, "%s\n", lua_tostring(L, -1));
        lua_setglobal(L, "run");
    }
    ~BenchState() { lua_close(L); }

    bool run() {
        lua_getglobal(L, "run");
        lua_pushinteger(L, kLoop);
        const bool ok = lua_pcall(L, 1, 0, 0) == LUA_OK;
        if (!ok) {
            std::fprintf(stderr, "%s\n", lua_tostring(L, -1));
            lua_pop(L, 1);
        }
        return ok;
    }

    lua_State* const L;
};

void runChunk(benchmark::State& state, const char* chunk) {
    BenchState lua(chunk);
    for (auto _ : state) {
        if (!lua.run()) {
            state.SkipWithError("chunk failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kLoop);
}

void BM_MethodCall_Raw(benchmark::State& state) {
    runChunk(state,
             "local n = ...; local o = RawAdder(1); local s = 0\n"
             "for i = 1, n do s = o:add(i, s) end");
}

void BM_MethodCall_Bound(benchmark::State& state) {
    runChunk(state,
             "local n = ...; local o = Adder(1); local s = 0\n"
             "for i = 1, n do s = o:add(i, s) end");
}

void BM_ConstructCollect_Raw(benchmark::State& state) {
    runChunk(state,
             "local n = ...\n"
             "for i = 1, n do local o = RawAdder(i) end\n"
             "collectgarbage()");
}

void BM_ConstructCollect_Bound(benchmark::State& state) {
    runChunk(state,
             "local n = ...\n"
             "for i = 1, n do local o = Adder(i) end\n"
             "collectgarbage()");
}

BENCHMARK(BM_MethodCall_Raw);
BENCHMARK(BM_MethodCall_Bound);
BENCHMARK(BM_ConstructCollect_Raw);
BENCHMARK(BM_ConstructCollect_Bound);

// Keeps the time per iteration of each benchmark for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration && !run.error_occurred)
                times_[run.run_name.function_name] = run.GetAdjustedRealTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void printRatio(const char* what, const std::string& bound, const std::string& raw) const {
        const auto b = times_.find(bound);
        const auto r = times_.find(raw);
        if (b != times_.end() && r != times_.end() && r->second > 0)
            std::printf("ratio %-22s bound/raw = %.2fx\n", what, b->second / r->second);
    }

  private:
    std::map<std::string, double> times_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatio("method call", "BM_MethodCall_Bound", "BM_MethodCall_Raw");
    reporter.printRatio("construct+collect", "BM_ConstructCollect_Bound",
                        "BM_ConstructCollect_Raw");
    benchmark::Shutdown();
    return 0;
}
