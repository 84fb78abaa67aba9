// One registry read by many Lua states on many threads at once (run under TSan).
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tests/slb/BinderTest.h"

namespace slbtest {
namespace {

const char* const kWorkload = R"(
for i = 1, 200 do
    local tile = SLB.geo.Tile(i % 7)
    assert(tile:area() == (i % 7) ^ 2 and SLB.areaOf(tile) == tile:area())
    assert(SLB.geo.Shape.LIMITS.MAX == 100 and SLB.answer == 42)
    assert(SLB.echo.text('\195\169') == '\195\169')
    assert(not pcall(SLB.fail, 1))
    assert(not pcall(SLB.geo.Shape.area, nil))
    local b = SLB.Buffer()
    b:append('xy')
    assert(b:size() == 2)
end
collectgarbage()
)";

TEST(ConcurrencyTest, ManyStatesReadOneRegistryAtOnce) {
    SLB::Manager manager;
    registerExamples(manager);
    constexpr int kThreads = 8;
    std::vector<std::string> errors(kThreads);
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            LuaState lua(manager);
            while (!go.load())
                std::this_thread::yield();
            errors[t] = lua.run(kWorkload);
        });
    }
    go = true;
    for (std::thread& thread : threads)
        thread.join();
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(errors[t], "") << "thread " << t;
}

}  // namespace
}  // namespace slbtest
