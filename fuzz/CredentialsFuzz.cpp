// Arbitrary bytes as credentials. Even-sized inputs are whole PEM texts; odd
// ones are the sealed password of an activated file whose key is the fuzz
// key (encrypted when the fuzzer starts), so that unsealing and the password
// callback are reached as well as the PEM scan. The machine is the one the
// seeds of fuzz/corpus/hostseal_decrypt were sealed on.
#include <openssl/pem.h>
#include <unistd.h>
#include <wx/log.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "core/common/Base64.h"
#include "core/common/Credentials.h"

namespace {

constexpr char kFacts[] =
    "fuzz-machine-id;fuzz-product-uuid;fuzz-root-fs-uuid;02:00:00:00:00:01;fuzz-host";

// The activated file's text up to its vesk block.
std::string ActivatedPrefix() {
    EVP_PKEY* key = nullptr;
    X509* certificate = nullptr;
    if (FILE* file = fopen(VESK_FUZZ_KEYS "/key.pem", "r")) {
        key = PEM_read_PrivateKey(file, nullptr, nullptr, nullptr);
        fclose(file);
    }
    if (FILE* file = fopen(VESK_FUZZ_KEYS "/cert.pem", "r")) {
        certificate = PEM_read_X509(file, nullptr, nullptr, nullptr);
        fclose(file);
    }
    char path[] = "/tmp/vesk-fuzz-credentials-XXXXXX";
    const int fd = mkstemp(path);
    if (fd >= 0)
        close(fd);
    VeskCore::EncryptPrivateKey(wxString::FromUTF8(path), key, certificate);
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    unlink(path);
    EVP_PKEY_free(key);
    X509_free(certificate);
    const std::string pem = text.str();
    return pem.substr(0, pem.find("-----BEGIN Q7 PARAMETERS-----"));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    wxLog::EnableLogging(false);
    setenv("VESK_HOSTSEAL_FACTS", kFacts, 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string prefix = ActivatedPrefix();
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const std::string pem = size % 2 == 0
                                ? bytes
                                : prefix + "-----BEGIN Q7 PARAMETERS-----\nVersion: 1\n\n" +
                                      VeskCore::toBase64StringASCII(bytes, true) +
                                      "-----END Q7 PARAMETERS-----\n";
    bool encrypted = false;
    bool flag = false;
    EVP_PKEY_free(VeskCore::GetPrivateKey(pem, &encrypted, &flag));
    return 0;
}
