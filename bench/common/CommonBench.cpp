// The utilities on the paths that carry bulk data: Base64 of large blobs, and
// stream copies, each against the plain library call doing the same work.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>
#include <wx/wfstream.h>

#include <cstdlib>
#include <random>
#include <string>

#include "bench/support/RatioMain.h"
#include "core/common/Base64.h"
#include "core/common/StreamUtil.h"

namespace {

constexpr size_t kMiB = 1 << 20;

const std::string& Payload() {
    static const std::string bytes = [] {
        std::mt19937 random(7);
        std::string data(kMiB, '\0');
        for (char& c : data)
            c = static_cast<char>(random());
        return data;
    }();
    return bytes;
}

const std::string& Encoded() {
    static const std::string text = VeskCore::toBase64StringASCII(Payload(), false);
    return text;
}

void BM_Base64Encode(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(VeskCore::toBase64StringASCII(Payload(), false));
    state.SetBytesProcessed(state.iterations() * kMiB);
}
BENCHMARK(BM_Base64Encode);

void BM_EvpEncodeBlock(benchmark::State& state) {
    const std::string& data = Payload();
    for (auto _ : state) {
        std::string text(4 * ((data.size() + 2) / 3) + 1, '\0');
        const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]),
                                      reinterpret_cast<const unsigned char*>(data.data()),
                                      static_cast<int>(data.size()));
        text.resize(n);
        benchmark::DoNotOptimize(text);
    }
    state.SetBytesProcessed(state.iterations() * kMiB);
}
BENCHMARK(BM_EvpEncodeBlock);

void BM_Base64Decode(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(VeskCore::FromBase64(Encoded().c_str()));
    state.SetBytesProcessed(state.iterations() * kMiB);
}
BENCHMARK(BM_Base64Decode);

void BM_EvpDecodeBlock(benchmark::State& state) {
    const std::string& text = Encoded();
    for (auto _ : state) {
        std::string data(3 * text.size() / 4, '\0');
        const int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(&data[0]),
                                      reinterpret_cast<const unsigned char*>(text.data()),
                                      static_cast<int>(text.size()));
        data.resize(n);
        benchmark::DoNotOptimize(data);
    }
    state.SetBytesProcessed(state.iterations() * kMiB);
}
BENCHMARK(BM_EvpDecodeBlock);

// A 16 MiB file in /tmp, copied file to file; the page cache keeps both in
// memory, so the copy loops themselves are what is measured.
class CopyFiles {
  public:
    CopyFiles() {
        char pattern[] = "/tmp/vesk-bench-XXXXXX";
        dir = mkdtemp(pattern);
        source = dir + "/source";
        target = dir + "/target";
        const int fd = open(source.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        for (int i = 0; i < 16; ++i)
            benchmark::DoNotOptimize(write(fd, Payload().data(), kMiB));
        close(fd);
    }
    ~CopyFiles() {
        unlink(source.c_str());
        unlink(target.c_str());
        rmdir(dir.c_str());
    }
    std::string dir, source, target;
};

constexpr int64_t kCopied = 16 * kMiB;

void BM_CopyStream(benchmark::State& state) {
    CopyFiles files;
    for (auto _ : state) {
        wxFileInputStream in(wxString::FromUTF8(files.source));
        wxFileOutputStream out(wxString::FromUTF8(files.target));
        benchmark::DoNotOptimize(VeskCore::CopyStream(in, out, false, nullptr, nullptr));
    }
    state.SetBytesProcessed(state.iterations() * kCopied);
}
BENCHMARK(BM_CopyStream);

// The same copy by read(2)/write(2) with CopyStream's 2048-byte block.
void BM_ReadWriteLoop(benchmark::State& state) {
    CopyFiles files;
    for (auto _ : state) {
        const int in = open(files.source.c_str(), O_RDONLY);
        const int out = open(files.target.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        char block[2048];
        for (ssize_t got; (got = read(in, block, sizeof block)) > 0;)
            benchmark::DoNotOptimize(write(out, block, static_cast<size_t>(got)));
        close(in);
        close(out);
    }
    state.SetBytesProcessed(state.iterations() * kCopied);
}
BENCHMARK(BM_ReadWriteLoop);

}  // namespace

VESK_BENCH_SPEED(BM_Base64Encode, BM_EvpEncodeBlock, 0.8);
VESK_BENCH_SPEED(BM_Base64Decode, BM_EvpDecodeBlock, 0.8);
VESK_BENCH_SPEED(BM_CopyStream, BM_ReadWriteLoop, 0.9);
VESK_BENCH_MAIN();
