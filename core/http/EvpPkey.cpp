#include "core/http/EvpPkey.h"

#include <climits>

#include "core/http/EvpMdCtx.h"
#include "core/http/RsaKey.h"

namespace VeskCore {

CEvpPkey* CEvpPkey::New(EVP_PKEY* key) {
    return reinterpret_cast<CEvpPkey*>(key);
}

CEvpPkey* CEvpPkey::Create() {
    return New(EVP_PKEY_new());
}

void CEvpPkey::Delete() {
    EVP_PKEY_free(Handle());
}

int CEvpPkey::Bits() {
    return EVP_PKEY_get_bits(Handle());
}

int CEvpPkey::Size() {
    return EVP_PKEY_get_size(Handle());
}

int CEvpPkey::AssignRSA(CRsaKey* key) {
    // An RSA without n makes EVP_PKEY_set1_RSA dereference null.
    if (key == nullptr || key->Handle() == nullptr)
        return 0;
    return EVP_PKEY_set1_RSA(Handle(), key->Handle()) == 1 ? 1 : 0;
}

bool CEvpPkey::SignInit(CEvpMdCtx* context, const EVP_MD* digest) {
    return context != nullptr && context->DigestInit(digest) == 1;
}

bool CEvpPkey::SignUpdate(CEvpMdCtx* context, const wxMemoryBuffer& data) {
    return context != nullptr && context->DigestUpdate(data) == 1;
}

bool CEvpPkey::VerifyInit(CEvpMdCtx* context, const EVP_MD* digest) {
    return SignInit(context, digest);
}

bool CEvpPkey::VerifyUpdate(CEvpMdCtx* context, const wxMemoryBuffer& data) {
    return SignUpdate(context, data);
}

wxMemoryBuffer CEvpPkey::SignFinal(CEvpMdCtx* context) {
    wxMemoryBuffer signature;
    const int size = Size();
    // A finished context would sign whatever state its digest was left in.
    if (context == nullptr || !context->IsReady() || size <= 0)
        return signature;
    auto* out = static_cast<unsigned char*>(signature.GetWriteBuf(static_cast<size_t>(size)));
    unsigned int length = 0;
    if (out == nullptr || EVP_SignFinal(context->Handle(), out, &length, Handle()) != 1)
        length = 0;
    signature.UngetWriteBuf(length);
    return signature;
}

bool CEvpPkey::VerifyFinal(CEvpMdCtx* context, const wxMemoryBuffer& signature) {
    return context != nullptr && context->IsReady() && signature.GetDataLen() <= UINT_MAX &&
           EVP_VerifyFinal(context->Handle(),
                           static_cast<const unsigned char*>(signature.GetData()),
                           static_cast<unsigned int>(signature.GetDataLen()), Handle()) == 1;
}

}  // namespace VeskCore
