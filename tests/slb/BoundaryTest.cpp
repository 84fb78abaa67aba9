// C++ exceptions and binder errors at the border to Lua: the chunk ends in a
// Lua error, nothing unwinds through Lua, nothing leaks, the state stays usable.
#include <stdexcept>

#include "tests/slb/BinderTest.h"

namespace slbtest {
namespace {

struct Fragile {
    explicit Fragile(int value) {
        if (value < 0)
            throw std::invalid_argument("negative");
        ++Lifetime::constructed;
    }
    ~Fragile() { ++Lifetime::destroyed; }
};

// An exception that counts its live copies.
struct Tracked {
    static inline int live = 0;
    Tracked() { ++live; }
    Tracked(const Tracked&) { ++live; }
    ~Tracked() { --live; }
};

void throwTracked() {
    throw Tracked();
}
int trackedLive() {
    return Tracked::live;
}
int throwingRaw(lua_State*) {
    throw std::runtime_error("raw boom");
}
int textThenShape(const std::string& text, const Shape& shape) {
    return static_cast<int>(text.size()) + shape.side();
}

std::string s_seen;

void recordingHandler(lua_State* L, std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        s_seen = e.what();
    } catch (...) {
        s_seen = "other";
    }
    lua_createtable(L, 0, 1);
    lua_pushboolean(L, 1);
    lua_setfield(L, -2, "native");
}

class BoundaryTest : public BinderTest {
  protected:
    void SetUp() override {
        manager.set("throwTracked", SLB::FuncCall::create(&throwTracked));
        manager.set("trackedLive", SLB::FuncCall::create(&trackedLive));
        manager.set("throwingRaw", SLB::FuncCall::create(&throwingRaw));
        manager.set("textThenShape", SLB::FuncCall::create(&textThenShape));
        SLB::Class<Fragile>("Fragile", &manager).constructor<int>();
    }
    void TearDown() override { SLB::setNativeExceptionHandler(nullptr); }
};

TEST_F(BoundaryTest, DefaultHandlerGivesTheExceptionText) {
    EXPECT_EQ(run("SLB.fail(1)"), "boom");
    EXPECT_EQ(run("SLB.fail(2)"), "unknown C++ exception");
    EXPECT_EQ(run("SLB.throwingRaw()"), "raw boom");
}

TEST_F(BoundaryTest, ExceptionIsReleasedBeforeTheLuaErrorIsRaised) {
    EXPECT_EQ(run("assert(not pcall(SLB.throwTracked))\n"
                  "assert(SLB.trackedLive() == 0)"),
              "");
}

TEST_F(BoundaryTest, InstalledHandlerChoosesTheErrorValue) {
    SLB::setNativeExceptionHandler(&recordingHandler);
    EXPECT_EQ(run("local ok, e = pcall(SLB.fail, 1)\n"
                  "assert(not ok and type(e) == 'table' and e.native)"),
              "");
    EXPECT_EQ(s_seen, "boom");
    SLB::setNativeExceptionHandler(nullptr);
    EXPECT_EQ(run("SLB.fail(1)"), "boom");
}

TEST_F(BoundaryTest, ThrowingConstructorLeavesNothingBehind) {
    EXPECT_EQ(run("local ok, e = pcall(SLB.Fragile, -1)\n"
                  "assert(not ok and e == 'negative')\n"
                  "local kept = SLB.Fragile(1)"),
              "");
    lua.collect();
    EXPECT_EQ(Lifetime::constructed, 1);
    EXPECT_EQ(Lifetime::destroyed, 1);
}

// The string argument is on the heap when the second argument fails; under
// ASan a destructor skipped by a longjmp would show as a leak.
TEST_F(BoundaryTest, BinderErrorsRunDestructorsOfArgumentsAlreadyRead) {
    EXPECT_EQ(run("local long = string.rep('x', 1000)\n"
                  "for i = 1, 100 do assert(not pcall(SLB.textThenShape, long, nil)) end\n"
                  "SLB.textThenShape(long, nil)"),
              "test:3: Can not get a reference of class slbtest::Shape");
}

}  // namespace
}  // namespace slbtest
