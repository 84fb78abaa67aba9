// OpenSSL as the library fits it: the wiping allocator, error texts, digests
// over text, and packages made by the real openssl command line.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "core/http/OpenSslUtil.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/support/CapturingLog.h"

using namespace VeskCore;
using VeskTest::ReadFile;
using VeskTest::ScratchDir;
using VeskTest::ToolOutput;
using VeskTest::WriteFile;

namespace {

// How many of bytes [from, to) of `block`, which the heap may have taken
// back, still equal `was`: reading it is the point. glibc keeps its
// bookkeeping in the first 16 bytes of a freed block.
__attribute__((no_sanitize("address", "thread"), noinline)) size_t Left(const void* block,
                                                                        const unsigned char* was,
                                                                        size_t from, size_t to) {
    const volatile unsigned char* bytes = static_cast<const volatile unsigned char*>(block);
    size_t left = 0;
    for (size_t i = from; i < to; ++i)
        left += bytes[i] == was[i];
    return left;
}

uint32_t HeaderWord(const void* block, int index) {
    uint32_t word = 0;
    memcpy(&word, static_cast<const char*>(block) - 8 + 4 * index, sizeof word);
    return word;
}

TEST(OpenSslAllocatorTest, FreeWipesOwnBlocksFromTheHeaderOnly) {
    unsigned char pattern[72];
    for (size_t i = 0; i < sizeof pattern; ++i)
        pattern[i] = static_cast<unsigned char>(0x80 + i);
    auto* data = static_cast<unsigned char*>(Secure_Malloc(64, __FILE__, __LINE__));
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(HeaderWord(data, 0), 64u);
    EXPECT_EQ(HeaderWord(data, 1), 0x5C0EF1A7u);
    unsigned char* start = data - 8;
    memcpy(data, pattern + 8, 64);  // `pattern` indexes from the header start
    Secure_Free(data, __FILE__, __LINE__);
    EXPECT_EQ(Left(start, pattern, 16, 64), 0u);  // wiped over the stored size...
    EXPECT_EQ(Left(start, pattern, 64, 72), 8u);  // ...which leaves the last 8 bytes

    auto* foreign = static_cast<unsigned char*>(malloc(64));
    memcpy(foreign, pattern, 64);
    Secure_Free(foreign, __FILE__, __LINE__);
    EXPECT_EQ(Left(foreign, pattern, 16, 64), 48u);

    EXPECT_TRUE(SecureAllocatorInForce());
    void* fromOpenSsl = OPENSSL_malloc(20);
    EXPECT_EQ(HeaderWord(fromOpenSsl, 0), 20u);
    EXPECT_EQ(HeaderWord(fromOpenSsl, 1), 0x5C0EF1A7u);
    OPENSSL_free(fromOpenSsl);
}

TEST(OpenSslAllocatorTest, ReallocMovesCopiesAndRefusesForeignBlocks) {
    auto* block = static_cast<unsigned char*>(Secure_Realloc(nullptr, 64, __FILE__, __LINE__));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(HeaderWord(block, 1), 0x5C0EF1A7u);
    const std::string text = VeskTest::RandomBytes(64, 7);
    memcpy(block, text.data(), 64);
    auto* grown = static_cast<unsigned char*>(Secure_Realloc(block, 200, __FILE__, __LINE__));
    ASSERT_NE(grown, nullptr);
    EXPECT_EQ(HeaderWord(grown, 0), 200u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(grown), 64), text);
    const auto* was = reinterpret_cast<const unsigned char*>(text.data()) - 8;
    EXPECT_EQ(Left(block - 8, was, 16, 64), 0u);  // the old block went through the wiping free
    auto* shrunk = static_cast<char*>(Secure_Realloc(grown, 10, __FILE__, __LINE__));
    ASSERT_NE(shrunk, nullptr);
    EXPECT_EQ(std::string(shrunk, 10), text.substr(0, 10));
    EXPECT_EQ(Secure_Realloc(shrunk, 0, __FILE__, __LINE__), nullptr);

    char* foreign = strdup("not from this allocator");
    EXPECT_EQ(Secure_Realloc(foreign, 100, __FILE__, __LINE__), nullptr);
    EXPECT_STREQ(foreign, "not from this allocator");  // still allocated and intact
    free(foreign);
}

TEST(OpenSslErrorTest, TextsQuoteCodeAndDataAndDrainTheQueue) {
    ERR_clear_error();
    const wxString none = OpenSSLError();
    EXPECT_EQ(none, wxS("error:00000000:lib(0)::reason(0)"));
    EXPECT_EQ(OpenSSLError(0, nullptr), none);

    ERR_raise_data(ERR_LIB_SYS, ETIMEDOUT, "%s", "to 10.0.0.1");
    EXPECT_EQ(OpenSSLError(),
              wxS("error:8000006E:system library::Connection timed out [to 10.0.0.1]"));
    EXPECT_EQ(OpenSSLError(), none);
    EXPECT_EQ(OpenSSLError(ERR_PACK(ERR_LIB_SYS, 0, ETIMEDOUT), ""),
              wxS("error:8000006E:system library::Connection timed out []"));
}

TEST(OpenSslDigestTest, TextIsDigestedAsItsUtf8Bytes) {
    ScratchDir dir;
    const std::string utf8 = "Z\xC3\xBCrich \xE2\x82\xAC 5 \xF0\x9F\x94\x91";
    WriteFile(dir / "text", utf8);
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    ASSERT_EQ(EVP_DigestInit_ex(context, EVP_sha256(), nullptr), 1);
    EXPECT_EQ(VeskCore::EVP_DigestUpdate(context, wxString::FromUTF8(utf8)), 1);
    unsigned char digest[32];
    unsigned int length = 0;
    ASSERT_EQ(EVP_DigestFinal_ex(context, digest, &length), 1);
    EVP_MD_CTX_free(context);
    const std::string expected =
        ToolOutput("sha256sum " + dir / "text" + " | cut -c1-64 | xxd -r -p");
    EXPECT_EQ(std::string(reinterpret_cast<char*>(digest), length), expected);
}

// Keys, certificates and packages made once by the openssl command line.
class PackageTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir_ = new ScratchDir;
        for (const char* name : {"signer", "other", "recipient"})
            Run(std::string("openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=") + name +
                " -keyout " + name + ".key -out " + name + ".pem 2>/dev/null");
        WriteFile(*dir_ / "content", kContent);
        digest_ = Run("sha256sum content | cut -c1-64 | xxd -r -p");
        const std::string sign =
            " -binary -nodetach -outform DER -in content -signer signer.pem "
            "-inkey signer.key";
        Run("openssl smime -sign" + sign + " -out smime.der");
        Run("openssl cms -sign" + sign + " -out cms.der");
        Run("openssl cms -sign" + sign + " -signer other.pem -inkey other.key -out two.der");
        Run("python3 -c \"import zlib,sys; sys.stdout.buffer.write(zlib.compress("
            "open('smime.der','rb').read()))\" > smime.z && openssl smime -encrypt -binary "
            "-outform DER -aes256 -in smime.z -out sealed.der recipient.pem");
    }
    static void TearDownTestSuite() { delete dir_; }
    static std::string Run(const std::string& command) {
        return ToolOutput("cd " + dir_->path() + " && " + command);
    }
    static std::string Package(const char* name) { return ReadFile(*dir_ / name); }

    void SetUp() override { ERR_clear_error(); }
    void TearDown() override {
        X509_free(signer_);
        X509_free(other_);
        X509_free(recipient_);
        EVP_PKEY_free(key_);
    }
    static X509* Certificate(const char* name) {
        BIO* file = BIO_new_file((*dir_ / name).c_str(), "r");
        X509* certificate = PEM_read_bio_X509(file, nullptr, nullptr, nullptr);
        BIO_free(file);
        return certificate;
    }
    bool Unwrap(const std::string& package, X509* signer, EVP_PKEY* key = nullptr) {
        return PKCS7_Unwrap(package, content_, digest_out_, error_, key, recipient_, signer);
    }

    static constexpr const char* kContent = "vesk configuration package\n";
    static inline ScratchDir* dir_ = nullptr;
    static inline std::string digest_;
    X509* signer_ = Certificate("signer.pem");
    X509* other_ = Certificate("other.pem");
    X509* recipient_ = Certificate("recipient.pem");
    EVP_PKEY* key_ = [] {
        BIO* file = BIO_new_file((*dir_ / "recipient.key").c_str(), "r");
        EVP_PKEY* key = PEM_read_bio_PrivateKey(file, nullptr, nullptr, nullptr);
        BIO_free(file);
        return key;
    }();
    std::string content_, digest_out_, error_;
    VeskTest::CapturingLog log_;
};

TEST_F(PackageTest, SignedAndSealedPackagesOpenWithTheirSignerOnly) {
    ASSERT_TRUE(signer_ && other_ && recipient_ && key_);
    for (const char* name : {"smime.der", "cms.der"}) {
        digest_out_.clear();
        EXPECT_TRUE(Unwrap(Package(name), signer_)) << name << ": " << error_;
        EXPECT_EQ(content_, kContent);
        EXPECT_EQ(digest_out_, digest_);
    }
    EXPECT_TRUE(Unwrap(Package("sealed.der"), signer_, key_)) << error_;
    EXPECT_EQ(content_, kContent);
    EXPECT_EQ(digest_out_, digest_);
    EXPECT_TRUE(log_.Lines().empty());

    EXPECT_FALSE(Unwrap(Package("smime.der"), other_));  // a stranger's anchor
    EXPECT_EQ(error_.rfind("Error processing PKCS7 data: error:", 0), 0u) << error_;
    EXPECT_EQ(log_.Texts(wxLOG_Error), std::vector<std::string>{error_});
}

TEST_F(PackageTest, SealedPackageWithoutKeyFailsQuietly) {
    EXPECT_FALSE(Unwrap(Package("sealed.der"), signer_, nullptr));
    EXPECT_EQ(error_,
              "Unable to access the private key. The agent will have to be deactivated "
              "and then re-activated.");
    EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(PackageTest, SignaturesAreCheckedOnlyAgainstAGivenSigner) {
    std::string tampered = Package("smime.der");
    const size_t at = tampered.find("configuration");
    ASSERT_NE(at, std::string::npos);
    tampered[at] = 'C';
    EXPECT_FALSE(Unwrap(tampered, signer_));
    EXPECT_EQ(error_.rfind("Error processing PKCS7 data: error:", 0), 0u) << error_;
    EXPECT_TRUE(log_.Contains(error_));
    EXPECT_TRUE(Unwrap(tampered, nullptr)) << error_;  // taken unchecked, as asked
    EXPECT_EQ(content_, "vesk Configuration package\n");

    EXPECT_FALSE(Unwrap(Package("two.der"), nullptr));
    EXPECT_EQ(content_, kContent);
    EXPECT_EQ(error_, "PKCS7 data is not signed or has multiple signers");
}

TEST_F(PackageTest, MalformedPackagesFailWithOpenSslsReason) {
    const std::string signedPackage = Package("smime.der");
    for (const std::string& package :
         {std::string(), std::string("\x30\x82garbage", 9), signedPackage.substr(0, 200),
          signedPackage.substr(0, signedPackage.size() - 1)}) {
        ERR_clear_error();
        EXPECT_FALSE(Unwrap(package, signer_)) << package.size();
        EXPECT_EQ(error_.rfind("Error processing PKCS7 data: ", 0), 0u) << error_;
        EXPECT_TRUE(content_.empty());
    }
    EXPECT_EQ(log_.Texts(wxLOG_Error).size(), 4u);
}

}  // namespace
