// wx's byte streams and its thread object as scripts see them: the names
// under SLB.wx and the class SLB.wxThread.
#pragma once

struct lua_State;

namespace SLB {
class Manager;
}

namespace VeskCore {

void WxLua_Init(SLB::Manager* manager);

// stream:Read(count) -> bytes, or nil when the stream is no longer ok after
// the read (a negative count reads nothing); stream:Read(outputStream) copies
// the rest of the stream into it and returns the stream (the same userdata).
int wxInputStream_Read(lua_State* L);
// stream:Write(bytes) -> the stream, or nil when it is no longer ok;
// stream:Write(inputStream) copies that stream to its end and returns the
// stream.
int wxOutputStream_Write(lua_State* L);
// wx.SysErrorMsg([code]) -> the text of a system error code; 0 or no code:
// the last error.
int wxMySysErrorMsg(lua_State* L);

}  // namespace VeskCore
