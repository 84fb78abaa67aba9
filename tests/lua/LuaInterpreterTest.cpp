#include <gtest/gtest.h>
#include <wx/mstream.h>

#include <cstdlib>
#include <lua.hpp>
#include <regex>
#include <string>

#include "core/lua/LuaInterpreter.h"
#include "core/runtime/LogTrace.h"
#include "tests/support/CapturingLog.h"

using namespace VeskCore;
using VeskTest::CapturingLog;

namespace {

class Interpreter : public ::testing::Test {
  protected:
    void SetUp() override { TraceMasksSet(""); }
    void TearDown() override { TraceMasksSet(""); }

    // Runs `source` with print going to `printed`; returns the status.
    int Run(const char* source, int nResults = 0) {
        printed.clear();
        wxMemoryOutputStream output;
        const int status =
            lua.RunScript(wxString::FromUTF8(source), 0, nResults, wxS("test"), &output);
        const size_t size = output.GetSize();
        printed.resize(size);
        if (size > 0)
            output.CopyTo(&printed[0], size);
        return status;
    }
    int RunToLog(const char* source) {
        return lua.RunScript(wxString::FromUTF8(source), 0, 0, wxS("test"), nullptr);
    }
    std::string Global(const char* name) {
        lua_getglobal(lua.L(), name);
        const char* value = lua_tostring(lua.L(), -1);
        std::string text = value ? value : "nil";
        lua_pop(lua.L(), 1);
        return text;
    }
    std::string Errors() const {
        std::string all;
        for (const std::string& line : log.Texts(wxLOG_Error))
            all += line + "\n";
        return all;
    }

    CapturingLog log;
    CLuaInterpreter lua{false, "Test", false};
    std::string printed;
};

TEST_F(Interpreter, PrintWritesRawBytesTabSeparatedToTheStream) {
    ASSERT_EQ(Run("print()"), 0);
    EXPECT_EQ(printed, "\n");
    ASSERT_EQ(Run("print(1, 'a', nil, true, '\\0x')"), 0);
    const char expected[] = "1\ta\tnil\ttrue\t\0x\n";
    EXPECT_EQ(printed, std::string(expected, sizeof expected - 1));
    ASSERT_EQ(Run("print(setmetatable({}, {__tostring = function() return 'obj' end}))"), 0);
    EXPECT_EQ(printed, "obj\n");
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(Interpreter, PrintWithoutStreamLogsThreadIdAndText) {
    ASSERT_EQ(RunToLog("print(); print('a', 2); print('bad\\255', 'ok')"), 0);
    const std::vector<std::string> lines = log.Texts(wxLOG_Message);
    ASSERT_EQ(lines.size(), 3u);
    const std::regex threadId("^[0-9]{8,} ");
    EXPECT_TRUE(std::regex_search(lines[0], threadId)) << lines[0];
    EXPECT_EQ(lines[0].back(), ' ');
    EXPECT_EQ(lines[1].substr(lines[1].find(' ') + 1), "a\t2");
    // A piece that is not UTF-8 converts to nothing, as it always has.
    EXPECT_EQ(lines[2].substr(lines[2].find(' ') + 1), "\tok");

    // A print kept from a chunk that had a stream logs once that chunk is over.
    ASSERT_EQ(Run("co = coroutine.wrap(function() print('later') end)"), 0);
    ASSERT_EQ(RunToLog("co()"), 0);
    ASSERT_EQ(log.Texts(wxLOG_Message).size(), 4u);
    EXPECT_NE(log.Texts(wxLOG_Message)[3].find(" later"), std::string::npos);
}

TEST_F(Interpreter, PrintToTheLogKeepsEveryPieceWhenItsBufferGrows) {
    ASSERT_EQ(RunToLog("local gc = setmetatable({}, {__tostring = function()\n"
                       "  collectgarbage() return 'third' end})\n"
                       "print(('a'):rep(8192), 'bbbb', gc)"),
              0);
    const std::vector<std::string> lines = log.Texts(wxLOG_Message);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].substr(lines[0].find(' ') + 1), std::string(8192, 'a') + "\tbbbb\tthird");
}

TEST_F(Interpreter, PrintReportsMisbehavingTostring) {
    EXPECT_EQ(Run("print(setmetatable({}, {__tostring = function() return {} end}))"), LUA_ERRRUN);
    EXPECT_NE(lua.GetErrorInfo().utf8_string().find("'tostring' must return a string to 'print'"),
              std::string::npos);
    EXPECT_EQ(Run("tostring = nil; print('x')"), LUA_ERRRUN);
    EXPECT_EQ(
        lua.GetErrorInfo().utf8_string().rfind(
            "ERROR: Unable to print() without the tostring() function. Did you remove it?", 0),
        0u);
    EXPECT_TRUE(Errors().empty());  // a stream was given: the caller reads GetErrorInfo
}

TEST_F(Interpreter, EmptySourceRunsAndResultsStayOnTheStack) {
    const int base = lua_gettop(lua.L());
    EXPECT_EQ(Run(""), 0);
    EXPECT_EQ(lua_gettop(lua.L()), base);
    EXPECT_EQ(Run("return 42", 1), 0);
    ASSERT_EQ(lua_gettop(lua.L()), base + 1);
    EXPECT_EQ(lua_tointeger(lua.L(), -1), 42);
    lua_settop(lua.L(), base);
}

TEST_F(Interpreter, SyntaxErrorIsLoggedEvenWithAStream) {
    const int base = lua_gettop(lua.L());
    EXPECT_EQ(Run("x = = 1"), LUA_ERRSYNTAX);
    EXPECT_TRUE(lua.GetErrorInfo().empty());
    EXPECT_EQ(lua_gettop(lua.L()), base);
    EXPECT_NE(Errors().find("CLuaInterpreter: luaL_loadbuffer() returned 3 ([string \"test\"]:1:"),
              std::string::npos)
        << Errors();
}

TEST_F(Interpreter, RuntimeErrorCarriesTracebackAndIsLoggedOnlyWithoutStream) {
    const int base = lua_gettop(lua.L());
    EXPECT_EQ(Run("local function f() error('boom') end f()"), LUA_ERRRUN);
    const std::string info = lua.GetErrorInfo().utf8_string();
    EXPECT_NE(info.find("boom"), std::string::npos);
    EXPECT_NE(info.find("stack traceback:"), std::string::npos);
    EXPECT_TRUE(Errors().empty());
    EXPECT_EQ(lua_gettop(lua.L()), base);

    EXPECT_EQ(RunToLog("error('logged')"), LUA_ERRRUN);
    EXPECT_NE(Errors().find("logged"), std::string::npos);
    EXPECT_EQ(lua_gettop(lua.L()), base);

    // A success clears the last failure.
    EXPECT_EQ(Run("x = 1"), 0);
    EXPECT_TRUE(lua.GetErrorInfo().empty());

    // An error value that is no string leaves nothing to tell or log.
    log.Clear();
    EXPECT_EQ(RunToLog("error(nil)"), LUA_ERRRUN);
    EXPECT_EQ(RunToLog("error({})"), LUA_ERRRUN);
    EXPECT_TRUE(lua.GetErrorInfo().empty());
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(Interpreter, OsExitEndsTheChunkNotTheProcess) {
    const int base = lua_gettop(lua.L());
    // Directly, under pcall, from xpcall's Lua handler, in coroutines (nested,
    // wrapped, under pcall): nothing of the chunk runs on.
    for (const char* source : {
             "os.exit(0); after = 'ran'",
             "pcall(os.exit); after = 'ran'",
             "xpcall(os.exit, function(e) handled = true; return e end) after = 'ran'",
             "local co = coroutine.create(function() os.exit() end)\n"
             "coroutine.resume(co) after = 'ran'",
             "local co = coroutine.create(function() pcall(os.exit) after='co' end)\n"
             "coroutine.resume(co) after = 'ran'",
             "local inner = coroutine.create(function() os.exit() end)\n"
             "local outer = coroutine.create(function()\n"
             "  pcall(coroutine.resume, inner) after = 'outer' end)\n"
             "pcall(coroutine.resume, outer) after = 'ran'",
             "local f = coroutine.wrap(function() os.exit() end) pcall(f) after = 'ran'",
         }) {
        log.Clear();
        ASSERT_EQ(Run("after = nil"), 0);
        EXPECT_EQ(Run(source), -1) << source;
        EXPECT_EQ(Global("after"), "nil") << source;
        EXPECT_TRUE(printed.empty()) << source;
        EXPECT_TRUE(lua.GetErrorInfo().empty()) << source;
        EXPECT_TRUE(log.Lines().empty()) << source << ": " << log.Lines()[0].text;
        EXPECT_EQ(lua_gettop(lua.L()), base) << source;
    }
}

TEST_F(Interpreter, OsExitKeepsItsStatusAsTheStandaloneLuaReadsIt) {
    const std::pair<const char*, int> cases[] = {
        {"os.exit()", 0},
        {"os.exit(true)", 0},
        {"os.exit(false)", 1},
        {"os.exit(3)", 3},
        {"pcall(os.exit, 9)", 9},
        {"os.exit(2.7)", 2},
        {"os.exit(0) os.exit(4)", 0},
    };
    for (const auto& [source, status] : cases) {
        EXPECT_EQ(Run(source), -1) << source;
        EXPECT_EQ(lua.GetExitStatus(), status) << source;
    }
    // A status that is no number is a plain error of the call, as in `lua`.
    EXPECT_EQ(Run("os.exit('x')"), LUA_ERRRUN);
    EXPECT_NE(lua.GetErrorInfo().Find(wxS("number expected")), wxNOT_FOUND);
    EXPECT_EQ(Run("print(1)"), 0);
    EXPECT_EQ(lua.GetExitStatus(), 0);
}

TEST_F(Interpreter, AnErrorValueThatIsNoTextIsDescribedAsTheStandaloneLuaDoes) {
    const std::pair<const char*, const char*> cases[] = {
        {"error({})", "(no error message)"},
        {"error()", "(no error message)"},
        {"error(true)", "(no error message)"},
        {"error(setmetatable({}, {__tostring = function() return 'custom' end}))", "custom"},
        {"error(setmetatable({}, {__tostring = function() error('boom', 0) end}))", "boom"},
        {"error(setmetatable({}, {__tostring = function() return {} end}))",
         "(error object is not a string)"},
    };
    for (const auto& [source, text] : cases) {
        EXPECT_EQ(Run(source), LUA_ERRRUN) << source;
        EXPECT_TRUE(lua.GetErrorInfo().empty()) << source;
        EXPECT_EQ(lua.GetErrorValueText().utf8_string(), text) << source;
    }
    EXPECT_EQ(Run("error('text')"), LUA_ERRRUN);
    EXPECT_TRUE(lua.GetErrorValueText().empty());
    EXPECT_TRUE(log.Lines().empty());  // a stream was given: the caller reports
}

TEST_F(Interpreter, FinalizersAndStrayExitsEndNeitherTheProcessNorTheNextChunk) {
    // Collections run between and after chunks, outside the chunk's pcall.
    ASSERT_EQ(Run("setmetatable({}, {__gc = function() error('gc failed') end})"), 0);
    EXPECT_EQ(Errors(),
              "CLuaInterpreter: error in __gc metamethod ([string \"test\"]:1: gc failed)\n");
    log.Clear();
    ASSERT_EQ(Run("setmetatable({}, {__gc = function() os.exit(1) end})"), 0);
    EXPECT_EQ(Run("print('next')"), 0);
    EXPECT_EQ(printed, "next\n");
    EXPECT_TRUE(log.Lines().empty());

    // os.exit from a host's own protected call on the state ends that call
    // only, not the next chunk.
    EXPECT_NE(luaL_dostring(lua.L(), "pcall(os.exit) reached = true"), LUA_OK);
    lua_pop(lua.L(), 1);
    EXPECT_EQ(Global("reached"), "nil");
    EXPECT_EQ(Run("print('ran')"), 0);
    EXPECT_EQ(printed, "ran\n");
}

TEST_F(Interpreter, ManyExitsLeaveTheStateWorking) {
    const int base = lua_gettop(lua.L());
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(Run("pcall(os.exit, 0)"), -1) << i;
    EXPECT_EQ(lua_gettop(lua.L()), base);
    ASSERT_EQ(Run("local t = {} for i = 1, 100 do t[i] = i end print(#t, pcall(error, 'e'))"), 0);
    EXPECT_EQ(printed, "100\tfalse\te\n");
    // Hooks are gone: a long loop is not ended by a stale re-raise.
    ASSERT_EQ(Run("local n = 0 for i = 1, 100000 do n = n + 1 end print(n)"), 0);
    EXPECT_EQ(printed, "100000\n");
}

TEST_F(Interpreter, PackagePathsDeriveFromTheInstallLocation) {
    lua.SetPackagePaths("/opt/a", "", "", "");
    ASSERT_EQ(Run("print(package.path) print(package.cpath) print(#package.searchers, "
                  "package.zippath)"),
              0);
    EXPECT_EQ(printed,
              "/opt/a/lua/?.lua;/opt/a/lua/?/init.lua\n"
              "/opt/a/lib/?.so;/opt/a/../lib/?.so;/opt/a/?.so\n"
              "4\tnil\n");
    lua.SetPackagePaths("/b", "/x/?.lua", "/y/?.so", "/z.zip");
    ASSERT_EQ(Run("print(package.path) print(package.cpath) print(package.zippath)"), 0);
    EXPECT_EQ(printed,
              "/x/?.lua;/b/lua/?.lua;/b/lua/?/init.lua\n"
              "/y/?.so;/b/lib/?.so;/b/../lib/?.so;/b/?.so\n"
              "/z.zip\n");
}

TEST(InterpreterSetup, EnvironmentDoesNotReachPackagePaths) {
    setenv("LUA_PATH", "/from/env/?.lua", 1);
    setenv("LUA_CPATH_5_2", "/from/env/?.so", 1);
    CLuaInterpreter lua(false, nullptr, false);
    unsetenv("LUA_PATH");
    unsetenv("LUA_CPATH_5_2");
    ASSERT_EQ(luaL_dostring(lua.L(), "return package.path .. package.cpath"), LUA_OK);
    EXPECT_EQ(std::string(lua_tostring(lua.L(), -1)).find("/from/env"), std::string::npos);
    lua_pop(lua.L(), 1);
}

TEST(InterpreterSetup, SandboxRemovesDebugIoAndOs) {
    CLuaInterpreter lua(true, nullptr, false);
    ASSERT_EQ(luaL_dostring(lua.L(), "return type(debug)..type(io)..type(os)..type(string)"),
              LUA_OK);
    EXPECT_STREQ(lua_tostring(lua.L(), -1), "nilnilniltable");
    lua_pop(lua.L(), 1);
}

TEST(InterpreterSetup, MemoryLinesUseTheMaskAndHookNeedsTheExactEntry) {
    CapturingLog log;
    auto runWithMasks = [&](const char* masks) {
        log.Clear();
        TraceMasksSet(masks);
        CLuaInterpreter lua(false, "T.verbose", false);
        EXPECT_EQ(lua.RunScript(wxS("local function f(x) return x + 1 end\nlocal y = f(1)\n"), 0, 0,
                                wxS("chunk"), nullptr),
                  0);
    };
    runWithMasks("T.*");  // matches, but is no exact entry: no hook
    for (const char* line : {"Bare Lua", "After pcall, Lua", "Just before close, Lua"})
        EXPECT_TRUE(log.Contains(std::string("[T.verbose] ") + line + " is using ")) << line;
    EXPECT_FALSE(log.Contains("Call:") || log.Contains("Line:"));
    runWithMasks("T.verbose");
    for (const char* line : {"After sethook, Lua is using ", "Line:[string \"chunk\"]:2",
                             "Call:[string \"chunk\"]:1:f", "Rtrn:[string \"chunk\"]:1:f"})
        EXPECT_TRUE(log.Contains(std::string("[T.verbose] ") + line)) << line;
    TraceMasksSet("");
}

}  // namespace
