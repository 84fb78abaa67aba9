#include "core/api/OpenSslLua.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <lua.hpp>
#include <string>

#include "core/api/BoundClass.h"
#include "core/http/EvpCipherCtx.h"
#include "core/http/EvpMdCtx.h"
#include "core/http/EvpPkey.h"
#include "core/http/OpenSslUtil.h"
#include "core/http/RsaKey.h"
#include "core/http/SSLCert.h"
#include "core/http/SSLContext.h"
#include "slb/Class.h"
#include "slb/CopyValue.h"
#include "slb/FuncCall.h"
#include "slb/Manager.h"

// The wrappers own or are their OpenSSL structures: a script's wrapper goes
// wherever the structure is asked for, through these conversions.
namespace SLB {
template <>
struct ClassConversor<VeskCore::CEvpCipherCtx, evp_cipher_ctx_st> {
    static evp_cipher_ctx_st* convertToBase(VeskCore::CEvpCipherCtx* p) { return p->Handle(); }
};
template <>
struct ClassConversor<VeskCore::CEvpMdCtx, evp_md_ctx_st> {
    static evp_md_ctx_st* convertToBase(VeskCore::CEvpMdCtx* p) { return p->Handle(); }
};
template <>
struct ClassConversor<VeskCore::CRsaKey, rsa_st> {
    static rsa_st* convertToBase(VeskCore::CRsaKey* p) { return p->Handle(); }
};
template <>
struct ClassConversor<VeskCore::CEvpPkey, evp_pkey_st> {
    static evp_pkey_st* convertToBase(VeskCore::CEvpPkey* p) { return p->Handle(); }
};
template <>
struct ClassConversor<VeskCore::CSSLCert, x509_st> {
    static x509_st* convertToBase(VeskCore::CSSLCert* p) { return reinterpret_cast<X509*>(p); }
};
template <>
struct ClassConversor<VeskCore::CSSLContext, ssl_ctx_st> {
    static ssl_ctx_st* convertToBase(VeskCore::CSSLContext* p) { return p->handle(); }
};
}  // namespace SLB

namespace VeskCore {
namespace {

using SLB::FuncCall;
using NoCopy = SLB::Instance::NoCopy;
using NoCopyNoDestroy = SLB::Instance::NoCopyNoDestroy;

template <class T>
void Opaque(SLB::Manager* m, const char* name, const char* text) {
    SLB::Class<T, NoCopyNoDestroy>(name, m).comment(text);
}

void RegisterOpaqueClasses(SLB::Manager* m) {
    Opaque<evp_cipher_st>(m, "ssl::EVP_CIPHER", "EVP_CIPHER opaque type");
    Opaque<evp_cipher_ctx_st>(m, "ssl::EVP_CIPHER_CTX", "EVP_CIPHER_CTX opaque type");
    Opaque<evp_pkey_st>(m, "ssl::EVP_PKEY", "EVP_PKEY opaque type");
    Opaque<evp_md_st>(m, "ssl::EVP_MD", "EVP_MD opaque type");
    Opaque<evp_md_ctx_st>(m, "ssl::EVP_MD_CTX", "EVP_MD_CTX opaque type");
    Opaque<rsa_st>(m, "ssl::RSA", "RSA opaque type");
    Opaque<ssl_cipher_st>(m, "ssl::SSL_CIPHER", "SSL_CIPHER opaque type");
    Opaque<ssl_method_st>(m, "ssl::SSL_METHOD", "SSL_METHOD opaque type");
    Opaque<x509_st>(m, "ssl::X509", "X509 opaque type");
    Opaque<x509_store_st>(m, "ssl::X509_STORE", "X509_STORE opaque type");
}

// TLS 1.0 is refused at this platform's security level: the old names give
// the methods that negotiate TLS 1.2 and 1.3.
const SSL_METHOD* ClientMethod() {
    return TLS_client_method();
}
const SSL_METHOD* ServerMethod() {
    return TLS_server_method();
}

void RegisterFunctions(SLB::Manager* m) {
    m->set("ssl::ClearError", FuncCall::create(&ERR_clear_error));
    m->set("ssl::GetLastError", FuncCall::create(static_cast<wxString (*)()>(&OpenSSLError)));
    m->set("ssl::PeekLastError", FuncCall::create(&ERR_peek_error));
    m->set("ssl::PKCS7_Unwrap", FuncCall::create(&OpenSslLua__PKCS7_Unwrap));
    m->set("ssl::GetCipherName", FuncCall::create(&SSL_CIPHER_get_name));
    m->set("ssl::TLSv1_server_method", FuncCall::create(&ServerMethod));
    m->set("ssl::TLSv1_client_method", FuncCall::create(&ClientMethod));
}

void RegisterCipherAndDigest(SLB::Manager* m) {
    SLB::Class<CEvpCipherCtx, NoCopy>("ssl::EvpCipherCtx", m)
        .comment("Class wrapper for OpenSSL EVP_CIPHER_CTX")
        .inherits<evp_cipher_ctx_st>()
        .constructor<>()
        .set("CipherInit", &CEvpCipherCtx::CipherInit)
        .set("EncryptUpdate", FuncCall::create(&OpenSslLua__EncryptUpdate))
        .set("EncryptFinal", &CEvpCipherCtx::EncryptFinal)
        .set("GetCipherByName", &CEvpCipherCtx::GetCipherByName)
        .set("GetBlockSize", &CEvpCipherCtx::GetBlockSize)
        .set("GetKeyLength", &CEvpCipherCtx::GetKeyLength)
        .set("GetIvLength", &CEvpCipherCtx::GetIvLength)
        .set("GetFlags", &CEvpCipherCtx::GetFlags);
    SLB::Class<CEvpMdCtx, NoCopy>("ssl::EvpMdCtx", m)
        .comment("Class wrapper for OpenSSL EVP_MD_CTX")
        .inherits<evp_md_ctx_st>()
        .constructor<>()
        .set("ClearFlags", &CEvpMdCtx::ClearFlags)
        .set("DigestInit", &CEvpMdCtx::DigestInit)
        .set("DigestUpdate", FuncCall::create(&OpenSslLua__DigestUpdate))
        .set("DigestFinal", &CEvpMdCtx::DigestFinal)
        .set("GetDigestByName", &CEvpMdCtx::GetDigestByName)
        .set("GetMD", &CEvpMdCtx::GetMD)
        .set("GetBlockSize", &CEvpMdCtx::GetBlockSize)
        .set("GetSize", &CEvpMdCtx::GetSize)
        .set("GetType", &CEvpMdCtx::GetType)
        .set("SetFlags", &CEvpMdCtx::SetFlags)
        .set("TestFlags", &CEvpMdCtx::TestFlags);
}

void RegisterKeys(SLB::Manager* m) {
    SLB::Class<CEvpPkey, NoCopyNoDestroy>("ssl::EvpPkey", m)
        .comment("Class wrapper for OpenSSL EVP_PKEY")
        .inherits<evp_pkey_st>()
        .constructor(&CEvpPkey::Create)
        .set("AssignRSA", &CEvpPkey::AssignRSA)
        .set("Bits", &CEvpPkey::Bits)
        .set("Delete", &CEvpPkey::Delete)
        .set("New", &CEvpPkey::New)
        .set("Size", &CEvpPkey::Size)
        .set("SignInit", &CEvpPkey::SignInit)
        .set("SignUpdate", &CEvpPkey::SignUpdate)
        .set("SignFinal", &CEvpPkey::SignFinal)
        .set("VerifyInit", &CEvpPkey::VerifyInit)
        .set("VerifyUpdate", &CEvpPkey::VerifyUpdate)
        .set("VerifyFinal", &CEvpPkey::VerifyFinal);
    SLB::Class<CRsaKey, NoCopy>("ssl::RsaKey", m)
        .comment("Class wrapper for OpenSSL RSA")
        .inherits<rsa_st>()
        .constructor<>()
        .set("Assign", &CRsaKey::Assign)
        .set("IsValid", &CRsaKey::IsValid);
}

// The X509_V_ codes scripts compare IsValid's result with, by name.
struct Validation {
    const char* name;
    int value;
};
#define VESK_VALIDATION(name) \
    { "VALIDATION::" #name, X509_V_##name }
const Validation kValidations[] = {
    VESK_VALIDATION(OK),
    VESK_VALIDATION(ERR_UNABLE_TO_GET_ISSUER_CERT),
    VESK_VALIDATION(ERR_UNABLE_TO_GET_CRL),
    VESK_VALIDATION(ERR_UNABLE_TO_DECRYPT_CERT_SIGNATURE),
    VESK_VALIDATION(ERR_UNABLE_TO_DECRYPT_CRL_SIGNATURE),
    VESK_VALIDATION(ERR_UNABLE_TO_DECODE_ISSUER_PUBLIC_KEY),
    VESK_VALIDATION(ERR_CERT_SIGNATURE_FAILURE),
    VESK_VALIDATION(ERR_CRL_SIGNATURE_FAILURE),
    VESK_VALIDATION(ERR_CERT_NOT_YET_VALID),
    VESK_VALIDATION(ERR_CERT_HAS_EXPIRED),
    VESK_VALIDATION(ERR_CRL_NOT_YET_VALID),
    VESK_VALIDATION(ERR_CRL_HAS_EXPIRED),
    VESK_VALIDATION(ERR_ERROR_IN_CERT_NOT_BEFORE_FIELD),
    VESK_VALIDATION(ERR_ERROR_IN_CERT_NOT_AFTER_FIELD),
    VESK_VALIDATION(ERR_ERROR_IN_CRL_LAST_UPDATE_FIELD),
    VESK_VALIDATION(ERR_ERROR_IN_CRL_NEXT_UPDATE_FIELD),
    VESK_VALIDATION(ERR_OUT_OF_MEM),
    VESK_VALIDATION(ERR_DEPTH_ZERO_SELF_SIGNED_CERT),
    VESK_VALIDATION(ERR_SELF_SIGNED_CERT_IN_CHAIN),
    VESK_VALIDATION(ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY),
    VESK_VALIDATION(ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE),
    VESK_VALIDATION(ERR_CERT_CHAIN_TOO_LONG),
    VESK_VALIDATION(ERR_CERT_REVOKED),
    VESK_VALIDATION(ERR_INVALID_CA),
    VESK_VALIDATION(ERR_PATH_LENGTH_EXCEEDED),
    VESK_VALIDATION(ERR_INVALID_PURPOSE),
    VESK_VALIDATION(ERR_CERT_UNTRUSTED),
    VESK_VALIDATION(ERR_CERT_REJECTED),
    VESK_VALIDATION(ERR_SUBJECT_ISSUER_MISMATCH),
    VESK_VALIDATION(ERR_AKID_SKID_MISMATCH),
    VESK_VALIDATION(ERR_AKID_ISSUER_SERIAL_MISMATCH),
    VESK_VALIDATION(ERR_KEYUSAGE_NO_CERTSIGN),
    VESK_VALIDATION(ERR_UNABLE_TO_GET_CRL_ISSUER),
    VESK_VALIDATION(ERR_UNHANDLED_CRITICAL_EXTENSION),
    VESK_VALIDATION(ERR_KEYUSAGE_NO_CRL_SIGN),
    VESK_VALIDATION(ERR_UNHANDLED_CRITICAL_CRL_EXTENSION),
    VESK_VALIDATION(ERR_INVALID_NON_CA),
    VESK_VALIDATION(ERR_PROXY_PATH_LENGTH_EXCEEDED),
    VESK_VALIDATION(ERR_KEYUSAGE_NO_DIGITAL_SIGNATURE),
    VESK_VALIDATION(ERR_PROXY_CERTIFICATES_NOT_ALLOWED),
    VESK_VALIDATION(ERR_INVALID_EXTENSION),
    VESK_VALIDATION(ERR_INVALID_POLICY_EXTENSION),
    VESK_VALIDATION(ERR_NO_EXPLICIT_POLICY),
    VESK_VALIDATION(ERR_UNNESTED_RESOURCE),
    VESK_VALIDATION(ERR_APPLICATION_VERIFICATION),
};
#undef VESK_VALIDATION

void RegisterCertificate(SLB::Manager* m) {
    SLB::Class<CSSLCert, NoCopyNoDestroy> cert("ssl::Cert", m);
    cert.comment("Class wrapper for C++ VeskCore::CSSLCert")
        .inherits<x509_st>()
        .set("DecodeFile", &CSSLCert::DecodeFile)
        .set("DecodeString", &CSSLCert::DecodeString)
        .set("Delete", &CSSLCert::Delete)
        .set("CheckIfIssuedBy", &CSSLCert::CheckIfIssuedBy)
        .set("GetFingerprint",
             static_cast<wxString (CSSLCert::*)() const>(&CSSLCert::GetFingerprint))
        .set("GetIssuerName", static_cast<wxString (CSSLCert::*)() const>(&CSSLCert::GetIssuerName))
        .set("GetSubjectName",
             static_cast<wxString (CSSLCert::*)() const>(&CSSLCert::GetSubjectName))
        .set("New", static_cast<CSSLCert* (*)()>(&CSSLCert::New))
        .set("NewCopy", static_cast<CSSLCert* (*)(X509*)>(&CSSLCert::New))
        .set("IsValid", &CSSLCert::IsValid)
        .set("VerifyErrorString", &X509_verify_cert_error_string);
    for (const Validation& validation : kValidations)
        cert.rawSet(validation.name, new SLB::CopyValue<int>(validation.value));
}

void RegisterContext(SLB::Manager* m) {
    SLB::Class<CSSLContext, NoCopyNoDestroy>("ssl::Context", m)
        .comment("Class wrapper for C++ VeskCore::CSSLContext")
        .inherits<ssl_ctx_st>()
        .set("AddCA", &CSSLContext::AddCA)
        .set("Delete", &CSSLContext::Delete)
        .set("GetCertStore", &CSSLContext::GetCertStore)
        .set("LoadVerifyLocations", &CSSLContext::LoadVerifyLocations)
        .set("New", &CSSLContext::New)
        .set("ResetVerifyLocations", &CSSLContext::ResetVerifyLocations)
        .set("SetCipherList", &CSSLContext::SetCipherList)
        .set("SetOptions", &CSSLContext::SetOptions)
        .set("SetVerify", &CSSLContext::SetVerify)
        .set("SetVerifyDepth", &CSSLContext::SetVerifyDepth)
        .set("UseCertificate", &CSSLContext::UseCertificate)
        .set("UseCertificateChainFile", &CSSLContext::UseCertificateChainFile)
        .set("UseCredentials", &CSSLContext::UseCredentials)
        .set("UsePrivateKey", &CSSLContext::UsePrivateKey)
        // The numbers scripts were written against; SetOptions translates.
        .rawSet("SSL_OP::ALL", new SLB::CopyValue<long>(0x80000BFFL))
        .rawSet("SSL_OP::CIPHER_SERVER_PREFERENCE", new SLB::CopyValue<long>(0x400000L))
        .rawSet("SSL_OP::NO_SSLv2", new SLB::CopyValue<long>(0x1000000L))
        .rawSet("SSL_VERIFY::NONE", new SLB::CopyValue<int>(SSL_VERIFY_NONE))
        .rawSet("SSL_VERIFY::PEER", new SLB::CopyValue<int>(SSL_VERIFY_PEER))
        .rawSet("SSL_VERIFY::FAIL_IF_NO_PEER_CERT",
                new SLB::CopyValue<int>(SSL_VERIFY_FAIL_IF_NO_PEER_CERT))
        .rawSet("SSL_VERIFY::CLIENT_ONCE", new SLB::CopyValue<int>(SSL_VERIFY_CLIENT_ONCE));
}

// The object of a method on bulk bytes, checked as the binder checks a
// method of one argument: the object first, then the count.
template <class T>
T* SelfWithOneArgument(lua_State* L) {
    auto* self = static_cast<T*>(ClassOrRaise<T>(L)->get_ptr(L, 1));
    if (self == nullptr)
        luaL_error(L, "Invalid object for this method");
    if (lua_gettop(L) != 2)
        luaL_error(L, "Error number of arguments (given %d -> expected %d)", lua_gettop(L) - 1, 1);
    return self;
}

// What PKCS7_Unwrap gave; the content may be a secret and is wiped when
// the result goes.
struct Unwrapped {
    bool ok = false;
    std::string content, digest, error;
    ~Unwrapped() { OPENSSL_cleanse(&content[0], content.size()); }
};

// lua_CFunction: pushes the four results of the Unwrapped at 1. Run
// protected, so that a memory error leaves the strings to their destructor.
int PushUnwrapped(lua_State* L) {
    const auto* result = static_cast<const Unwrapped*>(lua_touserdata(L, 1));
    lua_pushboolean(L, result->ok);
    lua_pushlstring(L, result->content.data(), result->content.size());
    lua_pushlstring(L, result->digest.data(), result->digest.size());
    lua_pushlstring(L, result->error.data(), result->error.size());
    return 4;
}

template <class T>
T* ObjectOrNil(lua_State* L, int index, const char* expected, int reported) {
    auto* object = static_cast<T*>(ClassOrRaise<T>(L)->get_ptr(L, index));
    if (object == nullptr && lua_type(L, index) != LUA_TNIL)
        luaL_argerror(L, reported, expected);
    return object;
}

}  // namespace

void OpenSslLua_Init(SLB::Manager* manager) {
    RegisterOpaqueClasses(manager);
    RegisterFunctions(manager);
    RegisterCipherAndDigest(manager);
    RegisterKeys(manager);
    RegisterCertificate(manager);
    RegisterContext(manager);
}

int OpenSslLua__DigestUpdate(lua_State* L) {
    auto* self = SelfWithOneArgument<CEvpMdCtx>(L);
    size_t length = 0;
    const char* bytes = lua_tolstring(L, 2, &length);
    lua_pushinteger(
        L, self->DigestUpdate(bytes != nullptr ? bytes : "", bytes != nullptr ? length : 0));
    return 1;
}

int OpenSslLua__EncryptUpdate(lua_State* L) {
    auto* self = SelfWithOneArgument<CEvpCipherCtx>(L);
    size_t length = 0;
    const char* bytes = lua_tolstring(L, 2, &length);
    if (bytes == nullptr)
        length = 0;
    luaL_Buffer out;
    auto* into =
        reinterpret_cast<unsigned char*>(luaL_buffinitsize(L, &out, length + EVP_MAX_BLOCK_LENGTH));
    luaL_pushresultsize(&out, self->EncryptUpdate(bytes != nullptr ? bytes : "", length, into));
    return 1;
}

int OpenSslLua__PKCS7_Unwrap(lua_State* L) {
    size_t length = 0;
    const char* package = lua_tolstring(L, 1, &length);
    if (package == nullptr)
        return luaL_argerror(L, 1, "String of PKCS7 binary data expected");
    ClassOrRaise<x509_st>(L);
    EVP_PKEY* key = ObjectOrNil<evp_pkey_st>(L, 2, "Invalid object - EVP_PKEY expected", 2);
    // Reported as argument 1, as scripts have always seen it.
    X509* certificate = ObjectOrNil<x509_st>(L, 3, "Invalid object - X509 expected", 1);
    auto* signer = static_cast<X509*>(ClassOrRaise<x509_st>(L)->get_ptr(L, 4));
    int status;
    {
        Unwrapped result;
        result.ok = PKCS7_Unwrap(std::string(package, length), result.content, result.digest,
                                 result.error, key, certificate, signer);
        lua_pushcfunction(L, PushUnwrapped);
        lua_pushlightuserdata(L, &result);
        status = lua_pcall(L, 1, 4, 0);
    }
    // Raised once the result and its secret are gone.
    return status == LUA_OK ? 4 : lua_error(L);
}

}  // namespace VeskCore
