#include "core/common/Credentials.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wx/log.h>

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/common/BootstrapCredentials.h"  // made for each build
#include "core/common/NumberedMessages.h"
#include "core/runtime/LogTrace.h"
#include "hostseal/hostseal.h"

namespace VeskCore {
namespace {

constexpr char kVendorLabel[] = "Q7 PARAMETERS";
constexpr char kVersionHeader[] = "Version: ";
constexpr int kPasswordLength = 128;

struct BioFree {
    void operator()(BIO* bio) const { BIO_free_all(bio); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;

// A block of libhostseal's, wiped and freed however the caller leaves.
struct SealedBlock {
    void* bytes = nullptr;
    int length = 0;
    SealedBlock() = default;
    SealedBlock(const SealedBlock&) = delete;
    SealedBlock& operator=(const SealedBlock&) = delete;
    ~SealedBlock() {
        if (bytes != nullptr) {
            OPENSSL_cleanse(bytes, static_cast<size_t>(length));
            free(bytes);
        }
    }
};

// A PEM block read by PEM_read_bio; its data is wiped before it is freed.
struct PemBlock {
    char* name = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long length = 0;
    PemBlock() = default;
    PemBlock(const PemBlock&) = delete;
    PemBlock& operator=(const PemBlock&) = delete;
    ~PemBlock() { Release(); }
    void Release() {
        if (data != nullptr)
            OPENSSL_cleanse(data, static_cast<size_t>(length));
        OPENSSL_free(name);
        OPENSSL_free(header);
        OPENSSL_free(data);
        name = header = nullptr;
        data = nullptr;
        length = 0;
    }
};

// What the password callback needs, on the stack of GetPrivateKey.
struct PasswordContext {
    bool encrypted = false;
    bool decryptFlag = false;
    unsigned char* parameters = nullptr;
    long parametersLength = 0;
};

// A file for a secret: 0600 and close-on-exec from its creation, and a file
// that was there before is narrowed before it is emptied. Only a regular
// file: a FIFO would hang the writer, a link could lead anywhere. The
// descriptor, or -1.
int OpenSecretFile(const wxString& path) {
    const std::string native = path.utf8_string();
    const int fd =
        open(native.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
    if (fd < 0)
        return -1;
    struct stat info {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || fchmod(fd, 0600) != 0 ||
        ftruncate(fd, 0) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

BioPtr SecretFileBio(const wxString& path) {
    const int fd = OpenSecretFile(path);
    if (fd < 0)
        return nullptr;
    BioPtr bio(BIO_new_fd(fd, BIO_CLOSE));
    if (!bio)
        close(fd);
    return bio;
}

const EVP_CIPHER* FirstKnownCipher() {
    for (const char* name : {"aes-256-cbc", "aes-128-cbc", "des-ede3-cbc", "des-cbc"})
        if (const EVP_CIPHER* cipher = EVP_get_cipherbyname(name))
            return cipher;
    return nullptr;
}

// 128 random bytes in 33..125. False when no random bytes are to be had: a
// password of zeros would be no password at all.
bool MakePassword(unsigned char (&password)[kPasswordLength]) {
    if (RAND_bytes(password, kPasswordLength) != 1)
        return false;
    for (unsigned char& b : password)
        b = static_cast<unsigned char>(b % 93 + 33);
    return true;
}

bool WriteKeyAndPassword(BIO* bio, EVP_PKEY* key, const EVP_CIPHER* cipher,
                         unsigned char (&password)[kPasswordLength]) {
    SealedBlock sealed;
    sealed.length = kPasswordLength;
    sealed.bytes = QX_N_Choose_K_Encrypt(password, &sealed.length);
    if (sealed.bytes == nullptr) {
        // No machine to seal to: the key goes out as it is, which still works.
        wxLogError(NumberedMessage::kKeyNotSealed);
        return PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
    }
    return PEM_write_bio_PrivateKey(bio, key, cipher, password, kPasswordLength, nullptr,
                                    nullptr) == 1 &&
           PEM_write_bio(bio, kVendorLabel, "Version: 1\n",
                         static_cast<const unsigned char*>(sealed.bytes), sealed.length) > 0;
}

enum class Parameters { Missing, Found, Newer };

// Reads the blocks of `bio` up to the vendor block, which stays in `block`;
// every other block is freed on the way. The stream is rewound for the key.
Parameters FindParameters(BIO* bio, PemBlock& block) {
    while (PEM_read_bio(bio, &block.name, &block.header, &block.data, &block.length) == 1) {
        if (strcmp(block.name, kVendorLabel) == 0) {
            const char* header = block.header != nullptr ? block.header : "";
            const size_t prefix = sizeof kVersionHeader - 1;
            const bool newer =
                strncmp(header, kVersionHeader, prefix) == 0 && header[prefix] != '1';
            BIO_reset(bio);
            return newer ? Parameters::Newer : Parameters::Found;
        }
        block.Release();
    }
    // The end of the stream reads as a failure too.
    ERR_clear_error();
    BIO_reset(bio);
    return Parameters::Missing;
}

// OpenSSL's pem_password_cb: the password is the sealed block opened.
int OpenSSLPasswordCallback(char* buffer, int size, int, void* userdata) {
    auto* context = static_cast<PasswordContext*>(userdata);
    if (context == nullptr)
        return 0;
    context->encrypted = true;
    SealedBlock plain;
    plain.length = static_cast<int>(context->parametersLength);
    int flag = 0;
    plain.bytes = QX_N_Choose_K_Decrypt(context->parameters, &plain.length, &flag);
    context->decryptFlag = flag != 0;
    if (plain.bytes == nullptr || size <= 0)
        return 0;
    const int copied = std::min(plain.length, size);
    memcpy(buffer, plain.bytes, static_cast<size_t>(copied));
    return copied;
}

}  // namespace

const char* GetBootstrapCredentials() {
    return VESK_BOOTSTRAP_CREDENTIALS;
}

const char* GetBootstrapFingerprint() {
    return VESK_BOOTSTRAP_FINGERPRINT;
}

const char* GetVendorPemHeader() {
    return kVendorLabel;
}

bool WriteBootstrapCredentials(const wxString& path) {
    BioPtr bio = SecretFileBio(path);
    if (!bio)
        return false;
    const char* text = GetBootstrapCredentials();
    const int length = static_cast<int>(strlen(text));
    return BIO_write(bio.get(), text, length) == length && BIO_flush(bio.get()) == 1;
}

bool EncryptPrivateKey(const wxString& path, EVP_PKEY* key, X509* certificate) {
    if (key == nullptr || certificate == nullptr)
        return false;
    BioPtr bio = SecretFileBio(path);
    if (!bio)
        return false;
    const EVP_CIPHER* cipher = FirstKnownCipher();
    unsigned char password[kPasswordLength];
    if (cipher == nullptr || !MakePassword(password)) {
        wxLogError(NumberedMessage::kKeyNotSealed);
        return false;
    }
    const bool written = PEM_write_bio_X509(bio.get(), certificate) == 1 &&
                         WriteKeyAndPassword(bio.get(), key, cipher, password) &&
                         BIO_flush(bio.get()) == 1;
    OPENSSL_cleanse(password, sizeof password);
    return written;
}

EVP_PKEY* GetPrivateKey(BIO* bio, bool* encrypted, bool* decryptFlag) {
    if (encrypted != nullptr)
        *encrypted = false;
    if (decryptFlag != nullptr)
        *decryptFlag = false;
    if (bio == nullptr)
        return nullptr;
    ERR_clear_error();
    PemBlock block;
    PasswordContext context;
    switch (FindParameters(bio, block)) {
        case Parameters::Newer:
            return nullptr;  // a kind of file this library can't open
        case Parameters::Found:
            context.parameters = block.data;
            context.parametersLength = block.length;
            break;
        case Parameters::Missing:
            break;
    }
    EVP_PKEY* key = PEM_read_bio_PrivateKey(bio, nullptr, OpenSSLPasswordCallback, &context);
    if (encrypted != nullptr)
        *encrypted = context.encrypted;
    if (decryptFlag != nullptr)
        *decryptFlag = context.decryptFlag;
    if (key != nullptr)
        ERR_clear_error();
    return key;
}

EVP_PKEY* GetPrivateKey(const std::string& pem, bool* encrypted, bool* decryptFlag) {
    BioPtr bio(BIO_new_mem_buf(pem.c_str(), -1));
    if (!bio)
        return nullptr;
    return GetPrivateKey(bio.get(), encrypted, decryptFlag);
}

}  // namespace VeskCore

void QX_Fingerprint_Debug(const char* format, ...) {
    if (!VeskCore::LogTraceIsEnabled("FPrint"))
        return;
    if (format == nullptr) {
        VeskCore::LogTrace("FPrint", "%s", "");  // an empty line, as for ""
        return;
    }
    va_list args;
    va_start(args, format);
    VeskCore::LogTraceV("FPrint", format, args);
    va_end(args);
}
