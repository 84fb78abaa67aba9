#include "core/http/OpenSslUtil.h"

#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/comperr.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pkcs7.h>
#include <wx/log.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace VeskCore {
namespace {

constexpr uint32_t kMarker = 0x5C0EF1A7u;
constexpr size_t kHeader = 8;  // the size asked for, then the marker

unsigned char* HeaderOf(void* block) {
    return static_cast<unsigned char*>(block) - kHeader;
}

// Reads the 4 bytes ahead of a block that may not be ours: for a block from
// plain malloc that is outside the block, which is the point.
__attribute__((no_sanitize("address", "thread"))) bool HasMarker(const void* block) {
    const volatile unsigned char* bytes = static_cast<const unsigned char*>(block) - 4;
    uint32_t marker = 0;
    for (int i = 3; i >= 0; --i)
        marker = marker << 8 | bytes[i];
    return marker == kMarker;
}

uint32_t StoredSize(void* block) {
    uint32_t size = 0;
    memcpy(&size, HeaderOf(block), sizeof size);
    return size;
}

// Installed before anything in the process can have asked OpenSSL for
// memory; OpenSSL refuses a new allocator once it has allocated.
const bool s_AllocatorInForce =
    CRYPTO_set_mem_functions(&Secure_Malloc, &Secure_Realloc, &Secure_Free) != 0;

// Decompressed packages are bounded: a few kilobytes must not become gigabytes.
constexpr size_t kMaxInflated = 256u << 20;

template <class T, void (*Free)(T*)>
struct Deleter {
    void operator()(T* object) const { Free(object); }
};
void FreeBioChain(BIO* bio) {
    BIO_free_all(bio);
}
void FreeCertificateList(STACK_OF(X509) * list) {
    sk_X509_free(list);  // the certificates are the caller's
}
using Bio = std::unique_ptr<BIO, Deleter<BIO, FreeBioChain>>;
using Pkcs7 = std::unique_ptr<PKCS7, Deleter<PKCS7, PKCS7_free>>;
using Store = std::unique_ptr<X509_STORE, Deleter<X509_STORE, X509_STORE_free>>;
using CertificateList =
    std::unique_ptr<STACK_OF(X509), Deleter<STACK_OF(X509), FreeCertificateList>>;

enum class Outcome { Done, OpenSslFailure, SilentFailure };

const char kReactivate[] =
    "Unable to access the private key. The agent will have to be deactivated and then "
    "re-activated.";

// zlib's own memory (its window holds the latest plain output) comes from
// OpenSSL's allocator, which wipes what it frees.
voidpf ZlibAlloc(voidpf, uInt items, uInt size) {
    return OPENSSL_malloc(static_cast<size_t>(items) * size);
}
void ZlibFree(voidpf, voidpf block) {
    OPENSSL_free(block);
}

void FreeBuffer(BUF_MEM* buffer) {
    BUF_MEM_free(buffer);  // wipes what it held
}
using Buffer = std::unique_ptr<BUF_MEM, Deleter<BUF_MEM, FreeBuffer>>;

// Inflates a zlib stream (header and all), as BIO_f_zlib would have, into a
// buffer that wipes what it leaves behind when it grows. A failure is queued
// as an OpenSSL error, so that it is reported like one.
Buffer Inflate(const char* compressed, size_t length) {
    Buffer inflated(BUF_MEM_new());
    z_stream zip{};
    zip.zalloc = ZlibAlloc;
    zip.zfree = ZlibFree;
    if (!inflated || inflateInit(&zip) != Z_OK) {
        ERR_raise_data(ERR_LIB_COMP, COMP_R_ZLIB_INFLATE_ERROR, "inflateInit failed");
        return nullptr;
    }
    zip.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(compressed));
    zip.avail_in = static_cast<uInt>(length);
    int status = Z_OK;
    size_t used = 0;
    while (status == Z_OK) {
        if (used + 16384 > kMaxInflated || BUF_MEM_grow_clean(inflated.get(), used + 16384) == 0) {
            status = Z_MEM_ERROR;
            break;
        }
        zip.next_out = reinterpret_cast<Bytef*>(inflated->data + used);
        zip.avail_out = 16384;
        status = inflate(&zip, Z_NO_FLUSH);
        used += 16384 - zip.avail_out;
    }
    inflateEnd(&zip);
    if (status != Z_STREAM_END) {
        ERR_raise_data(ERR_LIB_COMP, COMP_R_ZLIB_INFLATE_ERROR, "inflate: %s",
                       status == Z_MEM_ERROR ? "too large or out of memory" : "not a zlib stream");
        return nullptr;
    }
    inflated->length = used;
    return inflated;
}

// The signed data inside an enveloped package: decrypted, inflated, parsed.
// The plain bytes live only in OpenSSL's memory, wiped when freed.
Pkcs7 OpenEnvelope(PKCS7* envelope, EVP_PKEY* key, X509* certificate) {
    Bio decrypted(BIO_new(BIO_s_mem()));
    if (!decrypted || PKCS7_decrypt(envelope, key, certificate, decrypted.get(), 0) != 1)
        return nullptr;
    char* compressed = nullptr;
    const long length = BIO_get_mem_data(decrypted.get(), &compressed);
    Buffer inflated = Inflate(compressed, length > 0 ? static_cast<size_t>(length) : 0);
    if (!inflated)
        return nullptr;
    Bio inner(BIO_new_mem_buf(inflated->data, static_cast<int>(inflated->length)));
    return Pkcs7(inner ? d2i_PKCS7_bio(inner.get(), nullptr) : nullptr);
}

// The content as it stands, unchecked; an empty BIO when there is none.
Bio UncheckedContent(PKCS7* p7) {
    PKCS7* contents = p7->d.sign != nullptr ? p7->d.sign->contents : nullptr;
    const ASN1_OCTET_STRING* data =
        contents != nullptr && OBJ_obj2nid(contents->type) == NID_pkcs7_data ? contents->d.data
                                                                             : nullptr;
    if (data == nullptr || data->length <= 0)
        return Bio(BIO_new_mem_buf("", 0));
    return Bio(BIO_new_mem_buf(data->data, data->length));
}

// The content, verified with `signer` as the only trust anchor.
Bio VerifiedContent(PKCS7* p7, X509* signer) {
    CertificateList certificates(sk_X509_new_null());
    Store store(X509_STORE_new());
    Bio content(BIO_new(BIO_s_mem()));
    if (!certificates || !store || !content || !sk_X509_push(certificates.get(), signer) ||
        X509_STORE_add_cert(store.get(), signer) != 1)
        return nullptr;
    // The signer's own certificate ends the chain, whoever issued it.
    X509_STORE_set_flags(store.get(), X509_V_FLAG_PARTIAL_CHAIN);
    if (PKCS7_verify(p7, certificates.get(), store.get(), nullptr, content.get(), 0) != 1)
        return nullptr;
    return content;
}

bool SignedDigest(PKCS7* p7, std::string& digest, std::string& error) {
    STACK_OF(PKCS7_SIGNER_INFO)* signers = PKCS7_get_signer_info(p7);
    if (signers == nullptr || sk_PKCS7_SIGNER_INFO_num(signers) != 1) {
        error = "PKCS7 data is not signed or has multiple signers";
        return false;
    }
    ASN1_TYPE* attribute =
        PKCS7_get_signed_attribute(sk_PKCS7_SIGNER_INFO_value(signers, 0), NID_pkcs9_messageDigest);
    if (attribute == nullptr || attribute->type != V_ASN1_OCTET_STRING) {
        error = "PKCS7 messageDigest missing or wrong data type";
        return false;
    }
    const ASN1_OCTET_STRING* value = attribute->value.octet_string;
    digest.assign(reinterpret_cast<const char*>(value->data), static_cast<size_t>(value->length));
    return true;
}

Outcome ReadSigned(PKCS7* p7, X509* signer, std::string& content, std::string& digest,
                   std::string& error, bool& result) {
    Bio data = signer != nullptr ? VerifiedContent(p7, signer) : UncheckedContent(p7);
    if (!data)
        return Outcome::OpenSslFailure;
    char* bytes = nullptr;
    const long length = BIO_get_mem_data(data.get(), &bytes);
    if (bytes == nullptr || length <= 0) {
        error = "Error getting data from signed SecurityConfiguration";
        result = false;
        return Outcome::Done;
    }
    content.assign(bytes, static_cast<size_t>(length));
    result = SignedDigest(p7, digest, error);
    // The plain content goes no further than the caller's copy.
    OPENSSL_cleanse(bytes, static_cast<size_t>(length));
    return Outcome::Done;
}

Outcome Unwrap(BIO* input, std::string& content, std::string& digest, std::string& error,
               EVP_PKEY* key, X509* certificate, X509* signer, bool& result) {
    Pkcs7 p7(d2i_PKCS7_bio(input, nullptr));
    if (!p7)
        return Outcome::OpenSslFailure;
    if (OBJ_obj2nid(p7->type) == NID_pkcs7_enveloped) {
        if (key == nullptr || certificate == nullptr) {
            error = kReactivate;
            return Outcome::SilentFailure;
        }
        p7 = OpenEnvelope(p7.get(), key, certificate);
        if (!p7)
            return Outcome::OpenSslFailure;
    }
    if (OBJ_obj2nid(p7->type) == NID_pkcs7_signed)
        return ReadSigned(p7.get(), signer, content, digest, error, result);
    error = "PKCS7 data is neither signed nor enveloped";
    result = false;
    return Outcome::Done;
}

}  // namespace

void* Secure_Malloc(size_t size, const char*, int) {
    auto* start = static_cast<unsigned char*>(malloc(size + kHeader));
    if (start == nullptr)
        return nullptr;
    const uint32_t stored = static_cast<uint32_t>(size);
    memcpy(start, &stored, sizeof stored);
    memcpy(start + 4, &kMarker, sizeof kMarker);
    return start + kHeader;
}

namespace {

// Wipes and frees a block known to be ours: from the header on, over the
// stored size, so that the last 8 bytes of data are left as they are, as this
// allocator always has.
void ReleaseOwn(void* block) {
    const uint32_t size = StoredSize(block);
    if (size != 0)
        OPENSSL_cleanse(HeaderOf(block), size);
    free(HeaderOf(block));
}

}  // namespace

void Secure_Free(void* block, const char*, int) {
    if (block == nullptr)
        return;
    if (HasMarker(block))
        ReleaseOwn(block);
    else
        free(block);  // not ours: freed untouched
}

// Never grows in place: the old block is wiped on its free like any other.
void* Secure_Realloc(void* block, size_t size, const char* file, int line) {
    if (size == 0) {
        Secure_Free(block, file, line);
        return nullptr;
    }
    void* fresh = Secure_Malloc(size, file, line);
    if (fresh == nullptr || block == nullptr)
        return fresh;
    if (!HasMarker(block)) {  // a block of unknown size can't be copied
        ReleaseOwn(fresh);
        return nullptr;
    }
    memcpy(fresh, block, std::min<size_t>(StoredSize(block), size));
    Secure_Free(block, file, line);
    return fresh;
}

bool SecureAllocatorInForce() {
    return s_AllocatorInForce;
}

void OpenSSLThreadSetup() {}

void OpenSSLThreadShutdown() {}

wxString OpenSSLError(unsigned long code, const char* data) {
    char buffer[256];
    ERR_error_string_n(code, buffer, sizeof buffer);
    wxString text = wxString::FromUTF8(buffer);
    if (data != nullptr)
        text << wxS(" [") << wxString::FromUTF8(data) << wxS("]");
    return text;
}

wxString OpenSSLError() {
    const char* data = nullptr;  // left as it is on an empty queue
    int flags = 0;
    const unsigned long code = ERR_get_error_line_data(nullptr, nullptr, &data, &flags);
    return OpenSSLError(code, data);
}

namespace {

bool IsUnicodeScalar(wxUint32 value) {
    return value <= 0x10FFFF && (value < 0xD800 || value > 0xDFFF);
}

// The text with what has no UTF-8 form shown as U+FFFD: a log line must be
// writable, or the whole line is lost.
wxString Printable(const wxString& text) {
    wxString shown;
    for (wxUniChar c : text)
        shown += IsUnicodeScalar(c.GetValue()) ? c : wxUniChar(0xFFFD);
    return shown;
}

}  // namespace

int EVP_DigestUpdate(EVP_MD_CTX* context, const wxString& text) {
    // Checked on the characters: wx's encoder writes a lone surrogate as the
    // three bytes of its value, which is not UTF-8.
    const bool convertible = std::all_of(text.begin(), text.end(),
                                         [](wxUniChar c) { return IsUnicodeScalar(c.GetValue()); });
    if (!convertible) {
        wxLogInfo(wxS("EVP_DigestUpdate - UTF-8 conversion failed: %s"), Printable(text));
        return 0;
    }
    const std::string bytes = text.utf8_string();
    return ::EVP_DigestUpdate(context, bytes.data(), bytes.size());
}

bool PKCS7_Unwrap(const std::string& package, std::string& content, std::string& digest,
                  std::string& error, EVP_PKEY* key, X509* certificate, X509* signer) {
    content.clear();
    error.clear();
    bool result = false;
    Bio input(BIO_new_mem_buf(package.data(), static_cast<int>(package.size())));
    const Outcome outcome =
        input ? Unwrap(input.get(), content, digest, error, key, certificate, signer, result)
              : Outcome::OpenSslFailure;
    if (outcome == Outcome::OpenSslFailure) {
        error = "Error processing PKCS7 data: " + OpenSSLError().utf8_string();
        result = false;
    }
    if (!error.empty() && outcome != Outcome::SilentFailure)
        wxLogError(wxS("%s"), wxString::FromUTF8(error));
    return result;
}

}  // namespace VeskCore
