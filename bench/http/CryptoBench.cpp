// Digesting and enciphering as a script drives them: 64 MiB in 64 KiB buffers
// through CEvpMdCtx and CEvpCipherCtx, against the EVP calls on the same
// bytes; and many short digests, where the wrapper's once-fetched digest
// meets OpenSSL's lookup of EVP_sha256() at every init.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "bench/support/RatioMain.h"
#include "core/http/EvpCipherCtx.h"
#include "core/http/EvpMdCtx.h"
#include "core/lua/LuaInterpreter.h"
#include "core/runtime/vesk_core.h"

namespace {

using VeskCore::CEvpCipherCtx;
using VeskCore::CEvpMdCtx;

constexpr size_t kPiece = 64u << 10;
constexpr size_t kTotal = 64u << 20;
constexpr size_t kShort = 64;
constexpr int kShortDigests = 10000;

wxMemoryBuffer Bytes(size_t size, char fill) {
    wxMemoryBuffer buffer;
    buffer.AppendData(std::string(size, fill).data(), size);
    return buffer;
}

// A script's piece reaches the wrapper as a buffer the Lua layer made before
// the call: the wrapper's cost starts at the call.
const wxMemoryBuffer& Piece() {
    static const wxMemoryBuffer piece = Bytes(kPiece, 'v');
    return piece;
}

void BM_Sha256Wrapper(benchmark::State& state) {
    const EVP_MD* sha256 = CEvpMdCtx::GetDigestByName("sha256");
    for (auto _ : state) {
        CEvpMdCtx context;
        context.DigestInit(sha256);
        for (size_t done = 0; done < kTotal; done += kPiece)
            context.DigestUpdate(Piece());
        benchmark::DoNotOptimize(context.DigestFinal());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal));
}

void BM_Sha256Evp(benchmark::State& state) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    for (auto _ : state) {
        EVP_MD_CTX* context = EVP_MD_CTX_new();
        EVP_DigestInit_ex(context, EVP_sha256(), nullptr);
        for (size_t done = 0; done < kTotal; done += kPiece)
            EVP_DigestUpdate(context, Piece().GetData(), kPiece);
        EVP_DigestFinal_ex(context, digest, nullptr);
        EVP_MD_CTX_free(context);
        benchmark::DoNotOptimize(digest);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal));
}

void BM_Aes256CbcWrapper(benchmark::State& state) {
    const EVP_CIPHER* cipher = CEvpCipherCtx::GetCipherByName("aes-256-cbc");
    const wxMemoryBuffer key = Bytes(32, 'k'), iv = Bytes(16, 'i');
    for (auto _ : state) {
        CEvpCipherCtx context;
        context.CipherInit(cipher, key, iv, true);
        for (size_t done = 0; done < kTotal; done += kPiece)
            benchmark::DoNotOptimize(context.EncryptUpdate(Piece()));
        benchmark::DoNotOptimize(context.EncryptFinal());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal));
}

void BM_Aes256CbcEvp(benchmark::State& state) {
    const std::string key(32, 'k'), iv(16, 'i');
    std::vector<unsigned char> out(kPiece + EVP_MAX_BLOCK_LENGTH);
    for (auto _ : state) {
        EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
        EVP_CipherInit_ex(context, EVP_aes_256_cbc(), nullptr,
                          reinterpret_cast<const unsigned char*>(key.data()),
                          reinterpret_cast<const unsigned char*>(iv.data()), 1);
        int written = 0;
        for (size_t done = 0; done < kTotal; done += kPiece)
            EVP_CipherUpdate(context, out.data(), &written,
                             static_cast<const unsigned char*>(Piece().GetData()), kPiece);
        EVP_CipherFinal_ex(context, out.data(), &written);
        EVP_CIPHER_CTX_free(context);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal));
}

void BM_ShortSha256Wrapper(benchmark::State& state) {
    const EVP_MD* sha256 = CEvpMdCtx::GetDigestByName("sha256");
    const wxMemoryBuffer message = Bytes(kShort, 'm');
    CEvpMdCtx context;
    for (auto _ : state)
        for (int i = 0; i < kShortDigests; ++i) {
            context.DigestInit(sha256);
            context.DigestUpdate(message);
            benchmark::DoNotOptimize(context.DigestFinal());
        }
}

void BM_ShortSha256EvpByName(benchmark::State& state) {
    const std::string message(kShort, 'm');
    unsigned char digest[EVP_MAX_MD_SIZE];
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    for (auto _ : state)
        for (int i = 0; i < kShortDigests; ++i) {
            EVP_DigestInit_ex(context, EVP_sha256(), nullptr);
            EVP_DigestUpdate(context, message.data(), kShort);
            EVP_DigestFinal_ex(context, digest, nullptr);
            benchmark::DoNotOptimize(digest);
        }
    EVP_MD_CTX_free(context);
}

// The same work as a script does it: the binder's calls, the Lua strings
// turned into buffers, one piece at a time.
void FromLua(benchmark::State& state, const char* chunk) {
    VeskCore_Init();
    VeskCore::CLuaInterpreter lua(false, nullptr, true);
    const wxString setup = wxString::FromUTF8(
        "piece = string.rep('v', 65536)\n"
        "sha256 = SLB.ssl.EvpMdCtx.GetDigestByName('sha256')\n"
        "aes = SLB.ssl.EvpCipherCtx.GetCipherByName('aes-256-cbc')\n"
        "key, iv = string.rep('k', 32), string.rep('i', 16)\n");
    lua.RunScript(setup, 0, 0, wxS("setup"), nullptr);
    const wxString run = wxString::FromUTF8(chunk);
    for (auto _ : state)
        lua.RunScript(run, 0, 0, wxS("bench"), nullptr);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal));
}

void BM_Sha256FromLua(benchmark::State& state) {
    FromLua(state,
            "local md = SLB.ssl.EvpMdCtx() md:DigestInit(sha256)\n"
            "for i = 1, 1024 do md:DigestUpdate(piece) end\n"
            "md:DigestFinal()");
}

void BM_Aes256CbcFromLua(benchmark::State& state) {
    FromLua(state,
            "local c = SLB.ssl.EvpCipherCtx() c:CipherInit(aes, key, iv, true)\n"
            "for i = 1, 1024 do c:EncryptUpdate(piece) end\n"
            "c:EncryptFinal()");
}

BENCHMARK(BM_Sha256FromLua)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Aes256CbcFromLua)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Sha256Wrapper)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Sha256Evp)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Aes256CbcWrapper)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Aes256CbcEvp)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ShortSha256Wrapper)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ShortSha256EvpByName)->Unit(benchmark::kMillisecond);

}  // namespace

VESK_BENCH_SPEED(BM_Sha256FromLua, BM_Sha256Evp, 0.9);
VESK_BENCH_SPEED(BM_Aes256CbcFromLua, BM_Aes256CbcEvp, 0.9);
VESK_BENCH_SPEED(BM_Sha256Wrapper, BM_Sha256Evp, 0.9);
VESK_BENCH_SPEED(BM_Aes256CbcWrapper, BM_Aes256CbcEvp, 0.9);
VESK_BENCH_SPEED(BM_ShortSha256Wrapper, BM_ShortSha256EvpByName, 1.0);

VESK_BENCH_MAIN();
