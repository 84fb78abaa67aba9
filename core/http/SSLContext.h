// The library's face on an OpenSSL SSL_CTX: it makes the context, loads the
// agent's credentials and the manager's certificate with the checks and
// messages a failed deployment needs, and traces TLS when the trace masks
// "SSL" and "SSLMsg" ask for it.
//
// Contexts speak TLS 1.2 and 1.3 only and never lower OpenSSL's security
// level. Nothing checks a host name: verification is by chain, and a caller
// that must know who answered compares CSSLCert::GetFingerprint of the peer's
// certificate with the one it expects.
//
// Ownership: a CSSLContext is an SSL_CTX under another name, with no fields,
// made only by New() and freed by Delete(). The message trace's BIO belongs
// to the context and goes with it, also when the SSL_CTX is freed directly.
//
// Thread safety: configure a context on one thread, before use; then any
// number of connections on any threads may share it. The three callbacks
// write their lines under one process-wide lock, so that the lines of two
// connections never interleave; a log target must therefore not open a TLS
// connection of this library from inside a log call.
#pragma once

#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <wx/string.h>

#include "core/common/Export.h"

namespace VeskCore {

class VESK_EXPORT CSSLContext {
  public:
    CSSLContext() = delete;
    CSSLContext(const CSSLContext&) = delete;
    CSSLContext& operator=(const CSSLContext&) = delete;
    ~CSSLContext() = delete;

    // SSL_CTX_new(method) with TLS 1.2 as the lowest version, an unexpected
    // EOF from the peer taken as a close, then init(). Null, logged, on failure.
    static CSSLContext* New(const SSL_METHOD* method);

    // SSL_CTX_free. A null object does nothing.
    void Delete();
    // Installs the info callback when "SSL" is traced, the message callback
    // (with a buffered trace BIO of its own) when "SSLMsg" is, and turns
    // verification off. The masks are read here only.
    void init();

    // Adds a trusted certificate to the context's store: 1, or 0 (also for null).
    int AddCA(X509* certificate);
    X509_STORE* GetCertStore();
    // Replaces the store by an empty one: every trusted certificate is
    // forgotten. Nothing else may hold on to the old store.
    void ResetVerifyLocations();
    // Trusts the certificates of a PEM file: 1, or 0 with OpenSSL's error queued.
    int LoadVerifyLocations(const wxString& file);
    // The TLS 1.2 cipher suites (TLS 1.3's stay OpenSSL's): 1, or 0 with an
    // error queued. A "@SECLEVEL=n" below the context's security level is
    // refused with SSL_R_INSUFFICIENT_SECURITY and changes nothing.
    int SetCipherList(const char* list);
    // Adds options given in the published numbers scripts read (those of
    // OpenSSL 1.0: ALL 0x80000BFF, CIPHER_SERVER_PREFERENCE 0x400000, NO_SSLv2
    // 0x1000000); other bits pass through. Returns all options now in force in
    // the same published form; NO_SSLv2 is always among them.
    long SetOptions(long options);
    // SSL_CTX_set_verify with SSLVerifyCallback; the mode is SSL_VERIFY_*.
    void SetVerify(int mode);
    void SetVerifyDepth(int depth);
    bool UseCertificate(X509* certificate);
    bool UseCertificateChainFile(const wxString& file);
    bool UsePrivateKey(EVP_PKEY* key);

    // Loads the agent's credentials: `agentFile` holds its certificate (and
    // chain), its private key and, for an activated agent, the sealed
    // password; `managerFile`, which may be missing, the manager's
    // certificate. Both certificates must validate and become trusted. 0 on
    // success; otherwise a message is logged and the result is an X509_V_ERR_
    // code, -1, or the OpenSSL error code of the failure. What was loaded
    // before a failure stays in the context.
    int UseCredentials(const wxString& agentFile, const wxString& managerFile);

    // Verification callback: reports (trace "SSL", and an error line for a
    // failure) and returns `ok` unchanged.
    static int SSLVerifyCallback(int ok, X509_STORE_CTX* store);
    // Info callback: the handshake's states and alerts under "SSL"; failures
    // as error lines. The retries of a non-blocking socket print nothing.
    static void SSLContextInfoCallback(const SSL* ssl, int where, int result);
    // Message callback: one "SSLMsg" line per protocol message, written into
    // `bio` (a buffered trace BIO) and flushed.
    static void SSLContextMessageCallback(int writing, int version, int contentType,
                                          const void* data, size_t length, SSL* ssl, void* bio);

    SSL_CTX* handle() { return reinterpret_cast<SSL_CTX*>(this); }
    const SSL_CTX* handle() const { return reinterpret_cast<const SSL_CTX*>(this); }
};

}  // namespace VeskCore
