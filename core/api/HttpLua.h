// HTTP as scripts see it: the class http with its two kinds, http.Client and
// http.Server.
//
// What the glue hands to a script is the script's: a response filter stream
// belongs to its userdata (and keeps the stream it writes into alive), and a
// cleartext preamble is copied, so that no object is freed twice or lost
// with each request.
#pragma once

struct lua_State;

namespace SLB {
class Manager;
}

namespace VeskCore {

void HttpLua_Init(SLB::Manager* manager);

// obj:ReadContent(out) -> ok, status, status text.
int HTTP__ReadContent(lua_State* L);
// server:AcceptSSL(certificate, key, clientCA) -> ok, timed out. Each may be
// nil, but must be given.
int HTTPServer__AcceptSSL(lua_State* L);
// obj:AttachResponseContentFilters(out) -> a compressing stream over out,
// owned by its userdata, or nil when the client asked for no encoding.
int HTTP__AttachResponseContentFilters(lua_State* L);
// client:SetCleartextPreamble(stream or nil): the client keeps a copy of
// what the stream holds.
int HTTPClient__SetCleartextPreamble(lua_State* L);

}  // namespace VeskCore
