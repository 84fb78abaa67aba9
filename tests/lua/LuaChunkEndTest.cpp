#include <gtest/gtest.h>

#include <lua.hpp>
#include <stdexcept>
#include <string>

#include "core/lua/LuaChunkEnd.h"
#include "core/lua/LuaInterpreter.h"
#include "slb/FuncCall.h"
#include "slb/Manager.h"
#include "tests/support/CapturingLog.h"

using namespace VeskCore;

namespace {

int s_Destroyed = 0;
struct Tracked {
    ~Tracked() { ++s_Destroyed; }
};

// A bound function that fails natively; the binder's boundary must unwind its
// frame by C++ rules before Lua sees the error.
int ThrowNative(lua_State* L) {
    Tracked local;
    const char* what = lua_tostring(L, 1);
    if (what != nullptr && std::string(what) == "int")
        throw 7;
    throw std::runtime_error(what ? what : "native failure");
}

// Registered once into the process registry, before any state reads it.
const bool s_Registered = [] {
    SLB::Manager::defaultManager()->set("test::throw", SLB::FuncCall::create(&ThrowNative));
    return true;
}();

class NativeException : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(s_Registered);
        s_Destroyed = 0;
    }
    int Run(const char* source) {
        return lua.RunScript(wxString::FromUTF8(source), 0, 0, wxS("test"), nullptr);
    }
    std::string Global(const char* name) {
        lua_getglobal(lua.L(), name);
        const char* value = luaL_tolstring(lua.L(), -1, nullptr);
        std::string text = value ? value : "";
        lua_pop(lua.L(), 2);
        return text;
    }

    VeskTest::CapturingLog log;
    CLuaInterpreter lua{false, nullptr, true};
};

TEST_F(NativeException, IsALuaErrorThatPcallCatchesAfterTheNativeFrameUnwound) {
    const int base = lua_gettop(lua.L());
    ASSERT_EQ(Run("ok, message = pcall(SLB.test.throw, 'plain') reached = true\n"
                  "local co = coroutine.wrap(function() return pcall(SLB.test.throw, 'co') end)\n"
                  "coOk, coMessage = co()\n"
                  "intOk, intMessage = pcall(SLB.test.throw, 'int')"),
              0);
    EXPECT_EQ(Global("reached"), "true");
    EXPECT_EQ(Global("ok"), "false");
    EXPECT_EQ(Global("message"), "plain");
    EXPECT_EQ(Global("coMessage"), "co");
    EXPECT_EQ(Global("intMessage"), "C++ exception 7");
    EXPECT_EQ(s_Destroyed, 3);  // native frames unwound by C++, not skipped by longjmp
    EXPECT_EQ(lua_gettop(lua.L()), base);
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(NativeException, UncaughtItFailsTheChunkWithItsTextAndPosition) {
    EXPECT_EQ(Run("local x = 1\nSLB.test.throw('deep')\nreached = true"), LUA_ERRRUN);
    EXPECT_EQ(Global("reached"), "nil");
    EXPECT_NE(lua.GetErrorInfo().Find(wxS("test\"]:2: deep")), wxNOT_FOUND) << lua.GetErrorInfo();
    EXPECT_TRUE(log.Contains("stack traceback:"));
    // Nothing is left to end the next chunk.
    EXPECT_EQ(Run("print('after')"), 0);
    EXPECT_TRUE(log.Contains(" after"));
}

TEST(NativeExceptionWithoutInterpreter, BecomesAPlainLuaErrorWithTheText) {
    ASSERT_TRUE(s_Registered);
    lua_State* L = luaL_newstate();
    luaL_openlibs(L);
    SLB::Manager::defaultManager()->registerSLB(L);
    ASSERT_EQ(luaL_dostring(L, "local ok, e = pcall(SLB.test.throw, 'bare') return e"), LUA_OK);
    EXPECT_STREQ(lua_tostring(L, -1), "bare");
    lua_close(L);
}

}  // namespace
