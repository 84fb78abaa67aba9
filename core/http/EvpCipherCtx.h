// Symmetric ciphers for scripts: an EVP_CIPHER_CTX owned by the object. In
// spite of their names EncryptUpdate and EncryptFinal serve both directions:
// the one CipherInit chose.
//
// Every call has a decided result in any order. An operation is open from a
// successful CipherInit until EncryptFinal; EncryptUpdate and EncryptFinal
// outside one give an empty buffer. The queries give 0 when no cipher is set.
// A failed CipherInit leaves the context as a new one.
//
// Thread safety: an object belongs to one thread at a time; GetCipherByName
// may be called from any thread.
#pragma once

#include <openssl/evp.h>
#include <wx/buffer.h>

#include <memory>

#include "core/common/Export.h"

namespace VeskCore {

class VESK_EXPORT CEvpCipherCtx {
  public:
    // Throws std::bad_alloc when OpenSSL has no memory for the context.
    CEvpCipherCtx();
    ~CEvpCipherCtx();
    CEvpCipherCtx(const CEvpCipherCtx&) = delete;
    CEvpCipherCtx& operator=(const CEvpCipherCtx&) = delete;

    // The cipher OpenSSL knows by `name` or an alias ("aes-128-cbc",
    // "aes128"), fetched from the loaded providers. Null when there is none,
    // when no provider can run it (des-cbc, rc4, bf-cbc: legacy provider), and
    // for AEAD ciphers (GCM, CCM, OCB, SIV, ChaCha20-Poly1305), whose tag this
    // interface can neither read nor set. Valid for the life of the process:
    // never free it.
    static const EVP_CIPHER* GetCipherByName(const char* name);

    // Opens an operation with `cipher` in the given direction, ending any in
    // progress. `key` and `iv` must hold at least the cipher's key and IV
    // lengths (the leading bytes are used); shorter ones give 0 before
    // OpenSSL reads them. A cipher that was not fetched is replaced by its
    // fetched form. 1, or 0 for a null, unusable or AEAD cipher.
    int CipherInit(const EVP_CIPHER* cipher, const wxMemoryBuffer& key, const wxMemoryBuffer& iv,
                   bool encrypt);
    // The output for `data`: up to a block more or less than the input.
    // Empty when no operation is open or the input exceeds what OpenSSL can
    // count; a failure ends the operation.
    wxMemoryBuffer EncryptUpdate(const wxMemoryBuffer& data);
    // The same into `out`, which has room for `length` + EVP_MAX_BLOCK_LENGTH
    // bytes: for a caller whose result buffer is its own (a Lua buffer).
    // Returns the bytes written, 0 as an empty result.
    size_t EncryptUpdate(const void* data, size_t length, unsigned char* out);
    // The last output (padding, or a decryption's last block), which closes
    // the operation. Empty when none was open or on failure, such as the
    // wrong padding of a decryption under the wrong key.
    wxMemoryBuffer EncryptFinal();

    int GetBlockSize() const;
    int GetKeyLength() const;
    int GetIvLength() const;
    unsigned long GetFlags() const;  // EVP_CIPH_* flags and mode of the cipher

    // The context itself, owned by this object; for the Lua layer's base class.
    EVP_CIPHER_CTX* Handle() const { return m_context.get(); }

  private:
    struct Free {
        void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
    };
    const EVP_CIPHER* Cipher() const { return EVP_CIPHER_CTX_get0_cipher(m_context.get()); }

    std::unique_ptr<EVP_CIPHER_CTX, Free> m_context;
    bool m_ready = false;
};

}  // namespace VeskCore
