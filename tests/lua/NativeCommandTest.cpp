#include <gtest/gtest.h>
#include <wx/mstream.h>
#include <wx/sstream.h>

#include <lua.hpp>
#include <string>

#include "core/lua/CmdGetHostInfo.h"
#include "core/lua/LuaInterpreter.h"
#include "core/lua/LuaStringInputStream.h"
#include "core/runtime/LogTrace.h"
#include "core/runtime/vesk_core.h"
#include "slb/ClassInfo.h"
#include "slb/Manager.h"
#include "tests/support/CapturingLog.h"

using namespace VeskCore;

namespace {

int s_Lookups = 0;
bool s_HostKnown = true;

bool CountingLookup(wxString& name) {
    ++s_Lookups;
    if (s_HostKnown)
        name = wxS("host.example");
    return s_HostKnown;
}

std::string CallGetHostInfo() {
    wxStringInputStream request(wxString{});
    wxMemoryOutputStream body;
    int status = 200;
    wxString text(wxS("OK"));
    wxInputStream* replacement = nullptr;
    EXPECT_TRUE(GetHostInfo(wxS("/"), request, status, text, body, replacement));
    EXPECT_TRUE(status == 200 && text == wxS("OK") && replacement == nullptr);
    std::string bytes(body.GetSize(), '\0');
    body.CopyTo(&bytes[0], bytes.size());
    return bytes;
}

// One lookup serves eleven calls; a host whose name can't be had is asked
// again at the next call and answers with an empty body.
TEST(NativeCommand, GetHostInfoLooksTheNameUpOncePerElevenCalls) {
    VeskTest::CapturingLog log;
    TraceMasksSet("Cmd");
    const HostNameLookup previous = SetHostNameLookup(&CountingLookup);
    s_HostKnown = false;
    EXPECT_EQ(CallGetHostInfo(), "");
    EXPECT_EQ(CallGetHostInfo(), "");
    EXPECT_EQ(s_Lookups, 2);
    s_HostKnown = true;
    s_Lookups = 0;
    for (int call = 1; call <= 11; ++call)
        ASSERT_EQ(CallGetHostInfo(), "Hostname: host.example\r\n") << call;
    EXPECT_EQ(s_Lookups, 1);
    CallGetHostInfo();
    EXPECT_EQ(s_Lookups, 2);
    SetHostNameLookup(previous);
    TraceMasksSet("");
    EXPECT_TRUE(log.Contains("[Cmd] GetHostInfo()"));
}

// A read callback that raises fails the read with the callback's text and
// traceback, as an error the reading script can catch.
TEST(LuaStreams, FailingReadCallbackIsAnErrorOfTheRead) {
    ASSERT_EQ(VeskCore_Init(), 1);
    VeskTest::CapturingLog log;
    CLuaInterpreter lua(false, nullptr, true);
    const wxString chunk =
        wxS("local s = SLB.LuaStringInputStream('unread')\n"
            "s:SetFn(function() error('no data today') end)\n"
            "ok, message = pcall(s.Read, s, 4)\n"
            "assert(not ok and message:find('no data today\\nstack traceback:', 1, true))");
    EXPECT_EQ(lua.RunScript(chunk, 0, 0, wxS("test"), nullptr), 0) << lua.GetErrorInfo();
}

// The read callback's count is whatever stands at slot 1 of the frame the read
// is made from, never more than the request; nothing read ends the stream.
TEST(LuaStreams, ReadCallbackCountComesFromSlotOneCutToTheRequest) {
    ASSERT_EQ(VeskCore_Init(), 1);
    lua_State* L = luaL_newstate();
    luaL_openlibs(L);
    SLB::Manager::defaultManager()->registerSLB(L);
    ASSERT_EQ(luaL_dostring(L,
                            "stream = SLB.LuaStringInputStream('')\n"
                            "stream:SetFn(function(n) asked = n return 'ignored' end)"),
              LUA_OK);
    lua_getglobal(L, "stream");
    wxInputStream* stream = static_cast<CLuaStringInputStream*>(
        SLB::Manager::defaultManager()
            ->getClass(SLB::TypeID<CLuaStringInputStream>::get())
            ->get_ptr(L, -1));
    ASSERT_NE(stream, nullptr);
    lua_settop(L, 0);
    lua_pushinteger(L, 100);  // slot 1
    char buffer[8];
    EXPECT_EQ(stream->Read(buffer, sizeof buffer).LastRead(), sizeof buffer);
    lua_getglobal(L, "asked");
    EXPECT_EQ(lua_tointeger(L, -1), 8);
    lua_settop(L, 0);
    lua_pushinteger(L, 0);
    EXPECT_EQ(stream->Read(buffer, sizeof buffer).LastRead(), 0u);
    EXPECT_FALSE(stream->IsOk());
    lua_close(L);
}

}  // namespace
