#include <gtest/gtest.h>
#include <wx/app.h>

#include <lua.hpp>
#include <string>

#include "core/api/VeskLua.h"
#include "core/host/PlatformString.h"
#include "core/runtime/Version.h"
#include "core/runtime/vesk_core.h"
#include "slb/CopyValue.h"
#include "slb/Manager.h"

namespace {

// A name of the process registry that the module table itself lacks.
const bool s_ProbeRegistered = [] {
    SLB::Manager::defaultManager()->set("probe::answer", new SLB::CopyValue<int>(42));
    return true;
}();

// A Lua state that ran luaopen_vesk_core; the module table is global "vesk".
class ModuleTable : public ::testing::Test {
  protected:
    void SetUp() override {
        L = luaL_newstate();
        luaL_openlibs(L);
        luaL_requiref(L, "vesk_core", luaopen_vesk_core, 0);
        lua_setglobal(L, "vesk");
    }
    void TearDown() override { lua_close(L); }

    std::string Eval(const char* expression) {
        const std::string chunk = std::string("return tostring(") + expression + ")";
        if (luaL_dostring(L, chunk.c_str()) != LUA_OK)
            return lua_tostring(L, -1);
        std::string value = lua_tostring(L, -1);
        lua_pop(L, 1);
        return value;
    }

    lua_State* L = nullptr;
};

TEST_F(ModuleTable, CarriesVersionPlatformWidthsAndTheEightLogFunctions) {
    EXPECT_EQ(Eval("vesk.version"), VESK_VERSION_STRING);
    EXPECT_EQ(Eval("vesk.versionMajor .. '.' .. vesk.versionMinor .. '.' .. vesk.versionSP .. "
                   "'.' .. vesk.versionBuild"),
              VESK_VERSION_STRING);
    EXPECT_EQ(Eval("vesk.linux == true and vesk.solaris == nil"), "true");
    EXPECT_EQ(Eval("vesk.int_bits .. ' ' .. vesk.long_bits .. ' ' .. vesk.ptr_bits"), "32 64 64");
    EXPECT_EQ(Eval("vesk.platform"), VeskCore::GetPlatformString().utf8_string());
    EXPECT_EQ(Eval("type(vesk.releaseBuild)"), "boolean");
    for (const char* name : {"wxLogFatalError", "wxLogError", "wxLogWarning", "wxLogMessage",
                             "wxLogStatus", "wxLogInfo", "wxLogDebug", "wxLogTrace"}) {
        EXPECT_EQ(Eval((std::string("type(vesk.") + name + ")").c_str()), "function") << name;
    }
    EXPECT_EQ(Eval("getmetatable(vesk) == vesk and rawget(vesk, '__index') == SLB"), "true");
}

TEST_F(ModuleTable, NamesItLacksResolveInTheBinderTable) {
    ASSERT_TRUE(s_ProbeRegistered);
    EXPECT_EQ(Eval("vesk.probe.answer"), "42");
    EXPECT_EQ(Eval("rawget(vesk, 'probe')"), "nil");
}

TEST_F(ModuleTable, EachOpenGivesAFreshTableOverTheSameBinding) {
    ASSERT_EQ(luaL_dostring(L, "return package.loaded.vesk_core, SLB"), LUA_OK);
    lua_pushcfunction(L, luaopen_vesk_core);
    lua_call(L, 0, 1);
    EXPECT_FALSE(lua_rawequal(L, -1, -3));
    lua_getglobal(L, "SLB");
    EXPECT_TRUE(lua_rawequal(L, -1, -3)) << "a bound state must not be bound again";
    lua_pop(L, 4);
}

// The library starts and ends once per process: run in a child, so that the
// other tests of this program keep their registry.
TEST(LifecycleDeathTest, InitAndTermAreOnceOnlyAndAlwaysSucceedAfterwards) {
    EXPECT_EXIT(
        {
            const bool ok = VeskCore_Init() == 1 && VeskCore_Init() == 1 &&
                            wxAppConsole::GetInstance() != nullptr &&  // wx started for the host
                            VeskLua_Init() && VeskCore_Term() == 1 && VeskCore_Term() == 1 &&
                            VeskCore_Init() == 1;  // no second start in one process
            std::exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

// The host's own wx application must be left alone: run in a child process,
// since wx starts once per process.
TEST(LifecycleDeathTest, ExistingApplicationKeepsWxAsTheHostSetItUp) {
    EXPECT_EXIT(
        {
            wxAppConsole hostApp;
            wxAppConsole::SetInstance(&hostApp);
            const int initialised = VeskCore_Init();
            const bool untouched = wxAppConsole::GetInstance() == &hostApp &&
                                   wxAppConsole::GetInitializerFunction() == nullptr;
            wxAppConsole::SetInstance(nullptr);
            std::exit(initialised == 1 && untouched ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
