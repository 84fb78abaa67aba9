// A key that scripts sign and verify with, through a CEvpMdCtx. A CEvpPkey is
// an EVP_PKEY under another name: it has no data of its own and `this` is the
// EVP_PKEY*, so a key that came from OpenSSL becomes one by a cast (New) and
// goes back by Handle().
//
// Every call has a decided result, in any order and on a key with no key
// material: Bits and Size give 0, SignFinal an empty buffer, VerifyFinal
// false. Signing and verifying need the context's digest operation open
// (SignInit or VerifyInit, and no DigestFinal since); SignFinal and
// VerifyFinal leave it open, so more data or another key may follow.
//
// Ownership: a key is freed by whoever owns its EVP_PKEY reference; Delete
// frees it (keys from Create), `delete` can't.
// Thread safety: a key and its context belong to one thread at a time.
#pragma once

#include <openssl/evp.h>
#include <wx/buffer.h>

#include "core/common/Export.h"

namespace VeskCore {

class CEvpMdCtx;
class CRsaKey;

class VESK_EXPORT CEvpPkey {
  public:
    CEvpPkey() = delete;
    ~CEvpPkey() = delete;
    CEvpPkey(const CEvpPkey&) = delete;
    CEvpPkey& operator=(const CEvpPkey&) = delete;

    // The same key as a CEvpPkey (null gives null). Takes no reference.
    static CEvpPkey* New(EVP_PKEY* key);
    // A new key without key material, for AssignRSA; null when out of memory.
    static CEvpPkey* Create();
    // Frees the key: EVP_PKEY_free, which drops one reference.
    void Delete();

    EVP_PKEY* Handle() { return reinterpret_cast<EVP_PKEY*>(this); }

    int Bits();
    int Size();  // of a signature, in bytes
    // Makes this key the RSA key `key` holds, with a reference of its own.
    // 1, or 0 when `key` is null or has no key yet (n or e missing).
    int AssignRSA(CRsaKey* key);

    // DigestInit and DigestUpdate of the context; false for a null context.
    bool SignInit(CEvpMdCtx* context, const EVP_MD* digest);
    bool SignUpdate(CEvpMdCtx* context, const wxMemoryBuffer& data);
    bool VerifyInit(CEvpMdCtx* context, const EVP_MD* digest);
    bool VerifyUpdate(CEvpMdCtx* context, const wxMemoryBuffer& data);
    // The signature of the data so far; empty on any failure.
    wxMemoryBuffer SignFinal(CEvpMdCtx* context);
    // True only when the signature verifies; OpenSSL's -1 (an error) is false.
    bool VerifyFinal(CEvpMdCtx* context, const wxMemoryBuffer& signature);
};

}  // namespace VeskCore
