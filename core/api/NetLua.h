// Sockets and wakeable waits as scripts see them: the table SLB.net.
// Descriptors are plain integers; scripts close what they made with
// net.closesocket and net.closeevent.
#pragma once

struct lua_State;

namespace SLB {
class Manager;
}

namespace VeskCore {

void NetLua_Init(SLB::Manager* manager);

// net.accept(listener) -> socket, host, port, nil; or nil, nil, nil, error.
int Net_accept(lua_State* L);
// net.closeevent(event).
int Net_closeevent(lua_State* L);
// net.closesocket(socket) -> nil, or the error text.
int Net_closesocket(lua_State* L);
// net.CreateDualStackSocket(type, protocol) -> descriptor or -1.
int Net_CreateDualStackSocket(lua_State* L);
// net.CreateListenSocket(anyAddress, port, backlog) -> descriptor, or nil.
int Net_CreateListenSocket(lua_State* L);
// net.GetPlatformInterfaces(detailed) -> table of the interfaces, or nil,
// error code, error text.
int Net_GetPlatformInterfaces(lua_State* L);
// net.getsockname(socket) -> host, port; or nil, error text.
int Net_getsockname(lua_State* L);
// net.MakeWakeable(table) -> {read end, write end}; {} for an empty table or
// on failure.
int Net_MakeWakeable(lua_State* L);
// net.PeerIsLoopback(socket) -> boolean.
int Net_PeerIsLoopback(lua_State* L);
// net.select(events, readers, writers, milliseconds) -> readable, writable,
// in error (tables), and the error text when the wait ended without a ready
// socket ("timeout"), else nil. A missing time-out waits for ever.
int Net_select(lua_State* L);

}  // namespace VeskCore
