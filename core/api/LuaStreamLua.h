// The Lua-backed streams as scripts see them: SLB.CLuaStreamBase,
// SLB.LuaStringInputStream and SLB.LuaStringOutputStream.
#pragma once

namespace SLB {
class Manager;
}

namespace VeskCore {

void LuaStream_Init(SLB::Manager* manager);

}  // namespace VeskCore
