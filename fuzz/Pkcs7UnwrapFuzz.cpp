// Arbitrary bytes as a package from the manager. The key, certificate and
// signer are the ones the seed packages were made for, so that decryption,
// inflation and verification are reached as well as parsing.
#include <openssl/err.h>
#include <openssl/pem.h>
#include <wx/log.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "core/http/OpenSslUtil.h"

namespace {

struct Credentials {
    EVP_PKEY* key = nullptr;
    X509* certificate = nullptr;
};

Credentials Load() {
    Credentials loaded;
    if (FILE* file = fopen(VESK_FUZZ_KEYS "/key.pem", "r")) {
        loaded.key = PEM_read_PrivateKey(file, nullptr, nullptr, nullptr);
        fclose(file);
    }
    if (FILE* file = fopen(VESK_FUZZ_KEYS "/cert.pem", "r")) {
        loaded.certificate = PEM_read_X509(file, nullptr, nullptr, nullptr);
        fclose(file);
    }
    return loaded;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    wxLog::EnableLogging(false);  // every rejected input logs its reason
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const Credentials credentials = Load();
    const std::string package(reinterpret_cast<const char*>(data), size);
    std::string content;
    std::string digest;
    std::string error;
    // Half the inputs are opened with a signer to verify against, half without.
    X509* signer = size % 2 == 0 ? credentials.certificate : nullptr;
    VeskCore::PKCS7_Unwrap(package, content, digest, error, credentials.key,
                           credentials.certificate, signer);
    ERR_clear_error();
    return 0;
}
