// The wiping allocator, error texts, digests of text, and packages made by the openssl tool.
#include <openssl/pem.h>

#include "core/http/OpenSslUtil.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/support/CapturingLog.h"
#include "tests/support/Tools.h"

using namespace VeskCore;
using namespace VeskTest;

namespace {

TEST(OpenSslAllocatorTest, BlocksAreMarkedNeverGrowInPlaceAndAreWipedFromTheHeader) {
    // From the header on: the size asked for, the marker, then data without zeros (a wipe's).
    std::string was("\x40\0\0\0\xA7\xF1\x0E\x5C", 8);
    for (char c = '!'; was.size() < 72; ++c)
        was += c;
    EXPECT_TRUE(SecureAllocatorInForce());
    auto* fromOpenSsl = static_cast<char*>(OPENSSL_malloc(64));
    EXPECT_EQ(BytesLeft(fromOpenSsl - 8, was.data(), 0, 8), 8u);
    OPENSSL_free(fromOpenSsl);

    auto* block = static_cast<char*>(Secure_Realloc(nullptr, 64, __FILE__, __LINE__));
    EXPECT_EQ(BytesLeft(block - 8, was.data(), 0, 8), 8u);
    memcpy(block, was.data() + 8, 64);
    auto* grown = static_cast<char*>(Secure_Realloc(block, 200, __FILE__, __LINE__));
    // Wiped over the stored size, which leaves the last 8 bytes as they were.
    EXPECT_EQ(BytesLeft(block - 8, was.data(), 16, 64), 0u);
    EXPECT_EQ(BytesLeft(block - 8, was.data(), 64, 72), 8u);
    EXPECT_EQ(std::string(grown, 64), was.substr(8));
    EXPECT_EQ(Secure_Realloc(grown, 0, __FILE__, __LINE__), nullptr);

    auto* foreign = static_cast<char*>(malloc(64));
    memcpy(foreign, was.data(), 64);
    EXPECT_EQ(Secure_Realloc(foreign, 100, __FILE__, __LINE__), nullptr);
    EXPECT_EQ(std::string(foreign, 64), was.substr(0, 64));  // still allocated
    Secure_Free(foreign, __FILE__, __LINE__);
    EXPECT_EQ(BytesLeft(foreign, was.data(), 16, 64), 48u);
}

TEST(OpenSslTextTest, ErrorsAndDigestsOfText) {
    ERR_clear_error();
    EXPECT_EQ(OpenSSLError(), wxS("error:00000000:lib(0)::reason(0)"));
    ERR_raise_data(ERR_LIB_SYS, ETIMEDOUT, "%s", "to 10.0.0.1");
    const wxString timedOut = wxS("error:8000006E:system library::Connection timed out");
    EXPECT_EQ(OpenSSLError(), timedOut + wxS(" [to 10.0.0.1]"));
    EXPECT_EQ(OpenSSLError(), OpenSSLError(0, nullptr));  // taken off the queue
    EXPECT_EQ(OpenSSLError(ERR_SYSTEM_FLAG | ETIMEDOUT, ""), timedOut + wxS(" []"));

    const std::string utf8 = "Z\xC3\xBCrich \xE2\x82\xAC \xF0\x9F\x94\x91";
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    unsigned char digest[32];
    EXPECT_TRUE(EVP_DigestInit_ex(context, EVP_sha256(), nullptr) == 1 &&
                VeskCore::EVP_DigestUpdate(context, wxString::FromUTF8(utf8)) == 1 &&
                EVP_DigestFinal_ex(context, digest, nullptr) == 1);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(digest), 32),
              ToolOutput("printf '" + utf8 + "' | sha256sum | cut -c1-64 | xxd -r -p"));

    // Text that has no UTF-8 form is refused, not digested as nothing.
    CapturingLog log;
    EXPECT_EQ(EVP_DigestInit_ex(context, EVP_sha256(), nullptr), 1);
    for (const wchar_t* text : {L"a\xD800"
                                L"b",
                                L"\x110000"}) {
        EXPECT_EQ(VeskCore::EVP_DigestUpdate(context, wxString(text)), 0);
        EXPECT_TRUE(log.Contains("EVP_DigestUpdate - UTF-8 conversion failed: "));
        EXPECT_TRUE(log.Contains("\xEF\xBF\xBD"));  // U+FFFD stands in for the character
        log.Clear();
    }
    EVP_MD_CTX_free(context);
}

// Packages made once by the openssl tool; each test unwraps them with its own log.
class OpenSslPackageTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        VESK_SKIP_WITHOUT_TOOLS("openssl", "python3", "sha256sum", "xxd");
        dir_ = new ScratchDir;
        ToolOutput("cd " + dir_->path() + R"( && set -e
printf 'vesk configuration package\n' >content
for n in signer other recipient; do
  openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=$n -keyout $n.key -out $n.pem
done 2>/dev/null
sign="-sign -binary -outform DER -in content -signer signer.pem -inkey signer.key"
openssl smime $sign -nodetach -out signed.der
openssl smime $sign -out detached.der
openssl smime $sign -nodetach -noattr -out noattr.der
openssl cms $sign -nodetach -signer other.pem -inkey other.key -out two.der
openssl cms -data_create -binary -outform DER -in content -out data.der
python3 -c 'import zlib,sys; sys.stdout.buffer.write(zlib.compress(sys.stdin.buffer.read()))' \
  <signed.der >signed.z
seal="openssl smime -encrypt -binary -outform DER -aes256"
$seal -in signed.z -out sealed.der recipient.pem
$seal -in signed.der -out uncompressed.der recipient.pem
sha256sum content | cut -c1-64 | xxd -r -p >digest)");
    }
    static void TearDownTestSuite() { delete dir_; }

    template <typename Read>
    static auto Load(const char* name, Read read) {
        std::unique_ptr<BIO, int (*)(BIO*)> file(BIO_new_file((*dir_ / name).c_str(), "r"),
                                                 BIO_free);
        return read(file.get(), nullptr, nullptr, nullptr);
    }
    void SetUp() override {
        signer_ = Load("signer.pem", PEM_read_bio_X509);
        recipient_ = Load("recipient.pem", PEM_read_bio_X509);
        key_ = Load("recipient.key", PEM_read_bio_PrivateKey);
        otherKey_ = Load("other.key", PEM_read_bio_PrivateKey);
    }
    void TearDown() override {
        X509_free(signer_), X509_free(recipient_), EVP_PKEY_free(key_), EVP_PKEY_free(otherKey_);
    }

    static std::string Package(const char* name) { return ReadFile(*dir_ / name); }

    bool Unwrap(const std::string& package, X509* anchor, EVP_PKEY* privateKey) {
        return PKCS7_Unwrap(package, content_, digest_, error_, privateKey, recipient_, anchor);
    }
    // Whether the error, which must also be logged, starts with `why`.
    bool Failed(const char* why) const { return error_.rfind(why, 0) == 0 && log_.Contains(why); }

    static ScratchDir* dir_;
    X509 *signer_ = nullptr, *recipient_ = nullptr;
    EVP_PKEY *key_ = nullptr, *otherKey_ = nullptr;
    CapturingLog log_;
    std::string content_, digest_, error_;
};

ScratchDir* OpenSslPackageTest::dir_ = nullptr;

TEST_F(OpenSslPackageTest, PackagesOpenWithTheirSignerAsTheOnlyAnchorAndFailSafely) {
    for (const char* name : {"signed.der", "sealed.der"}) {
        digest_.clear();
        EXPECT_TRUE(Unwrap(Package(name), signer_, key_)) << name << ": " << error_;
        EXPECT_EQ(content_, Package("content"));
        EXPECT_EQ(digest_, Package("digest"));
    }
    EXPECT_FALSE(Unwrap(Package("sealed.der"), signer_, nullptr));
    EXPECT_EQ(error_,
              "Unable to access the private key. The agent will have to be deactivated "
              "and then re-activated.");
    EXPECT_TRUE(log_.Lines().empty());  // a lost key is no error to log

    EXPECT_FALSE(Unwrap(Package("signed.der"), recipient_, key_));  // a stranger as anchor
    EXPECT_TRUE(Failed("Error processing PKCS7 data: error:")) << error_;
    EXPECT_EQ(digest_, Package("digest"));  // a failure leaves the caller's digest alone

    std::string tampered = Package("signed.der");
    tampered.replace(tampered.find("configuration"), 1, "C");
    EXPECT_FALSE(Unwrap(tampered, signer_, key_));
    EXPECT_TRUE(Failed("Error processing PKCS7 data: error:")) << error_;
    EXPECT_TRUE(Unwrap(tampered, nullptr, key_)) << error_;  // unchecked, as asked
    EXPECT_EQ(content_, "vesk Configuration package\n");
    tampered.pop_back();
    for (const std::string& package :
         {std::string(), std::string("\x30\x82garbage", 9), tampered.substr(0, 200), tampered}) {
        log_.Clear();
        EXPECT_FALSE(Unwrap(package, signer_, key_)) << package.size();
        EXPECT_TRUE(Failed("Error processing PKCS7 data: ")) << error_;
        EXPECT_TRUE(content_.empty());
    }
}

TEST_F(OpenSslPackageTest, PackagesOfTheWrongShapeSayWhatIsWrong) {
    EXPECT_FALSE(Unwrap(Package("two.der"), nullptr, key_));
    EXPECT_EQ(content_, Package("content"));  // the content is kept whatever the signers
    EXPECT_TRUE(Failed("PKCS7 data is not signed or has multiple signers")) << error_;
    EXPECT_FALSE(Unwrap(Package("noattr.der"), signer_, key_));
    EXPECT_EQ(content_, Package("content"));
    EXPECT_TRUE(Failed("PKCS7 messageDigest missing or wrong data type")) << error_;
    EXPECT_FALSE(Unwrap(Package("detached.der"), nullptr, key_));
    EXPECT_TRUE(Failed("Error getting data from signed SecurityConfiguration")) << error_;
    EXPECT_FALSE(Unwrap(Package("data.der"), signer_, key_));
    EXPECT_TRUE(Failed("PKCS7 data is neither signed nor enveloped")) << error_;

    // Sealed for the recipient but opened with another key, or sealed without compression.
    EXPECT_FALSE(Unwrap(Package("sealed.der"), signer_, otherKey_));
    EXPECT_TRUE(Failed("Error processing PKCS7 data: error:")) << error_;
    log_.Clear();
    EXPECT_FALSE(Unwrap(Package("uncompressed.der"), signer_, key_));
    EXPECT_TRUE(Failed("Error processing PKCS7 data: error:")) << error_;
    EXPECT_NE(error_.find("not a zlib stream"), std::string::npos) << error_;
    EXPECT_TRUE(content_.empty());
}

}  // namespace
