// Password hashes against libxcrypt's crypt(3) doing the same work: the
// SHA-256 scheme's 5000 rounds and the MD5 scheme's 1000.
#include <benchmark/benchmark.h>
#include <crypt.h>

#include "bench/support/RatioMain.h"
#include "core/common/Crypt.h"

namespace {

const wxString kSalt = wxS("saltsalt");
const wxString kPassword = wxS("correct horse battery staple");

void Ours(benchmark::State& state, const wxChar* type) {
    wxString result;
    for (auto _ : state) {
        VeskCore::MakeVeskHashedPassword(type, kSalt, kPassword, result);
        benchmark::DoNotOptimize(result);
    }
}

void Libxcrypt(benchmark::State& state, const char* setting) {
    crypt_data data{};
    for (auto _ : state)
        benchmark::DoNotOptimize(crypt_r("correct horse battery staple", setting, &data));
}

void BM_HashSha256(benchmark::State& state) {
    Ours(state, wxS("5"));
}
BENCHMARK(BM_HashSha256);

void BM_CryptSha256(benchmark::State& state) {
    Libxcrypt(state, "$5$saltsalt$");
}
BENCHMARK(BM_CryptSha256);

void BM_HashMd5(benchmark::State& state) {
    Ours(state, wxS("1"));
}
BENCHMARK(BM_HashMd5);

void BM_CryptMd5(benchmark::State& state) {
    Libxcrypt(state, "$1$saltsalt$");
}
BENCHMARK(BM_CryptMd5);

}  // namespace

VESK_BENCH_SPEED(BM_HashSha256, BM_CryptSha256, 0.8);
VESK_BENCH_SPEED(BM_HashMd5, BM_CryptMd5, 0.8);
VESK_BENCH_MAIN();
