// The agent's credentials as scripts see them: the table SLB.cred.
//
// cred.E and cred.D seal and open bytes to this machine; cred.GetPrivateKey
// reads a key from credentials text; the rest reaches the bootstrap pair and
// the writing of activated credentials.
#pragma once

struct lua_State;

namespace SLB {
class Manager;
}

namespace VeskCore {

void CredLua_Init(SLB::Manager* manager);

// Lua: cred.E(bytes) -> sealed bytes, or nil. A number is taken as its text;
// anything else raises "Binary data expected".
int Cred_MachineEncrypt(lua_State* L);
// Lua: cred.D(sealed) -> bytes and whether only part of the machine matched
// (seal again), or one nil. Argument error as for cred.E.
int Cred_MachineDecrypt(lua_State* L);
// Lua: cred.GetBootstrapFingerprint() -> the bootstrap certificate's SHA-1.
int Cred_GetBootstrapFingerprint(lua_State* L);
// Lua: cred.GetPrivateKey(pem) -> key (ssl.EVP_PKEY, the script's to free),
// encrypted, decryptFlag; or one nil. The text ends at its first NUL; a
// non-string raises "PEM-encoded private key expected".
int Cred_GetPrivateKey(lua_State* L);

}  // namespace VeskCore
