// Arbitrary bytes as a sealed blob. The facts are fixed, and the seeds were
// sealed with them (and with some of them changed or missing), so that the
// wrapped keys and the data are reached as well as the header.
//
// Besides crashes and sanitizer reports, it checks what an opened blob gives:
// data no longer than the blob, and a blob that opens still opens when sealed
// again, now without the flag.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "hostseal/hostseal.h"

namespace {

// The facts the seeds in fuzz/corpus/hostseal_decrypt were sealed with.
constexpr char kFacts[] =
    "fuzz-machine-id;fuzz-product-uuid;fuzz-root-fs-uuid;02:00:00:00:00:01;fuzz-host";

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("VESK_HOSTSEAL_FACTS", kFacts, 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > (1 << 20))
        return 0;
    int length = static_cast<int>(size);
    int flag = 0;
    void* opened = QX_N_Choose_K_Decrypt(data, &length, &flag);
    if (opened == nullptr)
        return 0;
    if (length < 0 || static_cast<size_t>(length) >= size) {
        fprintf(stderr, "a blob of %zu bytes opened to %d bytes\n", size, length);
        abort();
    }
    const int plainLength = length;
    void* blob = QX_N_Choose_K_Encrypt(opened, &length);
    int again = 0;
    void* reopened = blob != nullptr ? QX_N_Choose_K_Decrypt(blob, &length, &again) : nullptr;
    if (reopened == nullptr || length != plainLength || again != 0 ||
        memcmp(reopened, opened, static_cast<size_t>(length)) != 0) {
        fprintf(stderr, "data from a blob did not survive sealing again\n");
        abort();
    }
    free(reopened);
    free(blob);
    free(opened);
    return 0;
}
