// Sealing and opening a key password (128 bytes) with five readable facts,
// against one AES-256-GCM encryption and decryption of the same bytes: the
// price of the ten derived wrapping keys on each side and of reading the facts.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstdlib>
#include <string>

#include "bench/support/RatioMain.h"
#include "hostseal/hostseal.h"

namespace {

constexpr int kSize = 128;

void BM_SealAndOpen(benchmark::State& state) {
    setenv("VESK_HOSTSEAL_FACTS",
           "3d1219c7c4c5404aaa1f6d2a48adfda4;4C4C4544-0051-3410-8051-B4C04F4E4B32;"
           "0f7e1c2a-5b3d-4e6f-8a9b-0c1d2e3f4a5b;52:54:00:12:34:56;agent-host-01",
           1);
    unsigned char data[kSize];
    RAND_bytes(data, kSize);
    for (auto _ : state) {
        int length = kSize;
        void* blob = QX_N_Choose_K_Encrypt(data, &length);
        int flag = 0;
        void* opened = QX_N_Choose_K_Decrypt(blob, &length, &flag);
        if (opened == nullptr || length != kSize || flag != 0)
            state.SkipWithError("the blob did not open");
        free(blob);
        free(opened);
    }
    unsetenv("VESK_HOSTSEAL_FACTS");
}
BENCHMARK(BM_SealAndOpen)->Unit(benchmark::kMicrosecond);

void BM_AesGcm(benchmark::State& state) {
    unsigned char key[32], nonce[12], data[kSize], sealed[kSize], opened[kSize], tag[16];
    RAND_bytes(key, sizeof key);
    RAND_bytes(data, kSize);
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    for (auto _ : state) {
        int written = 0;
        RAND_bytes(nonce, sizeof nonce);
        bool ok = EVP_EncryptInit_ex(context, EVP_aes_256_gcm(), nullptr, key, nonce) == 1 &&
                  EVP_EncryptUpdate(context, sealed, &written, data, kSize) == 1 &&
                  EVP_EncryptFinal_ex(context, sealed + written, &written) == 1 &&
                  EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_GET_TAG, 16, tag) == 1;
        ok = ok && EVP_DecryptInit_ex(context, EVP_aes_256_gcm(), nullptr, key, nonce) == 1 &&
             EVP_DecryptUpdate(context, opened, &written, sealed, kSize) == 1 &&
             EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_SET_TAG, 16, tag) == 1 &&
             EVP_DecryptFinal_ex(context, opened + written, &written) == 1;
        if (!ok)
            state.SkipWithError("AES-256-GCM failed");
        benchmark::DoNotOptimize(opened);
    }
    EVP_CIPHER_CTX_free(context);
}
BENCHMARK(BM_AesGcm)->Unit(benchmark::kMicrosecond);

}  // namespace

// Forty GCM operations, twenty HKDF derivations and the fetches of both: a
// few dozen times the single encryption and decryption.
VESK_BENCH_RATIO(BM_SealAndOpen, BM_AesGcm, 60.0);
VESK_BENCH_MAIN();
