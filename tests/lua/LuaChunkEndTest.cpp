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

    VeskTest::CapturingLog log;
    CLuaInterpreter lua{false, nullptr, true};
};

TEST_F(NativeException, ReachesTheCallerOfRunScriptThroughPcallAndCoroutines) {
    const int base = lua_gettop(lua.L());
    for (const char* source :
         {"SLB.test.throw('plain')", "pcall(SLB.test.throw, 'plain') reached = true",
          "local co = coroutine.wrap(function() pcall(SLB.test.throw, 'plain') end) pcall(co) "
          "reached = true"}) {
        try {
            Run(source);
            ADD_FAILURE() << "no exception from " << source;
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "plain") << source;
        }
        lua_getglobal(lua.L(), "reached");
        EXPECT_TRUE(lua_isnil(lua.L(), -1)) << source;
        lua_pop(lua.L(), 1);
        EXPECT_EQ(lua_gettop(lua.L()), base);
    }
    EXPECT_EQ(s_Destroyed, 3);  // native frames unwound by C++, not skipped by longjmp
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(NativeException, AnyThrownTypePassesAndTheStateStaysUsable) {
    EXPECT_THROW(Run("SLB.test.throw('int')"), int);
    // The standing print is back: no stream is left behind in it.
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
