#include "core/api/LuaStreamLua.h"

#include "core/lua/LuaStreamBase.h"
#include "core/lua/LuaStringInputStream.h"
#include "core/lua/LuaStringOutputStream.h"
#include "slb/Class.h"
#include "slb/Manager.h"

namespace VeskCore {

void LuaStream_Init(SLB::Manager* m) {
    using NoCopy = SLB::Instance::NoCopy;
    SLB::Class<CLuaStreamBase, NoCopy>("CLuaStreamBase", m)
        .comment("Class wrapper for CLuaStreamBase")
        .set("SetFn", &CLuaStreamBase::SetFn);
    SLB::Class<CLuaStringInputStream, NoCopy>("LuaStringInputStream", m)
        .comment("Class wrapper for CLuaStringInputStream")
        .inherits<wxInputStream>()
        .inherits<CLuaStreamBase>()
        .constructor<const wxString&>();
    SLB::Class<CLuaStringOutputStream, NoCopy>("LuaStringOutputStream", m)
        .comment("Class wrapper for CLuaStringOutputStream")
        .inherits<wxOutputStream>()
        .inherits<CLuaStreamBase>()
        .inherits<wxStringOutputStream>()
        .constructor<>()
        .set("GetString", &wxStringOutputStream::GetString);
}

}  // namespace VeskCore
