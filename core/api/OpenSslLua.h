// OpenSSL as scripts see it: the table SLB.ssl with errors, digests,
// ciphers, keys, certificates and the TLS context.
//
// Bare OpenSSL handles are opaque classes a script can only hold and pass
// on; each wrapper class has its handle as a base, so a wrapper goes wherever
// a handle is asked for. Certificates, contexts and keys made by a script are
// never freed by the collector: the script calls their Delete.
#pragma once

struct lua_State;

namespace SLB {
class Manager;
}

namespace VeskCore {

void OpenSslLua_Init(SLB::Manager* manager);

// Lua: ssl.PKCS7_Unwrap(package, key, certificate, signer) -> ok, content,
// digest, error. key and certificate may be nil but must be given; a wrong
// object raises "Invalid object - EVP_PKEY expected" / "... X509 expected".
int OpenSslLua__PKCS7_Unwrap(lua_State* L);

// Lua: md:DigestUpdate(bytes) -> 1 or 0, and cipher:EncryptUpdate(bytes) ->
// bytes: the methods of the two contexts that carry bulk data, reading the
// Lua string in place and writing the result straight into a Lua buffer,
// where the binder would copy each through a buffer of its own. The checks
// and error words are the binder's.
int OpenSslLua__DigestUpdate(lua_State* L);
int OpenSslLua__EncryptUpdate(lua_State* L);

}  // namespace VeskCore
