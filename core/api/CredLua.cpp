#include "core/api/CredLua.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <cstdlib>
#include <lua.hpp>
#include <string>

#include "core/api/BoundClass.h"
#include "core/common/Credentials.h"
#include "hostseal/hostseal.h"
#include "slb/FuncCall.h"
#include "slb/Manager.h"

namespace VeskCore {
namespace {

using SLB::FuncCall;

// What a seal or unseal gave: plain bytes, wiped and freed by whoever ends
// up with them, also when Lua fails to take them.
struct Sealed {
    void* bytes;
    int length;
};

void Release(Sealed& sealed) {
    if (sealed.bytes == nullptr)
        return;
    OPENSSL_cleanse(sealed.bytes, static_cast<size_t>(sealed.length));
    free(sealed.bytes);
    sealed.bytes = nullptr;
}

// lua_CFunction: pushes the bytes of the Sealed at 1.
int PushBytes(lua_State* L) {
    const auto* sealed = static_cast<const Sealed*>(lua_touserdata(L, 1));
    lua_pushlstring(L, static_cast<const char*>(sealed->bytes), static_cast<size_t>(sealed->length));
    return 1;
}

// Pushes (+1) the bytes and releases them; a memory error of the push is
// raised only once they are gone.
void PushAndRelease(lua_State* L, Sealed& sealed) {
    lua_pushcfunction(L, PushBytes);
    lua_pushlightuserdata(L, &sealed);
    const int status = lua_pcall(L, 1, 1, 0);
    Release(sealed);
    if (status != LUA_OK)
        lua_error(L);
}

const char* BinaryArgument(lua_State* L, int& length) {
    size_t size = 0;
    const char* bytes = lua_tolstring(L, 1, &size);
    if (bytes == nullptr)
        luaL_argerror(L, 1, "Binary data expected");
    length = static_cast<int>(size);
    return bytes;
}

}  // namespace

void CredLua_Init(SLB::Manager* m) {
    m->set("cred::D", FuncCall::create(&Cred_MachineDecrypt));
    m->set("cred::E", FuncCall::create(&Cred_MachineEncrypt));
    m->set("cred::EncryptPrivateKey", FuncCall::create(&EncryptPrivateKey));
    m->set("cred::GetBootstrapCredentials", FuncCall::create(&GetBootstrapCredentials));
    m->set("cred::GetBootstrapFingerprint", FuncCall::create(&Cred_GetBootstrapFingerprint));
    m->set("cred::GetPrivateKey", FuncCall::create(&Cred_GetPrivateKey));
    m->set("cred::GetVendorPemHeader", FuncCall::create(&GetVendorPemHeader));
    m->set("cred::WriteBootstrapCredentials", FuncCall::create(&WriteBootstrapCredentials));
}

int Cred_MachineEncrypt(lua_State* L) {
    int length = 0;
    const char* data = BinaryArgument(L, length);
    Sealed sealed{QX_N_Choose_K_Encrypt(data, &length), length};
    if (sealed.bytes == nullptr) {
        lua_pushnil(L);
        return 1;
    }
    PushAndRelease(L, sealed);
    return 1;
}

int Cred_MachineDecrypt(lua_State* L) {
    int length = 0;
    const char* blob = BinaryArgument(L, length);
    int flag = 0;
    Sealed plain{QX_N_Choose_K_Decrypt(blob, &length, &flag), length};
    if (plain.bytes == nullptr) {
        lua_pushnil(L);
        return 1;
    }
    PushAndRelease(L, plain);
    lua_pushboolean(L, flag != 0);
    return 2;
}

int Cred_GetBootstrapFingerprint(lua_State* L) {
    const char* fingerprint = GetBootstrapFingerprint();
    lua_pushstring(L, fingerprint != nullptr ? fingerprint : "");
    return 1;
}

int Cred_GetPrivateKey(lua_State* L) {
    const char* pem = lua_tolstring(L, 1, nullptr);
    if (pem == nullptr)
        return luaL_argerror(L, 1, "PEM-encoded private key expected");
    const SLB::ClassInfo* keyClass = ClassOrRaise<evp_pkey_st>(L);
    bool encrypted = false;
    bool decryptFlag = false;
    EVP_PKEY* key = nullptr;
    {
        // The text is a secret: its copy goes before Lua runs again.
        std::string text(pem);
        key = GetPrivateKey(text, &encrypted, &decryptFlag);
        OPENSSL_cleanse(&text[0], text.size());
    }
    if (key == nullptr) {
        lua_pushnil(L);
        return 1;
    }
    keyClass->push_ptr(L, key);
    lua_pushboolean(L, encrypted);
    lua_pushboolean(L, decryptFlag);
    return 3;
}

}  // namespace VeskCore
