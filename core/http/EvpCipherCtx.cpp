#include "core/http/EvpCipherCtx.h"

#include <climits>
#include <new>

#include "core/http/FetchedAlgorithm.h"

namespace VeskCore {
namespace {

// EVP_CipherUpdate counts in int and may write a block more than it reads.
constexpr size_t kMaxUpdate = INT_MAX - EVP_MAX_BLOCK_LENGTH;

const EVP_CIPHER* Fetched(int nid) {
    return FetchedAlgorithm<EVP_CIPHER, EVP_CIPHER_fetch>(nid);
}

// The fetched form of `cipher`, or null when it can't be completed here: an
// AEAD cipher would encrypt without a tag anyone could check, and decrypt
// without ever checking one.
const EVP_CIPHER* Provided(const EVP_CIPHER* cipher) {
    if (cipher != nullptr && EVP_CIPHER_get0_provider(cipher) == nullptr)
        cipher = Fetched(EVP_CIPHER_get_nid(cipher));
    if (cipher == nullptr || (EVP_CIPHER_get_flags(cipher) & EVP_CIPH_FLAG_AEAD_CIPHER) != 0)
        return nullptr;
    return cipher;
}

bool Covers(const wxMemoryBuffer& buffer, int length) {
    return length >= 0 && buffer.GetDataLen() >= static_cast<size_t>(length);
}

// OpenSSL reads as many bytes as the cipher's key and IV take, whatever the
// buffers hold.
bool Fits(const EVP_CIPHER* cipher, const wxMemoryBuffer& key, const wxMemoryBuffer& iv) {
    return Covers(key, EVP_CIPHER_get_key_length(cipher)) &&
           Covers(iv, EVP_CIPHER_get_iv_length(cipher));
}

const unsigned char* Data(const wxMemoryBuffer& buffer) {
    return static_cast<const unsigned char*>(buffer.GetData());
}

}  // namespace

CEvpCipherCtx::CEvpCipherCtx() : m_context(EVP_CIPHER_CTX_new()) {
    if (m_context == nullptr)
        throw std::bad_alloc();
}

CEvpCipherCtx::~CEvpCipherCtx() = default;

const EVP_CIPHER* CEvpCipherCtx::GetCipherByName(const char* name) {
    // The legacy table knows every alias scripts were written with.
    return name == nullptr ? nullptr : Provided(EVP_get_cipherbyname(name));
}

int CEvpCipherCtx::CipherInit(const EVP_CIPHER* cipher, const wxMemoryBuffer& key,
                              const wxMemoryBuffer& iv, bool encrypt) {
    const EVP_CIPHER* usable = Provided(cipher);
    m_ready = usable != nullptr && Fits(usable, key, iv) &&
              EVP_CipherInit_ex(m_context.get(), usable, nullptr, Data(key), Data(iv),
                                encrypt ? 1 : 0) == 1;
    if (!m_ready)
        EVP_CIPHER_CTX_reset(m_context.get());  // as new: no earlier key stays behind
    return m_ready ? 1 : 0;
}

wxMemoryBuffer CEvpCipherCtx::EncryptUpdate(const wxMemoryBuffer& data) {
    wxMemoryBuffer out;
    const size_t length = data.GetDataLen();
    auto* bytes = static_cast<unsigned char*>(out.GetWriteBuf(length + EVP_MAX_BLOCK_LENGTH));
    out.UngetWriteBuf(bytes != nullptr ? EncryptUpdate(Data(data), length, bytes) : 0);
    return out;
}

size_t CEvpCipherCtx::EncryptUpdate(const void* data, size_t length, unsigned char* out) {
    // Output that skipped some input must not be continued as if it had not.
    m_ready = m_ready && length <= kMaxUpdate;
    if (!m_ready)
        return 0;
    int written = 0;
    m_ready =
        EVP_CipherUpdate(m_context.get(), out, &written, static_cast<const unsigned char*>(data),
                         static_cast<int>(length)) == 1;
    return m_ready ? static_cast<size_t>(written) : 0;
}

wxMemoryBuffer CEvpCipherCtx::EncryptFinal() {
    wxMemoryBuffer out;
    auto* bytes = static_cast<unsigned char*>(out.GetWriteBuf(EVP_MAX_BLOCK_LENGTH));
    int written = 0;
    // A second final would pad again (a whole extra block): the operation ends here.
    if (!m_ready || bytes == nullptr || EVP_CipherFinal_ex(m_context.get(), bytes, &written) != 1)
        written = 0;
    m_ready = false;
    out.UngetWriteBuf(static_cast<size_t>(written));
    return out;
}

int CEvpCipherCtx::GetBlockSize() const {
    return Cipher() != nullptr ? EVP_CIPHER_CTX_get_block_size(m_context.get()) : 0;
}

int CEvpCipherCtx::GetKeyLength() const {
    return Cipher() != nullptr ? EVP_CIPHER_CTX_get_key_length(m_context.get()) : 0;
}

int CEvpCipherCtx::GetIvLength() const {
    return Cipher() != nullptr ? EVP_CIPHER_CTX_get_iv_length(m_context.get()) : 0;
}

unsigned long CEvpCipherCtx::GetFlags() const {
    return Cipher() != nullptr ? EVP_CIPHER_get_flags(Cipher()) : 0;
}

}  // namespace VeskCore
