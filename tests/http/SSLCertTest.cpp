// Certificates as the openssl command sees them: fingerprints, names, and
// validation against `openssl verify`.
#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include "core/http/OpenSslUtil.h"
#include "core/http/SSLCert.h"
#include "core/http/SSLContext.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/http/TlsTestSupport.h"
#include "tests/support/CapturingLog.h"
#include "tests/support/Tools.h"

using namespace VeskCore;
using namespace VeskTest;

namespace {

wxString Utf8(const std::string& text) {
    return wxString::FromUTF8(text);
}

// What a line "<label>=..." of the tool's output says.
std::string Field(const std::string& out, const std::string& label) {
    const size_t at = out.find(label + "=");
    return at == std::string::npos
               ? ""
               : out.substr(at + label.size() + 1, out.find('\n', at) - at - label.size() - 1);
}

// The verification error `openssl verify` reports, 0 for "OK".
int VerifyCode(const std::string& anchor, const std::string& certificate) {
    const std::string out =
        ToolOutput("openssl verify -CAfile " + anchor + " " + certificate + " 2>&1 || true");
    const size_t at = out.find("error ");
    return at == std::string::npos ? 0 : std::atoi(out.c_str() + at + 6);
}

// Scripts reach members through null objects; the sanitizer's null check
// must not stop the very call under test.
__attribute__((no_sanitize("undefined"))) void CallThroughNull(wxString& fingerprint,
                                                               wxString& plain, int& issued) {
    CSSLCert* volatile none = nullptr;
    fingerprint = none->GetFingerprint(fingerprint);
    plain = none->GetFingerprint();
    none->Delete();
    CSSLContext* volatile noContext = nullptr;
    noContext->Delete();
    CSSLCert* self = CSSLCert::New();
    issued = self->CheckIfIssuedBy(*none);
    self->Delete();
}

class SSLCertTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        VESK_SKIP_WITHOUT_TOOLS("openssl");
        dir_ = new ScratchDir;
        ASSERT_TRUE(MakePki(dir_->path()));
    }
    static void TearDownTestSuite() {
        delete dir_;
        dir_ = nullptr;
    }
    void SetUp() override {
        if (dir_ == nullptr)
            GTEST_SKIP() << "no certificates";
    }
    static std::string Pem(const std::string& name) { return *dir_ / (name + ".pem"); }
    static CSSLCert* Load(const std::string& name) { return CSSLCert::DecodeFile(Utf8(Pem(name))); }

    static ScratchDir* dir_;
    CapturingLog log;
};
ScratchDir* SSLCertTest::dir_ = nullptr;

// Ten fingerprints hold a byte below 0x10, whose leading zero counts, all but surely.
TEST_F(SSLCertTest, FingerprintsAndNamesAreThoseTheToolPrints) {
    for (const char* name : {"ca", "rogue", "server", "elsewhere", "impostor", "expired", "agent",
                             "weak", "self", "selfexpired"}) {
        const std::string path = Pem(name);
        CSSLCert* certificate = CSSLCert::DecodeFile(Utf8(path));
        ASSERT_NE(certificate, nullptr) << path;
        const std::string tool = ToolOutput("openssl x509 -noout -nameopt compat -fingerprint " +
                                            std::string("-sha1 -subject -issuer -in ") + path);
        EXPECT_EQ(certificate->GetFingerprint().utf8_string(), Field(tool, "sha1 Fingerprint"));
        EXPECT_EQ(certificate->GetSubjectName().utf8_string(), Field(tool, "subject"));
        wxString issuer = wxS("unchanged");
        EXPECT_EQ(certificate->GetIssuerName(issuer).utf8_string(), Field(tool, "issuer"));
        certificate->Delete();
    }

    // Several certificates in one PEM text: the first counts, from a file and from text.
    const std::string bundle = ReadFile(Pem("server")) + ReadFile(Pem("ca"));
    WriteFile(*dir_ / "bundle.pem", bundle);
    CSSLCert* server = Load("server");
    for (CSSLCert* first : {Load("bundle"), CSSLCert::DecodeString(Utf8(bundle))}) {
        ASSERT_NE(first, nullptr);
        EXPECT_EQ(first->GetFingerprint(), server->GetFingerprint());
        first->Delete();
    }
    server->Delete();
    EXPECT_EQ(CSSLCert::DecodeString(wxS("no certificate")), nullptr);
    EXPECT_EQ(Load("missing"), nullptr);

    wxString fingerprint = wxS("kept"), plain = wxS("replaced");
    int issued = 0;
    CallThroughNull(fingerprint, plain, issued);
    EXPECT_EQ(fingerprint, wxS("kept"));
    EXPECT_EQ(plain, wxS(""));
    EXPECT_EQ(issued, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT);
}

TEST_F(SSLCertTest, IsValidAgreesWithOpensslVerify) {
    // The anchor the context and the tool trust: ca, or for a self-signed
    // certificate itself, which counts without any store.
    for (const std::string name : {"server", "expired", "impostor", "self", "selfexpired"}) {
        SCOPED_TRACE(name);
        const bool selfSigned = name.rfind("self", 0) == 0;
        const std::string trusted = selfSigned ? name : "ca";
        CSSLContext* context = CSSLContext::New(TLS_client_method());
        CSSLCert* anchor = Load(trusted);
        if (!selfSigned) {
            EXPECT_EQ(context->AddCA(anchor->handle()), 1);
        }
        log.Clear();
        const int expected = VerifyCode(Pem(trusted), Pem(name));
        EXPECT_EQ(CSSLCert::IsValid(Utf8(Pem(name)), *context), expected);
        // Only a chain through the store is reported by the verify callback.
        const std::string line = "SSLVerifyCallback() - verify error " + std::to_string(expected) +
                                 ": " + X509_verify_cert_error_string(expected);
        EXPECT_EQ(log.Contains(line), expected != 0 && !selfSigned) << line;

        CSSLCert* certificate = Load(name);
        EXPECT_EQ(certificate->IsSelfSigned(*context), selfSigned);
        EXPECT_EQ(certificate->IsSelfSigned(context->GetCertStore()), selfSigned);
        EXPECT_EQ(certificate->CheckIfIssuedBy(*anchor) == X509_V_OK, name != "impostor");
        certificate->Delete();
        anchor->Delete();
        context->Delete();
    }
}

TEST_F(SSLCertTest, StoresComeAndGoWithTheirContext) {
    CSSLContext* context = CSSLContext::New(TLS_client_method());
    CSSLCert* ca = Load("ca");
    CSSLCert* server = Load("server");
    EXPECT_EQ(context->AddCA(nullptr), 0);
    EXPECT_EQ(context->AddCA(ca->handle()), 1);
    EXPECT_EQ(server->Validate(*context), X509_V_OK);
    context->ResetVerifyLocations();  // forgets the CA
    EXPECT_EQ(server->Validate(*context), X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
    EXPECT_EQ(context->LoadVerifyLocations(Utf8(Pem("ca"))), 1);
    EXPECT_EQ(server->Validate(*context), X509_V_OK);
    EXPECT_EQ(context->LoadVerifyLocations(Utf8(Pem("missing"))), 0);

    // Without any store, both roads refuse with their own message.
    log.Clear();
    SSL_CTX_set_cert_store(context->handle(), nullptr);
    EXPECT_EQ(server->Validate(*context), -1);
    EXPECT_EQ(server->ValidateSelfSigned(*context), -1);
    EXPECT_EQ(context->AddCA(ca->handle()), 0);
    const auto errors = log.Texts(wxLOG_Error);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[0].rfind("CSSLCert::Validate(): error getting cert store from context: ", 0),
              0u);
    EXPECT_EQ(errors[1].rfind(
                  "CSSLCert::ValidateSelfSigned(): error getting cert store from context: ", 0),
              0u);

    ERR_clear_error();
    EXPECT_EQ(CSSLCert::IsValid(Utf8(Pem("missing")), *context), -1);
    EXPECT_NE(OpenSSLError().Find(wxS("No such file or directory")), wxNOT_FOUND);
    server->Delete();
    ca->Delete();
    context->Delete();
}

}  // namespace
