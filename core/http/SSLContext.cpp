#include "core/http/SSLContext.h"

#include <openssl/err.h>
#include <openssl/sslerr.h>
#include <unistd.h>
#include <wx/intl.h>
#include <wx/log.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "core/common/BioStream.h"
#include "core/common/Credentials.h"
#include "core/http/OpenSslUtil.h"
#include "core/http/SSLCert.h"
#include "core/runtime/LogTrace.h"

namespace VeskCore {
namespace {

// The option numbers scripts read are OpenSSL 1.0's. CIPHER_SERVER_PREFERENCE
// kept its bit; ALL is another set of workarounds today; SSLv2 is gone
// (SSL_OP_NO_SSLv2 is 0) and its bit now means SSL_OP_NO_ANTI_REPLAY, which
// scripts can neither set nor see.
constexpr uint64_t kPublishedAll = 0x80000BFF;
constexpr uint64_t kPublishedServerPreference = 0x400000;
constexpr uint64_t kPublishedNoSslV2 = 0x1000000;
static_assert(SSL_OP_NO_SSLv2 == 0, "SSLv2 is expected to be gone");

constexpr char kSecLevelCommand[] = "@SECLEVEL=";

struct BioFree {
    void operator()(BIO* bio) const { BIO_free_all(bio); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;

struct KeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyFree>;

// See CSSLCert: scripts may call through null objects.
bool IsNull(const void* object) {
    const void* volatile address = object;
    return address == nullptr;
}

// One lock for every trace callback of every context: a context's trace BIO
// is shared by its connections, and a connection's lines belong together.
std::mutex& TraceLock() {
    static std::mutex lock;
    return lock;
}

// The message trace's BIO lives in the context's ex_data, so that it goes
// with the context however the context is freed (OpenSSL 3 has no getter
// for the message callback's argument).
void FreeTraceBio(void*, void* bio, CRYPTO_EX_DATA*, int, long, void*) {
    BIO_free_all(static_cast<BIO*>(bio));
}

int TraceBioIndex() {
    static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, FreeTraceBio);
    return index;
}

uint64_t FromPublished(long options) {
    const uint64_t published = static_cast<uint64_t>(options);
    uint64_t bits = published & ~kPublishedNoSslV2;
    if ((published & kPublishedAll) == kPublishedAll)
        bits = (bits & ~kPublishedAll) | SSL_OP_ALL;
    if ((published & kPublishedServerPreference) != 0)
        bits = (bits & ~kPublishedServerPreference) | SSL_OP_CIPHER_SERVER_PREFERENCE;
    return bits;
}

long ToPublished(uint64_t options) {
    uint64_t bits = options & ~kPublishedNoSslV2;
    if ((options & SSL_OP_ALL) == SSL_OP_ALL)
        bits = (bits & ~SSL_OP_ALL) | kPublishedAll;
    if ((options & SSL_OP_CIPHER_SERVER_PREFERENCE) != 0)
        bits = (bits & ~SSL_OP_CIPHER_SERVER_PREFERENCE) | kPublishedServerPreference;
    return static_cast<long>(bits | kPublishedNoSslV2);
}

// The lowest level that `list` asks for by "@SECLEVEL=<digit>", or -1. Other
// spellings are OpenSSL's to refuse.
int LowestRequestedLevel(const char* list) {
    int lowest = -1;
    const size_t length = sizeof kSecLevelCommand - 1;
    for (const char* at = strstr(list, kSecLevelCommand); at != nullptr;
         at = strstr(at + length, kSecLevelCommand)) {
        const char digit = at[length];
        if (digit >= '0' && digit <= '9')
            lowest = lowest < 0 ? digit - '0' : std::min(lowest, digit - '0');
    }
    return lowest;
}

wxString VerifyErrorText(int code) {
    return code == -1 ? OpenSSLError() : wxString::FromUTF8(X509_verify_cert_error_string(code));
}

// An error code for a failure even when OpenSSL queued nothing.
int FailureCode() {
    const unsigned long code = ERR_peek_error();
    return code != 0 ? static_cast<int>(code) : -1;
}

// UseCredentials, step by step. Each returns 0 to go on.

int TrustManager(CSSLContext& context, const wxString& managerFile) {
    // Paths are UTF-8 whatever the process locale, which wxFile::Access would use.
    if (managerFile.empty() || access(managerFile.utf8_string().c_str(), R_OK) != 0)
        return 0;  // a manager not yet known is no failure
    const int rc = CSSLCert::IsValid(managerFile, context);
    if (rc != 0) {
        const wxString detail =
            _("Path is: ") + managerFile + wxS("\n\n") + _("Error is: ") + VerifyErrorText(rc);
        wxLogError(_("Unable to load manager certificate for verification: %s"), detail);
        return rc;
    }
    context.LoadVerifyLocations(managerFile);
    return 0;
}

void LogAgentCertificateFailure(const wxString& agentFile, const wxString& error) {
    const wxString detail = _("Path is: ") + agentFile + wxS("\n") + _("Error is: ") + error;
    wxLogError(_("Unable to load agent certificate for verification.\n%s"), detail);
}

// The agent's own certificate becomes trusted by its context, then must validate.
int TrustAgent(CSSLContext& context, const wxString& agentFile) {
    if (context.LoadVerifyLocations(agentFile) == 0) {
        const int rc = FailureCode();
        LogAgentCertificateFailure(agentFile, OpenSSLError());
        return rc;
    }
    const int rc = CSSLCert::IsValid(agentFile, context);
    if (rc != 0)
        LogAgentCertificateFailure(agentFile, VerifyErrorText(rc));
    return rc;
}

// The agent's key, opened through the credentials' password callback (the
// sealed password of an activated file). `rc` is the failure's code; a file
// that can't even be opened leaves it 0, as agreed for that case, but a key
// refused without a queued error (parameters of a newer version) is -1.
KeyPtr ReadAgentKey(const wxString& agentFile, int& rc) {
    rc = 0;
    KeyPtr key;
    BioPtr bio(BIO_new_file(agentFile.utf8_string().c_str(), "rb"));
    if (bio) {
        key.reset(GetPrivateKey(bio.get(), nullptr, nullptr));
        rc = key ? 0 : FailureCode();
    }
    if (!key)
        wxLogError(_("Unable to load agent private key.\n%s"), OpenSSLError());
    return key;
}

int UseAgentIdentity(CSSLContext& context, const wxString& agentFile, EVP_PKEY* key) {
    if (context.UseCertificateChainFile(agentFile) && context.UsePrivateKey(key))
        return 0;
    const int rc = FailureCode();
    const wxString detail =
        wxS("\n\n") + _("Path is: ") + agentFile + wxS("\n\n") + _("Error is: ") + OpenSSLError();
    wxLogError(_("Unable to load agent credentials: %.256s"), detail);
    return rc;
}

const char* VersionText(int version) {
    switch (version) {
        case SSL2_VERSION:
            return "SSL 2.0";
        case SSL3_VERSION:
            return "SSL 3.0 ";
        case TLS1_VERSION:
            return "TLS 1.0 ";
        case TLS1_1_VERSION:
            return "TLS 1.1 ";
        case TLS1_2_VERSION:
            return "TLS 1.2 ";
        case TLS1_3_VERSION:
            return "TLS 1.3 ";
        case DTLS1_VERSION:
            return "DTLS 1.0 ";
        case DTLS1_BAD_VER:
            return "DTLS 1.0 (bad) ";
        default:
            return "???";
    }
}

struct Named {
    int code;
    const char* text;
};

const char* Lookup(const Named* table, size_t count, int code, const char* otherwise) {
    const Named* end = table + count;
    const Named* found =
        std::find_if(table, end, [code](const Named& entry) { return entry.code == code; });
    return found != end ? found->text : otherwise;
}

template <size_t N>
const char* Lookup(const Named (&table)[N], int code, const char* otherwise) {
    return Lookup(table, N, code, otherwise);
}

constexpr Named kSsl2Messages[] = {
    {1, ", CLIENT-HELLO"},        {2, ", CLIENT-MASTER-KEY"},  {3, ", CLIENT-FINISHED"},
    {4, ", SERVER-HELLO"},        {5, ", SERVER-VERIFY"},      {6, ", SERVER-FINISHED"},
    {7, ", REQUEST-CERTIFICATE"}, {8, ", CLIENT-CERTIFICATE"},
};
constexpr Named kSsl2Errors[] = {
    {1, " NO-CIPHER-ERROR"},
    {2, " NO-CERTIFICATE-ERROR"},
    {4, " BAD-CERTIFICATE-ERROR"},
    {6, " UNSUPPORTED-CERTIFICATE-TYPE-ERROR"},
};
constexpr Named kAlertLevels[] = {{1, ", warning"}, {2, ", fatal"}};
constexpr Named kAlerts[] = {
    {0, " close_notify"},
    {10, " unexpected_message"},
    {20, " bad_record_mac"},
    {21, " decryption_failed"},
    {22, " record_overflow"},
    {30, " decompression_failure"},
    {40, " handshake_failure"},
    {42, " bad_certificate"},
    {43, " unsupported_certificate"},
    {44, " certificate_revoked"},
    {45, " certificate_expired"},
    {46, " certificate_unknown"},
    {47, " illegal_parameter"},
    {48, " unknown_ca"},
    {49, " access_denied"},
    {50, " decode_error"},
    {51, " decrypt_error"},
    {60, " export_restriction"},
    {70, " protocol_version"},
    {71, " insufficient_security"},
    {80, " internal_error"},
    {90, " user_canceled"},
    {100, " no_renegotiation"},
};
constexpr Named kHandshakes[] = {
    {0, ", HelloRequest"},        {1, ", ClientHello"},      {2, ", ServerHello"},
    {3, ", HelloVerifyRequest"},  {11, ", Certificate"},     {12, ", ServerKeyExchange"},
    {13, ", CertificateRequest"}, {14, ", ServerHelloDone"}, {15, ", CertificateVerify"},
    {16, ", ClientKeyExchange"},  {20, ", Finished"},
};
constexpr Named kContentTypes[] = {
    {SSL3_RT_CHANGE_CIPHER_SPEC, "ChangeCipherSpec"},
    {SSL3_RT_ALERT, "Alert"},
    {SSL3_RT_HANDSHAKE, "Handshake"},
};

// What a trace line says of one message besides direction and length.
struct MessageText {
    const char* version = "";
    const char* contentType = "";
    const char* details1 = "";
    const char* details2 = "";
};

MessageText DescribeSsl2(const unsigned char* bytes, size_t length) {
    MessageText text;
    text.version = VersionText(SSL2_VERSION);
    if (length == 0)
        return text;
    if (bytes[0] != 0) {
        text.details1 = Lookup(kSsl2Messages, bytes[0], ", ???");
        return text;
    }
    text.details1 = ", ERROR:";
    text.details2 = length >= 3 ? Lookup(kSsl2Errors, (bytes[1] << 8) | bytes[2], " ???") : " ???";
    return text;
}

MessageText Describe(int version, int contentType, const unsigned char* bytes, size_t length) {
    if (version == SSL2_VERSION)
        return DescribeSsl2(bytes, length);
    MessageText text;
    text.version = VersionText(version);
    text.contentType = Lookup(kContentTypes, contentType, "");
    if (contentType == SSL3_RT_ALERT) {
        text.details1 = ", ???";
        if (length >= 2) {
            text.details1 = Lookup(kAlertLevels, bytes[0], ", ???");
            text.details2 = Lookup(kAlerts, bytes[1], " ???");
        }
    } else if (contentType == SSL3_RT_HANDSHAKE) {
        text.details1 = length > 0 ? Lookup(kHandshakes, bytes[0], ", ???") : ", ???";
    }
    return text;
}

void TraceSsl(const std::string& text) {
    LogTrace("SSL", "%.128s", text.c_str());
}

void LogSslError(const std::string& text) {
    wxLogError(wxS("%.128s"), wxString::FromUTF8(text));
}

// A non-blocking socket's requests to wait are no errors.
bool IsRetry(int error) {
    return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE ||
           error == SSL_ERROR_WANT_X509_LOOKUP || error == SSL_ERROR_WANT_CONNECT ||
           error == SSL_ERROR_WANT_ACCEPT;
}

void ReportExit(const SSL* ssl, const std::string& side, const char* state, int result) {
    if (result > 0)
        TraceSsl(side + ": exit");
    else if (result == 0)
        LogSslError(side + ":failed in " + state);
    else if (!IsRetry(SSL_get_error(ssl, result)))
        LogSslError(side + ":error in " + state);
}

}  // namespace

CSSLContext* CSSLContext::New(const SSL_METHOD* method) {
    SSL_CTX* created = SSL_CTX_new(method);
    if (created == nullptr) {
        wxLogError(wxS("CSSLContext::New() - %.128s"), OpenSSLError());
        return nullptr;
    }
    SSL_CTX_set_min_proto_version(created, TLS1_2_VERSION);
    SSL_CTX_set_options(created, SSL_OP_IGNORE_UNEXPECTED_EOF);
    CSSLContext* context = reinterpret_cast<CSSLContext*>(created);
    context->init();
    return context;
}

void CSSLContext::Delete() {
    if (!IsNull(this))
        SSL_CTX_free(handle());
}

void CSSLContext::init() {
    if (LogTraceIsEnabled("SSL"))
        SSL_CTX_set_info_callback(handle(), SSLContextInfoCallback);
    if (LogTraceIsEnabled("SSLMsg")) {
        BioPtr bio(BIO_new_LogTrace("SSLMsg", true));
        BioPtr previous(static_cast<BIO*>(SSL_CTX_get_ex_data(handle(), TraceBioIndex())));
        if (bio && SSL_CTX_set_ex_data(handle(), TraceBioIndex(), bio.get()) == 1) {
            SSL_CTX_set_msg_callback(handle(), SSLContextMessageCallback);
            SSL_CTX_set_msg_callback_arg(handle(), bio.release());
        } else {
            previous.release();  // still the context's
        }
    }
    SSL_CTX_set_verify(handle(), SSL_VERIFY_NONE, SSLVerifyCallback);
}

int CSSLContext::AddCA(X509* certificate) {
    X509_STORE* store = GetCertStore();
    return store != nullptr && certificate != nullptr ? X509_STORE_add_cert(store, certificate) : 0;
}

X509_STORE* CSSLContext::GetCertStore() {
    return SSL_CTX_get_cert_store(handle());
}

void CSSLContext::ResetVerifyLocations() {
    SSL_CTX_set_cert_store(handle(), X509_STORE_new());
}

int CSSLContext::LoadVerifyLocations(const wxString& file) {
    if (GetCertStore() == nullptr)
        return 0;
    return SSL_CTX_load_verify_locations(handle(), file.utf8_string().c_str(), nullptr);
}

int CSSLContext::SetCipherList(const char* list) {
    if (list == nullptr) {
        ERR_raise(ERR_LIB_SSL, ERR_R_PASSED_NULL_PARAMETER);
        return 0;
    }
    const int current = SSL_CTX_get_security_level(handle());
    const int requested = LowestRequestedLevel(list);
    if (requested >= 0 && requested < current) {
        ERR_raise_data(ERR_LIB_SSL, SSL_R_INSUFFICIENT_SECURITY,
                       "@SECLEVEL=%d would lower the security level %d", requested, current);
        return 0;
    }
    return SSL_CTX_set_cipher_list(handle(), list);
}

long CSSLContext::SetOptions(long options) {
    return ToPublished(SSL_CTX_set_options(handle(), FromPublished(options)));
}

void CSSLContext::SetVerify(int mode) {
    SSL_CTX_set_verify(handle(), mode, SSLVerifyCallback);
}

void CSSLContext::SetVerifyDepth(int depth) {
    SSL_CTX_set_verify_depth(handle(), depth);
}

bool CSSLContext::UseCertificate(X509* certificate) {
    return SSL_CTX_use_certificate(handle(), certificate) == 1;
}

bool CSSLContext::UseCertificateChainFile(const wxString& file) {
    return SSL_CTX_use_certificate_chain_file(handle(), file.utf8_string().c_str()) == 1;
}

bool CSSLContext::UsePrivateKey(EVP_PKEY* key) {
    return SSL_CTX_use_PrivateKey(handle(), key) == 1;
}

int CSSLContext::UseCredentials(const wxString& agentFile, const wxString& managerFile) {
    int rc = TrustManager(*this, managerFile);
    if (rc == 0)
        rc = TrustAgent(*this, agentFile);
    if (rc != 0)
        return rc;
    KeyPtr key = ReadAgentKey(agentFile, rc);
    return key ? UseAgentIdentity(*this, agentFile, key.get()) : rc;
}

int CSSLContext::SSLVerifyCallback(int ok, X509_STORE_CTX* store) {
    X509* current = X509_STORE_CTX_get_current_cert(store);
    const int error = X509_STORE_CTX_get_error(store);
    const int depth = X509_STORE_CTX_get_error_depth(store);
    const bool traced = LogTraceIsEnabled("SSL");
    if (ok != 0 && !traced)
        return ok;  // nothing to say: no lock
    std::lock_guard<std::mutex> lock(TraceLock());
    if (traced) {
        wxString name;
        if (current != nullptr)
            CSSLCert::New(current)->GetName(name, false);
        LogTrace("SSL", "SSLVerifyCallback() - depth is %d %.256s", depth,
                 name.utf8_string().c_str());
    }
    if (ok == 0)
        wxLogError(wxS("SSLVerifyCallback() - verify error %d: %.128s"), error,
                   wxString::FromUTF8(X509_verify_cert_error_string(error)));
    LogTrace("SSL", "SSLVerifyCallback() - verify return: %d", ok);
    return ok;
}

void CSSLContext::SSLContextInfoCallback(const SSL* ssl, int where, int result) {
    const char* state = SSL_state_string_long(ssl);
    const std::string side = (where & SSL_ST_CONNECT) != 0  ? "SSL_connect"
                             : (where & SSL_ST_ACCEPT) != 0 ? "SSL_accept"
                                                            : "undefined";
    std::lock_guard<std::mutex> lock(TraceLock());
    if ((where & SSL_CB_LOOP) != 0) {
        TraceSsl(side + ":" + state);
    } else if ((where & SSL_CB_ALERT) != 0) {
        TraceSsl(std::string("SSL3 alert ") + ((where & SSL_CB_READ) != 0 ? "read" : "write") +
                 ":" + SSL_alert_type_string_long(result) + ":" +
                 SSL_alert_desc_string_long(result));
    } else if ((where & SSL_CB_EXIT) != 0) {
        ReportExit(ssl, side, state, result);
    }
}

void CSSLContext::SSLContextMessageCallback(int writing, int version, int contentType,
                                            const void* data, size_t length, SSL*, void* bio) {
    // Record headers and TLS 1.3's inner content type are no messages.
    if (bio == nullptr || contentType == SSL3_RT_HEADER ||
        contentType == SSL3_RT_INNER_CONTENT_TYPE)
        return;
    BIO* out = static_cast<BIO*>(bio);
    const auto* bytes = static_cast<const unsigned char*>(data);
    const MessageText text = Describe(version, contentType, bytes, length);
    std::lock_guard<std::mutex> lock(TraceLock());
    BIO_printf(out, "%s %s%s [length %04lx]%s%s [", writing != 0 ? ">>>" : "<<<", text.version,
               text.contentType, static_cast<unsigned long>(length), text.details1, text.details2);
    for (size_t i = 0; i < length && i < 16; ++i)
        BIO_printf(out, i == 0 ? "%02X" : " %02X", bytes[i]);
    if (length > 16)
        BIO_puts(out, " ...");
    if (length > 0)
        BIO_puts(out, "]");
    (void)BIO_flush(out);
}

}  // namespace VeskCore
