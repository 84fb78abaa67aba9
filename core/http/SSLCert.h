// An X.509 certificate with the operations the agent needs: reading PEM,
// subject and issuer in one line, the fingerprint the rest of the system
// compares, and validation against a store, with a road of its own for
// self-signed certificates.
//
// Ownership: a CSSLCert is an X509 under another name. It has no fields and
// can't be constructed, copied or destroyed as a C++ object; a CSSLCert* is
// the X509* itself. Whoever got one from New() or a Decode function frees it
// with Delete(); New(X509*) only converts and hands over nothing. Delete,
// CheckIfIssuedBy and the name and fingerprint forms take a null object (a
// script's nil): see each for its result.
//
// Thread safety: a certificate may be read from several threads at once (as
// OpenSSL permits); Delete and Validate belong to one thread at a time.
#pragma once

#include <openssl/bio.h>
#include <openssl/x509.h>
#include <wx/string.h>

#include "core/common/Export.h"

namespace VeskCore {

class CSSLContext;

class VESK_EXPORT CSSLCert {
  public:
    CSSLCert() = delete;
    CSSLCert(const CSSLCert&) = delete;
    CSSLCert& operator=(const CSSLCert&) = delete;
    ~CSSLCert() = delete;

    // X509_new(): an empty certificate, or null.
    static CSSLCert* New();
    // The same pointer, seen as a CSSLCert; ownership stays as it was.
    static CSSLCert* New(X509* certificate);
    // The first PEM certificate of `bio` (no password callback), or null with
    // OpenSSL's error queued. The queue is cleared first.
    static CSSLCert* DecodeBIO(BIO* bio);
    // The first certificate of PEM text, or null.
    static CSSLCert* DecodeString(const wxString& pem);
    // The first certificate of a PEM file, or null (also for a missing file).
    static CSSLCert* DecodeFile(const wxString& path);
    // Validates the first certificate of the PEM file `path` against the
    // context's store: 0 when valid, -1 when it can't be read (the error left
    // queued for OpenSSLError()), else the X509_V_ERR_ code. A certificate
    // whose subject is its issuer counts by its own signature and dates alone.
    static int IsValid(const wxString& path, CSSLContext& context);

    // X509_free. A null object does nothing.
    void Delete();
    // 0 (X509_V_OK) when `issuer` issued this certificate, else the
    // X509_V_ERR_ reason. A null issuer gives X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT.
    int CheckIfIssuedBy(CSSLCert& issuer);

    // The issuer's or the subject's name as "/C=../O=../CN=..". `out` stays as
    // it was when the name can't be had. Returns `out`.
    wxString& GetName(wxString& out, bool issuer) const;
    wxString& GetSubjectName(wxString& out) const;
    wxString GetSubjectName() const;
    wxString& GetIssuerName(wxString& out) const;
    wxString GetIssuerName() const;
    // SHA-1 of the certificate as 20 upper-case hex pairs joined by ":". A
    // null object, or a failed digest, leaves `out` as it was (the form that
    // returns a string then gives "").
    wxString& GetFingerprint(wxString& out) const;
    wxString GetFingerprint() const;

    // Whether subject and issuer name are equal; the context isn't consulted.
    bool IsSelfSigned(const CSSLContext& context);
    // Whether the store's own issuer check accepts this certificate as its
    // own issuer.
    bool IsSelfSigned(const X509_STORE* store);

    // X509_verify_cert against the store, reporting through
    // CSSLContext::SSLVerifyCallback (so failures are logged): 0 when valid,
    // -1 when OpenSSL fails without a verification error, else the error.
    int Validate(X509_STORE* store);
    int Validate(CSSLContext& context);
    // As Validate, with this certificate as the only trusted one for the
    // check and no callback: its signature, dates and other properties count.
    int ValidateSelfSigned(X509_STORE* store);
    int ValidateSelfSigned(CSSLContext& context);

    X509* handle() { return reinterpret_cast<X509*>(this); }
    const X509* handle() const { return reinterpret_cast<const X509*>(this); }
};

}  // namespace VeskCore
