// Message digests for scripts: an EVP_MD_CTX owned by the object, fed with
// bytes and finished into a buffer. CEvpPkey signs and verifies through it.
//
// Every call has a decided result in any order. A digest operation is open
// from a successful DigestInit until DigestFinal; DigestUpdate and DigestFinal
// outside one give 0 and an empty buffer. The queries give 0 (GetMD null) when
// no digest is set. A failed DigestInit leaves the context as a new one.
//
// Thread safety: an object belongs to one thread at a time; GetDigestByName
// may be called from any thread.
#pragma once

#include <openssl/evp.h>
#include <wx/buffer.h>

#include <memory>

#include "core/common/Export.h"

namespace VeskCore {

class VESK_EXPORT CEvpMdCtx {
  public:
    // Throws std::bad_alloc when OpenSSL has no memory for the context.
    CEvpMdCtx();
    ~CEvpMdCtx();
    CEvpMdCtx(const CEvpMdCtx&) = delete;
    CEvpMdCtx& operator=(const CEvpMdCtx&) = delete;

    // The digest OpenSSL knows by `name` or an alias of it ("sha256",
    // "RSA-SHA256"), fetched from the loaded providers; null when there is none
    // or no provider can compute it (md4 and md2 live in the legacy provider,
    // which is not loaded). The object stays valid for the life of the process:
    // never free it.
    static const EVP_MD* GetDigestByName(const char* name);

    // Opens a digest operation with `digest`, ending any in progress. A digest
    // that was not fetched (EVP_sha256()) is replaced by its fetched form.
    // 1, or 0 for a null or unusable digest.
    int DigestInit(const EVP_MD* digest);
    // Adds the buffer's data. 1, or 0 when no operation is open.
    int DigestUpdate(const wxMemoryBuffer& data);
    // The same over bytes a caller holds elsewhere (a Lua string).
    int DigestUpdate(const void* data, size_t length);
    // The digest, which closes the operation; empty when none was open.
    wxMemoryBuffer DigestFinal();

    const EVP_MD* GetMD() const;
    int GetBlockSize() const;
    int GetSize() const;
    int GetType() const;  // the digest's NID

    // EVP_MD_CTX flags. SetFlags leaves out EVP_MD_CTX_FLAG_NO_INIT and
    // EVP_MD_CTX_FLAG_FINALISE, so TestFlags never reports them (see the .cpp).
    void SetFlags(int flags);
    void ClearFlags(int flags);
    int TestFlags(int flags);

    // Whether a digest operation is open.
    bool IsReady() const { return m_ready; }
    // The context itself, owned by this object; for the Lua layer's base class.
    EVP_MD_CTX* Handle() const { return m_context.get(); }

  private:
    struct Free {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };
    std::unique_ptr<EVP_MD_CTX, Free> m_context;
    bool m_ready = false;
};

}  // namespace VeskCore
