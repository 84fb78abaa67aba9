// Credentials files as the openssl tool reads them, and the machine binding
// of their key, with made-up machines given through VESK_HOSTSEAL_FACTS.
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>

#include "core/common/Base64.h"
#include "core/common/Credentials.h"
#include "core/runtime/LogTrace.h"
#include "hostseal/hostseal.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/support/CapturingLog.h"
#include "tests/support/Tools.h"

using namespace VeskCore;
using VeskTest::ReadFile;
using VeskTest::ToolOutput;
using VeskTest::WriteFile;

namespace {

const char kMachine[] = "machine-a;uuid-a;rootfs-a;02:00:00:00:00:0a;host-a";

struct KeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyFree>;

// A machine for the test: the facts the library reads while this lives.
class Machine {
  public:
    explicit Machine(const char* facts) { setenv("VESK_HOSTSEAL_FACTS", facts, 1); }
    ~Machine() { unsetenv("VESK_HOSTSEAL_FACTS"); }
};

int Mode(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? static_cast<int>(info.st_mode & 07777) : -1;
}

// The PEM text of a block, or "".
std::string Block(const std::string& pem, const std::string& label) {
    const std::string begin = "-----BEGIN " + label + "-----", end = "-----END " + label + "-----";
    const size_t from = pem.find(begin), to = pem.find(end);
    return from == std::string::npos || to == std::string::npos
               ? std::string()
               : pem.substr(from, to + end.size() + 1 - from);
}

// The vesk block's data, decoded.
std::string SealedPassword(const std::string& pem) {
    std::string block = Block(pem, "Q7 PARAMETERS");
    const size_t body = block.find("\n\n") + 2;
    const size_t end = block.find("-----END");
    return FromBase64(block.substr(body, end - body).c_str());
}

// `pem` with its vesk block's data replaced by `sealed`.
std::string WithSealed(const std::string& pem, const std::string& sealed) {
    const std::string old = Block(pem, "Q7 PARAMETERS");
    const std::string block = "-----BEGIN Q7 PARAMETERS-----\nVersion: 1\n\n" +
                              toBase64StringASCII(sealed, true) + "-----END Q7 PARAMETERS-----\n";
    return pem.substr(0, pem.find(old)) + block;
}

class CredentialsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        key.reset(EVP_RSA_gen(2048));
        ASSERT_TRUE(key);
        certificate.reset(X509_new());
        X509_set_version(certificate.get(), 2);
        ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 7);
        X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
        X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
        X509_NAME* name = X509_get_subject_name(certificate.get());
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("agent"), -1, -1, 0);
        X509_set_issuer_name(certificate.get(), name);
        X509_set_pubkey(certificate.get(), key.get());
        ASSERT_GT(X509_sign(certificate.get(), key.get(), EVP_sha256()), 0);
        TraceMasksSet("*");  // secrets must stay out of every trace line
    }
    void TearDown() override {
        TraceMasksSet("");
        for (const VeskTest::LogLine& line : log.Lines())
            for (const std::string& secret : secrets)
                EXPECT_EQ(line.text.find(secret), std::string::npos) << line.text;
    }

    // Writes activated credentials on `facts` and returns their text.
    std::string Activate(const char* facts) {
        Machine machine(facts);
        EXPECT_TRUE(EncryptPrivateKey(wxString::FromUTF8(file), key.get(), certificate.get()));
        const std::string pem = ReadFile(file);
        const std::string sealed = SealedPassword(pem);
        int length = static_cast<int>(sealed.size());
        void* password = QX_N_Choose_K_Decrypt(sealed.data(), &length, nullptr);
        if (password != nullptr) {
            secrets.emplace_back(static_cast<const char*>(password), length);
            free(password);
        }
        return pem;
    }
    // GetPrivateKey on `pem` on the machine `facts`: whether a key came, and the flags.
    std::string Open(const std::string& pem, const char* facts) {
        Machine machine(facts);
        bool encrypted = true, flag = true;
        Key opened(GetPrivateKey(pem, &encrypted, &flag));
        if (opened && EVP_PKEY_eq(opened.get(), key.get()) != 1)
            return "a wrong key";
        return std::string(opened ? "key" : "null") + (encrypted ? " encrypted" : "") +
               (flag ? " flagged" : "");
    }

    VeskTest::CapturingLog log;
    VeskTest::ScratchDir dir;
    std::string file = dir / "credentials.pem";
    Key key;
    std::unique_ptr<X509, decltype(&X509_free)> certificate{nullptr, &X509_free};
    std::vector<std::string> secrets{"machine-a", "uuid-a", "rootfs-a", "host-a"};
};

// Its file and fingerprint are checked against the tool by the scripts' test.
TEST_F(CredentialsTest, BootstrapKeyIsPlainAndMatchesItsCertificate) {
    bool encrypted = true, flag = true;
    Key bootstrap(GetPrivateKey(std::string(GetBootstrapCredentials()), &encrypted, &flag));
    ASSERT_TRUE(bootstrap);
    EXPECT_FALSE(encrypted || flag);
    std::unique_ptr<BIO, decltype(&BIO_free)> text(BIO_new_mem_buf(GetBootstrapCredentials(), -1),
                                                   &BIO_free);
    std::unique_ptr<X509, decltype(&X509_free)> cert(
        PEM_read_bio_X509(text.get(), nullptr, nullptr, nullptr), &X509_free);
    EXPECT_EQ(X509_check_private_key(cert.get(), bootstrap.get()), 1);
    secrets.push_back(Block(GetBootstrapCredentials(), "PRIVATE KEY").substr(28, 64));
}

TEST_F(CredentialsTest, ActivatedFileIsWhatTheOpensslToolReadsWithItsPassword) {
    VESK_SKIP_WITHOUT_TOOLS("openssl");
    WriteFile(file, "older");
    chmod(file.c_str(), 0666);
    const std::string pem = Activate(kMachine);
    EXPECT_EQ(Mode(file), 0600);
    ASSERT_EQ(secrets.size(), 5u) << "the sealed password did not open";
    const std::string& password = secrets.back();
    ASSERT_EQ(password.size(), 128u);
    EXPECT_TRUE(std::all_of(password.begin(), password.end(), [](char c) {
        return c >= '!' && c <= '}';
    })) << password;
    EXPECT_NE(Block(pem, "ENCRYPTED PRIVATE KEY"), "");
    EXPECT_NE(Block(pem, "Q7 PARAMETERS").find("Version: 1\n\n"), std::string::npos);

    const std::string cert = ToolOutput("openssl x509 -noout -subject -in " + file);
    EXPECT_NE(cert.find("CN = agent"), std::string::npos);
    WriteFile(dir / "password", password);  // the key itself is compared by Open below
    ToolOutput("openssl pkey -noout -passin file:" + (dir / "password") + " -in " + file);
    WriteFile(dir / "key.pem", Block(pem, "ENCRYPTED PRIVATE KEY"));
    EXPECT_NE(ToolOutput("openssl asn1parse -in " + (dir / "key.pem")).find("aes-256-cbc"),
              std::string::npos);
    EXPECT_EQ(Open(pem, kMachine), "key encrypted");
}

TEST_F(CredentialsTest, TheKeyOpensWhereAMajorityOfTheMachineStillMatches) {
    const std::string pem = Activate(kMachine);
    const std::pair<const char*, const char*> machines[] = {
        {kMachine, "key encrypted"},
        {"machine-a;uuid-a;rootfs-a;02:00:00:00:00:0a;renamed", "key encrypted flagged"},
        {"machine-a;uuid-a;other;other;other", "null encrypted"},
    };
    for (const auto& [facts, result] : machines)
        EXPECT_EQ(Open(pem, facts), result) << facts;
}

TEST_F(CredentialsTest, DamagedOrNewerParametersGiveNoKey) {
    const std::string pem = Activate(kMachine);
    const std::string sealed = SealedPassword(pem);
    ASSERT_FALSE(sealed.empty());
    // Every flipped byte and every cut is the sealer's to find; here is one of each.
    std::string flipped = sealed;
    flipped[sealed.size() / 2] ^= 0x20;
    for (const std::string& damaged : {flipped, sealed.substr(0, sealed.size() - 1), std::string()})
        EXPECT_EQ(Open(WithSealed(pem, damaged), kMachine), "null encrypted") << damaged.size();
    std::string newer = pem;
    newer.replace(newer.find("Version: 1"), 10, "Version: 2");
    EXPECT_EQ(Open(newer, kMachine), "null");
    // An encrypted key without its block: asked for a password, nothing to give.
    EXPECT_EQ(Open(pem.substr(0, pem.find("-----BEGIN Q7")), kMachine), "null encrypted");
    EXPECT_EQ(Open("", kMachine), "null");
    EXPECT_EQ(Open("-----BEGIN Q7 PARAMETERS-----\nVersion: 1\n\n", kMachine), "null");
}

TEST_F(CredentialsTest, WithoutAMachineToSealToTheKeyIsWrittenAsItIs) {
    {
        Machine lone(";;;;host-only");
        ASSERT_TRUE(EncryptPrivateKey(wxString::FromUTF8(file), key.get(), certificate.get()));
    }
    EXPECT_TRUE(log.Contains("!3008!3008|"));
    const std::string pem = ReadFile(file);
    EXPECT_EQ(Block(pem, "Q7 PARAMETERS"), "");
    EXPECT_NE(Block(pem, "PRIVATE KEY"), "");
    EXPECT_EQ(Open(pem, kMachine), "key");
    secrets.push_back(Block(pem, "PRIVATE KEY").substr(28, 64));
}

TEST_F(CredentialsTest, BadArgumentsLeaveTheFileAsItWas) {
    WriteFile(file, "kept");
    chmod(file.c_str(), 0640);
    Machine machine(kMachine);
    EXPECT_FALSE(EncryptPrivateKey(wxString::FromUTF8(file), nullptr, certificate.get()));
    EXPECT_FALSE(EncryptPrivateKey(wxString::FromUTF8(file), key.get(), nullptr));
    EXPECT_EQ(ReadFile(file), "kept");
    EXPECT_EQ(Mode(file), 0640);
    // Only a regular file takes a secret: not a directory, a FIFO, or a link.
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    ASSERT_EQ(symlink(file.c_str(), (dir / "link").c_str()), 0);
    for (const std::string& path : {dir.path(), dir / "fifo", dir / "link", std::string()}) {
        EXPECT_FALSE(EncryptPrivateKey(wxString::FromUTF8(path), key.get(), certificate.get()))
            << path;
        EXPECT_FALSE(WriteBootstrapCredentials(wxString::FromUTF8(path))) << path;
    }
    EXPECT_EQ(ReadFile(file), "kept");
    EXPECT_EQ(GetPrivateKey(static_cast<BIO*>(nullptr), nullptr, nullptr), nullptr);
}

}  // namespace
