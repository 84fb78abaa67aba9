#include "core/http/SSLCert.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <wx/log.h>

#include <memory>
#include <string>

#include "core/common/HexCodec.h"
#include "core/http/OpenSslUtil.h"
#include "core/http/SSLContext.h"

namespace VeskCore {
namespace {

constexpr int kNameBufferSize = 2048;

struct StoreContextFree {
    void operator()(X509_STORE_CTX* context) const { X509_STORE_CTX_free(context); }
};
using StoreContextPtr = std::unique_ptr<X509_STORE_CTX, StoreContextFree>;

struct CertStackFree {  // the stack only; the certificates stay their owners'
    void operator()(STACK_OF(X509) * stack) const { sk_X509_free(stack); }
};
using CertStackPtr = std::unique_ptr<STACK_OF(X509), CertStackFree>;

struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;

// Scripts reach members through objects that may be null (a nil argument
// becomes a null reference). The compiler may take `this` and references as
// never null and drop a plain comparison, so the address is read back through
// a volatile first.
bool IsNull(const void* object) {
    const void* volatile address = object;
    return address == nullptr;
}

// The verification result as this class reports it: 0, the store's error, or
// -1 when OpenSSL failed without saying why.
int VerifyResult(X509_STORE_CTX* context) {
    if (X509_verify_cert(context) == 1)
        return X509_V_OK;
    const int error = X509_STORE_CTX_get_error(context);
    return error != X509_V_OK ? error : -1;
}

// The forms of one operation meet here rather than calling each other: a
// member call through a null object is itself undefined.
wxString& NameOf(const CSSLCert* certificate, wxString& out, bool issuer) {
    if (IsNull(certificate))
        return out;
    const X509* x509 = reinterpret_cast<const X509*>(certificate);
    const X509_NAME* name = issuer ? X509_get_issuer_name(x509) : X509_get_subject_name(x509);
    char buffer[kNameBufferSize];
    if (name != nullptr && X509_NAME_oneline(name, buffer, sizeof buffer) != nullptr)
        out = wxString::FromUTF8(buffer);
    return out;
}

wxString& FingerprintOf(const CSSLCert* certificate, wxString& out) {
    if (IsNull(certificate))
        return out;
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (X509_digest(reinterpret_cast<const X509*>(certificate), EVP_sha1(), digest, &length) != 1 ||
        length == 0)
        return out;
    out = toHexString(std::string(reinterpret_cast<const char*>(digest), length), false);
    return out;
}

X509_STORE* StoreOf(CSSLContext& context, const wxChar* failure) {
    X509_STORE* store = IsNull(&context) ? nullptr : context.GetCertStore();
    if (store == nullptr)
        wxLogError(failure, OpenSSLError(ERR_peek_error(), nullptr));
    return store;
}

}  // namespace

CSSLCert* CSSLCert::New() {
    return New(X509_new());
}

CSSLCert* CSSLCert::New(X509* certificate) {
    return reinterpret_cast<CSSLCert*>(certificate);
}

CSSLCert* CSSLCert::DecodeBIO(BIO* bio) {
    ERR_clear_error();
    return New(PEM_read_bio_X509(bio, nullptr, nullptr, nullptr));
}

CSSLCert* CSSLCert::DecodeString(const wxString& pem) {
    ERR_clear_error();
    const std::string text = pem.utf8_string();  // a copy that outlives the BIO
    BioPtr bio(BIO_new_mem_buf(text.c_str(), -1));
    return bio ? DecodeBIO(bio.get()) : nullptr;
}

CSSLCert* CSSLCert::DecodeFile(const wxString& path) {
    ERR_clear_error();
    BioPtr bio(BIO_new_file(path.utf8_string().c_str(), "r"));
    return bio ? DecodeBIO(bio.get()) : nullptr;
}

int CSSLCert::IsValid(const wxString& path, CSSLContext& context) {
    CSSLCert* certificate = DecodeFile(path);
    if (certificate == nullptr)
        return -1;
    const int result = certificate->IsSelfSigned(context) ? certificate->ValidateSelfSigned(context)
                                                          : certificate->Validate(context);
    certificate->Delete();
    return result;
}

void CSSLCert::Delete() {
    if (!IsNull(this))
        X509_free(reinterpret_cast<X509*>(this));
}

int CSSLCert::CheckIfIssuedBy(CSSLCert& issuer) {
    if (IsNull(&issuer) || IsNull(this))
        return X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT;
    return X509_check_issued(reinterpret_cast<X509*>(&issuer), reinterpret_cast<X509*>(this));
}

wxString& CSSLCert::GetName(wxString& out, bool issuer) const {
    return NameOf(this, out, issuer);
}

wxString& CSSLCert::GetSubjectName(wxString& out) const {
    return NameOf(this, out, false);
}

wxString CSSLCert::GetSubjectName() const {
    wxString out;
    return NameOf(this, out, false);
}

wxString& CSSLCert::GetIssuerName(wxString& out) const {
    return NameOf(this, out, true);
}

wxString CSSLCert::GetIssuerName() const {
    wxString out;
    return NameOf(this, out, true);
}

wxString& CSSLCert::GetFingerprint(wxString& out) const {
    return FingerprintOf(this, out);
}

wxString CSSLCert::GetFingerprint() const {
    wxString out;
    return FingerprintOf(this, out);
}

bool CSSLCert::IsSelfSigned(const CSSLContext&) {
    return X509_NAME_cmp(X509_get_subject_name(handle()), X509_get_issuer_name(handle())) == 0;
}

bool CSSLCert::IsSelfSigned(const X509_STORE* store) {
    StoreContextPtr context(X509_STORE_CTX_new());
    // The store is only read: OpenSSL's signature lacks the const.
    if (!context ||
        X509_STORE_CTX_init(context.get(), const_cast<X509_STORE*>(store), handle(), nullptr) != 1)
        return false;
    X509_STORE_CTX_check_issued_fn checkIssued = X509_STORE_CTX_get_check_issued(context.get());
    return checkIssued != nullptr && checkIssued(context.get(), handle(), handle()) != 0;
}

int CSSLCert::Validate(X509_STORE* store) {
    StoreContextPtr context(X509_STORE_CTX_new());
    if (!context || X509_STORE_CTX_init(context.get(), store, handle(), nullptr) != 1)
        return -1;
    X509_STORE_CTX_set_verify_cb(context.get(), CSSLContext::SSLVerifyCallback);
    return VerifyResult(context.get());
}

int CSSLCert::Validate(CSSLContext& context) {
    X509_STORE* store = StoreOf(
        context, wxS("CSSLCert::Validate(): error getting cert store from context: %.128s"));
    return store != nullptr ? Validate(store) : -1;
}

int CSSLCert::ValidateSelfSigned(X509_STORE* store) {
    CertStackPtr trusted(sk_X509_new_null());
    if (!trusted) {
        wxLogError(wxS("CSSLCert::ValidateSelfSigned(): error on sk_X509_new_null(): %.128s"),
                   OpenSSLError(ERR_peek_error(), nullptr));
        return -1;
    }
    StoreContextPtr context(X509_STORE_CTX_new());
    if (!context || X509_STORE_CTX_init(context.get(), store, handle(), nullptr) != 1 ||
        sk_X509_push(trusted.get(), handle()) <= 0)
        return -1;
    // Trusted for this one check, as if the store held only this certificate.
    X509_STORE_CTX_set0_trusted_stack(context.get(), trusted.get());
    return VerifyResult(context.get());
}

int CSSLCert::ValidateSelfSigned(CSSLContext& context) {
    X509_STORE* store = StoreOf(
        context,
        wxS("CSSLCert::ValidateSelfSigned(): error getting cert store from context: %.128s"));
    return store != nullptr ? ValidateSelfSigned(store) : -1;
}

}  // namespace VeskCore
