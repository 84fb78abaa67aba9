#include "hostseal/Sealer.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>
#include <openssl/rand.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "hostseal/Trace.h"

namespace hostseal {

namespace {

constexpr unsigned kAllFacts = (1u << kFactCount) - 1;
constexpr char kWrapLabel[] = "hostseal v1 wrapping key";

unsigned Count(unsigned mask) {
    return static_cast<unsigned>(__builtin_popcount(mask));
}

unsigned Majority(unsigned n) {
    return n / 2 + 1;
}

// The k-subsets of mask in increasing order of their bit pattern: the order of
// the wrapped keys in a blob, which therefore need not say whose they are.
std::vector<unsigned> Subsets(unsigned mask, unsigned k) {
    std::vector<unsigned> subsets;
    for (unsigned subset = 1; subset <= kAllFacts; ++subset)
        if ((subset & ~mask) == 0 && Count(subset) == k)
            subsets.push_back(subset);
    return subsets;
}

struct FreeBlock {
    void operator()(unsigned char* block) const { free(block); }
};
using Block = std::unique_ptr<unsigned char, FreeBlock>;

// The additional data of a wrapped key: the header and the subset, so that a
// wrapped key moved to another blob or another slot fails.
struct WrapAad {
    WrapAad(const unsigned char* header, unsigned subset) {
        memcpy(bytes, header, kHeaderSize);
        bytes[kHeaderSize] = static_cast<unsigned char>(subset);
    }
    unsigned char bytes[kHeaderSize + 1];
};

// The OpenSSL objects of one call: fetched per call rather than kept in
// globals, so that calls on several threads share nothing of ours.
class Crypto {
  public:
    Crypto()
        : cipher_(EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr)),
          cipherContext_(EVP_CIPHER_CTX_new()) {
        if (EVP_KDF* kdf = EVP_KDF_fetch(nullptr, "HKDF", nullptr)) {
            kdfContext_ = EVP_KDF_CTX_new(kdf);
            EVP_KDF_free(kdf);
        }
        // The digest is set once: naming it on every derivation fetches it anew.
        char digest[] = "SHA256";
        const OSSL_PARAM params[] = {
            OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
            OSSL_PARAM_construct_end()};
        if (kdfContext_ != nullptr && EVP_KDF_CTX_set_params(kdfContext_, params) != 1) {
            EVP_KDF_CTX_free(kdfContext_);
            kdfContext_ = nullptr;
        }
    }
    ~Crypto() {
        EVP_KDF_CTX_free(kdfContext_);
        EVP_CIPHER_CTX_free(cipherContext_);
        EVP_CIPHER_free(cipher_);
    }
    Crypto(const Crypto&) = delete;
    Crypto& operator=(const Crypto&) = delete;

    bool ok() const {
        return cipher_ != nullptr && cipherContext_ != nullptr && kdfContext_ != nullptr;
    }

    // HKDF-SHA-256 with the blob's salt over the subset's facts, each encoded
    // as index(1) length(4, big-endian) value: no two different fact lists
    // encode alike, and a value moved to another fact's place no longer fits.
    bool WrappingKey(const Facts& facts, unsigned subset, const unsigned char* header,
                     SecretBytes& key) {
        size_t size = 0;
        for (int i = 0; i < kFactCount; ++i)
            if (subset & (1u << i))
                size += 5 + facts.values[static_cast<size_t>(i)].size();
        SecretBytes material(size);
        key = SecretBytes(kKeySize);
        if (!material.ok() || !key.ok())
            return false;
        unsigned char* at = material.data();
        for (int i = 0; i < kFactCount; ++i) {
            if (!(subset & (1u << i)))
                continue;
            const SecretBytes& value = facts.values[static_cast<size_t>(i)];
            if (value.size() > UINT32_MAX)
                return false;
            const uint32_t length = static_cast<uint32_t>(value.size());
            *at++ = static_cast<unsigned char>(i);
            for (int shift = 24; shift >= 0; shift -= 8)
                *at++ = static_cast<unsigned char>(length >> shift);
            memcpy(at, value.data(), value.size());
            at += value.size();
        }
        unsigned char info[sizeof kWrapLabel - 1 + 4];
        memcpy(info, kWrapLabel, sizeof kWrapLabel - 1);
        memcpy(info + sizeof kWrapLabel - 1, header, 3);  // version, mask, k
        info[sizeof info - 1] = static_cast<unsigned char>(subset);
        const OSSL_PARAM params[] = {
            OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, material.data(), material.size()),
            OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT,
                                              const_cast<unsigned char*>(header + 3), kSaltSize),
            OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, info, sizeof info),
            OSSL_PARAM_construct_end()};
        // The context keeps its copy of the facts until the next derivation
        // replaces it or the context is freed, both of which wipe it.
        return EVP_KDF_derive(kdfContext_, key.data(), key.size(), params) == 1;
    }

    bool Encrypt(const unsigned char* key, const unsigned char* nonce, const unsigned char* aad,
                 size_t aadSize, const unsigned char* in, size_t size, unsigned char* out,
                 unsigned char* tag) {
        int written = 0;
        const bool done = aadSize <= INT_MAX && size <= INT_MAX &&
                          EVP_EncryptInit_ex2(cipherContext_, cipher_, key, nonce, nullptr) == 1 &&
                          EVP_EncryptUpdate(cipherContext_, nullptr, &written, aad,
                                            static_cast<int>(aadSize)) == 1 &&
                          (size == 0 || EVP_EncryptUpdate(cipherContext_, out, &written, in,
                                                          static_cast<int>(size)) == 1) &&
                          EVP_EncryptFinal_ex(cipherContext_, out + size, &written) == 1 &&
                          EVP_CIPHER_CTX_ctrl(cipherContext_, EVP_CTRL_AEAD_GET_TAG,
                                              static_cast<int>(kTagSize), tag) == 1;
        EVP_CIPHER_CTX_reset(cipherContext_);  // wipes the key schedule
        return done;
    }

    // False when the tag does not match; `out` then holds unauthenticated
    // bytes, which the caller wipes.
    bool Decrypt(const unsigned char* key, const unsigned char* nonce, const unsigned char* aad,
                 size_t aadSize, const unsigned char* in, size_t size, unsigned char* out,
                 const unsigned char* tag) {
        int written = 0;
        const bool done =
            aadSize <= INT_MAX && size <= INT_MAX &&
            EVP_DecryptInit_ex2(cipherContext_, cipher_, key, nonce, nullptr) == 1 &&
            EVP_DecryptUpdate(cipherContext_, nullptr, &written, aad, static_cast<int>(aadSize)) ==
                1 &&
            (size == 0 ||
             EVP_DecryptUpdate(cipherContext_, out, &written, in, static_cast<int>(size)) == 1) &&
            EVP_CIPHER_CTX_ctrl(cipherContext_, EVP_CTRL_AEAD_SET_TAG, static_cast<int>(kTagSize),
                                const_cast<unsigned char*>(tag)) == 1 &&
            EVP_DecryptFinal_ex(cipherContext_, out + size, &written) == 1;
        EVP_CIPHER_CTX_reset(cipherContext_);
        return done;
    }

  private:
    EVP_CIPHER* cipher_;
    EVP_CIPHER_CTX* cipherContext_;
    EVP_KDF_CTX* kdfContext_ = nullptr;
};

struct Layout {
    unsigned recorded = 0;
    unsigned k = 0;
    std::vector<unsigned> subsets;
    const unsigned char* wrappedKeys = nullptr;
    const unsigned char* dataNonce = nullptr;
    const unsigned char* ciphertext = nullptr;
    size_t cipherSize = 0;
    const unsigned char* tag = nullptr;
};

// Why the blob cannot be a blob, or nullptr. Only the lengths of the header
// and of the wrapped keys decide where things are; the rest is the data.
const char* Parse(const unsigned char* blob, size_t size, Layout& layout) {
    if (size == 0)
        return "empty blob";
    if (blob[0] != kBlobVersion)
        return "unknown blob version";
    if (size < kHeaderSize)
        return "blob shorter than its header";
    layout.recorded = blob[1];
    layout.k = blob[2];
    if ((layout.recorded & ~kAllFacts) != 0 || Count(layout.recorded) < 2)
        return "blob records an impossible set of facts";
    if (layout.k != Majority(Count(layout.recorded)))
        return "blob asks for other than a majority";
    layout.subsets = Subsets(layout.recorded, layout.k);
    const size_t wrapped = layout.subsets.size() * kWrappedKeySize;
    if (size - kHeaderSize < wrapped + kNonceSize + kTagSize)
        return "blob shorter than its wrapped keys";
    layout.wrappedKeys = blob + kHeaderSize;
    layout.dataNonce = layout.wrappedKeys + wrapped;
    layout.ciphertext = layout.dataNonce + kNonceSize;
    layout.cipherSize = size - kHeaderSize - wrapped - kNonceSize - kTagSize;
    layout.tag = layout.ciphertext + layout.cipherSize;
    return nullptr;
}

}  // namespace

void* Seal(const Facts& facts, const unsigned char* data, size_t size, size_t* blobSize) {
    const unsigned recorded = facts.Readable();
    const unsigned n = Count(recorded);
    Trace("seal: facts from %s", facts.overridden ? "the environment" : "the machine");
    for (int i = 0; i < kFactCount; ++i)
        Trace("seal: %s %s", FactName(i), recorded & (1u << i) ? "readable" : "unreadable");
    if (n < 2) {
        Trace("seal: %u fact(s) readable, at least 2 needed", n);
        return nullptr;
    }
    const unsigned k = Majority(n);
    const std::vector<unsigned> subsets = Subsets(recorded, k);
    const size_t overhead = kHeaderSize + subsets.size() * kWrappedKeySize + kNonceSize + kTagSize;
    if (size > INT_MAX - overhead) {
        Trace("seal: data too large");
        return nullptr;
    }
    Crypto crypto;
    Block blob(static_cast<unsigned char*>(malloc(overhead + size)));
    SecretBytes dataKey(kKeySize);
    if (!crypto.ok() || !blob || !dataKey.ok()) {
        Trace("seal: out of memory or no AES-256-GCM/HKDF");
        return nullptr;
    }
    unsigned char* const header = blob.get();
    header[0] = kBlobVersion;
    header[1] = static_cast<unsigned char>(recorded);
    header[2] = static_cast<unsigned char>(k);
    if (RAND_bytes(header + 3, kSaltSize) != 1 ||
        RAND_priv_bytes(dataKey.data(), static_cast<int>(kKeySize)) != 1) {
        Trace("seal: no random bytes");
        return nullptr;
    }
    unsigned char* at = header + kHeaderSize;
    for (unsigned subset : subsets) {
        SecretBytes wrappingKey;
        const WrapAad aad(header, subset);
        if (!crypto.WrappingKey(facts, subset, header, wrappingKey) ||
            RAND_bytes(at, kNonceSize) != 1 ||
            !crypto.Encrypt(wrappingKey.data(), at, aad.bytes, sizeof aad.bytes, dataKey.data(),
                            kKeySize, at + kNonceSize, at + kNonceSize + kKeySize)) {
            Trace("seal: wrapping the data key failed");
            return nullptr;
        }
        at += kWrappedKeySize;
    }
    unsigned char* const dataNonce = at;
    unsigned char* const ciphertext = dataNonce + kNonceSize;
    // Everything before the ciphertext is additional data: a change to any
    // wrapped key, even one this machine never opens, fails the blob.
    if (RAND_bytes(dataNonce, kNonceSize) != 1 ||
        !crypto.Encrypt(dataKey.data(), dataNonce, header, static_cast<size_t>(ciphertext - header),
                        data, size, ciphertext, ciphertext + size)) {
        Trace("seal: encrypting the data failed");
        return nullptr;
    }
    Trace("seal: %u of %d facts recorded, %u needed to open, %zu wrapped keys", n, kFactCount, k,
          subsets.size());
    *blobSize = overhead + size;
    return blob.release();
}

void* Open(const Facts& facts, const unsigned char* blob, size_t size, size_t* dataSize,
           bool* partial) {
    Layout layout;
    if (const char* reason = Parse(blob, size, layout)) {
        Trace("open: %s", reason);
        return nullptr;
    }
    const unsigned readable = facts.Readable();
    Trace("open: facts from %s", facts.overridden ? "the environment" : "the machine");
    Crypto crypto;
    if (!crypto.ok()) {
        Trace("open: no AES-256-GCM/HKDF");
        return nullptr;
    }
    // Every subset is tried, not just the first that opens: the union of
    // those that open is the set of facts that still match.
    SecretBytes dataKey;
    unsigned matched = 0;
    for (size_t slot = 0; slot < layout.subsets.size(); ++slot) {
        const unsigned subset = layout.subsets[slot];
        if ((subset & readable) != subset)
            continue;
        const unsigned char* wrapped = layout.wrappedKeys + slot * kWrappedKeySize;
        SecretBytes wrappingKey;
        SecretBytes candidate(kKeySize);
        const WrapAad aad(blob, subset);
        if (!candidate.ok() || !crypto.WrappingKey(facts, subset, blob, wrappingKey) ||
            !crypto.Decrypt(wrappingKey.data(), wrapped, aad.bytes, sizeof aad.bytes,
                            wrapped + kNonceSize, kKeySize, candidate.data(),
                            wrapped + kNonceSize + kKeySize))
            continue;
        if (dataKey.empty()) {
            dataKey = std::move(candidate);
        } else if (CRYPTO_memcmp(dataKey.data(), candidate.data(), kKeySize) != 0) {
            // Only a blob made by hand has two different keys in it.
            Trace("open: wrapped keys disagree");
            return nullptr;
        }
        matched |= subset;
    }
    for (int i = 0; i < kFactCount; ++i) {
        const unsigned bit = 1u << i;
        if (layout.recorded & bit)
            Trace("open: %s %s", FactName(i),
                  matched & bit    ? "matched"
                  : readable & bit ? "not confirmed"
                                   : "unreadable now");
    }
    if (dataKey.empty()) {
        Trace("open: fewer than %u of %u recorded facts match", layout.k, Count(layout.recorded));
        return nullptr;
    }
    Block data(static_cast<unsigned char*>(malloc(layout.cipherSize != 0 ? layout.cipherSize : 1)));
    if (!data) {
        Trace("open: out of memory");
        return nullptr;
    }
    if (!crypto.Decrypt(dataKey.data(), layout.dataNonce, blob,
                        static_cast<size_t>(layout.ciphertext - blob), layout.ciphertext,
                        layout.cipherSize, data.get(), layout.tag)) {
        OPENSSL_cleanse(data.get(), layout.cipherSize);
        Trace("open: data failed authentication");
        return nullptr;
    }
    const unsigned count = Count(matched);
    Trace("open: %u of %u recorded facts matched%s", count, Count(layout.recorded),
          matched != layout.recorded ? ", seal again" : "");
    *dataSize = layout.cipherSize;
    *partial = matched != layout.recorded;
    return data.release();
}

}  // namespace hostseal
