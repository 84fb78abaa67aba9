// Digests, ciphers, signatures and RSA keys for scripts, against the openssl
// tool; and the decided result of each call a script can make in a wrong order.
#include <openssl/pem.h>

#include <cstring>
#include <functional>
#include <map>
#include <sstream>

#include "core/http/EvpCipherCtx.h"
#include "core/http/EvpMdCtx.h"
#include "core/http/EvpPkey.h"
#include "core/http/RsaKey.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/support/Tools.h"

using namespace VeskCore;
using namespace VeskTest;

namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

wxMemoryBuffer Buffer(const std::string& bytes) {
    wxMemoryBuffer buffer;
    buffer.AppendData(bytes.data(), bytes.size());
    return buffer;
}

std::string Bytes(const wxMemoryBuffer& buffer) {
    return std::string(static_cast<const char*>(buffer.GetData()), buffer.GetDataLen());
}

std::string Hex(const std::string& bytes) {
    std::string hex;
    for (unsigned char c : bytes)
        hex += "0123456789ABCDEF"[c >> 4], hex += "0123456789ABCDEF"[c & 15];
    return hex;
}

std::string Hex(const BIGNUM* number) {
    char* text = number != nullptr ? BN_bn2hex(number) : nullptr;
    const std::string hex = text != nullptr ? text : "-";
    OPENSSL_free(text);
    return hex;
}

// Results as text, joined in the order of a braced list (which runs in order).
std::string R(long number) {
    return std::to_string(number);
}
std::string Steps(std::initializer_list<std::string> results) {
    std::string joined;
    const char* separator = "";
    for (const std::string& result : results)
        joined += separator + result, separator = "|";
    return joined;
}

std::string Sign(CEvpPkey* key, const std::string& data) {
    CEvpMdCtx context;
    EXPECT_TRUE(key->SignInit(&context, CEvpMdCtx::GetDigestByName("sha256")) &&
                key->SignUpdate(&context, Buffer(data.substr(0, 100))) &&
                key->SignUpdate(&context, Buffer(data.substr(100))));
    return Bytes(key->SignFinal(&context));
}

bool Verify(CEvpPkey* key, const std::string& data, const std::string& signature) {
    CEvpMdCtx context;
    return key->VerifyInit(&context, CEvpMdCtx::GetDigestByName("sha256")) &&
           key->VerifyUpdate(&context, Buffer(data)) &&
           key->VerifyFinal(&context, Buffer(signature));
}

// A key pair made once by the openssl tool: key.pem and its pub.pem.
class CryptoToolTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        VESK_SKIP_WITHOUT_TOOLS("openssl");
        dir_ = new ScratchDir;
        Tool(
            "openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out key.pem 2>&1"
            " && openssl pkey -in key.pem -pubout -out pub.pem");
    }
    static void TearDownTestSuite() { delete dir_; }

    static std::string Path(const char* name) { return *dir_ / name; }
    static std::string Tool(const std::string& command) {
        return ToolOutput("cd " + dir_->path() + " && " + command);
    }
    static Key Load(const char* name) {
        std::unique_ptr<BIO, int (*)(BIO*)> file(BIO_new_file(Path(name).c_str(), "r"), BIO_free);
        return Key(PEM_read_bio_PrivateKey(file.get(), nullptr, nullptr, nullptr), EVP_PKEY_free);
    }

    static ScratchDir* dir_;
};
ScratchDir* CryptoToolTest::dir_ = nullptr;

TEST_F(CryptoToolTest, DigestsMatchOpensslDgstAcrossUpdates) {
    constexpr size_t kPiece = 65536;
    for (size_t size : {0u, 1u, 993u, 10u << 20}) {
        const std::string input = RandomBytes(size, static_cast<unsigned>(size));
        WriteFile(Path("input"), input);
        for (const std::string name : {"md5", "sha1", "sha256", "sha512"}) {
            CEvpMdCtx context;
            ASSERT_EQ(context.DigestInit(CEvpMdCtx::GetDigestByName(name.c_str())), 1);
            for (size_t at = 0; at < size; at += kPiece)
                EXPECT_EQ(context.DigestUpdate(Buffer(input.substr(at, kPiece))), 1);
            const std::string digest = Bytes(context.DigestFinal());
            EXPECT_EQ(digest, Tool("openssl dgst -" + name + " -binary input")) << name << size;
            EXPECT_EQ(digest.size(), static_cast<size_t>(context.GetSize())) << name;
        }
    }
}

TEST_F(CryptoToolTest, CiphersInteroperateWithOpensslEnc) {
    auto run = [](const EVP_CIPHER* cipher, const std::string& key, const std::string& iv,
                  bool encrypt, const std::string& input) {
        CEvpCipherCtx context;
        EXPECT_EQ(context.CipherInit(cipher, Buffer(key), Buffer(iv), encrypt), 1);
        const std::string out = Bytes(context.EncryptUpdate(Buffer(input)));
        return out + Bytes(context.EncryptFinal());
    };
    for (const std::string name : {"aes-128-cbc", "aes-256-cbc"})
        for (unsigned size : {0u, 1u, 15u, 16u, 993u}) {
            const EVP_CIPHER* cipher = CEvpCipherCtx::GetCipherByName(name.c_str());
            const std::string key = RandomBytes(EVP_CIPHER_get_key_length(cipher), size);
            const std::string iv = RandomBytes(16, size + 1), plain = RandomBytes(size, size + 2);
            const std::string tool = "openssl enc -" + name + " -K " + Hex(key) + " -iv " + Hex(iv);
            WriteFile(Path("ours"), run(cipher, key, iv, true, plain));
            EXPECT_EQ(Tool(tool + " -d -in ours"), plain) << name << size;
            WriteFile(Path("plain"), plain);
            EXPECT_EQ(run(cipher, key, iv, false, Tool(tool + " -in plain")), plain)
                << name << size;
        }
}

// Keys made from the numbers of the tool's key (keys read from PEM are the
// scripts' test's): signatures both ways, and a public key can't sign.
TEST_F(CryptoToolTest, SignaturesInteroperateWithOpensslDgst) {
    const std::string data = RandomBytes(5000, 7);
    WriteFile(Path("data"), data);
    Key privateKey = Load("key.pem");
    const RSA* numbers = EVP_PKEY_get0_RSA(privateKey.get());
    const std::string n = Hex(RSA_get0_n(numbers)), e = Hex(RSA_get0_e(numbers));
    CRsaKey whole, publicOnly;
    EXPECT_TRUE(whole.Assign(n.c_str(), e.c_str(), Hex(RSA_get0_d(numbers)).c_str(),
                             Hex(RSA_get0_p(numbers)).c_str(), Hex(RSA_get0_q(numbers)).c_str()));
    EXPECT_TRUE(publicOnly.Assign(n.c_str(), e.c_str(), nullptr, "", nullptr));
    EXPECT_EQ(Steps({R(whole.IsValid()), R(publicOnly.IsValid())}), "1|0");
    CEvpPkey *signer = CEvpPkey::Create(), *verifier = CEvpPkey::Create();
    EXPECT_EQ(R(signer->AssignRSA(&whole)) + R(verifier->AssignRSA(&publicOnly)), "11");

    std::string ours = Sign(signer, data);
    for (bool flipped : {false, true}) {
        ours[17] ^= flipped ? 1 : 0;
        WriteFile(Path("ours"), ours);
        EXPECT_EQ(ScratchDir::Shell("cd " + dir_->path() + " && openssl dgst -sha256 -verify" +
                                    " pub.pem -signature ours data >/dev/null 2>&1") == 0,
                  !flipped);
    }
    std::string theirs = Tool("openssl dgst -sha256 -sign key.pem data");
    EXPECT_EQ(Steps({R(verifier->Bits()), R(verifier->Size())}), "2048|256");
    EXPECT_TRUE(Verify(verifier, data, theirs));
    EXPECT_FALSE(Verify(verifier, data + "x", theirs));
    theirs[200] ^= 0x80;
    EXPECT_FALSE(Verify(verifier, data, theirs));
    EXPECT_EQ(Sign(verifier, data), "");
    signer->Delete(), verifier->Delete();
}

// Each row starts from a key that has all five numbers.
TEST(CryptoRsaKeyTest, AssignTakesWholeHexNumbersAndStopsAtTheFirstOtherText) {
    auto numbers = [](const CRsaKey& key) {
        const RSA* rsa = key.Handle();
        return rsa == nullptr
                   ? "no key"
                   : Steps({Hex(RSA_get0_n(rsa)), Hex(RSA_get0_e(rsa)), Hex(RSA_get0_d(rsa))});
    };
    const struct {
        const char *n, *e, *d;
        bool done;
        std::string numbers;
    } rows[] = {
        {"C0FFEE", "3", "", true, "C0FFEE|03|-"},
        {"c0ffee", "zz", "", false, "C0FFEE|010001|1234"},
        {"C0FFEE", "10001zz", "", false, "C0FFEE|010001|1234"},
        {"C0FFEE", "-10001", "", false, "C0FFEE|010001|1234"},
        {"", "3", "77", true, "no key"},
    };
    for (const auto& row : rows) {
        CRsaKey key;
        ASSERT_TRUE(key.Assign("ABCDEF", "10001", "1234", "B", "D"));
        EXPECT_EQ(key.Assign(row.n, row.e, row.d, nullptr, nullptr), row.done) << row.e;
        EXPECT_EQ(numbers(key), row.numbers) << row.n << " " << row.e;
    }
    CRsaKey fresh;  // n is kept aside until there is an e
    EXPECT_EQ(R(fresh.Assign("C0FFEE", "zz", nullptr, nullptr, nullptr)) + numbers(fresh),
              "0no key");
}

TEST(CryptoNamesTest, LegacyAndAeadAlgorithmsAreNullTheOthersFetchedOnce) {
    for (const char* name : {"md4", "md2", "whirlpool", "no-such-digest", (const char*)nullptr})
        EXPECT_EQ(CEvpMdCtx::GetDigestByName(name), nullptr) << name;
    for (const char* name : {"des-cbc", "rc4", "bf-cbc", "aes-256-gcm", "chacha20-poly1305"})
        EXPECT_EQ(CEvpCipherCtx::GetCipherByName(name), nullptr) << name;
    for (const char* name : {"md5", "sha1", "sha256", "sha512", "RSA-SHA256"}) {
        const EVP_MD* digest = CEvpMdCtx::GetDigestByName(name);
        EXPECT_TRUE(digest != nullptr && EVP_MD_get0_provider(digest) != nullptr) << name;
        EXPECT_EQ(CEvpMdCtx::GetDigestByName(name), digest) << name;
    }
    for (const char* name : {"aes-128-cbc", "aes-256-cbc", "aes128"}) {
        const EVP_CIPHER* cipher = CEvpCipherCtx::GetCipherByName(name);
        EXPECT_TRUE(cipher != nullptr && EVP_CIPHER_get0_provider(cipher) != nullptr) << name;
    }
    CEvpMdCtx context;  // a digest handed in natively runs in its fetched form
    EXPECT_EQ(R(context.DigestInit(EVP_sha256())), "1");
    EXPECT_EQ(context.GetMD(), CEvpMdCtx::GetDigestByName("sha256"));
}

// What one row of the wrong-order table works on.
struct Scene {
    CEvpMdCtx md;
    CEvpCipherCtx cipher;
    CRsaKey rsa;
    CEvpPkey* bare = CEvpPkey::Create();  // no key material
    ~Scene() { bare->Delete(); }
};

// Each row is a script's calls in order, by the names of the steps below.
TEST(CryptoWrongOrderTest, EachWrongOrderGivesItsDecidedResult) {
    const EVP_MD* sha256 = CEvpMdCtx::GetDigestByName("sha256");
    const EVP_CIPHER* aes128 = CEvpCipherCtx::GetCipherByName("aes-128-cbc");
    const EVP_CIPHER* aes256 = CEvpCipherCtx::GetCipherByName("aes-256-cbc");
    const wxMemoryBuffer k8 = Buffer("12345678"), k16 = Buffer("0123456789abcdef");
    const wxMemoryBuffer k32 = Buffer(std::string(32, 'k')), abc = Buffer("abc");
    Key rsa(EVP_RSA_gen(1024), EVP_PKEY_free);
    CEvpPkey* key = CEvpPkey::New(rsa.get());
    auto digestOf = [](const char* text) {
        unsigned char digest[32];
        EVP_Digest(text, strlen(text), digest, nullptr, EVP_sha256(), nullptr);
        return Hex(std::string(reinterpret_cast<char*>(digest), 32));
    };
    // A named call on the row's objects, with its result as text.
#define STEP(name, result)                                    \
    {                                                         \
        name, [&](Scene& s) -> std::string { return result; } \
    }
    const std::map<std::string, std::function<std::string(Scene&)>> steps = {
        STEP("md.queries", Steps({R(s.md.GetSize()), R(s.md.GetBlockSize()), R(s.md.GetType()),
                                  R(s.md.GetMD() != nullptr)})),
        STEP("DigestInit", R(s.md.DigestInit(sha256))),
        STEP("DigestInit(null)", R(s.md.DigestInit(nullptr))),
        STEP("DigestUpdate", R(s.md.DigestUpdate(abc))),
        STEP("DigestFinal", Hex(Bytes(s.md.DigestFinal()))),
        STEP("SetFlags(0x101)", (s.md.SetFlags(0x101), "-")),
        STEP("SetFlags(0x100)", (s.md.SetFlags(0x100), "-")),
        STEP("SetFlags(FINALISE)", (s.md.SetFlags(EVP_MD_CTX_FLAG_FINALISE), "-")),
        STEP("TestFlags(0x101)", R(s.md.TestFlags(0x101))),
        STEP("cipher.queries", Steps({R(s.cipher.GetBlockSize()), R(s.cipher.GetKeyLength()),
                                      R(s.cipher.GetIvLength()), R(s.cipher.GetFlags())})),
        STEP("CipherInit", R(s.cipher.CipherInit(aes128, k16, k16, true))),
        STEP("CipherInit(shortKey)", R(s.cipher.CipherInit(aes256, k16, k16, true))),
        STEP("CipherInit(shortIv)", R(s.cipher.CipherInit(aes128, k16, k8, true))),
        STEP("CipherInit(null)", R(s.cipher.CipherInit(nullptr, k32, k32, true))),
        STEP("CipherInit(GCM)", R(s.cipher.CipherInit(EVP_aes_256_gcm(), k32, k32, true))),
        STEP("EncryptUpdate", R(s.cipher.EncryptUpdate(k16).GetDataLen())),
        STEP("EncryptFinal", R(s.cipher.EncryptFinal().GetDataLen())),
        STEP("SignInit", R(key->SignInit(&s.md, sha256))),
        STEP("SignFinal", R(key->SignFinal(&s.md).GetDataLen())),
        STEP("SignFinalTwiceAlike",
             R(Bytes(key->SignFinal(&s.md)) == Bytes(key->SignFinal(&s.md)))),
        STEP("VerifyFinal", R(key->VerifyFinal(&s.md, k16))),
        STEP("null.contexts",
             Steps({R(key->SignInit(nullptr, sha256)), R(key->SignFinal(nullptr).GetDataLen()),
                    R(key->VerifyFinal(nullptr, k16))})),
        STEP("bare.sizes", Steps({R(s.bare->Bits()), R(s.bare->Size())})),
        STEP("bare.SignInit", R(s.bare->SignInit(&s.md, sha256))),
        STEP("bare.SignFinal", R(s.bare->SignFinal(&s.md).GetDataLen())),
        STEP("bare.VerifyFinal", R(s.bare->VerifyFinal(&s.md, k32))),
        STEP("bare.AssignRSA(empty)", R(s.bare->AssignRSA(&s.rsa))),
        STEP("bare.AssignRSA(null)", R(s.bare->AssignRSA(nullptr))),
        STEP("rsa.IsValid", R(s.rsa.IsValid())),
    };
#undef STEP
    const struct {
        const char* steps;
        std::string decided;  // cipher output as its length, digests in hex
    } table[] = {
        {"md.queries DigestUpdate DigestFinal DigestInit(null)", "0|0|0|0|0||0"},
        {"SetFlags(0x101) DigestInit DigestUpdate DigestFinal TestFlags(0x101)",
         "-|1|1|" + digestOf("abc") + "|1"},
        {"DigestInit SetFlags(0x100) DigestUpdate DigestFinal", "1|-|1|" + digestOf("abc")},
        {"DigestInit DigestFinal DigestFinal DigestUpdate", "1|" + digestOf("") + "||0"},
        {"cipher.queries EncryptUpdate EncryptFinal", "0|0|0|0|0|0"},
        {"CipherInit(shortKey) EncryptUpdate CipherInit(shortIv) CipherInit(null)", "0|0|0|0"},
        {"CipherInit(GCM) EncryptUpdate", "0|0"},
        {"CipherInit CipherInit(shortKey) EncryptUpdate cipher.queries", "1|0|0|0|0|0|0"},
        {"CipherInit EncryptFinal EncryptFinal EncryptUpdate", "1|16|0|0"},
        {"SignFinal VerifyFinal null.contexts", "0|0|0|0|0"},
        {"SignInit DigestFinal SignFinal VerifyFinal", "1|" + digestOf("") + "|0|0"},
        {"SetFlags(FINALISE) SignInit SignFinalTwiceAlike", "-|1|1"},
        {"bare.sizes bare.SignInit bare.SignFinal bare.VerifyFinal", "0|0|1|0|0"},
        {"bare.AssignRSA(empty) bare.AssignRSA(null) bare.sizes rsa.IsValid", "0|0|0|0|0"},
    };
    for (const auto& row : table) {
        Scene scene;
        std::string results, separator;
        std::istringstream names(row.steps);
        for (std::string name; names >> name; separator = "|")
            results += separator + steps.at(name)(scene);
        EXPECT_EQ(results, row.decided) << row.steps;
    }
}

}  // namespace
