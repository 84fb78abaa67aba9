#include "core/api/NetLua.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>
#include <wx/log.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <lua.hpp>
#include <memory>
#include <string>
#include <vector>

#include "core/common/NetUtil.h"
#include "core/host/PlatformInterfaces.h"
#include "slb/CopyValue.h"
#include "slb/FuncCall.h"
#include "slb/Manager.h"

namespace VeskCore {
namespace {

using SLB::FuncCall;

struct CFree {
    void operator()(void* block) const { free(block); }
};

// An integer argument that fits an int. luaL_checkinteger would turn 2^63 or
// NaN into whatever the conversion gives, which for a descriptor is one the
// script never had (0, say): such a number is a wrong argument.
int CheckInt(lua_State* L, int index) {
    const lua_Number number = luaL_checknumber(L, index);
    if (!(number >= INT_MIN && number <= INT_MAX) || number != static_cast<int>(number))
        luaL_argerror(L, index, "integer out of range");
    return static_cast<int>(number);
}

// Pushes (+2) the numeric host and the port of an address, or nil and the
// system's error text.
int PushAddress(lua_State* L, const sockaddr* address, socklen_t length) {
    char host[NI_MAXHOST] = {};
    char port[NI_MAXSERV] = {};
    if (getnameinfo(address, length, host, sizeof host, port, sizeof port,
                    NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
        lua_pushnil(L);
        lua_pushstring(L, wxSysErrorMsgStr(errno).utf8_string().c_str());
        return 2;
    }
    lua_pushstring(L, host);
    lua_pushinteger(L, atoi(port));
    return 2;
}

void PushErrnoText(lua_State* L, int error) {
    const std::string text = wxSysErrorMsgStr(error).utf8_string();
    lua_pushlstring(L, text.data(), text.size());
}

// Raises unless the argument is absent, nil or a table; before anything
// that a raise would leak exists.
void CheckOptionalTable(lua_State* L, int index) {
    if (!lua_isnoneornil(L, index))
        luaL_checktype(L, index, LUA_TTABLE);
}

// The integers of an optional table argument, checked already.
std::vector<int> Descriptors(lua_State* L, int index) {
    std::vector<int> descriptors;
    if (lua_isnoneornil(L, index))
        return descriptors;
    const size_t count = lua_rawlen(L, index);
    descriptors.reserve(count);
    for (size_t i = 1; i <= count; ++i) {
        lua_rawgeti(L, index, static_cast<int>(i));  // +1
        descriptors.push_back(static_cast<int>(lua_tointegerx(L, -1, nullptr)));
        lua_pop(L, 1);
    }
    return descriptors;
}

void PushList(lua_State* L, const int* values, unsigned long count) {
    lua_createtable(L, static_cast<int>(count), 0);
    for (unsigned long i = 0; i < count; ++i) {
        lua_pushinteger(L, values[i]);
        lua_rawseti(L, -2, static_cast<int>(i + 1));
    }
}

// What one wait gave, as plain values: nothing with a destructor may stand
// while Lua pushes.
struct Selected {
    std::vector<int> readers, writers;
    std::unique_ptr<int, CFree> errors;
    unsigned long readCount = 0, writeCount = 0, errorCount = 0;
    int result = 0;
    std::string text;
};

void Select(Selected& s, std::vector<unsigned long>& events, unsigned int timeout) {
    s.readCount = s.readers.size();
    s.writeCount = s.writers.size();
    int* errors = nullptr;
    wxString text;
    s.result = WakeableSelect(events.empty() ? nullptr : events.data(), events.size(),
                              s.readers.empty() ? nullptr : s.readers.data(), s.readCount,
                              s.writers.empty() ? nullptr : s.writers.data(), s.writeCount, timeout,
                              errors, s.errorCount, text);
    s.errors.reset(errors);
    s.text = text.utf8_string();
}

// lua_CFunction: pushes the four results of the Selected at 1.
int PushSelected(lua_State* L) {
    const auto* s = static_cast<const Selected*>(lua_touserdata(L, 1));
    // The count may cover ready writers too; only the readers' entries are
    // the script's readable sockets.
    PushList(L, s->readers.data(), std::min<unsigned long>(s->readCount, s->readers.size()));
    PushList(L, s->writers.data(), std::min<unsigned long>(s->writeCount, s->writers.size()));
    PushList(L, s->errors.get(), s->errors ? s->errorCount : 0);
    if (s->result < 1 && !s->text.empty())
        lua_pushlstring(L, s->text.data(), s->text.size());
    else
        lua_pushnil(L);
    return 4;
}

}  // namespace

void NetLua_Init(SLB::Manager* m) {
    m->set("net::INVALID_SOCKET", new SLB::CopyValue<int>(-1));
    m->set("net::SOCKET_ERROR", new SLB::CopyValue<int>(-1));
    m->set("net::accept", FuncCall::create(&Net_accept));
    m->set("net::closeevent", FuncCall::create(&Net_closeevent));
    m->set("net::closesocket", FuncCall::create(&Net_closesocket));
    m->set("net::CreateDualStackSocket", FuncCall::create(&Net_CreateDualStackSocket));
    m->set("net::CreateListenSocket", FuncCall::create(&Net_CreateListenSocket));
    m->set("net::GetPlatformInterfaces", FuncCall::create(&Net_GetPlatformInterfaces));
    m->set("net::getsockname", FuncCall::create(&Net_getsockname));
    m->set("net::MakeWakeable", FuncCall::create(&Net_MakeWakeable));
    m->set("net::PeerIsLoopback", FuncCall::create(&Net_PeerIsLoopback));
    m->set("net::select", FuncCall::create(&Net_select));
}

int Net_accept(lua_State* L) {
    const int listener = CheckInt(L, 1);
    sockaddr_storage address{};
    unsigned int length = sizeof address;
    const int fd = AcceptConnection(listener, &address, length);
    if (fd < 0) {
        const int error = errno;
        lua_pushnil(L);
        lua_pushnil(L);
        lua_pushnil(L);
        PushErrnoText(L, error);
        return 4;
    }
    lua_pushinteger(L, fd);
    PushAddress(L, reinterpret_cast<sockaddr*>(&address), length);
    lua_pushnil(L);
    return 4;
}

int Net_closeevent(lua_State* L) {
    CloseEvent(static_cast<unsigned long>(CheckInt(L, 1)));
    return 0;
}

int Net_closesocket(lua_State* L) {
    if (close(CheckInt(L, 1)) == 0) {
        lua_pushnil(L);
        return 1;
    }
    PushErrnoText(L, errno);
    return 1;
}

int Net_CreateDualStackSocket(lua_State* L) {
    const int type = CheckInt(L, 1);
    const int protocol = CheckInt(L, 2);
    lua_pushinteger(L, CreateDualStackSocket(type, protocol));
    return 1;
}

int Net_CreateListenSocket(lua_State* L) {
    const bool anyAddress = lua_toboolean(L, 1) != 0;
    const int port = CheckInt(L, 2);
    const int backlog = CheckInt(L, 3);
    const int fd = CreateListenSocket(anyAddress, port, backlog);
    if (fd < 0)
        lua_pushnil(L);
    else
        lua_pushinteger(L, fd);
    return 1;
}

int Net_GetPlatformInterfaces(lua_State* L) {
    const bool detailed = lua_toboolean(L, 1) != 0;
    int code = 0;
    wxString text;
    CInterfaces interfaces;
    if (!GetPlatformInterfaces(interfaces, detailed, code, text)) {
        const std::string utf8 = text.utf8_string();
        lua_pushnil(L);
        lua_pushinteger(L, code);
        lua_pushlstring(L, utf8.data(), utf8.size());
        return 3;
    }
    return interfaces.toLua(L);
}

int Net_getsockname(lua_State* L) {
    const int fd = CheckInt(L, 1);
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        lua_pushnil(L);
        PushErrnoText(L, errno);
        return 2;
    }
    return PushAddress(L, reinterpret_cast<sockaddr*>(&address), length);
}

int Net_MakeWakeable(lua_State* L) {
    luaL_checktype(L, 1, LUA_TTABLE);
    unsigned long* events = nullptr;
    unsigned long count = 0;
    lua_Integer pair[2] = {-1, -1};
    if (lua_rawlen(L, 1) != 0 && MakeWakeable(nullptr, 0, events, count)) {
        pair[0] = static_cast<lua_Integer>(events[0]);
        pair[1] = static_cast<lua_Integer>(events[1]);
        free(events);
    }
    lua_createtable(L, 2, 0);
    for (int i = 0; i < 2 && pair[i] >= 0; ++i) {
        lua_pushinteger(L, pair[i]);
        lua_rawseti(L, -2, i + 1);
    }
    return 1;
}

int Net_PeerIsLoopback(lua_State* L) {
    lua_pushboolean(L, PeerIsLoopback(CheckInt(L, 1)));
    return 1;
}

int Net_select(lua_State* L) {
    for (int index = 1; index <= 3; ++index)
        CheckOptionalTable(L, index);
    int status;
    {
        std::vector<int> events = Descriptors(L, 1);
        Selected selected;
        selected.readers = Descriptors(L, 2);
        selected.writers = Descriptors(L, 3);
        const lua_Number milliseconds = lua_type(L, 4) == LUA_TNUMBER ? lua_tonumber(L, 4) : -1;
        std::vector<unsigned long> eventList(events.begin(), events.end());
        const unsigned int timeout = !(milliseconds >= 0) || milliseconds >= 4294967295.0
                                         ? 0xFFFFFFFFu
                                         : static_cast<unsigned int>(milliseconds);
        Select(selected, eventList, timeout);
        lua_pushcfunction(L, PushSelected);
        lua_pushlightuserdata(L, &selected);
        status = lua_pcall(L, 1, 4, 0);
    }
    // Raised once the vectors and the error array are gone.
    return status == LUA_OK ? 4 : lua_error(L);
}

}  // namespace VeskCore
