#include "core/api/HttpLua.h"

#include <wx/mstream.h>

#include <lua.hpp>
#include <memory>

#include "core/api/BoundClass.h"
#include "core/http/HTTPClient.h"
#include "core/http/HTTPServer.h"
#include "slb/Class.h"
#include "slb/CopyValue.h"
#include "slb/FuncCall.h"
#include "slb/InstanceBase.h"
#include "slb/InstanceFactory.h"
#include "slb/Manager.h"

namespace VeskCore {
namespace {

using SLB::FuncCall;
using NoCopy = SLB::Instance::NoCopy;

// Gives a userdata ownership of a stream made with new.
class DeletesStream final : public SLB::InstanceFactory {
  public:
    void* copy(const void*) const override { return nullptr; }
    bool destroysConstructed() const override { return true; }
    void destroy(void* object) const override { delete static_cast<wxOutputStream*>(object); }
    const char* kindName() const override { return "owned filter"; }
};
const DeletesStream s_DeletesStream;

void RegisterMessage(SLB::Manager* m) {
    SLB::Class<CHTTP, NoCopy>("http", m)
        .comment("Class wrapper for CHTTP")
        .set("AddHTTPHeader", &CHTTP::AddHTTPHeader)
        .set("AttachResponseContentFilters", FuncCall::create(&HTTP__AttachResponseContentFilters))
        .set("Disconnect", &CHTTP::Disconnect)
        .set("GetCipher", &CHTTP::GetCipher)
        .set("GetContext", &CHTTP::GetContext)
        .set("GetPeerCertificate", &CHTTP::GetPeerCertificate)
        .set("GetReceivedContentLength", &CHTTP::GetReceivedContentLength)
        .set("GetReceivedHeader",
             static_cast<wxString (CHTTP::*)(const wxString&) const>(&CHTTP::GetReceivedHeader))
        .set("GetUserAgent", &CHTTP::GetUserAgent)
        .set("IsConnected", &CHTTP::IsConnected)
        .set("ReadContent", FuncCall::create(&HTTP__ReadContent))
        .set("ReadHeaders", &CHTTP::ReadHeaders)
        .set("RemoveHTTPHeader", &CHTTP::RemoveHTTPHeader)
        .set("SetContext", &CHTTP::SetContext)
        .set("SetSocketTimeout", &CHTTP::SetSocketTimeout)
        .set("SetUserAgent", &CHTTP::SetUserAgent)
        .rawSet("Header::ContentType",
                new SLB::CopyValue<wxString>(wxString::FromAscii(CHTTP::m_HeaderContentType)));
}

void RegisterClient(SLB::Manager* m) {
    SLB::Class<CHTTPClient, NoCopy>("http::Client", m)
        .comment("Class wrapper for CHTTPClient")
        .inherits<CHTTP>()
        .constructor<CSSLContext*>()
        .set("GetReceivedStatus", &CHTTPClient::GetReceivedStatus)
        .set("GetReceivedStatusString", &CHTTPClient::GetReceivedStatusString)
        .set("Get", &CHTTPClient::Get)
        .set("Post", &CHTTPClient::Post)
        .set("Request", &CHTTPClient::Request)
        .set("SetCleartextPreamble", FuncCall::create(&HTTPClient__SetCleartextPreamble));
}

void RegisterServer(SLB::Manager* m) {
    SLB::Class<CHTTPServer, NoCopy>("http::Server", m)
        .comment("Class wrapper for CHTTPServer")
        .inherits<CHTTP>()
        .constructor<CSSLContext*>()
        .set("Accept", &CHTTPServer::Accept)
        .set("AcceptSSL", FuncCall::create(&HTTPServer__AcceptSSL))
        .set("GetReceivedCommand", &CHTTPServer::GetReceivedCommand)
        .set("GetReceivedCommandURL", &CHTTPServer::GetReceivedCommandURL)
        .set("ReadCommand", &CHTTPServer::ReadCommand)
        .set("Respond", static_cast<bool (CHTTPServer::*)(int, const wxString&, wxInputStream&)>(
                            &CHTTPServer::Respond))
        .set("RespondSimple",
             static_cast<bool (CHTTPServer::*)(int, const wxString&)>(&CHTTPServer::Respond))
        .set("ShouldCloseConnection", &CHTTPServer::ShouldCloseConnection);
}

template <class T>
T* Object(lua_State* L, int index) {
    return static_cast<T*>(ClassOrRaise<T>(L)->get_ptr(L, index));
}

// An object argument that may be nil but must be given; `reported` counts
// without the method's object.
template <class T>
T* NilOr(lua_State* L, int index, int reported, const char* expected) {
    T* object = Object<T>(L, index);
    if (object == nullptr && lua_type(L, index) != LUA_TNIL)
        luaL_argerror(L, reported, expected);
    return object;
}

// What a read gave, as plain values for the pushes.
struct ReadResult {
    bool ok;
    int status;
    std::string text;
};

int PushReadResult(lua_State* L) {
    const auto* result = static_cast<const ReadResult*>(lua_touserdata(L, 1));
    lua_pushboolean(L, result->ok);
    lua_pushinteger(L, result->status);
    lua_pushlstring(L, result->text.data(), result->text.size());
    return 3;
}

}  // namespace

void HttpLua_Init(SLB::Manager* manager) {
    RegisterMessage(manager);
    RegisterClient(manager);
    RegisterServer(manager);
}

int HTTP__ReadContent(lua_State* L) {
    auto* self = Object<CHTTP>(L, 1);
    if (self == nullptr)
        return luaL_error(L, "Invalid object for this method - CHTTP expected");
    auto* out = Object<wxOutputStream>(L, 2);
    if (out == nullptr)
        return luaL_argerror(L, 1, "Invalid object - wxOutputStream expected");
    int status;
    {
        ReadResult result{false, 0, std::string()};
        wxString text;
        result.ok = self->ReadContent(*out, result.status, text);
        result.text = text.utf8_string();
        lua_pushcfunction(L, PushReadResult);
        lua_pushlightuserdata(L, &result);
        status = lua_pcall(L, 1, 3, 0);
    }
    return status == LUA_OK ? 3 : lua_error(L);
}

int HTTPServer__AcceptSSL(lua_State* L) {
    auto* self = Object<CHTTPServer>(L, 1);
    if (self == nullptr)
        return luaL_error(L, "Invalid object for this method - CHTTPServer expected");
    X509* certificate = NilOr<x509_st>(L, 2, 1, "Invalid object - X509 expected");
    EVP_PKEY* key = NilOr<evp_pkey_st>(L, 3, 2, "Invalid object - EVP_PKEY expected");
    X509* clientCA = NilOr<x509_st>(L, 4, 3, "Invalid object - X509 expected");
    bool timedOut = false;
    const bool ok = self->AcceptSSL(certificate, key, clientCA, &timedOut);
    lua_pushboolean(L, ok);
    lua_pushboolean(L, timedOut);
    return 2;
}

int HTTP__AttachResponseContentFilters(lua_State* L) {
    auto* self = Object<CHTTP>(L, 1);
    if (self == nullptr)
        return luaL_error(L, "Invalid object for this method");
    if (lua_gettop(L) != 2)
        return luaL_error(L, "Error number of arguments (given %d -> expected %d)",
                          lua_gettop(L) - 1, 1);
    auto* out = Object<wxOutputStream>(L, 2);
    if (out == nullptr)
        return luaL_error(L, "Invalid object for this method");
    const SLB::ClassInfo* streamClass = ClassOrRaise<wxOutputStream>(L);
    // The userdata comes first, empty: should anything below fail, it is
    // simply collected.
    SLB::InstanceBase* instance = streamClass->pushInstance(L, SLB::InstanceBase::I_Pointer);
    lua_createtable(L, 1, 0);  // the stream the filter writes into, kept with it
    lua_pushvalue(L, 2);
    lua_rawseti(L, -2, 1);
    lua_setuservalue(L, -2);
    wxOutputStream* filter = self->AttachResponseContentFilters(*out);
    if (filter == nullptr) {
        lua_pushnil(L);
        return 1;
    }
    instance->setObject(filter, &s_DeletesStream);
    return 1;
}

int HTTPClient__SetCleartextPreamble(lua_State* L) {
    auto* self = Object<CHTTPClient>(L, 1);
    if (self == nullptr)
        return luaL_error(L, "Invalid object for this method");
    auto* in = NilOr<wxInputStream>(L, 2, 1, "Invalid object - wxInputStream expected");
    // The client owns its preamble and reads it again for each connection:
    // it gets a copy, and the script's stream stays the script's.
    self->SetCleartextPreamble(in != nullptr ? new wxMemoryInputStream(*in) : nullptr);
    return 0;
}

}  // namespace VeskCore
