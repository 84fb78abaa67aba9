// The wiping allocator, error texts, digests of text, and packages made by the openssl tool.
#include <openssl/pem.h>

#include "core/http/OpenSslUtil.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/support/CapturingLog.h"

using namespace VeskCore;
using namespace VeskTest;

namespace {

// How many of bytes [from, to) of `block`, which the heap may have taken back, equal those of
// `was`: reading it is the point. glibc's bookkeeping takes a freed block's first 16 bytes.
__attribute__((no_sanitize("address", "thread"), noinline)) size_t Left(const void* block,
                                                                        const std::string& was,
                                                                        size_t from, size_t to) {
    size_t left = 0;
    for (size_t i = from; i < to; ++i)
        left += static_cast<const volatile char*>(block)[i] == was[i];
    return left;
}

TEST(OpenSslAllocatorTest, BlocksAreMarkedNeverGrowInPlaceAndAreWipedFromTheHeader) {
    // From the header on: the size asked for, the marker, then data without zeros (a wipe's).
    std::string was("\x40\0\0\0\xA7\xF1\x0E\x5C", 8);
    for (char c = '!'; was.size() < 72; ++c)
        was += c;
    EXPECT_TRUE(SecureAllocatorInForce());
    auto* fromOpenSsl = static_cast<char*>(OPENSSL_malloc(64));
    EXPECT_EQ(Left(fromOpenSsl - 8, was, 0, 8), 8u);
    OPENSSL_free(fromOpenSsl);

    auto* block = static_cast<char*>(Secure_Realloc(nullptr, 64, __FILE__, __LINE__));
    EXPECT_EQ(Left(block - 8, was, 0, 8), 8u);
    memcpy(block, was.data() + 8, 64);
    auto* grown = static_cast<char*>(Secure_Realloc(block, 200, __FILE__, __LINE__));
    EXPECT_EQ(Left(block - 8, was, 16, 64), 0u);  // wiped over the stored size, which leaves
    EXPECT_EQ(Left(block - 8, was, 64, 72), 8u);  // the last 8 bytes as they were
    EXPECT_EQ(std::string(grown, 64), was.substr(8));
    EXPECT_EQ(Secure_Realloc(grown, 0, __FILE__, __LINE__), nullptr);

    auto* foreign = static_cast<char*>(malloc(64));
    memcpy(foreign, was.data(), 64);
    EXPECT_EQ(Secure_Realloc(foreign, 100, __FILE__, __LINE__), nullptr);
    EXPECT_EQ(std::string(foreign, 64), was.substr(0, 64));  // still allocated
    Secure_Free(foreign, __FILE__, __LINE__);
    EXPECT_EQ(Left(foreign, was, 16, 64), 48u);
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
    EVP_MD_CTX_free(context);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(digest), 32),
              ToolOutput("printf '" + utf8 + "' | sha256sum | cut -c1-64 | xxd -r -p"));
}

TEST(OpenSslPackageTest, PackagesOpenWithTheirSignerAsTheOnlyAnchorAndFailSafely) {
    ScratchDir dir;
    ToolOutput("cd " + dir.path() + R"( && set -e
printf 'vesk configuration package\n' >content
for n in signer other recipient; do
  openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=$n -keyout $n.key -out $n.pem
done 2>/dev/null
sign="-sign -binary -nodetach -outform DER -in content -signer signer.pem -inkey signer.key"
openssl smime $sign -out signed.der
openssl cms $sign -signer other.pem -inkey other.key -out two.der
python3 -c 'import zlib,sys; sys.stdout.buffer.write(zlib.compress(sys.stdin.buffer.read()))' \
  <signed.der >signed.z
openssl smime -encrypt -binary -outform DER -aes256 -in signed.z -out sealed.der recipient.pem
sha256sum content | cut -c1-64 | xxd -r -p >digest)");
    auto load = [&dir](const char* name, auto read) {
        std::unique_ptr<BIO, int (*)(BIO*)> file(BIO_new_file((dir / name).c_str(), "r"), BIO_free);
        return read(file.get(), nullptr, nullptr, nullptr);
    };
    X509* signer = load("signer.pem", PEM_read_bio_X509);
    X509* recipient = load("recipient.pem", PEM_read_bio_X509);
    EVP_PKEY* key = load("recipient.key", PEM_read_bio_PrivateKey);
    CapturingLog log;
    std::string content, digest, error;
    auto unwrap = [&](const std::string& package, X509* anchor, EVP_PKEY* privateKey) {
        return PKCS7_Unwrap(package, content, digest, error, privateKey, recipient, anchor);
    };
    // Whether the error, which must also be logged, starts with `why`.
    auto failed = [&](const char* why) { return error.rfind(why, 0) == 0 && log.Contains(why); };
    for (const char* name : {"signed.der", "sealed.der"}) {
        digest.clear();
        EXPECT_TRUE(unwrap(ReadFile(dir / name), signer, key)) << name << ": " << error;
        EXPECT_EQ(content, ReadFile(dir / "content"));
        EXPECT_EQ(digest, ReadFile(dir / "digest"));
    }
    EXPECT_FALSE(unwrap(ReadFile(dir / "sealed.der"), signer, nullptr));
    EXPECT_EQ(error,
              "Unable to access the private key. The agent will have to be deactivated "
              "and then re-activated.");
    EXPECT_TRUE(log.Lines().empty());  // a lost key is no error to log

    EXPECT_FALSE(unwrap(ReadFile(dir / "signed.der"), recipient, key));  // a stranger as anchor
    EXPECT_TRUE(failed("Error processing PKCS7 data: error:")) << error;
    EXPECT_FALSE(unwrap(ReadFile(dir / "two.der"), nullptr, key));
    EXPECT_EQ(content, ReadFile(dir / "content"));
    EXPECT_TRUE(failed("PKCS7 data is not signed or has multiple signers")) << error;

    std::string tampered = ReadFile(dir / "signed.der");
    tampered.replace(tampered.find("configuration"), 1, "C");
    EXPECT_FALSE(unwrap(tampered, signer, key));
    EXPECT_TRUE(failed("Error processing PKCS7 data: error:")) << error;
    EXPECT_TRUE(unwrap(tampered, nullptr, key)) << error;  // unchecked, as asked
    EXPECT_EQ(content, "vesk Configuration package\n");
    tampered.pop_back();
    for (const std::string& package :
         {std::string(), std::string("\x30\x82garbage", 9), tampered.substr(0, 200), tampered}) {
        log.Clear();
        EXPECT_FALSE(unwrap(package, signer, key)) << package.size();
        EXPECT_TRUE(failed("Error processing PKCS7 data: ")) << error;
        EXPECT_TRUE(content.empty());
    }
    X509_free(signer);
    X509_free(recipient);
    EVP_PKEY_free(key);
}

}  // namespace
