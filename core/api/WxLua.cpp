#include "core/api/WxLua.h"

#include <wx/filefn.h>
#include <wx/log.h>
#include <wx/mstream.h>
#include <wx/thread.h>
#include <wx/wfstream.h>

#include <algorithm>
#include <lua.hpp>
#include <stdexcept>

#include "core/api/BoundClass.h"
#include "core/api/MyMemoryInputStream.h"
#include "core/api/MyMemoryOutputStream.h"
#include "core/common/FileUtil.h"
#include "core/common/SystemUtil.h"
#include "slb/Class.h"
#include "slb/ClassInfo.h"
#include "slb/CopyValue.h"
#include "slb/FuncCall.h"
#include "slb/Manager.h"

namespace VeskCore {
namespace {

using SLB::FuncCall;
using NoCopy = SLB::Instance::NoCopy;

template <class T>
T* SelfOrRaise(lua_State* L, const SLB::ClassInfo* cls) {
    auto* self = static_cast<T*>(cls->get_ptr(L, 1));
    if (self == nullptr)
        luaL_error(L, "Invalid object for this method");
    return self;
}

// wx ends a running thread with pthread_cancel, whose unwinding can pass
// neither the catch-all stops of the library's threads nor Lua's C frames:
// the process aborts. A thread that runs is asked to stop instead.
wxThreadError KillThread(wxThread* thread) {
    if (thread->IsAlive())
        throw std::runtime_error(
            "wxThread:Kill() - a running thread can't be killed; ask it to stop with "
            "requestExit()");
    return thread->Kill();
}

void RegisterFunctions(SLB::Manager* m) {
    m->set("wx::FromCurrent", new SLB::CopyValue<wxSeekMode>(wxFromCurrent));
    m->set("wx::FromEnd", new SLB::CopyValue<wxSeekMode>(wxFromEnd));
    m->set("wx::FromStart", new SLB::CopyValue<wxSeekMode>(wxFromStart));
    m->set("wx::RemoveFile", FuncCall::create(&RemoveFileChecked));
    m->set("wx::RenameFile", FuncCall::create(&RenameFileChecked));
    m->set("wx::SysErrorCode", FuncCall::create(&wxSysErrorCode));
    m->set("wx::SysErrorMsg", FuncCall::create(&wxMySysErrorMsg));
}

void RegisterStreamBases(SLB::Manager* m) {
    SLB::Class<wxStreamBase, NoCopy>("wx::StreamBase", m)
        .comment("Class wrapper for wxStreamBase")
        .set("GetLastError", &wxStreamBase::GetLastError)
        .set("IsOk", &wxStreamBase::IsOk)
        // wx 3.2 gave Reset an error to reset to; scripts reset to none.
        .set("Reset", FuncCall::createMethod(+[](wxStreamBase* stream) { stream->Reset(); }))
        .set("GetSize", &wxStreamBase::GetSize)
        .set("GetLength", &wxStreamBase::GetLength)
        .set("IsSeekable", &wxStreamBase::IsSeekable);
    SLB::Class<wxInputStream, NoCopy>("wx::InputStream", m)
        .comment("Class wrapper for wxInputStream")
        .inherits<wxStreamBase>()
        .set("Peek", &wxInputStream::Peek)
        .set("GetC", &wxInputStream::GetC)
        .set("LastRead", &wxInputStream::LastRead)
        .set("CanRead", &wxInputStream::CanRead)
        .set("Eof", &wxInputStream::Eof)
        .set("Ungetch", static_cast<bool (wxInputStream::*)(char)>(&wxInputStream::Ungetch))
        .set("SeekI", &wxInputStream::SeekI)
        .set("TellI", &wxInputStream::TellI)
        .set("Read", &wxInputStream_Read);
    SLB::Class<wxMyMemoryInputStream, NoCopy>("wx::MemoryInputStream", m)
        .comment("Class wrapper for wxMemoryInputStream")
        .inherits<wxStreamBase>()
        .inherits<wxInputStream>()
        .constructor<const wxMemoryOutputStream&>();
    SLB::Class<wxOutputStream, NoCopy>("wx::OutputStream", m)
        .comment("Class wrapper for wxOutputStream")
        .inherits<wxStreamBase>()
        .set("PutC", &wxOutputStream::PutC)
        .set("SeekO", &wxOutputStream::SeekO)
        .set("TellO", &wxOutputStream::TellO)
        .set("LastWrite", &wxOutputStream::LastWrite)
        .set("Sync", &wxOutputStream::Sync)
        .set("Close", &wxOutputStream::Close)
        .set("Write", &wxOutputStream_Write);
}

void RegisterStreams(SLB::Manager* m) {
    // Only for the constructor of wx::MemoryInputStream to ask for: scripts
    // make wx::MemoryOutputStream.
    SLB::Class<wxMemoryOutputStream, NoCopy>("wx::_MemoryOutputStream_", m)
        .inherits<wxStreamBase>()
        .inherits<wxOutputStream>();
    SLB::Class<wxFileInputStream, NoCopy>("wx::FileInputStream", m)
        .comment("Class wrapper for wxFileInputStream")
        .inherits<wxStreamBase>()
        .inherits<wxInputStream>()
        .constructor<const wxString&>();
    SLB::Class<wxFileOutputStream, NoCopy>("wx::FileOutputStream", m)
        .comment("Class wrapper for wxFileOutputStream")
        .inherits<wxStreamBase>()
        .inherits<wxOutputStream>()
        .constructor<const wxString&>();
    SLB::Class<wxMyMemoryOutputStream, NoCopy>("wx::MemoryOutputStream", m)
        .comment("Class wrapper for wxMemoryOutputStream")
        .inherits<wxStreamBase>()
        .inherits<wxOutputStream>()
        .inherits<wxMemoryOutputStream>()
        .constructor<>();
}

void RegisterThread(SLB::Manager* m) {
    SLB::Class<wxThread, NoCopy>("wxThread", m)
        .comment("wxThread class wrapper")
        .set("GetCPUCount", &wxThread::GetCPUCount)
        .set("GetCurrentId", &wxThread::GetCurrentId)
        .set("GetId", &wxThread::GetId)
        .set("GetPriority", &wxThread::GetPriority)
        .set("IsPaused", &wxThread::IsPaused)
        .set("Kill", FuncCall::createMethod(&KillThread))
        .set("Pause", &wxThread::Pause)
        .set("Resume", &wxThread::Resume)
        .set("Sleep", &SleepMilliseconds)
        .set("This", &wxThread::This);
}

}  // namespace

void WxLua_Init(SLB::Manager* manager) {
    RegisterFunctions(manager);
    RegisterStreamBases(manager);
    RegisterStreams(manager);
    RegisterThread(manager);
}

int wxInputStream_Read(lua_State* L) {
    const SLB::ClassInfo* cls = ClassOrRaise<wxInputStream>(L);
    wxInputStream* self = SelfOrRaise<wxInputStream>(L, cls);
    if (lua_gettop(L) < 2)
        return luaL_argerror(L, 2, "Integer value or wxOutputStream object expected");
    if (lua_isnumber(L, 2)) {
        // Saturated, not cast: a count past the integers is undefined in C++.
        // A count no memory can hold fails as Lua's memory error.
        const lua_Number asked = lua_tonumberx(L, 2, nullptr);
        const size_t count = !(asked > 0)      ? 0
                             : asked >= 9.0e15 ? size_t{1} << 53
                                               : static_cast<size_t>(asked);
        luaL_Buffer bytes;
        char* into = luaL_buffinitsize(L, &bytes, count);
        self->Read(into, count);
        luaL_pushresultsize(&bytes, self->LastRead());
        if (!self->IsOk())
            lua_pushnil(L);  // what the failed read got is not handed on
        return 1;
    }
    const SLB::ClassInfo* outputClass = ClassOrRaise<wxOutputStream>(L);
    auto* output = static_cast<wxOutputStream*>(outputClass->get_ptr(L, 2));
    if (output == nullptr)
        return luaL_argerror(L, 2, "Integer value or wxOutputStream object expected");
    self->Read(*output);
    lua_pushvalue(L, 1);  // the stream itself, as its owner holds it
    return 1;
}

int wxOutputStream_Write(lua_State* L) {
    const SLB::ClassInfo* cls = ClassOrRaise<wxOutputStream>(L);
    wxOutputStream* self = SelfOrRaise<wxOutputStream>(L, cls);
    if (lua_gettop(L) < 2)
        return luaL_argerror(L, 2, "String or wxInputStream object expected");
    if (lua_isstring(L, 2)) {
        size_t length = 0;
        const char* bytes = lua_tolstring(L, 2, &length);
        self->Write(bytes, length);
        if (!self->IsOk())
            return lua_pushnil(L), 1;
        lua_pushvalue(L, 1);
        return 1;
    }
    const SLB::ClassInfo* inputClass = ClassOrRaise<wxInputStream>(L);
    auto* input = static_cast<wxInputStream*>(inputClass->get_ptr(L, 2));
    if (input == nullptr)
        return luaL_argerror(L, 2, "String or wxInputStream object expected");
    self->Write(*input);
    lua_pushvalue(L, 1);
    return 1;
}

int wxMySysErrorMsg(lua_State* L) {
    const auto code = static_cast<unsigned long>(lua_tointegerx(L, 1, nullptr));
    // The string form: wxSysErrorMsg returns a buffer shared by all threads.
    const std::string utf8 = wxSysErrorMsgStr(code).utf8_string();
    lua_pushlstring(L, utf8.data(), utf8.size());
    return 1;
}

}  // namespace VeskCore
