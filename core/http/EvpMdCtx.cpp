#include "core/http/EvpMdCtx.h"

#include <openssl/objects.h>

#include <new>

#include "core/http/FetchedAlgorithm.h"

namespace VeskCore {
namespace {

// NO_INIT makes OpenSSL 3 skip creating the provider's digest state: set
// before DigestInit, DigestFinal then dereferences null; set after, it yields
// a wrong digest reported as success. FINALISE lets EVP_SignFinal end the
// operation behind this object's back. Leaving them out changes no correct
// result.
constexpr int kRefusedFlags = EVP_MD_CTX_FLAG_NO_INIT | EVP_MD_CTX_FLAG_FINALISE;

const EVP_MD* Fetched(int nid) {
    return FetchedAlgorithm<EVP_MD, EVP_MD_fetch>(nid);
}

const EVP_MD* Provided(const EVP_MD* digest) {
    if (digest == nullptr || EVP_MD_get0_provider(digest) != nullptr)
        return digest;
    return Fetched(EVP_MD_get_type(digest));
}

}  // namespace

CEvpMdCtx::CEvpMdCtx() : m_context(EVP_MD_CTX_new()) {
    if (m_context == nullptr)
        throw std::bad_alloc();
}

CEvpMdCtx::~CEvpMdCtx() = default;

const EVP_MD* CEvpMdCtx::GetDigestByName(const char* name) {
    // The legacy table knows every alias scripts were written with.
    return name == nullptr ? nullptr : Provided(EVP_get_digestbyname(name));
}

int CEvpMdCtx::DigestInit(const EVP_MD* digest) {
    const EVP_MD* usable = Provided(digest);
    m_ready = usable != nullptr && EVP_DigestInit_ex(m_context.get(), usable, nullptr) == 1;
    if (!m_ready)
        EVP_MD_CTX_reset(m_context.get());
    return m_ready ? 1 : 0;
}

int CEvpMdCtx::DigestUpdate(const wxMemoryBuffer& data) {
    return DigestUpdate(data.GetData(), data.GetDataLen());
}

int CEvpMdCtx::DigestUpdate(const void* data, size_t length) {
    // A digest that missed some of its input must not be finished as if it
    // had not: a failed update ends the operation.
    m_ready = m_ready && ::EVP_DigestUpdate(m_context.get(), data, length) == 1;
    return m_ready ? 1 : 0;
}

wxMemoryBuffer CEvpMdCtx::DigestFinal() {
    wxMemoryBuffer digest;
    auto* out = static_cast<unsigned char*>(digest.GetWriteBuf(EVP_MAX_MD_SIZE));
    unsigned int length = 0;
    if (m_ready && EVP_DigestFinal_ex(m_context.get(), out, &length) != 1)
        length = 0;
    m_ready = false;
    digest.UngetWriteBuf(length);
    return digest;
}

const EVP_MD* CEvpMdCtx::GetMD() const {
    return EVP_MD_CTX_get0_md(m_context.get());
}

int CEvpMdCtx::GetBlockSize() const {
    return GetMD() != nullptr ? EVP_MD_get_block_size(GetMD()) : 0;
}

int CEvpMdCtx::GetSize() const {
    return GetMD() != nullptr ? EVP_MD_get_size(GetMD()) : 0;
}

int CEvpMdCtx::GetType() const {
    return GetMD() != nullptr ? EVP_MD_get_type(GetMD()) : NID_undef;
}

void CEvpMdCtx::SetFlags(int flags) {
    EVP_MD_CTX_set_flags(m_context.get(), flags & ~kRefusedFlags);
}

void CEvpMdCtx::ClearFlags(int flags) {
    EVP_MD_CTX_clear_flags(m_context.get(), flags);
}

int CEvpMdCtx::TestFlags(int flags) {
    return EVP_MD_CTX_test_flags(m_context.get(), flags);
}

}  // namespace VeskCore
